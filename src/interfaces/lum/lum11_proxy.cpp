#include "interfaces/lum/lum11_proxy.h"

#include <utility>

#include "interfaces/lum/lum_catalog.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::
    proxy {

namespace {

methods::SessionInput session(const std::string& accessID, uint16_t domainRepairInstructionID) {
  return methods::SessionInput{accessID, domainRepairInstructionID};
}

}  // namespace

using Proxy = DiagLocalUpdateManagerControlProxy;

mw::Result<mw::FindServiceHandle> Proxy::StartFindService(mw::FindServiceHandler handler,
                                                          const mw::InstanceSpecifier& instance,
                                                          mw::Binding* binding) {
  return mw::Proxy::StartFindService(std::move(handler), orv::lum::kInterfaceV11, instance,
                                     binding);
}

void Proxy::StopFindService(mw::FindServiceHandle handle, mw::Binding* binding) {
  mw::Proxy::StopFindService(handle, binding);
}

mw::Result<std::unique_ptr<Proxy>> Proxy::Create(const HandleType& handle, mw::Binding* binding) {
  auto created = mw::Proxy::Create(handle, binding);
  if (!created)
    return mw::Error{created.error(), created.errorMessage()};
  return std::make_unique<Proxy>(std::move(created).value());
}

Proxy::DiagLocalUpdateManagerControlProxy(std::unique_ptr<mw::Proxy> proxy)
    : proxy_(std::move(proxy)),
      domainReadyForDownloadNotification(
          proxy_->event<events::DomainReadyForDownloadNotification>()),
      domainReadyForUpdateNotification(proxy_->event<events::DomainReadyForUpdateNotification>()),
      domainUpdateFinishedNotification(proxy_->event<events::DomainUpdateFinishedNotification>()),
      domainOffTimeNotification(proxy_->event<events::DomainOffTimeNotification>()),
      debugMessageNotification(proxy_->event<events::DebugMessageNotification>()),
      resolveUpdateURLRequest(proxy_->event<events::ResolveUpdateURLRequest>()),
      domainErrorNotification(proxy_->event<events::DomainErrorNotification>()) {}

mw::Result<void> Proxy::updateURLResponse(const UpdateUrlResponseStruct& updateUrlResponse) {
  return proxy_->fireAndForget<methods::UpdateURLResponse>({updateUrlResponse});
}

mw::Future<methods::CreateDomainUpdateSession::Output> Proxy::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const createDomainUpdateSession_manifestInformation& manifestInformation,
    const createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const DownloadSource& downloadSource,
    const createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    CM_SessionType sessionType) {
  return proxy_->call<methods::CreateDomainUpdateSession>(
      {accessID, vehicleRepairInstructionID, updateOrderLink, manifestInformation, cryptoParameters,
       downloadSource, diagnosticAddress, sessionType});
}

mw::Future<methods::GetDomainUpdateSessionState::Output> Proxy::getDomainUpdateSessionState(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainUpdateSessionState>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::StartDomainUpdateDownload::Output> Proxy::startDomainUpdateDownload(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::StartDomainUpdateDownload>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetDomainUpdateDownloadProgress::Output> Proxy::getDomainUpdateDownloadProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainUpdateDownloadProgress>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::StartDomainUpdate::Output> Proxy::startDomainUpdate(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::StartDomainUpdate>(session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetDomainUpdateProgress::Output> Proxy::getDomainUpdateProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainUpdateProgress>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::CancelDomainUpdate::Output> Proxy::cancelDomainUpdate(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::CancelDomainUpdate>(session(accessID, domainRepairInstructionID));
}

mw::Future<methods::SetDebugInstruction::Output> Proxy::setDebugInstruction(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& debugInstructionID, const std::string& debugInstruction) {
  return proxy_->call<methods::SetDebugInstruction>(
      {accessID, domainRepairInstructionID, debugInstructionID, debugInstruction});
}

mw::Future<methods::GetDomainConfiguration::Output> Proxy::getDomainConfiguration(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainConfiguration>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetDomainDownloadInfo::Output> Proxy::getDomainDownloadInfo(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainDownloadInfo>(session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetDomainUpdateInfo::Output> Proxy::getDomainUpdateInfo(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainUpdateInfo>(session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetDomainUpdateResult::Output> Proxy::getDomainUpdateResult(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::GetDomainUpdateResult>(session(accessID, domainRepairInstructionID));
}

mw::Future<methods::CloseDomainUpdateSession::Output> Proxy::closeDomainUpdateSession(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::CloseDomainUpdateSession>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::AckDomainOffTimeNotification::Output> Proxy::ackDomainOffTimeNotification(
    uint16_t domainRepairInstructionID, uint32_t timeout) {
  return proxy_->call<methods::AckDomainOffTimeNotification>({domainRepairInstructionID, timeout});
}

mw::Future<methods::CheckProgrammingPreconditions::Output> Proxy::checkProgrammingPreconditions(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  return proxy_->call<methods::CheckProgrammingPreconditions>(
      session(accessID, domainRepairInstructionID));
}

mw::Future<methods::GetServiceDescription::Output> Proxy::getServiceDescription() {
  return proxy_->call<methods::GetServiceDescription>({});
}

mw::Future<methods::UpdateClientDownloadFinished::Output> Proxy::updateClientDownloadFinished(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& downloadPath) {
  return proxy_->call<methods::UpdateClientDownloadFinished>(
      {accessID, domainRepairInstructionID, downloadPath});
}

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::proxy

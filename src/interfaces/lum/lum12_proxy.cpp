#include "interfaces/lum/lum12_proxy.h"

#include <utility>

#include "interfaces/lum/lum_catalog.h"

namespace zor::services::diaglocalupdatemanagercontrol::proxy {

namespace {

methods::SessionInput session(const std::string& accessID, uint16_t domainRepairInstructionID) {
  return methods::SessionInput{accessID, domainRepairInstructionID};
}

}  // namespace

using Proxy = DiagLocalUpdateManagerControlProxy;

mw::Result<mw::FindServiceHandle> Proxy::StartFindService(mw::FindServiceHandler handler,
                                                          const mw::InstanceSpecifier& instance,
                                                          mw::Binding* binding) {
  return mw::Proxy::StartFindService(std::move(handler), orv::lum::kInterfaceV12, instance,
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
      domainUpdateSessionState(proxy_->field<fields::DomainUpdateSessionState>()),
      domainOffTimeNotification(proxy_->field<fields::DomainOffTimeNotification>()),
      debugMessageNotification(proxy_->field<fields::DebugMessageNotification>()),
      resolveUpdateURLRequest(proxy_->field<fields::ResolveUpdateURLRequest>()),
      domainErrorNotification(proxy_->field<fields::DomainErrorNotification>()) {}

mw::Result<void> Proxy::updateUrlResponse(const UpdateUrlResponseStruct& updateUrlResponse) {
  return proxy_->fireAndForget<methods::UpdateUrlResponse>({updateUrlResponse});
}

mw::Future<methods::CreateDomainUpdateSession::Output> Proxy::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const createDomainUpdateSession_manifestInformation& manifestInformation,
    const createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const DT_DownloadSource& downloadSource,
    const createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType sessionType) {
  return proxy_->call<methods::CreateDomainUpdateSession>(
      {accessID, vehicleRepairInstructionID, updateOrderLink, manifestInformation, cryptoParameters,
       downloadSource, diagnosticAddress, sessionType});
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

}  // namespace zor::services::diaglocalupdatemanagercontrol::proxy

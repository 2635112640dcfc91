#pragma once
// Typed client of the LUM control interface, version 11: one member function per operation
// (inputs as arguments in interface order, the answer as a Future of the operation's Output) and
// one event object per event. A thin layer over the generic middleware proxy; marshalling is the
// descriptors' marshal().
//
// Threading: thread-safe, as middleware::Proxy (calls may overlap from several threads). The
// event objects are thread-safe; their receive handlers run on a binding thread.

#include <cstdint>
#include <memory>
#include <string>

#include "interfaces/lum/lum11_interface.h"
#include "platform/middleware/proxy.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::
    proxy {

namespace mw = platform::middleware;

class DiagLocalUpdateManagerControlProxy {
 public:
  using HandleType = mw::ServiceHandle;

  // Discovery of version-11 instances; `handler` runs on a binding thread with every change.
  static mw::Result<mw::FindServiceHandle> StartFindService(mw::FindServiceHandler handler,
                                                            const mw::InstanceSpecifier& instance,
                                                            mw::Binding* binding = nullptr);
  static void StopFindService(mw::FindServiceHandle handle, mw::Binding* binding = nullptr);
  static mw::Result<std::unique_ptr<DiagLocalUpdateManagerControlProxy>> Create(
      const HandleType& handle, mw::Binding* binding = nullptr);

  explicit DiagLocalUpdateManagerControlProxy(std::unique_ptr<mw::Proxy> proxy);
  DiagLocalUpdateManagerControlProxy(const DiagLocalUpdateManagerControlProxy&) = delete;
  DiagLocalUpdateManagerControlProxy& operator=(const DiagLocalUpdateManagerControlProxy&) = delete;

  const HandleType& GetHandle() const { return proxy_->GetHandle(); }

  // Fire-and-forget: the result only says whether the request could be sent.
  mw::Result<void> updateURLResponse(const UpdateUrlResponseStruct& updateUrlResponse);
  mw::Future<methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const createDomainUpdateSession_manifestInformation& manifestInformation,
      const createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const DownloadSource& downloadSource,
      const createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      CM_SessionType sessionType);
  mw::Future<methods::GetDomainUpdateSessionState::Output> getDomainUpdateSessionState(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::StartDomainUpdateDownload::Output> startDomainUpdateDownload(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetDomainUpdateDownloadProgress::Output> getDomainUpdateDownloadProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::StartDomainUpdate::Output> startDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetDomainUpdateProgress::Output> getDomainUpdateProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::CancelDomainUpdate::Output> cancelDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::SetDebugInstruction::Output> setDebugInstruction(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& debugInstructionID, const std::string& debugInstruction);
  mw::Future<methods::GetDomainConfiguration::Output> getDomainConfiguration(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetDomainDownloadInfo::Output> getDomainDownloadInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetDomainUpdateInfo::Output> getDomainUpdateInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetDomainUpdateResult::Output> getDomainUpdateResult(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::CloseDomainUpdateSession::Output> closeDomainUpdateSession(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::AckDomainOffTimeNotification::Output> ackDomainOffTimeNotification(
      uint16_t domainRepairInstructionID, uint32_t timeout);
  mw::Future<methods::CheckProgrammingPreconditions::Output> checkProgrammingPreconditions(
      const std::string& accessID, uint16_t domainRepairInstructionID);
  mw::Future<methods::GetServiceDescription::Output> getServiceDescription();
  mw::Future<methods::UpdateClientDownloadFinished::Output> updateClientDownloadFinished(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& downloadPath);

 private:
  // Declared first: the event references below point into it.
  std::unique_ptr<mw::Proxy> proxy_;

 public:
  // Subscribe / SetReceiveHandler / GetNewSamples / Unsubscribe of each event.
  mw::ProxyEvent<events::DomainReadyForDownloadNotification>& domainReadyForDownloadNotification;
  mw::ProxyEvent<events::DomainReadyForUpdateNotification>& domainReadyForUpdateNotification;
  mw::ProxyEvent<events::DomainUpdateFinishedNotification>& domainUpdateFinishedNotification;
  mw::ProxyEvent<events::DomainOffTimeNotification>& domainOffTimeNotification;
  mw::ProxyEvent<events::DebugMessageNotification>& debugMessageNotification;
  mw::ProxyEvent<events::ResolveUpdateURLRequest>& resolveUpdateURLRequest;
  mw::ProxyEvent<events::DomainErrorNotification>& domainErrorNotification;
};

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::proxy

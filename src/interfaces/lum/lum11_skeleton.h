#pragma once
// Typed server of the LUM control interface, version 11 (the LUM simulator offers it): one pure
// virtual per operation (inputs as arguments in interface order, the answer as a Future of the
// operation's Output, answered at once with Future::ready or later through a kept Promise) and
// one send member per event. A thin layer over the generic middleware skeleton.
//
// Threading: the operations run on a binding thread, one request at a time; the send members,
// OfferService and StopOfferService may be called from any thread. The handlers call the
// subclass, so a subclass calls StopOfferService() in its destructor, before its own members go.

#include <cstdint>
#include <memory>
#include <string>

#include "interfaces/lum/lum11_interface.h"
#include "platform/middleware/skeleton.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::
    skeleton {

namespace mw = platform::middleware;

class DiagLocalUpdateManagerControlSkeleton {
 public:
  // An instance the configuration does not know is logged; OfferService then fails.
  explicit DiagLocalUpdateManagerControlSkeleton(const mw::InstanceSpecifier& instance,
                                                 mw::Binding* binding = nullptr);
  virtual ~DiagLocalUpdateManagerControlSkeleton();
  DiagLocalUpdateManagerControlSkeleton(const DiagLocalUpdateManagerControlSkeleton&) = delete;
  DiagLocalUpdateManagerControlSkeleton& operator=(const DiagLocalUpdateManagerControlSkeleton&) =
      delete;

  // Registers the operations and offers the service.
  mw::Result<void> OfferService();
  void StopOfferService();

  // Events: each sends one sample to every subscriber.
  mw::Result<void> sendDomainReadyForDownloadNotification(
      const ReadyForDownloadInfo& readyForDownloadInfo, uint16_t domainRepairInstructionID);
  mw::Result<void> sendDomainReadyForUpdateNotification(
      const ReadyForUpdateInfo& readyForUpdateInfo, uint16_t domainRepairInstructionID);
  mw::Result<void> sendDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID);
  mw::Result<void> sendDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                                 uint16_t timeout);
  mw::Result<void> sendDebugMessageNotification(const DebugMessageInfo& debugMessageInfo);
  mw::Result<void> sendResolveUpdateURLRequest(const resolveUpdateURLRequest_fileNames& fileNames,
                                               CM_FileType fileType,
                                               const DT_uuid& updateURLRequestID);
  mw::Result<void> sendDomainErrorNotification(uint16_t domainRepairInstructionID,
                                               uint32_t errorCode);

  // Fire-and-forget: nothing is answered.
  virtual void updateURLResponse(const UpdateUrlResponseStruct& updateUrlResponse) = 0;
  virtual mw::Future<methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const createDomainUpdateSession_manifestInformation& manifestInformation,
      const createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const DownloadSource& downloadSource,
      const createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      CM_SessionType sessionType) = 0;
  virtual mw::Future<methods::GetDomainUpdateSessionState::Output> getDomainUpdateSessionState(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::StartDomainUpdateDownload::Output> startDomainUpdateDownload(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetDomainUpdateDownloadProgress::Output>
  getDomainUpdateDownloadProgress(const std::string& accessID,
                                  uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::StartDomainUpdate::Output> startDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetDomainUpdateProgress::Output> getDomainUpdateProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::CancelDomainUpdate::Output> cancelDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::SetDebugInstruction::Output> setDebugInstruction(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& debugInstructionID, const std::string& debugInstruction) = 0;
  virtual mw::Future<methods::GetDomainConfiguration::Output> getDomainConfiguration(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetDomainDownloadInfo::Output> getDomainDownloadInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetDomainUpdateInfo::Output> getDomainUpdateInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetDomainUpdateResult::Output> getDomainUpdateResult(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::CloseDomainUpdateSession::Output> closeDomainUpdateSession(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::AckDomainOffTimeNotification::Output> ackDomainOffTimeNotification(
      uint16_t domainRepairInstructionID, uint32_t timeout) = 0;
  virtual mw::Future<methods::CheckProgrammingPreconditions::Output> checkProgrammingPreconditions(
      const std::string& accessID, uint16_t domainRepairInstructionID) = 0;
  virtual mw::Future<methods::GetServiceDescription::Output> getServiceDescription() = 0;
  virtual mw::Future<methods::UpdateClientDownloadFinished::Output> updateClientDownloadFinished(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& downloadPath) = 0;

 private:
  mw::Result<void> registerHandlers();
  template <typename E>
  mw::Result<void> send(const typename E::Sample& sample);

  std::unique_ptr<mw::Skeleton> skeleton_;  // null when it could not be made
};

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::skeleton

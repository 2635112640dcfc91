#pragma once
// Typed server of the LUM control interface, version 12 (orvane offers it to the diagnostic
// master): one pure virtual per operation (inputs as arguments in interface order, the answer as
// a Future of the operation's Output, answered at once or later through a kept Promise) and the
// five fields. A field's Update stores its value and notifies the subscribers; getters are
// answered by the binding with the last updated value. A thin layer over the generic middleware
// skeleton.
//
// Threading: the operations run on a binding thread, one request at a time; Update,
// OfferService and StopOfferService may be called from any thread. The handlers call the
// subclass, so a subclass calls StopOfferService() in its destructor, before its own members go.

#include <cstdint>
#include <memory>
#include <string>

#include "interfaces/lum/lum12_interface.h"
#include "platform/middleware/skeleton.h"

namespace zor::services::diaglocalupdatemanagercontrol::skeleton {

namespace mw = platform::middleware;

// One field of the offered service.
template <typename F>
class SkeletonField {
 public:
  using Value = typename F::Value;
  explicit SkeletonField(mw::Skeleton* skeleton) : skeleton_(skeleton) {}
  mw::Result<void> Update(const Value& value) {
    if (!skeleton_)
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, "no skeleton");
    return skeleton_->field<F>().Update(value);
  }

 private:
  mw::Skeleton* const skeleton_;  // null when the skeleton could not be made
};

class DiagLocalUpdateManagerControl {
 public:
  // An instance the configuration does not know is logged; OfferService then fails.
  explicit DiagLocalUpdateManagerControl(const mw::InstanceSpecifier& instance,
                                         mw::Binding* binding = nullptr);
  virtual ~DiagLocalUpdateManagerControl();
  DiagLocalUpdateManagerControl(const DiagLocalUpdateManagerControl&) = delete;
  DiagLocalUpdateManagerControl& operator=(const DiagLocalUpdateManagerControl&) = delete;

  // Registers the operations and offers the service.
  mw::Result<void> OfferService();
  void StopOfferService();

  virtual void updateUrlResponse(const UpdateUrlResponseStruct& updateUrlResponse) = 0;
  virtual mw::Future<methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const createDomainUpdateSession_manifestInformation& manifestInformation,
      const createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const DT_DownloadSource& downloadSource,
      const createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType sessionType) = 0;
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

  // Declared before the fields, which point into it.
  std::unique_ptr<mw::Skeleton> skeleton_;  // null when it could not be made

 public:
  SkeletonField<fields::DomainUpdateSessionState> domainUpdateSessionState;
  SkeletonField<fields::DomainOffTimeNotification> domainOffTimeNotification;
  SkeletonField<fields::DebugMessageNotification> debugMessageNotification;
  SkeletonField<fields::ResolveUpdateURLRequest> resolveUpdateURLRequest;
  SkeletonField<fields::DomainErrorNotification> domainErrorNotification;
};

}  // namespace zor::services::diaglocalupdatemanagercontrol::skeleton

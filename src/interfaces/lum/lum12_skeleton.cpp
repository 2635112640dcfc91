#include "interfaces/lum/lum12_skeleton.h"

#include <utility>

#include "interfaces/lum/lum_catalog.h"
#include "minfw/log.h"

namespace zor::services::diaglocalupdatemanagercontrol::skeleton {

namespace {

constexpr const char* kTag = "LUM12";

std::unique_ptr<mw::Skeleton> make(const mw::InstanceSpecifier& instance, mw::Binding* binding) {
  auto created = mw::Skeleton::Create(orv::lum::kInterfaceV12, instance, binding);
  if (!created) {
    MLOG_ERROR(kTag, "cannot make the skeleton of ", orv::lum::kInterfaceV12, " [",
               instance.ToString(), "]: ", mw::toString(created.error()), " ",
               created.errorMessage());
    return nullptr;
  }
  return std::move(created).value();
}

}  // namespace

using Skeleton = DiagLocalUpdateManagerControl;

Skeleton::DiagLocalUpdateManagerControl(const mw::InstanceSpecifier& instance, mw::Binding* binding)
    : skeleton_(make(instance, binding)),
      domainUpdateSessionState(skeleton_.get()),
      domainOffTimeNotification(skeleton_.get()),
      debugMessageNotification(skeleton_.get()),
      resolveUpdateURLRequest(skeleton_.get()),
      domainErrorNotification(skeleton_.get()) {}

Skeleton::~DiagLocalUpdateManagerControl() = default;

mw::Result<void> Skeleton::OfferService() {
  if (!skeleton_)
    return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, "no skeleton");
  auto registered = registerHandlers();
  if (!registered)
    return registered;
  return skeleton_->OfferService();
}

void Skeleton::StopOfferService() {
  if (skeleton_)
    skeleton_->StopOfferService();
}

mw::Result<void> Skeleton::registerHandlers() {
  using namespace methods;
  // Stops at the first member the binding refuses.
  mw::Result<void> r = skeleton_->handleFireAndForget<UpdateUrlResponse>(
      [this](const UpdateUrlResponse::Input& in) { updateUrlResponse(in.updateUrlResponse); });
  if (r)
    r = skeleton_->handle<CreateDomainUpdateSession>(
        [this](const CreateDomainUpdateSession::Input& in) {
          return createDomainUpdateSession(in.accessID, in.vehicleRepairInstructionID,
                                           in.updateOrderLink, in.manifestInformation,
                                           in.cryptoParameters, in.downloadSource,
                                           in.diagnosticAddress, in.sessionType);
        });
  if (r)
    r = skeleton_->handle<StartDomainUpdateDownload>([this](const SessionInput& in) {
      return startDomainUpdateDownload(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<GetDomainUpdateDownloadProgress>([this](const SessionInput& in) {
      return getDomainUpdateDownloadProgress(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<StartDomainUpdate>([this](const SessionInput& in) {
      return startDomainUpdate(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<GetDomainUpdateProgress>([this](const SessionInput& in) {
      return getDomainUpdateProgress(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<CancelDomainUpdate>([this](const SessionInput& in) {
      return cancelDomainUpdate(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<SetDebugInstruction>([this](const SetDebugInstruction::Input& in) {
      return setDebugInstruction(in.accessID, in.domainRepairInstructionID, in.debugInstructionID,
                                 in.debugInstruction);
    });
  if (r)
    r = skeleton_->handle<GetDomainConfiguration>([this](const SessionInput& in) {
      return getDomainConfiguration(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<GetDomainUpdateResult>([this](const SessionInput& in) {
      return getDomainUpdateResult(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<CloseDomainUpdateSession>([this](const SessionInput& in) {
      return closeDomainUpdateSession(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<AckDomainOffTimeNotification>(
        [this](const AckDomainOffTimeNotification::Input& in) {
          return ackDomainOffTimeNotification(in.domainRepairInstructionID, in.timeout);
        });
  if (r)
    r = skeleton_->handle<CheckProgrammingPreconditions>([this](const SessionInput& in) {
      return checkProgrammingPreconditions(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<GetServiceDescription>(
        [this](const Empty&) { return getServiceDescription(); });
  if (r)
    r = skeleton_->handle<UpdateClientDownloadFinished>(
        [this](const UpdateClientDownloadFinished::Input& in) {
          return updateClientDownloadFinished(in.accessID, in.domainRepairInstructionID,
                                              in.downloadPath);
        });
  if (!r)
    MLOG_ERROR(kTag, "cannot serve ", orv::lum::kInterfaceV12, ": ", mw::toString(r.error()), " ",
               r.errorMessage());
  return r;
}

}  // namespace zor::services::diaglocalupdatemanagercontrol::skeleton

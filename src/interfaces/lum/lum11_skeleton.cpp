#include "interfaces/lum/lum11_skeleton.h"

#include <utility>

#include "interfaces/lum/lum_catalog.h"
#include "minfw/log.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::
    skeleton {

namespace {

constexpr const char* kTag = "LUM11";

template <typename M>
using Answer = mw::Future<typename M::Output>;

}  // namespace

using Skeleton = DiagLocalUpdateManagerControlSkeleton;

Skeleton::DiagLocalUpdateManagerControlSkeleton(const mw::InstanceSpecifier& instance,
                                                mw::Binding* binding) {
  auto created = mw::Skeleton::Create(orv::lum::kInterfaceV11, instance, binding);
  if (!created) {
    MLOG_ERROR(kTag, "cannot make the skeleton of ", orv::lum::kInterfaceV11, " [",
               instance.ToString(), "]: ", mw::toString(created.error()), " ",
               created.errorMessage());
    return;
  }
  skeleton_ = std::move(created).value();
}

Skeleton::~DiagLocalUpdateManagerControlSkeleton() = default;

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
  mw::Result<void> r = skeleton_->handleFireAndForget<UpdateURLResponse>(
      [this](const UpdateURLResponse::Input& in) { updateURLResponse(in.updateUrlResponse); });
  if (r)
    r = skeleton_->handle<CreateDomainUpdateSession>(
        [this](const CreateDomainUpdateSession::Input& in) {
          return createDomainUpdateSession(in.accessID, in.vehicleRepairInstructionID,
                                           in.updateOrderLink, in.manifestInformation,
                                           in.cryptoParameters, in.downloadSource,
                                           in.diagnosticAddress, in.sessionType);
        });
  if (r)
    r = skeleton_->handle<GetDomainUpdateSessionState>([this](const SessionInput& in) {
      return getDomainUpdateSessionState(in.accessID, in.domainRepairInstructionID);
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
    r = skeleton_->handle<GetDomainDownloadInfo>([this](const SessionInput& in) {
      return getDomainDownloadInfo(in.accessID, in.domainRepairInstructionID);
    });
  if (r)
    r = skeleton_->handle<GetDomainUpdateInfo>([this](const SessionInput& in) {
      return getDomainUpdateInfo(in.accessID, in.domainRepairInstructionID);
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
    MLOG_ERROR(kTag, "cannot serve ", orv::lum::kInterfaceV11, ": ", mw::toString(r.error()), " ",
               r.errorMessage());
  return r;
}

template <typename E>
mw::Result<void> Skeleton::send(const typename E::Sample& sample) {
  if (!skeleton_)
    return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, "no skeleton");
  return skeleton_->send<E>(sample);
}

mw::Result<void> Skeleton::sendDomainReadyForDownloadNotification(
    const ReadyForDownloadInfo& readyForDownloadInfo, uint16_t domainRepairInstructionID) {
  return send<events::DomainReadyForDownloadNotification>(
      {readyForDownloadInfo, domainRepairInstructionID});
}

mw::Result<void> Skeleton::sendDomainReadyForUpdateNotification(
    const ReadyForUpdateInfo& readyForUpdateInfo, uint16_t domainRepairInstructionID) {
  return send<events::DomainReadyForUpdateNotification>(
      {readyForUpdateInfo, domainRepairInstructionID});
}

mw::Result<void> Skeleton::sendDomainUpdateFinishedNotification(
    uint16_t domainRepairInstructionID) {
  return send<events::DomainUpdateFinishedNotification>({domainRepairInstructionID});
}

mw::Result<void> Skeleton::sendDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                                         uint16_t timeout) {
  return send<events::DomainOffTimeNotification>({domainRepairInstructionID, timeout});
}

mw::Result<void> Skeleton::sendDebugMessageNotification(const DebugMessageInfo& debugMessageInfo) {
  return send<events::DebugMessageNotification>({debugMessageInfo});
}

mw::Result<void> Skeleton::sendResolveUpdateURLRequest(
    const resolveUpdateURLRequest_fileNames& fileNames, CM_FileType fileType,
    const DT_uuid& updateURLRequestID) {
  return send<events::ResolveUpdateURLRequest>({fileNames, fileType, updateURLRequestID});
}

mw::Result<void> Skeleton::sendDomainErrorNotification(uint16_t domainRepairInstructionID,
                                                       uint32_t errorCode) {
  return send<events::DomainErrorNotification>({domainRepairInstructionID, errorCode});
}

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol::skeleton

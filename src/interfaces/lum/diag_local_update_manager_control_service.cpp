// The fifteen operations of the v12 service, each forwarded to the LUM under the control rules
// of its group. Sessions and fields are in
// diag_local_update_manager_control_service_fields.cpp, the poll worker in ..._poll.cpp.

#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "interfaces/lum/diag_local_update_manager_control_service_internal.h"
#include "interfaces/lum/diag_lum_control_client.h"
#include "interfaces/lum/lum_names.h"
#include "minfw/log.h"

namespace orv {

using namespace dm_service_internal;

namespace {

template <typename Answer>
void setStatus(Answer& answer, RS status) {
  answer.returnStatus = recast<decltype(answer.returnStatus)>(status);
}

template <typename From, typename To>
void copyStatus(const From& from, To& to) {
  to.returnStatus = recast<decltype(to.returnStatus)>(from.returnStatus);
}

// For the operations whose only output is the LUM's verdict.
struct CopyStatus {
  template <typename From, typename To>
  void operator()(const From& from, To& to) const {
    copyStatus(from, to);
  }
};

template <typename From, typename To>
void copyProgress(const From& from, To& to) {
  to.totalBytes = from.totalBytes;
  to.processedBytes = from.processedBytes;
  to.currentPackageNumber = from.currentPackageNumber;
  to.totalPackageNumber = from.totalPackageNumber;
  to.packageName = from.packageName;
  to.currentProcessingState =
      recast<decltype(to.currentProcessingState)>(from.currentProcessingState);
  to.currentProcessingDetails = from.currentProcessingDetails;
  copyStatus(from, to);
}

template <typename From, typename To>
void copyValidation(const From& from, To& to) {
  to.status = recast<decltype(to.status)>(from.status);
  to.resultCode = from.resultCode;
  to.errorDetails = from.errorDetails;
}

template <typename Answer>
Service::Future<Answer> answerWith(Answer answer) {
  mw::Promise<Answer> promise;
  promise.set_value(std::move(answer));
  return promise.get_future();
}

}  // namespace

Service::DiagLocalUpdateManagerControlService(const std::string& instance, mw::Binding* binding)
    : Skeleton(mw::InstanceSpecifier(instance), binding), instance_(instance) {}

Service::~DiagLocalUpdateManagerControlService() {
  StopOfferService();
  {
    std::lock_guard<std::mutex> lock(pollMutex_);
    if (worker_) {
      worker_->stop = true;
      worker_->thread.join();
      worker_.reset();
    }
  }
  // A worker left running by startPoll still uses this object.
  {
    std::unique_lock<std::mutex> lock(workersMutex_);
    workersGone_.wait(lock, [this] { return runningWorkers_ == 0; });
  }
  // So does a forwarded call whose answer is still out.
  std::lock_guard<minfw::HandoverMutex> drained(lumMutex_);
}

bool Service::init() {
  MLOG_INFO(kTag, "offering service v12 on [", instance_, "]");
  const mw::Result<void> offered = OfferService();
  if (!offered) {
    MLOG_ERROR(kTag, "Cannot offer service v12 on [", instance_,
               "]: ", mw::toString(offered.error()), " ", offered.errorMessage());
    return false;
  }
  return true;
}

bool Service::signalsBound() const {
  return signalQueryControl && signalRequestExclusiveControl && signalRequestInterface &&
         signalRelinquish && signalSetUpdateTimestampStart && signalSetUpdateTimestampEnd;
}

void Service::relinquish() {
  if (!signalRelinquish) {
    MLOG_ERROR(kTag, "signalRelinquish not bound!!");
    return;
  }
  signalRelinquish(ACTIVE_DM);
}

// ---------------------------------------------------------------------------------------------
// Forwarding

template <typename Answer>
std::shared_ptr<DiagLUMControlClient> Service::lumFor(Answer& answer) {
  setStatus(answer, RS::internalError);
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    return nullptr;
  }
  std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_DM);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to get LUM object!");
    setStatus(answer, RS::invalidState);
  }
  return lum;
}

template <typename Output, typename Answer, typename Call, typename Copy>
bool Service::forward(Answer& answer, Call&& call, Copy&& copy) {
  const std::shared_ptr<DiagLUMControlClient> lum = lumFor(answer);
  if (!lum) {
    return false;
  }
  Output out{};
  bool answered = false;
  {
    std::lock_guard<minfw::HandoverMutex> lock(lumMutex_);
    answered = call(*lum, out);
  }
  if (!answered) {
    MLOG_ERROR(kTag, "LUM signals error!");
    return false;
  }
  copy(out, answer);
  return true;
}

template <typename Answer, typename Output, typename Issue, typename Finish>
Service::Future<Answer> Service::callLum(Issue&& issue, Finish finish) {
  // Shared: the facade keeps its callback in a copyable function, which a promise is not.
  auto promise = std::make_shared<mw::Promise<Answer>>();
  Future<Answer> future = promise->get_future();
  lumMutex_.lock();
  issue(DiagLUMControlClient::Done<Output>(
      [this, promise, finish](bool answered, const Output& out) mutable {
        lumMutex_.unlock();  // from here on this object may be gone
        promise->set_value(finish(answered, out));
      }));
  return future;
}

template <typename Output, typename Answer, typename Call, typename Copy>
Service::Future<Answer> Service::forwardAsync(Answer answer, Call&& call, Copy copy) {
  const std::shared_ptr<DiagLUMControlClient> lum = lumFor(answer);
  if (!lum) {
    return answerWith(std::move(answer));
  }
  return callLum<Answer, Output>(
      [&](DiagLUMControlClient::Done<Output> done) { call(*lum, std::move(done)); },
      [answer, copy](bool answered, const Output& out) mutable {
        if (answered) {
          copy(out, answer);
        } else {
          MLOG_ERROR(kTag, "LUM signals error!");
        }
        return std::move(answer);
      });
}

template <typename Output, typename Answer, typename Call, typename Copy>
bool Service::forwardTakingFreeControl(Answer& answer, Call&& call, Copy&& copy) {
  setStatus(answer, RS::internalError);
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    return false;
  }
  bool took = false;
  if (signalQueryControl() == ACTIVE_NONE) {
    if (!signalRequestExclusiveControl(ACTIVE_DM)) {
      MLOG_ERROR(kTag, "Unable to get exclusive control!");
      setStatus(answer, RS::invalidState);
      return false;
    }
    took = true;
  }
  const bool answered = forward<Output>(answer, std::forward<Call>(call), std::forward<Copy>(copy));
  // Control taken only for this call goes back at once: no session of ours holds it.
  if (took) {
    relinquish();
  }
  return answered;
}

void Service::updateUrlResponse(const lum12::UpdateUrlResponseStruct& updateUrlResponse) {
  MLOG_INFO(kTag, "<=");
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    return;
  }
  const std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_DM);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to get LUM object!");
    return;
  }
  lum11::UpdateUrlResponseStruct response;
  response.updateURLRequestID = updateUrlResponse.updateURLRequestID;
  response.urlInfo = updateUrlResponse.urlInfo;
  response.error = recast<lum11::CM_UrlError>(updateUrlResponse.error);
  std::lock_guard<minfw::HandoverMutex> lock(lumMutex_);
  lum->updateURLResponse(response, false);
}

Service::Future<lum12::methods::CreateDomainUpdateSession::Output>
Service::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const lum12::createDomainUpdateSession_manifestInformation& manifestInformation,
    const lum12::createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const lum12::DT_DownloadSource& downloadSource,
    const lum12::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    lum12::CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType sessionType) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::CreateDomainUpdateSession::Output answer;
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    setStatus(answer, RS::internalError);
    return answerWith(answer);
  }
  const bool held = signalQueryControl() == ACTIVE_DM;
  if (!signalRequestExclusiveControl(ACTIVE_DM)) {
    MLOG_ERROR(kTag, "Unable to get exlusive lock!");
    setStatus(answer, RS::invalidState);
    return answerWith(answer);
  }
  lum11::DownloadSource source;
  source.resolveURL = downloadSource.resolveURL;
  source.connectionType = recast<lum11::CM_ConnectionType>(downloadSource.connectionType);
  source.baseURL = downloadSource.baseURL;
  const bool answered = forward<Client::CreateDomainUpdateSessionOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::CreateDomainUpdateSessionOutput& out) {
        return lum.createDomainUpdateSession(
            accessID, vehicleRepairInstructionID, updateOrderLink, manifestInformation,
            cryptoParameters, source, diagnosticAddress, recast<lum11::CM_SessionType>(sessionType),
            out, false);
      },
      [](const auto& from, auto& to) {
        to.domainRepairInstructionID = from.domainRepairInstructionID;
        copyStatus(from, to);
      });
  if (answered && answer.returnStatus == RS::ok) {
    beginSession(answer.domainRepairInstructionID, accessID);
    signalSetUpdateTimestampStart();
    startPoll();
    return answerWith(answer);
  }
  if (answered) {
    MLOG_ERROR(kTag, "LUM negative answer: (", lum::returnStatusName(answer.returnStatus), ")");
  }
  // Without a session there is nothing to hold the LUM for; a session already held stays.
  if (!held) {
    relinquish();
  }
  return answerWith(answer);
}

Service::Future<lum12::methods::StartDomainUpdateDownload::Output>
Service::startDomainUpdateDownload(const std::string& accessID,
                                   uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::StartDomainUpdateDownload::Output answer;
  forward<Client::StartDomainUpdateDownloadOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::StartDomainUpdateDownloadOutput& out) {
        return lum.startDomainUpdateDownload(accessID, domainRepairInstructionID, out, false);
      },
      CopyStatus{});
  return answerWith(answer);
}

Service::Future<lum12::methods::GetDomainUpdateDownloadProgress::Output>
Service::getDomainUpdateDownloadProgress(const std::string& accessID,
                                         uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::GetDomainUpdateDownloadProgressOutput>(
      lum12::methods::GetDomainUpdateDownloadProgress::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.getDomainUpdateDownloadProgress(accessID, domainRepairInstructionID, std::move(done));
      },
      [](const auto& from, auto& to) {
        to.downloadRate = from.downloadRate;
        copyProgress(from, to);
      });
}

Service::Future<lum12::methods::StartDomainUpdate::Output> Service::startDomainUpdate(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::StartDomainUpdateOutput>(
      lum12::methods::StartDomainUpdate::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.startDomainUpdate(accessID, domainRepairInstructionID, std::move(done));
      },
      CopyStatus{});
}

Service::Future<lum12::methods::GetDomainUpdateProgress::Output> Service::getDomainUpdateProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::GetDomainUpdateProgressOutput>(
      lum12::methods::GetDomainUpdateProgress::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.getDomainUpdateProgress(accessID, domainRepairInstructionID, std::move(done));
      },
      [](const auto& from, auto& to) { copyProgress(from, to); });
}

Service::Future<lum12::methods::CancelDomainUpdate::Output> Service::cancelDomainUpdate(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::CancelDomainUpdate::Output answer;
  forwardTakingFreeControl<Client::CancelDomainUpdateOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::CancelDomainUpdateOutput& out) {
        return lum.cancelDomainUpdate(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) {
        to.cancelStatus = recast<decltype(to.cancelStatus)>(from.cancelStatus);
        copyStatus(from, to);
      });
  return answerWith(answer);
}

Service::Future<lum12::methods::SetDebugInstruction::Output> Service::setDebugInstruction(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& debugInstructionID, const std::string& debugInstruction) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::SetDebugInstructionOutput>(
      lum12::methods::SetDebugInstruction::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.setDebugInstruction(accessID, domainRepairInstructionID, debugInstructionID,
                                debugInstruction, std::move(done));
      },
      CopyStatus{});
}

Service::Future<lum12::methods::GetDomainConfiguration::Output> Service::getDomainConfiguration(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::GetDomainConfigurationOutput>(
      lum12::methods::GetDomainConfiguration::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.getDomainConfiguration(accessID, domainRepairInstructionID, std::move(done));
      },
      [](const auto& from, auto& to) {
        to.configurationInformation = from.configurationInformation;
        to.configurationInformationDetails = from.configurationInformationDetails;
        copyStatus(from, to);
      });
}

Service::Future<lum12::methods::GetDomainUpdateResult::Output> Service::getDomainUpdateResult(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::GetDomainUpdateResult::Output answer;
  forwardTakingFreeControl<Client::getDomainUpdateResultOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::getDomainUpdateResultOutput& out) {
        return lum.getDomainUpdateResult(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) {
        const auto& in = from.domainResult;
        auto& result = to.domainResult;
        result.sessionStatus = recast<decltype(result.sessionStatus)>(in.sessionStatus);
        result.resultCode = in.resultCode;
        result.errorDetails = in.errorDetails;
        result.errorCategories = in.errorCategories;
        result.retries = in.retries;
        copyValidation(in.integrityValidationResult, result.integrityValidationResult);
        copyValidation(in.safetyValidationResult, result.safetyValidationResult);
        copyStatus(from, to);
      });
  return answerWith(answer);
}

Service::Future<lum12::methods::CloseDomainUpdateSession::Output> Service::closeDomainUpdateSession(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::CloseDomainUpdateSession::Output answer;
  const bool answered = forward<Client::CloseDomainUpdateSessionOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::CloseDomainUpdateSessionOutput& out) {
        return lum.closeDomainUpdateSession(accessID, domainRepairInstructionID, out, false);
      },
      CopyStatus{});
  // The session is over: nothing left to poll, and the USB channel may have the LUM.
  if (answered && answer.returnStatus == RS::ok) {
    stopPoll();
    endSession();
    signalSetUpdateTimestampEnd();
    relinquish();
  }
  return answerWith(answer);
}

Service::Future<lum12::methods::AckDomainOffTimeNotification::Output>
Service::ackDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint32_t timeout) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::AckDomainOffTimeNotificationOutput>(
      lum12::methods::AckDomainOffTimeNotification::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.ackDomainOffTimeNotification(domainRepairInstructionID, timeout, std::move(done));
      },
      CopyStatus{});
}

Service::Future<lum12::methods::CheckProgrammingPreconditions::Output>
Service::checkProgrammingPreconditions(const std::string& accessID,
                                       uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::CheckProgrammingPreconditions::Output answer;
  forward<Client::CheckProgrammingPreconditionsOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::CheckProgrammingPreconditionsOutput& out) {
        return lum.checkProgrammingPreconditions(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) {
        to.preconditionCheckResult.assign(from.preconditionCheckResult.begin(),
                                          from.preconditionCheckResult.end());
        copyStatus(from, to);
      });
  return answerWith(answer);
}

Service::Future<lum12::methods::GetServiceDescription::Output> Service::getServiceDescription() {
  MLOG_INFO(kTag, "<=");
  lum12::methods::GetServiceDescription::Output answer;
  setStatus(answer, RS::internalError);
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    return answerWith(answer);
  }
  const uint32_t holder = signalQueryControl();
  const std::string path = holder == ACTIVE_USB ? std::string(kUsbPath) : activePath();
  answer.serviceDescription = path;
  // Only the holder gets the LUM; asking for it otherwise would only log a refusal.
  const std::shared_ptr<DiagLUMControlClient> lum =
      holder == ACTIVE_DM ? signalRequestInterface(ACTIVE_DM) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "getServiceDescription(): Active path (", path,
               "), unable to get LUM object!");
    setStatus(answer, RS::invalidState);
    return answerWith(answer);
  }
  using Output = Client::GetServiceDescriptionOutput;
  return callLum<decltype(answer), Output>(
      [&](DiagLUMControlClient::Done<Output> done) { lum->getServiceDescription(std::move(done)); },
      [answer, path](bool answered, const Output& out) mutable {
        if (!answered) {
          MLOG_ERROR(kTag, "getServiceDescription(): Active path (", path, "), LUM comm error!");
          return std::move(answer);
        }
        answer.accessID = out.accessID;
        answer.serviceDescription = out.serviceDescription;
        copyStatus(out, answer);
        return std::move(answer);
      });
}

Service::Future<lum12::methods::UpdateClientDownloadFinished::Output>
Service::updateClientDownloadFinished(const std::string& accessID,
                                      uint16_t domainRepairInstructionID,
                                      const std::string& downloadPath) {
  MLOG_INFO(kTag, "<=");
  return forwardAsync<Client::UpdateClientDownloadFinishedOutput>(
      lum12::methods::UpdateClientDownloadFinished::Output{},
      [&](DiagLUMControlClient& lum, auto done) {
        lum.updateClientDownloadFinished(accessID, domainRepairInstructionID, downloadPath,
                                         std::move(done));
      },
      CopyStatus{});
}

}  // namespace orv

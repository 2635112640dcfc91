#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <pthread.h>

#include <algorithm>
#include <type_traits>
#include <utility>

#include "interfaces/lum/diag_lum_control_client.h"
#include "interfaces/lum/lum_names.h"
#include "minfw/clock.h"
#include "minfw/log.h"

namespace orv {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;

using Service = DiagLocalUpdateManagerControlService;
using Client = DiagLUMControlClient::Client;
using RS = lum12::CM_ReturnStatus_state;
using PS = lum11::CM_CurrentProcessingState;
using FieldState =
    lum12::CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState;
using SessionState = lum12::DT_domainUpdateSessionState_struct;

namespace {

constexpr const char* kTag = "DM";

// The enumerations of both versions carry the same values; only their types differ.
template <typename To, typename From>
To recast(From value) {
  return static_cast<To>(static_cast<std::underlying_type_t<From>>(value));
}

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

template <typename Entry>
bool eraseElement(std::vector<Entry>& entries, uint16_t elementId) {
  const std::size_t before = entries.size();
  entries.erase(std::remove_if(entries.begin(), entries.end(),
                               [&](const Entry& e) { return e.elementId == elementId; }),
                entries.end());
  return entries.size() != before;
}

// One entry per elementId, the newest last; a full field drops its oldest entry.
template <typename Entry>
void upsert(std::vector<Entry>& entries, const Entry& entry) {
  eraseElement(entries, entry.elementId);
  entries.push_back(entry);
  if (entries.size() > Service::kFieldEntries) {
    entries.erase(entries.begin());
  }
}

// Without a binding (or a subscriber's connection) the value stays stored and answers getters.
template <typename Field, typename Value>
void publish(Field& field, const Value& value) {
  const mw::Result<void> result = field.Update(value);
  if (!result) {
    MLOG_DEBUG(kTag, "field not published: ", mw::toString(result.error()), " ",
               result.errorMessage());
  }
}

// Drops what a field keeps of one session, and publishes the field if it kept anything.
template <typename Field, typename Entry>
void forget(Field& field, std::vector<Entry>& entries, uint16_t elementId) {
  if (eraseElement(entries, elementId)) {
    publish(field, entries);
  }
}

bool sameState(const SessionState& a, const SessionState& b) {
  return a.elementId == b.elementId && a.domainRepairInstructionID == b.domainRepairInstructionID &&
         a.currentProcessingState == b.currentProcessingState &&
         a.installationTime == b.installationTime && a.downloadDataSize == b.downloadDataSize;
}

// Until the download ends the LUM's figures are those of the download ahead; from then on
// those of the download done, which the installation works on.
bool downloadFigures(PS state) {
  return state == PS::verificationFinished || state == PS::downloading;
}
bool updateFigures(PS state) {
  return state == PS::downloadFinished || state == PS::updating || state == PS::successfulFinished;
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
  std::unique_lock<std::mutex> lock(workersMutex_);
  workersGone_.wait(lock, [this] { return runningWorkers_ == 0; });
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
         signalRelinquish;
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

template <typename Output, typename Answer, typename Call, typename Copy>
bool Service::forward(Answer& answer, Call&& call, Copy&& copy) {
  setStatus(answer, RS::internalError);
  if (!signalsBound()) {
    MLOG_ERROR(kTag, "Signals not bound yet!");
    return false;
  }
  const std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_DM);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to get LUM object!");
    setStatus(answer, RS::invalidState);
    return false;
  }
  Output out{};
  bool answered = false;
  {
    std::lock_guard<std::mutex> lock(lumMutex_);
    answered = call(*lum, out);
  }
  if (!answered) {
    MLOG_ERROR(kTag, "LUM signals error!");
    return false;
  }
  copy(out, answer);
  return true;
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
  std::lock_guard<std::mutex> lock(lumMutex_);
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
  lum12::methods::GetDomainUpdateDownloadProgress::Output answer;
  forward<Client::GetDomainUpdateDownloadProgressOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::GetDomainUpdateDownloadProgressOutput& out) {
        return lum.getDomainUpdateDownloadProgress(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) {
        to.downloadRate = from.downloadRate;
        copyProgress(from, to);
      });
  return answerWith(answer);
}

Service::Future<lum12::methods::StartDomainUpdate::Output> Service::startDomainUpdate(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::StartDomainUpdate::Output answer;
  forward<Client::StartDomainUpdateOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::StartDomainUpdateOutput& out) {
        return lum.startDomainUpdate(accessID, domainRepairInstructionID, out, false);
      },
      CopyStatus{});
  return answerWith(answer);
}

Service::Future<lum12::methods::GetDomainUpdateProgress::Output> Service::getDomainUpdateProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::GetDomainUpdateProgress::Output answer;
  forward<Client::GetDomainUpdateProgressOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::GetDomainUpdateProgressOutput& out) {
        return lum.getDomainUpdateProgress(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) { copyProgress(from, to); });
  return answerWith(answer);
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
  lum12::methods::SetDebugInstruction::Output answer;
  forward<Client::SetDebugInstructionOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::SetDebugInstructionOutput& out) {
        return lum.setDebugInstruction(accessID, domainRepairInstructionID, debugInstructionID,
                                       debugInstruction, out, false);
      },
      CopyStatus{});
  return answerWith(answer);
}

Service::Future<lum12::methods::GetDomainConfiguration::Output> Service::getDomainConfiguration(
    const std::string& accessID, uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::GetDomainConfiguration::Output answer;
  forward<Client::GetDomainConfigurationOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::GetDomainConfigurationOutput& out) {
        return lum.getDomainConfiguration(accessID, domainRepairInstructionID, out, false);
      },
      [](const auto& from, auto& to) {
        to.configurationInformation = from.configurationInformation;
        to.configurationInformationDetails = from.configurationInformationDetails;
        copyStatus(from, to);
      });
  return answerWith(answer);
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
    relinquish();
  }
  return answerWith(answer);
}

Service::Future<lum12::methods::AckDomainOffTimeNotification::Output>
Service::ackDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint32_t timeout) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::AckDomainOffTimeNotification::Output answer;
  forward<Client::AckDomainOffTimeNotificationOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::AckDomainOffTimeNotificationOutput& out) {
        return lum.ackDomainOffTimeNotification(domainRepairInstructionID, timeout, out, false);
      },
      CopyStatus{});
  return answerWith(answer);
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
  Client::GetServiceDescriptionOutput out;
  bool answered = false;
  {
    std::lock_guard<std::mutex> lock(lumMutex_);
    answered = lum->getServiceDescription(out, false);
  }
  if (!answered) {
    MLOG_ERROR(kTag, "getServiceDescription(): Active path (", path, "), LUM comm error!");
    return answerWith(answer);
  }
  answer.accessID = out.accessID;
  answer.serviceDescription = out.serviceDescription;
  copyStatus(out, answer);
  return answerWith(answer);
}

Service::Future<lum12::methods::UpdateClientDownloadFinished::Output>
Service::updateClientDownloadFinished(const std::string& accessID,
                                      uint16_t domainRepairInstructionID,
                                      const std::string& downloadPath) {
  MLOG_INFO(kTag, "<=");
  lum12::methods::UpdateClientDownloadFinished::Output answer;
  forward<Client::UpdateClientDownloadFinishedOutput>(
      answer,
      [&](DiagLUMControlClient& lum, Client::UpdateClientDownloadFinishedOutput& out) {
        return lum.updateClientDownloadFinished(accessID, domainRepairInstructionID, downloadPath,
                                                out, false);
      },
      CopyStatus{});
  return answerWith(answer);
}

// ---------------------------------------------------------------------------------------------
// Session and fields

void Service::beginSession(uint16_t domainRepairInstructionID, const std::string& accessID) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  sessionId_ = domainRepairInstructionID;
  activePath_ = accessID;
  // A tester may reuse a session id: what the fields kept of the old session must not read as
  // the new one's (a finished state above all).
  forget(domainUpdateSessionState, sessionStates_, domainRepairInstructionID);
  forget(domainErrorNotification, errors_, domainRepairInstructionID);
  forget(domainOffTimeNotification, offTimes_, domainRepairInstructionID);
  forget(debugMessageNotification, debugMessages_, domainRepairInstructionID);
  forget(resolveUpdateURLRequest, urlRequests_, domainRepairInstructionID);
}

void Service::endSession() {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  activePath_.clear();
}

uint16_t Service::sessionId() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return sessionId_;
}

std::string Service::activePath() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return activePath_;
}

std::vector<SessionState> Service::sessionStates() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return sessionStates_;
}

std::vector<lum12::DT_domainErrorNotification_struct> Service::errorNotifications() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return errors_;
}

std::vector<lum12::DT_resolveUpdateURLRequest_struct> Service::urlRequests() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return urlRequests_;
}

SessionState Service::storedState(uint16_t domainRepairInstructionID) const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  for (const SessionState& entry : sessionStates_) {
    if (entry.elementId == domainRepairInstructionID) {
      return entry;
    }
  }
  SessionState entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  return entry;
}

template <typename Field, typename Entry>
void Service::store(Field& field, std::vector<Entry>& entries, const Entry& entry) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  upsert(entries, entry);
  publish(field, entries);
}

void Service::eventDomainUpdateSessionState(const SessionState& entry) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  for (const SessionState& stored : sessionStates_) {
    if (stored.elementId == entry.elementId && sameState(stored, entry)) {
      return;
    }
  }
  upsert(sessionStates_, entry);
  publish(domainUpdateSessionState, sessionStates_);
}

// ---------------------------------------------------------------------------------------------
// LUM events

void Service::eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                                      const lum11::ReadyForDownloadInfo& info) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], installationTime [",
            info.installationTime, "], downloadDataSize [", info.downloadDataSize, "]");
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = FieldState::verificationFinished;
  entry.installationTime = info.installationTime;
  entry.downloadDataSize = info.downloadDataSize;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                                    const lum11::ReadyForUpdateInfo& info) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], installationTime [",
            info.installationTime, "], downloadedDataSize [", info.downloadedDataSize, "]");
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = FieldState::downloadFinished;
  entry.installationTime = info.installationTime;
  entry.downloadDataSize = info.downloadedDataSize;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "]");
  bool failed = false;
  {
    std::lock_guard<std::mutex> lock(fieldMutex_);
    for (const auto& error : errors_) {
      failed = failed || error.elementId == domainRepairInstructionID;
    }
  }
  // The event carries no outcome; the next poll cycle corrects it to the LUM's own final state.
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = failed ? FieldState::failFinished : FieldState::successfulFinished;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint16_t timeout) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], timeout [", timeout, "]");
  lum12::DT_domainOffTimeNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  entry.timeout = timeout;
  store(domainOffTimeNotification, offTimes_, entry);
}

void Service::eventDomainErrorNotification(uint16_t domainRepairInstructionID, uint32_t errorCode) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], errorCode [", errorCode, "]");
  lum12::DT_domainErrorNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  entry.errorCode = errorCode;
  store(domainErrorNotification, errors_, entry);
}

void Service::eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                            const std::string& debugMessageID,
                                            const std::string& debugMessage) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], debugMessageID [", debugMessageID, "]");
  lum12::DT_debugMessageNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.debugMessage.domainRepairInstructionID = domainRepairInstructionID;
  entry.debugMessage.debugMessageID = debugMessageID;
  entry.debugMessage.debugMessage = debugMessage;
  store(debugMessageNotification, debugMessages_, entry);
}

void Service::eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  MLOG_INFO(kTag, "fileType [", toString(request.fileType),
            "], fileNames.size()=", request.fileNames.size());
  // The request names no session: it belongs to the one this channel runs.
  lum12::DT_resolveUpdateURLRequest_struct entry;
  entry.elementId = sessionId();
  entry.fileNames = request.fileNames;
  entry.fileType =
      recast<lum12::CM_DT_DiagLocalUpdateManagerControl_resolveUpdateURLRequest_fileType>(
          request.fileType);
  entry.updateURLRequestID = request.updateURLRequestID;
  store(resolveUpdateURLRequest, urlRequests_, entry);
}

void Service::eventConnection(bool connected) {
  MLOG_INFO(kTag, connected ? "LUM connected." : "LUM disconnected!");
  if (!connected) {
    stopPoll();
    return;
  }
  // Only a holder polls; the relay delivers this only to the holder, but a direct call need not.
  if (signalQueryControl && signalQueryControl() == ACTIVE_DM) {
    startPoll();
  }
}

void Service::eventInternal(int value) {
  MLOG_INFO(kTag, "Internal event [", value, "]");
}

// ---------------------------------------------------------------------------------------------
// Poll worker

bool Service::polling() const {
  std::lock_guard<std::mutex> lock(pollMutex_);
  return worker_ && !worker_->finished;
}

void Service::startPoll() {
  std::lock_guard<std::mutex> lock(pollMutex_);
  if (worker_ && worker_->finished) {
    worker_->thread.join();
    worker_.reset();
  }
  if (worker_) {
    MLOG_WARN(kTag, "Polling thread still alive!");
    std::shared_ptr<PollWorker> old = std::move(worker_);
    old->stop = true;
    // The old worker may hang in a LUM call; it is joined aside, so that polling goes on.
    std::thread([old] {
      pthread_setname_np(pthread_self(), "dm-stop");
      old->thread.join();
    }).detach();
    bool gone = false;
    for (int step = 0; step < kStopWaitSteps && !gone; ++step) {
      minfw::sleepMs(kStopWaitStepMs);
      gone = old->finished;
    }
    if (!gone) {
      MLOG_ERROR(kTag, "Cannot kill polling thread!! You may panic now...");
    }
  }
  MLOG_INFO(kTag, "Starting polling thread");
  auto worker = std::make_shared<PollWorker>();
  {
    std::lock_guard<std::mutex> running(workersMutex_);
    ++runningWorkers_;
  }
  PollWorker* self = worker.get();
  worker->thread = std::thread([this, self] { pollWorker(*self); });
  worker_ = std::move(worker);
}

void Service::stopPoll() {
  MLOG_INFO(kTag, "stopPoll(): start");
  std::lock_guard<std::mutex> lock(pollMutex_);
  if (worker_) {
    worker_->stop = true;
    MLOG_INFO(kTag, "stopPoll(): Stopping polling thread...");
    worker_->thread.join();
    worker_.reset();
    MLOG_INFO(kTag, "stopPoll(): Stopped polling thread!");
  }
  MLOG_INFO(kTag, "stopPoll(): done");
}

void Service::pollWorker(PollWorker& self) {
  pthread_setname_np(pthread_self(), "dm-poll");
  MLOG_TRACE(kTag, "V12 Polling Loop started");
  while (!self.stop) {
    for (int64_t slept = 0; slept < kPollPeriodMs && !self.stop; slept += kPollStepMs) {
      minfw::sleepMs(kPollStepMs);
    }
    if (self.stop) {
      break;
    }
    if (!signalsBound()) {
      MLOG_ERROR(kTag, "Signals not bound yet!");
      self.stop = true;
      break;
    }
    // The USB update owns the LUM: this channel's session is gone.
    const uint32_t holder = signalQueryControl();
    if (holder == ACTIVE_USB) {
      self.stop = true;
      break;
    }
    const bool took = holder == ACTIVE_NONE && signalRequestExclusiveControl(ACTIVE_DM);
    if (signalQueryControl() != ACTIVE_DM) {
      self.stop = true;
      break;
    }
    pollSessionState();
    // Control taken only for this cycle goes back, so the USB channel is never locked out.
    if (took) {
      relinquish();
    }
  }
  MLOG_TRACE(kTag, "V12 Polling Loop stopped");
  self.finished = true;
  std::lock_guard<std::mutex> lock(workersMutex_);
  --runningWorkers_;
  workersGone_.notify_all();
}

void Service::pollSessionState() {
  const std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_DM);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return;
  }
  SessionState entry = storedState(sessionId());
  {
    std::lock_guard<std::mutex> lock(lumMutex_);
    Client::GetDomainUpdateSessionStateOutput state;
    if (!lum->getDomainUpdateSessionState(kPollClientId, kPollDomainId, state, false)) {
      MLOG_ERROR(kTag, "getDomainUpdateSessionState: Communication error with LUM! Communication=",
                 "FAIL", ", ReturnStatus=", "n/a");
      return;
    }
    MLOG_TRACE(kTag, "getDomainUpdateSessionState().returnStatus [",
               lum::returnStatusName(state.returnStatus), "], currentProcessingState [",
               toString(state.currentProcessingState), "], currentProcessingDetails [",
               state.currentProcessingDetails, "]");
    // A refused call's other outputs carry no meaning.
    if (state.returnStatus != lum11::CM_ReturnStatus::ok) {
      return;
    }
    entry.currentProcessingState = recast<FieldState>(state.currentProcessingState);
    // States without figures of their own keep the last ones the session had.
    if (downloadFigures(state.currentProcessingState)) {
      Client::GetDomainDownloadInfoOutput info;
      if (lum->getDomainDownloadInfo(kPollClientId, kPollDomainId, info, false) &&
          info.returnStatus == lum11::CM_ReturnStatus::ok) {
        entry.installationTime = info.readyForDownloadInfo.installationTime;
        entry.downloadDataSize = info.readyForDownloadInfo.downloadDataSize;
      }
    } else if (updateFigures(state.currentProcessingState)) {
      Client::GetDomainUpdateInfoOutput info;
      if (lum->getDomainUpdateInfo(kPollClientId, kPollDomainId, info, false) &&
          info.returnStatus == lum11::CM_ReturnStatus::ok) {
        entry.installationTime = info.readyForUpdateInfo.installationTime;
        entry.downloadDataSize = info.readyForUpdateInfo.downloadedDataSize;
      }
    }
  }
  eventDomainUpdateSessionState(entry);
}

}  // namespace orv

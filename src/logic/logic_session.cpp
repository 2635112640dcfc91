// One update session from the medium's analysis to its end: offer, start and session creation,
// preconditions, the download and update phases, result, close, cancel, finished and failed.
// Threading: pool worker only, one sequence at a time.
#include "logic/logic.h"

#include <mutex>

#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "logic/persistence.h"
#include "logic/update_medium.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

using namespace logic_internal;

namespace {

constexpr int64_t kBusyPauseMs = 10000;
constexpr int64_t kResultBusyPauseMs = 1000;
constexpr int kSessionTries = 4;
constexpr int kResultTries = 3;

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    text += text.empty() ? "" : ", ";
    text += item;
  }
  return text;
}

std::string joinedHex(const std::vector<uint16_t>& items) {
  std::string text;
  for (uint16_t item : items) {
    text += text.empty() ? "0x" : ", 0x";
    text += kel::vxp3::minfw::hex(item);
  }
  return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Analysis and offer

void Logic::seqInstallationAnalysis() {
  if (!signalQueryControl) {
    MLOG_ERROR(kTag, "signalQueryControl not bound!");
    return;
  }
  const std::string path = medium().usbPath;
  if (!takeOver(path)) {
    MLOG_ERROR(kTag, "Error reading update medium at [", path, "]!");
    enqueue([this] { seqInstallationFailed(kErrMedium); });
    return;
  }
  const Medium taken = medium();
  const uint32_t holder = signalQueryControl();
  if (holder != ACTIVE_USB && holder != ACTIVE_NONE) {
    MLOG_ERROR(kTag, "OTA update in progress!");
    setStateHMI(eINSTALLATIONREJECTED);
    sendHmiState(eINSTALLATIONREJECTED, taken.trainName);
    return;
  }
  MLOG_INFO(kTag, "Update medium is valid! Train=[", taken.trainName, "], updateBaseUrl=[",
            taken.updateBaseUrl, "], updateOrder=[", taken.updateOrder, "], updateManifests(",
            taken.updateManifests.size(), "): [", joined(taken.updateManifests),
            "], diagAddresses(", taken.diagAddresses.size(), "): [", joinedHex(taken.diagAddresses),
            "], keyManifestFileAddr [", taken.keyManifestFileAddr, "]");
  enqueue([this] { seqInstallationAvailable(); });
}

bool Logic::takeOver(const std::string& path) {
  UpdateMedium description;
  if (!description.Parse(path)) {
    return false;
  }
  Medium taken;
  taken.usbPath = path;
  taken.trainName = description.trainName();
  taken.updateOrder = description.updateOrder();
  taken.updateBaseUrl = description.updateBaseUrl() + "/";
  taken.updateManifests = description.updateManifests();
  taken.diagAddresses = description.diagAddresses();
  taken.keyManifestFileAddr = description.keyManifestFileAddr();
  {
    std::lock_guard<std::mutex> lock(mediumMutex_);
    medium_ = taken;
  }
  if (persistence_) {
    persistence_->setTrainName(taken.trainName);
  }
  return true;
}

void Logic::seqInstallationAvailable() {
  if (!signalUSBhmiSetState) {
    MLOG_ERROR(kTag, "signalUSBhmiSetState not bound!");
    return;
  }
  const uint32_t updateType =
      persistence_ ? persistence_->getUpdateType(ORV_USB_UPDATETYPE_NONE) : ORV_USB_UPDATETYPE_NONE;
  MLOG_DEBUG(kTag, "Update type [0x", kel::vxp3::minfw::hex(updateType), "]");
  setStateHMI(eINSTALLATIONAVAILABLE);
  const std::string train = medium().trainName;
  MLOG_INFO(kTag, "eINSTALLATIONAVAILABLE, description [", train, "]");
  signalUSBhmiSetState(eINSTALLATIONAVAILABLE, train);
}

// ---------------------------------------------------------------------------------------------
// Session

namespace {

// Runs `call` until the LUM answers something other than busy; logs each busy answer with
// `busyLine` and pauses `pauseMs`. Returns false on a communication failure, else true with the
// final answer in `out`.
// A shutdown ends the waiting like a lost LUM.
template <typename Output, typename Call>
bool callUntilNotBusy(const std::atomic<bool>& stopping, const std::string& busyLine,
                      int64_t pauseMs, Output& out, Call&& call) {
  for (;;) {
    out = Output{};
    if (!call(out)) {
      return false;
    }
    if (status(out.returnStatus) != kReturnBusy) {
      return true;
    }
    MLOG_WARN(kTag, busyLine);
    if (stopping) {
      return false;
    }
    sleepMs(pauseMs);
  }
}

}  // namespace

void Logic::seqInstallationStart() {
  if (!signalRequestInterface) {
    MLOG_ERROR(kTag, "signalRequestInterface not bound!");
    return;
  }
  if (!signalQueryControl) {
    MLOG_ERROR(kTag, "signalQueryControl not bound!");
    return;
  }
  if (stateHMI_ != eINSTALLATIONCONFIRMED) {
    MLOG_ERROR(kTag, "State is not eINSTALLING! crtState=[", hmiStateName(stateHMI_), "]");
    setStateHMI(eINVALID);
    return;
  }
  setStateHMI(eINSTALLING);
  if (signalUSBhmiSetProgress) {
    signalUSBhmiSetProgress(0);
  } else {
    MLOG_ERROR(kTag, "signalUSBhmiSetProgress not bound!");
  }

  if (!signalRequestExclusiveControl || !signalQueryControl) {
    MLOG_ERROR(kTag, "signalRequestExclusiveControl or signalQueryControl not bound!");
    setStateHMI(eINSTALLATIONREJECTED);
    return;
  }
  if (signalQueryControl() == ACTIVE_USB) {
    MLOG_WARN(kTag, "USB already locked before!");
  } else if (!signalRequestExclusiveControl(ACTIVE_USB)) {
    MLOG_ERROR(kTag, "Unable to get exclusive control for USB");
    setStateHMI(eINSTALLATIONREJECTED);
    sendHmiState(eINSTALLATIONREJECTED, medium().trainName);
    return;
  } else {
    MLOG_INFO(kTag, "Exclusive control for USB");
  }

  if (!signalGetUpdateType || !signalSetUpdateType) {
    MLOG_ERROR(kTag, "signalGetUpdateType and/or signalSetUpdateType not bound!");
  } else if (signalGetUpdateType() == ORV_USB_UPDATETYPE_NONE) {
    MLOG_INFO(kTag, "Set USB update type: USB!");
    signalSetUpdateType(ORV_USB_UPDATETYPE_USB);
  }

  std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_USB);
  if (!ReadKeyManifest()) {
    return;
  }
  const uint16_t riid =
      static_cast<uint16_t>(persistence_ ? persistence_->getRepairInstructionId(1) : 1);
  riid_.store(riid);
  MLOG_INFO(kTag, "RIID = ", riid);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    seqInstallationFailed(kErrNoInterface);
    return;
  }

  // The session names the medium's manifests and ECUs; the files are fetched from the medium's
  // location, each URL resolved on the LUM's request.
  const Medium taken = medium();
  lum11::createDomainUpdateSession_manifestInformation manifests;
  for (const std::string& name : taken.updateManifests) {
    lum11::DT_manifestInformation_struct entry;
    entry.manifestType = "updateManifest";
    entry.manifestLink = taken.updateBaseUrl + name;
    manifests.push_back(entry);
  }
  lum11::DT_manifestInformation_struct ecuManifest;
  ecuManifest.manifestType = "ecuManifest";
  ecuManifest.manifestLink = "IGNORE";
  manifests.push_back(ecuManifest);
  lum11::DownloadSource source;
  source.resolveURL = true;
  source.connectionType = lum11::CM_ConnectionType::http;
  source.baseURL = taken.updateBaseUrl;
  lum11::createDomainUpdateSession_diagnosticAddress addresses;
  addresses.diagnosticAddresses = taken.diagAddresses;

  openSession();
  for (int attempt = 1; attempt <= kSessionTries; ++attempt) {
    Client::CreateDomainUpdateSessionOutput out;
    const bool answered =
        lum->createDomainUpdateSession(kClientId, riid, taken.updateOrder, manifests, {}, source,
                                       addresses, lum11::CM_SessionType::localUpdate, out, true);
    const uint32_t result = answered ? status(out.returnStatus) : 0xFFFFFFFFu;
    if (answered && result == kReturnOk) {
      if (out.domainRepairInstructionID != 0 && out.domainRepairInstructionID != riid) {
        // Later calls and events of this session carry the LUM's own number.
        riid_.store(out.domainRepairInstructionID);
        if (persistence_) {
          persistence_->setRepairInstructionId(out.domainRepairInstructionID);
        }
      }
      setStateLUM(1);
      stampUpdate(true);
      retry_.fill(0);
      sleepMs(1000);
      if (!polling_.exchange(true)) {
        seqGetStatus();
      }
      return;
    }
    if (attempt == kSessionTries) {
      break;
    }
    if (answered && result == kReturnBusy) {
      MLOG_WARN(kTag, "createDomainUpdateSession() return status [busy], retry in 10 seconds (try ",
                attempt, ")");
      sleepMs(kBusyPauseMs);
    } else {
      MLOG_WARN(kTag, "createDomainUpdateSession() return status [",
                answered ? lum::sequenceReturnStatusName(result) : "no answer",
                "], doing seqCancelDomainUpdate (try ", attempt, ")");
      seqCancelDomainUpdate();
      sleepMs(1000);
    }
  }
  MLOG_ERROR(kTag, "createDomainUpdateSession failed!");
  seqInstallationFailed(kErrCreateSession);
}

bool Logic::seqCheckProgrammingPreconditions() {
  MLOG_INFO(kTag, "Check programming preconditions");
  std::shared_ptr<DiagLUMControlClient> lum = lumOrFail();
  if (!lum) {
    return false;
  }
  Client::CheckProgrammingPreconditionsOutput out;
  const bool answered = callUntilNotBusy(
      stopping_, "checkProgrammingPreconditions() return status [busy], retry in 10 seconds",
      kBusyPauseMs, out, [&](Client::CheckProgrammingPreconditionsOutput& o) {
        return lum->checkProgrammingPreconditions(kClientId, riid_, o, true);
      });
  if (!answered) {
    MLOG_ERROR(kTag, "checkProgrammingPreconditions: LUM communication error!");
    return false;
  }
  if (status(out.returnStatus) != kReturnOk) {
    MLOG_ERROR(kTag, "checkProgrammingPreconditions: LUM return status error! [",
               lum::sequenceReturnStatusName(status(out.returnStatus)), "]");
    return false;
  }
  if (out.preconditionCheckResult.empty()) {
    MLOG_WARN(kTag, "Maybe old precondition check: preconditionCheckResult.size()=0");
  }
  for (size_t i = 0; i < out.preconditionCheckResult.size(); ++i) {
    const auto& entry = out.preconditionCheckResult[i];
    MLOG_INFO(kTag, "checkProgrammingPreconditions: [", i, "]: diagnosticAddress=0x",
              kel::vxp3::minfw::hex(entry.diagnosticAddress), ", result=[",
              entry.updatePreconditionCheckResult, "]");
  }
  return true;
}

std::shared_ptr<DiagLUMControlClient> Logic::lumOrFail() {
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    seqInstallationFailed(kErrNoInterface);
  }
  return lum;
}

bool Logic::callSession(const char* op, SessionCall call, std::string* refusal) {
  std::shared_ptr<DiagLUMControlClient> lum = lumOrFail();
  if (!lum) {
    return false;
  }
  lum11::methods::StatusOutput out;
  const bool answered = callUntilNotBusy(
      stopping_, std::string(op) + "() return status [busy], retry in 10 seconds", kBusyPauseMs,
      out,
      [&](lum11::methods::StatusOutput& o) { return ((*lum).*call)(kClientId, riid_, o, true); });
  if (answered && status(out.returnStatus) == kReturnOk) {
    return true;
  }
  *refusal = answered ? lum::sequenceReturnStatusName(status(out.returnStatus)) : "no answer";
  return false;
}

// A phase starts from the step before it, or from its own step when resumed after a restart.
// A second start (the event and the poll that made it up both queue one), or one queued before
// the update ended, finds the session elsewhere and is dropped.
bool Logic::startExpected(uint32_t before, const char* phase) {
  if (lumErrorPending()) {
    MLOG_WARN(kTag, "The LUM reported an error, not starting the ", phase, " phase");
    return false;
  }
  const uint32_t step = stateLUM_;
  if (step == before || step == before + 1) {
    return true;
  }
  MLOG_WARN(kTag, "Not starting the ", phase, " phase in [", lum::sessionStepName(step), "]");
  return false;
}

// The preconditions were refused: nothing polls in a start step, so the update falls back to
// the step before, whose poll repeats the start once the LUM shows the step complete again.
void Logic::fallBackTo(uint32_t step) {
  if (stateLUM_ == 0) {
    return;  // the update already failed
  }
  if (stateLUM_ != step) {
    MLOG_WARN(kTag, "Start did not go through, polling from [", lum::sessionStepName(step), "]");
    setStateLUM(step);
  }
  queuePoll();
}

void Logic::seqSendStartDomainUpdateDownload() {
  if (!startExpected(1, "download")) {
    return;
  }
  if (!seqCheckProgrammingPreconditions()) {
    fallBackTo(1);
    return;
  }
  MLOG_INFO(kTag, "Start download phase");
  setStateLUM(2);
  std::string refusal;
  if (callSession("startDomainUpdateDownload", &DiagLUMControlClient::startDomainUpdateDownload,
                  &refusal)) {
    setStateLUM(3);
    queuePoll();
  } else if (!refusal.empty()) {
    MLOG_ERROR(kTag, "startDomainUpdateDownload failed!");
    startFailed(kErrStartDownload);
  }
}

void Logic::seqSendStartDomainUpdate() {
  if (!startExpected(3, "update")) {
    return;
  }
  MLOG_INFO(kTag, "Start update phase");
  setStateLUM(4);
  seqUpdateProgress(0);
  if (!seqCheckProgrammingPreconditions()) {
    fallBackTo(3);
    return;
  }
  MLOG_INFO(kTag, "Start update");
  std::string refusal;
  if (callSession("startDomainUpdate", &DiagLUMControlClient::startDomainUpdate, &refusal)) {
    setStateLUM(5);
    queuePoll();
  } else if (!refusal.empty()) {
    MLOG_ERROR(kTag, "startDomainUpdate failed!");
    startFailed(kErrStartUpdate);
  }
}

// ---------------------------------------------------------------------------------------------
// Result and end

void Logic::seqGetDomainUpdateResult() {
  std::shared_ptr<DiagLUMControlClient> lum = lumOrFail();
  if (!lum) {
    return;
  }
  for (int attempt = 1; attempt <= kResultTries; ++attempt) {
    Client::getDomainUpdateResultOutput out;
    const bool answered = callUntilNotBusy(
        stopping_, "getDomainUpdateResult() return status [busy], retry in 1 second",
        kResultBusyPauseMs, out, [&](Client::getDomainUpdateResultOutput& o) {
          return lum->getDomainUpdateResult(kClientId, riid_, o, true);
        });
    if (answered) {
      const lum11::DomainResult& r = out.domainResult;
      MLOG_INFO(
          kTag, "getDomainUpdateResult: returnStatus=[",
          lum::sequenceReturnStatusName(status(out.returnStatus)), "], sessionStatus=[",
          toString(r.sessionStatus), "], resultCode=[", r.resultCode, "], errorDetails=[",
          r.errorDetails, "], errorCategories=[", static_cast<uint32_t>(r.errorCategories),
          "], retries=[", static_cast<uint32_t>(r.retries), "], integrityValidationResult.status=[",
          toString(r.integrityValidationResult.status), "], integrityValidationResult.resultCode=[",
          r.integrityValidationResult.resultCode, "], integrityValidationResult.errorDetails=[",
          r.integrityValidationResult.errorDetails, "], safetyValidationResult.status=[",
          toString(r.safetyValidationResult.status), "], safetyValidationResult.resultCode=[",
          r.safetyValidationResult.resultCode, "], safetyValidationResult.errorDetails=[",
          r.safetyValidationResult.errorDetails, "]");
      if (status(out.returnStatus) == kReturnOk) {
        if (errorCode_ == 0 && r.resultCode != 0) {
          errorCode_.store(r.resultCode);
          writeErrorCode(r.resultCode);
        }
        return;
      }
    }
    MLOG_WARN(kTag, "getDomainUpdateResult failed! (retry ", attempt, ")");
  }
  seqInstallationFailed(kErrResult);
}

void Logic::startFailed(uint32_t code) {
  if (!lumErrorPending() && lumSessionFailed()) {
    queueErrorHandling(0, code);
  }
  seqInstallationFailed(static_cast<int>(code));
}

bool Logic::lumSessionFailed() {
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  Client::GetDomainUpdateSessionStateOutput state;
  if (!lum || !lum->getDomainUpdateSessionState(kClientId, riid_, state, false) ||
      status(state.returnStatus) != kReturnOk) {
    return false;
  }
  MLOG_INFO(kTag, "Session state after the refusal [",
            lum::processingStateName(static_cast<uint32_t>(state.currentProcessingState)), "]");
  return state.currentProcessingState == lum11::CM_CurrentProcessingState::failFinished ||
         state.currentProcessingState == lum11::CM_CurrentProcessingState::revertFinished;
}

void Logic::seqCloseDomainUpdate() {
  MLOG_INFO(kTag, "Close session");
  // An update that was already wound up (the LUM state is back at Idle) has no session left to
  // close and no control to close it with: a failure gave both up, or this is a second close.
  if (stateLUM_ == 0) {
    MLOG_INFO(kTag, errorCode_ != 0 ? "Update already closed with error, skipping"
                                    : "Update already closed, skipping");
    return;
  }
  setStateLUM(6);
  std::string refusal;
  if (!callSession("closeDomainUpdateSession", &DiagLUMControlClient::closeDomainUpdateSession,
                   &refusal) &&
      !refusal.empty()) {
    // The session ends with the update either way; the LUM discards an unclosed session when
    // the next one is created.
    MLOG_WARN(kTag, "closeDomainUpdateSession: return status [", refusal, "]");
  }
}

void Logic::seqCancelDomainUpdate() {
  MLOG_INFO(kTag, "Cancel update in progress");
  setStateLUM(7);
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return;
  }
  Client::CancelDomainUpdateOutput out;
  if (!lum->cancelDomainUpdate(kClientId, riid_, out, true)) {
    MLOG_ERROR(kTag, "CancelDomainUpdate failed!");
    return;
  }
  MLOG_INFO(kTag, "CancelDomainUpdate, LUM returnStatus=[",
            lum::sequenceReturnStatusName(status(out.returnStatus)), "]");
}

void Logic::seqInstallationFinished() {
  if (stateHMI_ == eINSTALLATIONFAILED) {
    MLOG_WARN(kTag, "Error [", errorCode_.load(), "] reported earlier.");
    return;
  }
  if (stateLUM_ == 0) {
    MLOG_WARN(kTag, "Update already ended, skipping");
    return;
  }
  if (!claimSuccess()) {
    return;
  }
  // Complete, whatever the last progress poll saw before the LUM finished.
  seqUpdateProgress(100);
  setStateHMI(eINSTALLATIONFINISHED);
  sendHmiState(eINSTALLATIONFINISHED, medium().trainName);
  setStateLUM(0);
  stampUpdate(false);
  relinquishIfHeld();
}

void Logic::seqInstallationFailed(int errorCode) {
  if (!claimFailure(static_cast<uint32_t>(errorCode))) {
    return;
  }
  MLOG_ERROR(kTag, "InstallationFailed, errorCode [", errorCode, "]");
  writeErrorCode(static_cast<uint32_t>(errorCode));
  setStateHMI(eINSTALLATIONFAILED);
  sendHmiState(eINSTALLATIONFAILED, medium().trainName);
  if (signalUSBhmiSetErrorCode) {
    signalUSBhmiSetErrorCode(static_cast<uint32_t>(errorCode));
  }
  setStateLUM(0);
  stampUpdate(false);
  relinquishIfHeld();
}

}  // namespace orv

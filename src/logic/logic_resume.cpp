// After a restart: the HMI is brought back to the recorded state, the medium's description is
// read again from its recorded location, and the interrupted session is picked up where it
// stopped, unless resuming it has already ended the service too often; a laptop's hand-over that
// had not reached the LUM yet is started again. Threading: pool worker, except countResume and
// takeBackHandOver, which init runs on the main thread before any task is queued.
#include "logic/logic.h"

#include <algorithm>
#include <stdexcept>

#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "logic/persistence.h"
#include "minfw/log.h"

namespace orv {

using namespace logic_internal;

void Logic::resynchroniseHmi() {
  if (!signalUSBhmiSetState) {
    MLOG_ERROR(kTag, "init:: No signalUSBhmiSetState!");
    throw std::runtime_error("init:: no signalUSBhmiSetState!");
  }
  const uint32_t state = stateHMI_;
  if (state == eINSTALLATIONAVAILABLE) {
    // An offer does not survive a restart: the medium has to be presented again.
    MLOG_WARN(kTag, "Resetting stateHMI from eINSTALLATIONAVAILABLE to eINVALID...");
    setStateHMI(eINVALID);
    return;
  }
  MLOG_TRACE(kTag, "init:: Sync HMI state [", hmiStateName(state), "] to welo");
  signalUSBhmiSetState(state, medium().trainName);
  if (signalUSBhmiSetErrorCode) {
    signalUSBhmiSetErrorCode(errorCode_);
  }
  if (signalUSBhmiSetProgress) {
    signalUSBhmiSetProgress(persistence_ ? persistence_->getProgress(0) : 0);
  }
}

void Logic::resume() {
  const uint32_t interrupted = stateLUM_;
  switch (interrupted) {
    case 2:
      seqSendStartDomainUpdateDownload();
      break;
    case 4:
      seqSendStartDomainUpdate();
      break;
    case 6:
      seqCloseDomainUpdate();
      if (errorCode_ != 0) {
        seqInstallationFailed(static_cast<int>(errorCode_.load()));
      } else {
        seqInstallationFinished();
      }
      break;
    default:
      MLOG_TRACE(kTag, "init:: Start LUM status polling");
      sleepMs(1000);
      if (!polling_.exchange(true)) {
        seqGetStatus();
      }
      break;
  }
}

bool Logic::countResume() {
  resumeStep_ = stateLUM_.load();
  if (!persistence_) {
    return true;
  }
  const uint32_t attempts = std::min(persistence_->getResumeAttempts(0), kMaxResumeAttempts) + 1;
  persistence_->setResumeAttempts(attempts);
  MLOG_INFO(kTag, "Resume attempt [", attempts, "] at [", lum::sessionStepName(resumeStep_), "]");
  return attempts <= kMaxResumeAttempts;
}

// Whatever in the resume ends the service would do so again: the update fails without a word
// to the LUM, whose session is replaced or cancelled by the next update's create.
void Logic::abandonResume() {
  MLOG_ERROR(kTag, "Resuming the update at [", lum::sessionStepName(resumeStep_),
             "] ended the service ", kMaxResumeAttempts, " times in a row, giving it up");
  seqInstallationFailed(kErrResumeLoop);
}

// Only a hand-over that had not reached the LUM is started again; any other recorded update is
// the record's own, and the hand-over would have been ignored beside it.
bool Logic::takeBackHandOver(const std::string& location) {
  const uint32_t hmi = stateHMI_;
  if (stateLUM_ != 0 || (hmi != eINVALID && hmi != eINSTALLATIONAVAILABLE &&
                         hmi != eINSTALLATIONCONFIRMED && hmi != eINSTALLING)) {
    MLOG_WARN(kTag, "Hand-over of [", location, "] dropped, the record holds an update in [",
              hmiStateName(hmi), "]");
    persistence_->replaceHandOver(location, "");
    return false;
  }
  MLOG_WARN(kTag, "Hand-over of [", location, "] interrupted by the restart, starting it again");
  if (hmi != eINVALID) {
    stateHMI_.store(eINVALID);
    persistence_->setStateHmi(eINVALID);
  }
  return true;
}

void Logic::settleHandOver() {
  std::string location;
  location.swap(handOver_);
  if (!location.empty()) {
    persistence_->replaceHandOver(location, "");
  }
}

// After a restart only the medium's location survives (in the record): the description is read
// again from there when the update needs it.
void Logic::restoreMedium() {
  const Medium known = medium();
  if (!known.updateBaseUrl.empty() || known.usbPath.empty()) {
    return;
  }
  MLOG_INFO(kTag, "Reading the update medium again at [", known.usbPath, "]");
  if (!takeOver(known.usbPath)) {
    MLOG_ERROR(kTag, "Error reading update medium at [", known.usbPath, "]!");
  }
}

}  // namespace orv

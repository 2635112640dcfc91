// After a restart: the HMI is brought back to the recorded state, the medium's description is
// read again from its recorded location, and the interrupted session is picked up where it
// stopped. Threading: pool worker only (queued by init).
#include "logic/logic.h"

#include <stdexcept>

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

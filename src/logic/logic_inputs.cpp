// The inputs of the head unit and the tester and the HMI state machine they drive: the medium
// arrives, the driver answers, the update is closed or forgotten; with a tester in charge the
// DIAG auto-responder answers for the driver. Threading: the input functions and
// diagTriggerStartUpdate run on the caller's thread and only queue; the rest on the pool worker.
#include "logic/logic.h"

#include <mutex>

#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "logic/persistence.h"
#include "minfw/log.h"

namespace orv {

using namespace logic_internal;

// ---------------------------------------------------------------------------------------------
// Inputs

void Logic::inputUsbInserted(const std::string& path) {
  enqueue([this, path] { seqUsbInserted(path); });
}

void Logic::inputHmiStateChanged(int state) {
  enqueue([this, state] { seqHmiStateChanged(state); });
}

void Logic::seqUsbInserted(const std::string& path) {
  MLOG_INFO(kTag, "path [", path, "]");
  if (!signalUSBhmiSetState) {
    MLOG_ERROR(kTag, "signalUSBhmiSetState not bound");
    return;
  }
  if (stateLUM_ == 0 && stateHMI_ == eINVALID) {
    MLOG_TRACE(kTag, "Queueing installation analysis.");
    writeErrorCode(0);
    {
      std::lock_guard<std::mutex> lock(mediumMutex_);
      medium_ = Medium{};
      medium_.usbPath = path;
    }
    handOver_ = persistence_ && persistence_->getHandOver() == path ? path : "";
    if (persistence_) {
      persistence_->setUsbPath(path);
    }
    enqueue([this] { seqInstallationAnalysis(); });
    return;
  }
  MLOG_WARN(kTag, "LUM state is [", lum::sessionStepName(stateLUM_), "] and HMI state is [",
            hmiStateName(stateHMI_), "]");
  // An ignored hand-over is not kept for a restart either; the running update's own one is.
  if (persistence_) {
    persistence_->replaceHandOver(path, handOver_);
  }
}

void Logic::seqHmiStateChanged(int newState) {
  if (!signalUSBhmiDelete) {
    MLOG_ERROR(kTag, "signalUSBhmiDelete not bound!");
    return;
  }
  if (!signalUSBusbDelete) {
    MLOG_ERROR(kTag, "signalUSBusbDelete not bound!");
    return;
  }
  if (!signalRelinquish) {
    MLOG_ERROR(kTag, "signalRelinquish not bound!");
    return;
  }
  const uint32_t current = stateHMI_;
  const uint32_t next = static_cast<uint32_t>(newState);
  MLOG_INFO(kTag, "crtState=[", hmiStateName(current), "], newState=[", hmiStateName(next), "]");
  if (current == eINSTALLING && next == eINSTALLATIONCONFIRMED) {
    // A late confirmation must not disturb the installation; the display is corrected.
    MLOG_TRACE(kTag, "Display fix");
    sendHmiState(current, "");
  } else if (current == eINSTALLATIONREJECTED && next == eINSTALLATIONREJECTEDCONFIRMED) {
    MLOG_INFO(kTag, "eINSTALLATIONREJECTEDCONFIRMED");
    forgetMedium();
  } else if (current == eINSTALLATIONAVAILABLE && next == eINSTALLATIONCONFIRMED) {
    setStateHMI(eINSTALLATIONCONFIRMED);
    seqInstallationStart();
  } else if (current == eINSTALLATIONAVAILABLE && next == eINSTALLATIONCANCELLED) {
    MLOG_INFO(kTag, "eINSTALLATIONCANCELLED");
    forgetMedium();
  } else if (current == eINSTALLATIONFAILED && next == eINSTALLATIONFAILEDCONFIRMED) {
    MLOG_INFO(kTag, "eINSTALLATIONFAILEDCONFIRMED");
    closeUpdate();
  } else if (current == eINSTALLATIONFINISHED && next == eINSTALLATIONFINISHEDCONFIRMED) {
    MLOG_INFO(kTag, "eINSTALLATIONFINISHEDCONFIRMED");
    writeErrorCode(0);
    closeUpdate();
  }
}

void Logic::forgetMedium() {
  signalUSBhmiDelete();
  signalUSBusbDelete();
  setStateHMI(eINVALID);
}

void Logic::closeUpdate() {
  setTrainName("");
  if (persistence_) {
    persistence_->setTrainName("");
    persistence_->setUsbPath("");
  }
  relinquishIfHeld();
  signalUSBhmiDelete();
  signalUSBusbDelete();
  setStateHMI(eINVALID);
  if (signalSetUpdateType) {
    signalSetUpdateType(ORV_USB_UPDATETYPE_NONE);
  }
  setKeyManifest("");
}

void Logic::relinquishIfHeld() {
  if (!signalQueryControl) {
    MLOG_ERROR(kTag, "signalQueryControl not bound!");
    return;
  }
  if (signalQueryControl() != ACTIVE_USB) {
    return;
  }
  if (!signalRelinquish) {
    MLOG_ERROR(kTag, "signalRelinquish not bound!");
    return;
  }
  signalRelinquish(ACTIVE_USB);
}

void Logic::stampUpdate(bool start) {
  const std::function<bool()>& slot =
      start ? signalSetUpdateTimestampStart : signalSetUpdateTimestampEnd;
  if (!slot) {
    MLOG_ERROR(kTag, start ? "signalSetUpdateTimestampStart not bound!"
                           : "signalSetUpdateTimestampEnd not bound!");
    return;
  }
  slot();
}

// ---------------------------------------------------------------------------------------------
// HMI state and the diagnostic start

void Logic::setStateHMI(uint32_t state) {
  MLOG_INFO(kTag, "[", hmiStateName(state), "]");
  stateHMI_.store(state);
  if (persistence_) {
    persistence_->setStateHmi(state);
  }
  if (state != eINSTALLATIONAVAILABLE && state != eINSTALLATIONCONFIRMED && state != eINSTALLING) {
    settleHandOver();
  }
  if (!signalGetUpdateType) {
    MLOG_ERROR(kTag, "signalGetUpdateType not bound!");
    return;
  }
  if (signalGetUpdateType() != ORV_USB_UPDATETYPE_DIAG) {
    return;
  }
  // With a tester in charge nobody answers the offers: answer them here.
  enqueue([this] {
    const uint32_t current = stateHMI_;
    MLOG_INFO(kTag, "DIAG auto-responding [", hmiStateName(current), "]");
    switch (current) {
      case eINSTALLATIONAVAILABLE:
        seqHmiStateChanged(eINSTALLATIONCONFIRMED);
        break;
      case eINSTALLATIONFAILED:
        seqHmiStateChanged(eINSTALLATIONFAILEDCONFIRMED);
        break;
      case eINSTALLATIONFINISHED:
        seqHmiStateChanged(eINSTALLATIONFINISHEDCONFIRMED);
        break;
      default:
        break;
    }
  });
}

bool Logic::diagTriggerStartUpdate(const std::string& ctrlOptions, int override) {
  if (!signalGetUpdateType || !signalSetUpdateType) {
    MLOG_ERROR(kTag, "Needed signals not bound!");
    return false;
  }
  const uint32_t updateType = signalGetUpdateType();
  if (updateType != ORV_USB_UPDATETYPE_NONE) {
    MLOG_ERROR(kTag, "Other update in progress! updateType is (", updateType,
               ") != ORV_USB_UPDATETYPE_NONE");
    return false;
  }
  if (stateLUM_ != 0 || stateHMI_ == eINSTALLATIONCONFIRMED || stateHMI_ == eINSTALLING) {
    // A USB installation is starting or running: refuse without failing it.
    MLOG_ERROR(kTag, "Update medium NOT available! -> error (", kErrNoMedium, ")");
    MLOG_ERROR(kTag, "USB installation in progress [", hmiStateName(stateHMI_), "], left alone");
    return false;
  }
  uint32_t failure = 0;
  if (stateHMI_ != eINSTALLATIONAVAILABLE) {
    MLOG_ERROR(kTag, "Update medium NOT available! -> error (", kErrNoMedium, ")");
    failure = kErrNoMedium;
  } else {
    const std::string updateOrder = medium().updateOrder;
    // The tester's options name the orders it may start; the medium's order must be one of them.
    if (!diagParseUpdateOrder(ctrlOptions, updateOrder) && override == 0) {
      MLOG_ERROR(kTag, "Update order compare FAILURE! override=[", override, "], updateOrder=[",
                 updateOrder, "], ctrlOptions=[", ctrlOptions, "] -> error (", kErrOrder, ")");
      failure = kErrOrder;
    }
  }
  if (failure != 0) {
    enqueue([this, failure] { seqInstallationFailed(static_cast<int>(failure)); });
    enqueue([this] {
      if (stateHMI_ == eINSTALLATIONFAILED) {
        seqHmiStateChanged(eINSTALLATIONFAILEDCONFIRMED);
      }
    });
    return false;
  }
  MLOG_INFO(kTag, "Set USB update type: DIAG!");
  signalSetUpdateType(ORV_USB_UPDATETYPE_DIAG);
  writeErrorCode(0);
  enqueue([this] {
    MLOG_INFO(kTag, "Update medium available. Starting now.");
    seqHmiStateChanged(eINSTALLATIONCONFIRMED);
  });
  return true;
}

bool Logic::diagParseUpdateOrder(const std::string& first, const std::string& second) {
  if (!second.empty() && first.find(second) != std::string::npos) {
    return true;
  }
  MLOG_ERROR(kTag, "Substring [", second, "] not found in [", first, "], dtErrTxt [",
             second.empty() ? "empty update order" : "update order not in control options", "]");
  return false;
}

}  // namespace orv

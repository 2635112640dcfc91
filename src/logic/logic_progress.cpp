// The status poll of a running session: the LUM's state and progress, passed on to the HMI, and
// the RETRY_* make-ups for a step the LUM shows complete whose event never came.
// Threading: pool worker only; getProgress is a pure computation, callable from any thread.
#include "logic/logic.h"

#include <cstdint>
#include <mutex>

#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "logic/persistence.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

using namespace logic_internal;

namespace {

constexpr int64_t kPollPauseMs = 1000;

// The status poll makes up for a missing event after this many further polls.
constexpr uint32_t kRetryLimit = 2;

}  // namespace

// The progress computation reports its faults under the label of the event that once computed
// it; readers of old traces search for that label.
#define LOGIC_PROGRESS_LOG(level, ...)                                                         \
  ::kel::vxp3::minfw::Logger::instance().log(                                                  \
      ::kel::vxp3::minfw::cat(__VA_ARGS__), kTag, (level),                                     \
      "virtual void orv::Logic::eventDebugMessageNotification(uint16_t, const string&, const " \
      "string&)",                                                                              \
      "eventDebugMessageNotification", __LINE__)

// Polling goes on after a started phase; a chain that is already running carries on by itself.
void Logic::queuePoll() {
  if (!polling_.exchange(true)) {
    enqueue([this] { seqGetStatus(); });
  }
}

void Logic::seqGetStatus() {
  const uint32_t step = stateLUM_;
  if (step != 1 && step != 3 && step != 5 && step != 7) {
    MLOG_INFO(kTag, "Canceling status polling");
    polling_ = false;
    return;
  }
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    polling_ = false;
    lumOrFail();
    return;
  }
  Client::GetDomainUpdateSessionStateOutput state;
  if (!lum->getDomainUpdateSessionState(kClientId, riid_, state, true)) {
    MLOG_ERROR(kTag, "getDomainUpdateSessionState: Communication error with LUM!");
    polling_ = false;
    // Nothing polls until the LUM is reported back: the watch bounds that wait.
    lumLost();
    return;
  }
  {
    // A LUM that answers is not lost, whatever discovery said.
    std::lock_guard<std::mutex> lock(lumWatchMutex_);
    lumLostSince_.reset();
  }
  const uint32_t returned = status(state.returnStatus);
  const uint32_t processing = static_cast<uint32_t>(state.currentProcessingState);
  MLOG_INFO(kTag, "getDomainUpdateSessionState().returnStatus [",
            lum::sequenceReturnStatusName(returned), "], currentProcessingState [",
            lum::processingStateName(processing), "], currentProcessingDetails [",
            state.currentProcessingDetails, "]");

  using PS = lum11::CM_CurrentProcessingState;
  const PS ps = state.currentProcessingState;
  bool goOn = true;
  // Counts one more poll that shows `counter`'s step complete; true once the event is overdue.
  auto overdue = [this](RetryCounter counter, const char* name) {
    if (retry_[counter] > kRetryLimit) {
      retry_[counter] = 0;
      return true;
    }
    ++retry_[counter];
    MLOG_INFO(kTag, name, " (", retry_[counter], ")");
    return false;
  };
  if (returned == kReturnOk) {
    bool handled = false;
    if ((ps == PS::failFinished || ps == PS::revertFinished) && step != 6) {
      handled = true;
      if (overdue(RETRY_ERROR, "RETRY_ERROR")) {
        queueErrorHandling(0, 0);
        goOn = false;
      }
    }
    if (goOn && step == 1 && ps == PS::verificationFinished) {
      handled = true;
      // Polling goes on: should the start not get through, the next overdue poll tries again.
      if (overdue(RETRY_VERIFICATION, "RETRY_VERIFICATION")) {
        enqueue([this] { seqSendStartDomainUpdateDownload(); });
      }
    }
    if (goOn && step == 3) {
      handled = true;
      if (ps == PS::downloadFinished && overdue(RETRY_DOWNLOAD, "RETRY_DOWNLOAD")) {
        enqueue([this] { seqSendStartDomainUpdate(); });
      }
      Client::GetDomainUpdateDownloadProgressOutput progress;
      if (!lum->getDomainUpdateDownloadProgress(kClientId, riid_, progress, true)) {
        MLOG_ERROR(kTag, "Communication error with LUM!");
        polling_ = false;
        seqInstallationFailed(kErrDownloadProgress);
        return;
      }
      reportProgress("getDomainUpdateDownloadProgress: ", progress);
    }
    if (goOn && step == 5) {
      handled = true;
      if (ps == PS::successfulFinished && overdue(RETRY_UPDATE, "RETRY_UPDATE")) {
        queueFinishedHandling();
        goOn = false;
      }
      if (goOn) {
        Client::GetDomainUpdateProgressOutput progress;
        if (!lum->getDomainUpdateProgress(kClientId, riid_, progress, true)) {
          MLOG_ERROR(kTag, "getDomainUpdateProgress: Communication error with LUM!");
          polling_ = false;
          seqInstallationFailed(kErrUpdateProgress);
          return;
        }
        reportProgress("getDomainUpdateProgress: ", progress);
      }
    }
    if (goOn && step == 7 && ps != PS::cancelling) {
      // Only a restart between two session tries polls a cancel: the session is gone.
      handled = true;
      polling_ = false;
      MLOG_ERROR(kTag, "createDomainUpdateSession failed!");
      seqInstallationFailed(kErrCreateSession);
      return;
    }
    if (!handled) {
      MLOG_INFO(kTag, "Possible unhandled LUM processing state!");
    }
  } else if (returned != kReturnBusy && step == 7) {
    polling_ = false;
    MLOG_ERROR(kTag, "createDomainUpdateSession failed!");
    seqInstallationFailed(kErrCreateSession);
    return;
  } else if (returned != kReturnBusy) {
    polling_ = false;
    if (returned >= 1 && returned <= 3) {
      MLOG_ERROR(kTag, "Update forcefully interrupted! stateLUM=[ ", lum::sessionStepName(step),
                 "], stateHMI=[", hmiStateName(stateHMI_), "], riid=[", riid_.load(), "]");
      seqInstallationFailed(kErrInterrupted);
    } else {
      MLOG_ERROR(kTag, "Unexpected answer from LUM, cancelling the update! returnStatus=[",
                 returned, "], stateLUM=[ ", lum::sessionStepName(step), "], stateHMI=[",
                 hmiStateName(stateHMI_), "], riid=[", riid_.load(), "]");
      seqInstallationFailed(kErrUnexpected);
    }
    return;
  }
  if (!goOn) {
    polling_ = false;
    return;
  }
  sleepMs(kPollPauseMs);
  if (stopping_) {
    polling_ = false;
    return;
  }
  enqueue([this] { seqGetStatus(); });
}

uint32_t Logic::getProgress(int64_t processedBytes, int64_t totalBytes) {
  if (processedBytes < 0) {
    LOGIC_PROGRESS_LOG(kel::vxp3::minfw::kError, "Processed bytes negative!");
    return 0;
  }
  if (totalBytes < 0) {
    LOGIC_PROGRESS_LOG(kel::vxp3::minfw::kError, "Total bytes negative!");
    return 0;
  }
  if (totalBytes == 0) {
    LOGIC_PROGRESS_LOG(kel::vxp3::minfw::kError, "Total bytes zero!");
    return 0;
  }
  if (processedBytes > totalBytes) {
    LOGIC_PROGRESS_LOG(kel::vxp3::minfw::kError, "Processes bytes > total bytes!");
    return 100;
  }
  // processed <= total, so only a product beyond 64 bits could overflow; divide first then.
  if (processedBytes > INT64_MAX / 100) {
    return static_cast<uint32_t>(processedBytes / (totalBytes / 100));
  }
  return static_cast<uint32_t>(processedBytes * 100 / totalBytes);
}

template <typename Progress>
void Logic::reportProgress(const char* label, const Progress& progress) {
  MLOG_INFO(kTag, label, "returnStatus=[",
            lum::sequenceReturnStatusName(status(progress.returnStatus)), "], processedBytes=[",
            progress.processedBytes, "], totalBytes=[", progress.totalBytes,
            "], currentPackageNumber=[", progress.currentPackageNumber, "], totalPackageNumber=[",
            progress.totalPackageNumber, "], packageName=[", progress.packageName,
            "], currentProcessingState=[", toString(progress.currentProcessingState),
            "], currentProcessingDetails=[", progress.currentProcessingDetails, "]");
  seqUpdateProgress(getProgress(progress.processedBytes, progress.totalBytes));
  if (signalUSBhmiSetPackageName) {
    signalUSBhmiSetPackageName(progress.packageName);
  }
}

void Logic::seqUpdateProgress(uint32_t percent) {
  if (!signalUSBhmiSetProgress) {
    MLOG_ERROR(kTag, "signalUSBhmiSetProgress not set!");
    return;
  }
  if (persistence_) {
    persistence_->setProgress(percent);
  } else {
    MLOG_ERROR(kTag, "No persistence set!");
  }
  signalUSBhmiSetProgress(percent);
}

}  // namespace orv

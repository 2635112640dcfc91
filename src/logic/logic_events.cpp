// What the LUM reports while this channel holds control: each event is logged and turned into
// queued sequences. Threading: the events arrive on middleware threads and only queue; the
// queued handling runs on the pool worker (queue*Handling is also called there by the poll).
#include "logic/logic.h"

#include <algorithm>
#include <chrono>
#include <mutex>

#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

using namespace logic_internal;

void Logic::eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                                    const lum11::ReadyForDownloadInfo& info) {
  (void)domainRepairInstructionID;
  MLOG_INFO(kTag, "info.downloadDataSize: ", info.downloadDataSize,
            ", info.installationTime=", info.installationTime);
  enqueue([this, info] {
    if (signalUSBhmiSetDownloadInfo) {
      signalUSBhmiSetDownloadInfo(info.downloadDataSize, info.installationTime);
    }
    seqSendStartDomainUpdateDownload();
  });
}

void Logic::eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                                  const lum11::ReadyForUpdateInfo& info) {
  (void)domainRepairInstructionID;
  MLOG_INFO(kTag, "info.downloadedDataSize: ", info.downloadedDataSize,
            ", info.installationTime=", info.installationTime);
  enqueue([this, info] {
    if (signalUSBhmiSetUpdateInfo) {
      signalUSBhmiSetUpdateInfo(info.downloadedDataSize, info.installationTime);
    }
    seqSendStartDomainUpdate();
  });
}

void Logic::eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "riid: ", domainRepairInstructionID);
  if (errorCode_ != 0) {
    MLOG_WARN(kTag, "We have a previous error [", errorCode_.load(),
              "] active, this should not happen!");
  }
  queueFinishedHandling();
}

void Logic::queueFinishedHandling() {
  writeErrorCode(0);
  enqueue([this] { seqCloseDomainUpdate(); });
  enqueue([this] { seqInstallationFinished(); });
}

void Logic::eventDomainErrorNotification(uint16_t domainRepairInstructionID, uint32_t errorCode) {
  (void)domainRepairInstructionID;
  MLOG_INFO(kTag, "errorCode: ", errorCode);
  queueErrorHandling(errorCode, 0);
}

void Logic::queueErrorHandling(uint32_t lumCode, uint32_t fallback) {
  {
    std::lock_guard<std::mutex> lock(endMutex_);
    if (endDecided_ || stateLUM_ == 0) {
      MLOG_WARN(kTag, "No update running, error [", lumCode, "] ignored");
      return;
    }
    lumErrorCode_ = lumErrorCode_ != 0 ? lumErrorCode_ : lumCode;
    fallbackCode_ = fallbackCode_ != 0 ? fallbackCode_ : fallback;
    if (lumErrorPending_) {
      MLOG_INFO(kTag, "Error [", lumCode, "] joins the error handling under way");
      return;
    }
    lumErrorPending_ = true;
    if (lumCode != 0) {
      writeErrorCode(lumCode);
    }
  }
  // First in, first out: the result is fetched before the session closes, the state comes last.
  enqueue([this] { seqGetDomainUpdateResult(); });
  enqueue([this] { seqCloseDomainUpdate(); });
  enqueue([this] {
    uint32_t code = 0;
    if (claimLumFailure(code)) {
      seqInstallationFailed(static_cast<int>(code));  // the claim is this task's now
    }
  });
}

void Logic::openSession() {
  std::lock_guard<std::mutex> lock(endMutex_);
  endDecided_ = false;
  lumErrorPending_ = false;
  lumErrorCode_ = 0;
  fallbackCode_ = 0;
}

bool Logic::claimFailure(uint32_t code) {
  std::lock_guard<std::mutex> lock(endMutex_);
  if (lumErrorPending_) {
    fallbackCode_ = fallbackCode_ != 0 ? fallbackCode_ : code;
    MLOG_WARN(kTag, "Failure [", code, "] left to the LUM's error handling under way");
    return false;
  }
  endDecided_ = true;
  return true;
}

// The LUM's code from its event, else from its result (adopted by seqGetDomainUpdateResult),
// else the code of the failure that was left to this handling.
bool Logic::claimLumFailure(uint32_t& code) {
  std::lock_guard<std::mutex> lock(endMutex_);
  if (!lumErrorPending_) {
    return false;
  }
  lumErrorPending_ = false;
  endDecided_ = true;
  code = lumErrorCode_ != 0 ? lumErrorCode_ : errorCode_ != 0 ? errorCode_.load() : fallbackCode_;
  return true;
}

bool Logic::claimSuccess() {
  std::lock_guard<std::mutex> lock(endMutex_);
  if (lumErrorPending_) {
    MLOG_WARN(kTag, "The LUM's error is being handled, not finishing");
    return false;
  }
  endDecided_ = true;
  return true;
}

bool Logic::lumErrorPending() {
  std::lock_guard<std::mutex> lock(endMutex_);
  return lumErrorPending_;
}

void Logic::eventDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint16_t timeout) {
  (void)domainRepairInstructionID;
  (void)timeout;
  MLOG_INFO(kTag, "NOT IMPLEMENTED!");
}

void Logic::eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                          const std::string& debugMessageID,
                                          const std::string& debugMessage) {
  (void)domainRepairInstructionID;
  (void)debugMessageID;
  (void)debugMessage;
  MLOG_INFO(kTag, "NOT IMPLEMENTED!");
}

void Logic::eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  MLOG_INFO(kTag, "fileType [", toString(request.fileType),
            "], fileNames.size()=", request.fileNames.size(), ", updateURLRequestID: [",
            kel::vxp3::minfw::hexText(request.updateURLRequestID.data(),
                                      request.updateURLRequestID.size()),
            "]");
  enqueue([this, request] { seqResolveUpdateURLRequest(request); });
}

void Logic::eventConnection(bool connected) {
  MLOG_INFO(kTag, connected ? "LUM connected." : "LUM disconnected!");
  if (!connected) {
    lumLost();
    return;
  }
  {
    std::lock_guard<std::mutex> lock(lumWatchMutex_);
    lumLostSince_.reset();
  }
  // A poll chain that ended on a lost LUM is picked up again once the LUM is back.
  const uint32_t step = stateLUM_;
  const bool pollingStep = step == 1 || step == 3 || step == 5 || step == 7;
  if (connected && pollingStep && !polling_.exchange(true)) {
    MLOG_INFO(kTag, "Resuming status polling");
    enqueue([this] { seqGetStatus(); });
  }
}

void Logic::lumLost() {
  {
    std::lock_guard<std::mutex> lock(lumWatchMutex_);
    if (stateLUM_ == 0 || lumLostSince_) {
      return;
    }
    lumLostSince_ = kel::vxp3::minfw::clock().now();
    if (lumWatchQueued_) {
      return;  // the running watch picks the new loss up
    }
    lumWatchQueued_ = true;
  }
  MLOG_WARN(kTag, "LUM lost during the update, waiting up to [", lumLossLimit_.count(),
            "] s for it");
  enqueue([this] { seqWatchLum(); });
}

void Logic::seqWatchLum() {
  kel::vxp3::minfw::Clock::Duration left{};
  {
    std::lock_guard<std::mutex> lock(lumWatchMutex_);
    if (!lumLostSince_ || stateLUM_ == 0 || stopping_) {
      MLOG_INFO(kTag, lumLostSince_ ? "Update ended, LUM watch ends" : "LUM back in time");
      lumWatchQueued_ = false;
      lumLostSince_.reset();
      return;
    }
    left = *lumLostSince_ + lumLossLimit_ - kel::vxp3::minfw::clock().now();
    if (left <= left.zero()) {
      lumWatchQueued_ = false;
      lumLostSince_.reset();
    }
  }
  if (left <= left.zero()) {
    lumGoneForGood();
    return;
  }
  // Short steps: a LUM that returns is polled again without waiting out a long pause.
  sleepMs(std::min<int64_t>(1000, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
  enqueue([this] { seqWatchLum(); });
}

void Logic::lumGoneForGood() {
  MLOG_ERROR(kTag, "LUM not back within [", lumLossLimit_.count(), "] s, ending the update with [",
             kErrInterrupted, "]");
  seqInstallationFailed(kErrInterrupted);
}

void Logic::eventInternal(int value) {
  MLOG_INFO(kTag, "Internal event [", value, "]", value == 1 ? ", USB channel re-armed" : "");
}

}  // namespace orv

// The poll worker: while the diagnostic master holds control it asks the LUM for the session
// state every 3 s and keeps the domainUpdateSessionState field current. Its own thread
// ("dm-poll"); pollMutex_ guards the worker's registration.

#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <pthread.h>

#include "interfaces/lum/diag_local_update_manager_control_service_internal.h"
#include "interfaces/lum/lum_names.h"
#include "minfw/clock.h"
#include "minfw/log.h"

namespace orv {

using namespace dm_service_internal;

namespace {

// Until the download ends the LUM's figures are those of the download ahead; from then on
// those of the download done, which the installation works on.
bool downloadFigures(PS state) {
  return state == PS::verificationFinished || state == PS::downloading;
}
bool updateFigures(PS state) {
  return state == PS::downloadFinished || state == PS::updating || state == PS::successfulFinished;
}

}  // namespace

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
    const PollAnswer answer = pollSessionState();
    // Control taken only for this cycle goes back, so the USB channel is never locked out.
    if (took) {
      relinquish();
    } else if (answer != PollAnswer::kNone && confirmSession_.exchange(false) &&
               answer == PollAnswer::kRefused) {
      // A LUM that came back without the session (it restarted) would otherwise leave the LUM
      // locked to channel 0 for good: nobody can close a session the LUM no longer has.
      MLOG_WARN(kTag,
                "LUM has no session of the diagnostic master after reconnecting: control "
                "given back");
      endSession();
      signalSetUpdateTimestampEnd();
      relinquish();
      self.stop = true;
      break;
    }
  }
  MLOG_TRACE(kTag, "V12 Polling Loop stopped");
  self.finished = true;
  std::lock_guard<std::mutex> lock(workersMutex_);
  --runningWorkers_;
  workersGone_.notify_all();
}

Service::PollAnswer Service::pollSessionState() {
  const std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_DM);
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return PollAnswer::kNone;
  }
  SessionState entry = storedState(sessionId());
  {
    std::lock_guard<minfw::HandoverMutex> lock(lumMutex_);
    Client::GetDomainUpdateSessionStateOutput state;
    if (!lum->getDomainUpdateSessionState(kPollClientId, kPollDomainId, state, false)) {
      MLOG_ERROR(kTag, "getDomainUpdateSessionState: Communication error with LUM! Communication=",
                 "FAIL", ", ReturnStatus=", "n/a");
      return PollAnswer::kNone;
    }
    MLOG_TRACE(kTag, "getDomainUpdateSessionState().returnStatus [",
               lum::returnStatusName(state.returnStatus), "], currentProcessingState [",
               toString(state.currentProcessingState), "], currentProcessingDetails [",
               state.currentProcessingDetails, "]");
    // A refused call's other outputs carry no meaning.
    if (state.returnStatus != lum11::CM_ReturnStatus::ok) {
      return PollAnswer::kRefused;
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
  return PollAnswer::kAnswered;
}

}  // namespace orv

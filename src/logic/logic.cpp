// Logic's life cycle: construction, init (reading the record, wiring the HMI service, queueing
// the start-up tasks), destruction, the task pool, and the setters that write state through.
// Threading: construction, init and destruction on the main thread; waitForLum and the setters
// run on the pool worker; medium() and keyManifest() on any thread, under mediumMutex_.
#include "logic/logic.h"

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "interfaces/hmi/hmi_service.h"
#include "interfaces/lum/lum_names.h"
#include "logic/logic_internal.h"
#include "logic/persistence.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

using namespace logic_internal;

Logic::Logic(std::shared_ptr<Persistence> persistence) : persistence_(std::move(persistence)) {
  pool_ = std::make_unique<kel::vxp3::minfw::ThreadPool>(1, "orv-logic");
  if (const char* text = std::getenv("ORVANE_LUM_LOSS_LIMIT_S")) {
    char* end = nullptr;
    const long long seconds = std::strtoll(text, &end, 10);
    if (end != text && *end == '\0' && seconds > 0) {
      lumLossLimit_ = std::chrono::seconds(seconds);
    } else {
      MLOG_WARN(kTag, "ORVANE_LUM_LOSS_LIMIT_S [", text, "] is not a number of seconds, using [",
                kLumLossLimitSeconds, "]");
    }
  }
}

Logic::~Logic() {
  // From here on no new task is queued and the waiting tasks give up, so the queue runs out even
  // without a LUM. drain() logs "Waiting on threadPool, size=" and "Waiting on threadPool done".
  stopping_ = true;
  pool_->drain();
  // Nothing runs on the pool any more: the HMI service (and its socket thread) can go.
  hmi_.reset();
  pool_.reset();
}

void Logic::enqueue(std::function<void()> task) {
  if (stopping_) {
    MLOG_WARN(kTag, "Shutting down, task dropped");
    return;
  }
  pool_->enqueue(std::move(task));
}

std::unique_ptr<IHmiService> Logic::createHmiService() {
  return std::make_unique<HmiService>();
}

// ---------------------------------------------------------------------------------------------
// Start-up

bool Logic::init() {
  std::string handOver;
  if (persistence_) {
    stateHMI_.store(persistence_->getStateHmi(eINVALID));
    stateLUM_.store(persistence_->getStateLum(0));
    riid_.store(static_cast<uint16_t>(persistence_->getRepairInstructionId(1)));
    setTrainName(persistence_->getTrainName());
    errorCode_.store(static_cast<uint32_t>(persistence_->getErrorCode(0)));
    const uint32_t updateType = persistence_->getUpdateType(ORV_USB_UPDATETYPE_NONE);
    {
      std::lock_guard<std::mutex> lock(mediumMutex_);
      keyManifest_ = persistence_->getKeyManifest();
      medium_.usbPath = persistence_->getUsbPath();
    }
    MLOG_INFO(kTag, "stateHMI is [", hmiStateName(stateHMI_), "]");
    MLOG_INFO(kTag, "stateLUM is [", lum::sessionStepName(stateLUM_), "]");
    MLOG_INFO(kTag, "RIID is [", riid_.load(), "]");
    MLOG_INFO(kTag, "TrainName is [", medium().trainName, "]");
    MLOG_INFO(kTag, "ErrorCode is [", errorCode_.load(), "]");
    MLOG_INFO(kTag, "UpdateType is [0x", kel::vxp3::minfw::hex(updateType), "]");
    MLOG_INFO(kTag, "KeyManifest is [", keyManifest(), "]");
    handOver = persistence_->getHandOver();
  } else {
    MLOG_ERROR(kTag, "Logic received null persistence object!");
  }

  // Counted before the HMI service or any task can touch the update.
  const bool resumeAllowed = stateLUM_ == 0 || countResume();
  const bool handOverAgain = !handOver.empty() && takeBackHandOver(handOver);

  // The HMI service feeds inputs from its own threads as soon as it is up, so its callables are
  // bound before its init.
  hmi_ = createHmiService();
  auto hmiCall = [this](const auto& call) {
    if (!hmi_) {
      MLOG_ERROR(kTag, "USB object not defined!");
      return;
    }
    call(*hmi_);
  };
  signalUSBhmiSetState = [hmiCall](uint32_t state, const std::string& description) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetState(static_cast<int>(state), description); });
  };
  signalUSBhmiSetProgress = [hmiCall](uint32_t percent) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetProgress(percent); });
  };
  signalUSBhmiSetErrorCode = [hmiCall](uint32_t code) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetErrorCode(code); });
  };
  signalUSBhmiDelete = [hmiCall] { hmiCall([](IHmiService& hmi) { hmi.hmiDelete(); }); };
  signalUSBusbDelete = [hmiCall] { hmiCall([](IHmiService& hmi) { hmi.usbDelete(); }); };
  signalUSBhmiSetPackageName = [hmiCall](const std::string& name) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetPackageName(name); });
  };
  signalUSBhmiSetDownloadInfo = [hmiCall](int64_t size, uint32_t time) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetDownloadInfo(size, time); });
  };
  signalUSBhmiSetUpdateInfo = [hmiCall](int64_t size, uint32_t time) {
    hmiCall([&](IHmiService& hmi) { hmi.hmiSetUpdateInfo(size, time); });
  };
  if (hmi_) {
    hmi_->UsbInserted = [this](const std::string& path) { inputUsbInserted(path); };
    hmi_->HmiStateChanged = [this](int state) { inputHmiStateChanged(state); };
    hmi_->init(persistence_);
  }

  enqueue([this] { waitForLum(); });
  if (stateHMI_ != eINVALID) {
    enqueue([this] { resynchroniseHmi(); });
  }
  const uint32_t lumState = stateLUM_;
  MLOG_TRACE(kTag, "LUM state ", lumState, "[", lum::sessionStepName(lumState), "]");
  if (handOverAgain) {
    enqueue([this, handOver] { seqUsbInserted(handOver); });
  }
  if (lumState == 0) {
    return true;
  }
  if (!resumeAllowed) {
    enqueue([this] { abandonResume(); });
    return true;
  }
  // An update was interrupted by the restart: re-arm the channel, then pick the session up.
  enqueue([this] {
    if (!signalRequestInterface) {
      MLOG_ERROR(kTag, "signalRequestInterface not bound!");
      return;
    }
    if (std::shared_ptr<DiagLUMControlClient> lum = signalRequestInterface(ACTIVE_USB)) {
      lum->_internal(1);
    }
  });
  enqueue([this] { resume(); });
  return true;
}

void Logic::waitForLum() {
  MLOG_TRACE(kTag, "init:: Wait until connected to LUM");
  if (!signalQueryAlive) {
    MLOG_ERROR(kTag, "init:: No signalQueryAlive!");
    throw std::runtime_error("init:: no signalQueryAlive!");
  }
  // An update interrupted by the restart waits for the LUM as long as one running would.
  const auto since = kel::vxp3::minfw::clock().now();
  while (!signalQueryAlive()) {
    if (stopping_ || pool_->stopping()) {
      MLOG_WARN(kTag, "Thread interrupted!");
      return;
    }
    if (stateLUM_ != 0 && kel::vxp3::minfw::clock().now() - since >= lumLossLimit_) {
      lumGoneForGood();
    }
    sleepMs(1000);
  }
  MLOG_TRACE(kTag, "init:: LUM apparently connected...");
}

// ---------------------------------------------------------------------------------------------
// Record and state

Logic::Medium Logic::medium() const {
  std::lock_guard<std::mutex> lock(mediumMutex_);
  return medium_;
}

std::string Logic::keyManifest() const {
  std::lock_guard<std::mutex> lock(mediumMutex_);
  return keyManifest_;
}

void Logic::setKeyManifest(const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(mediumMutex_);
    keyManifest_ = text;
  }
  if (persistence_) {
    persistence_->setKeyManifest(text);
  }
}

void Logic::setTrainName(const std::string& name) {
  std::lock_guard<std::mutex> lock(mediumMutex_);
  medium_.trainName = name;
}

void Logic::writeErrorCode(uint32_t code) {
  errorCode_.store(code);
  if (persistence_) {
    persistence_->setErrorCode(static_cast<int32_t>(code));
  }
}

void Logic::setStateLUM(uint32_t state) {
  MLOG_INFO(kTag, "[", lum::sessionStepName(state), "]");
  // Reset before the step is written: a crash in between allows one resume more, never one less.
  const uint32_t resumed = resumeStep_;
  if (resumed != 0 && (state == 0 || state > resumed)) {
    resumeStep_ = 0;
    if (persistence_) {
      persistence_->setResumeAttempts(0);
    }
  }
  stateLUM_.store(state);
  if (persistence_) {
    persistence_->setStateLum(state);
  }
  if (state != 0) {
    settleHandOver();
  }
}

void Logic::sendHmiState(uint32_t state, const std::string& description) {
  if (!signalUSBhmiSetState) {
    MLOG_ERROR(kTag, "signalUSBhmiSetState not bound!");
    return;
  }
  signalUSBhmiSetState(state, description);
}

}  // namespace orv

#include "logic/logic.h"

#include <stdexcept>
#include <utility>

#include "interfaces/hmi/hmi_service.h"
#include "interfaces/lum/diag_lum_control_client.h"
#include "interfaces/lum/lum_names.h"
#include "logic/http.h"
#include "logic/key_manifest.h"
#include "logic/persistence.h"
#include "logic/update_medium.h"
#include "minfw/clock.h"
#include "minfw/json.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

namespace {

using kel::vxp3::minfw::sleepMs;
using Json = kel::vxp3::minfw::json::JSON;
using Client = DiagLUMControlClient::Client;

constexpr const char* kTag = "GLOBAL";
constexpr int64_t kBusyPauseMs = 10000;
constexpr int64_t kResultBusyPauseMs = 1000;
constexpr int64_t kPollPauseMs = 1000;
constexpr int kSessionTries = 4;
constexpr int kResultTries = 3;
constexpr uint32_t kReturnOk = 0;
constexpr uint32_t kReturnBusy = 4;
// The status poll makes up for a missing event after this many further polls.
constexpr uint32_t kRetryLimit = 2;
// The update-medium description is fetched with this many tries.
constexpr unsigned kHttpTries = 3;

// The update-medium description and key manifest lie on the same HTTP location.
std::string joinUrl(const std::string& base, const std::string& name) {
  if (base.empty() || base.back() == '/') {
    return base + name;
  }
  return base + "/" + name;
}

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

uint32_t status(lum11::CM_ReturnStatus value) {
  return static_cast<uint32_t>(value);
}

}  // namespace

// The progress computation reports its faults under the label of the event that once computed
// it; readers of old traces search for that label.
#define LOGIC_PROGRESS_LOG(level, ...)                                                         \
  ::kel::vxp3::minfw::Logger::instance().log(                                                  \
      ::kel::vxp3::minfw::cat(__VA_ARGS__), kTag, (level),                                     \
      "virtual void orv::Logic::eventDebugMessageNotification(uint16_t, const string&, const " \
      "string&)",                                                                              \
      "eventDebugMessageNotification", __LINE__)

Logic::Logic(std::shared_ptr<Persistence> persistence) : persistence_(std::move(persistence)) {
  pool_ = std::make_unique<kel::vxp3::minfw::ThreadPool>(1, "orv-logic");
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
  } else {
    MLOG_ERROR(kTag, "Logic received null persistence object!");
  }

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
  if (lumState == 0) {
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
  while (!signalQueryAlive()) {
    if (stopping_ || pool_->stopping()) {
      MLOG_WARN(kTag, "Thread interrupted!");
      return;
    }
    sleepMs(1000);
  }
  MLOG_TRACE(kTag, "init:: LUM apparently connected...");
}

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

void Logic::setStateHMI(uint32_t state) {
  MLOG_INFO(kTag, "[", hmiStateName(state), "]");
  stateHMI_.store(state);
  if (persistence_) {
    persistence_->setStateHmi(state);
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

void Logic::setStateLUM(uint32_t state) {
  MLOG_INFO(kTag, "[", lum::sessionStepName(state), "]");
  stateLUM_.store(state);
  if (persistence_) {
    persistence_->setStateLum(state);
  }
}

void Logic::sendHmiState(uint32_t state, const std::string& description) {
  if (!signalUSBhmiSetState) {
    MLOG_ERROR(kTag, "signalUSBhmiSetState not bound!");
    return;
  }
  signalUSBhmiSetState(state, description);
}

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
    if (persistence_) {
      persistence_->setUsbPath(path);
    }
    enqueue([this] { seqInstallationAnalysis(); });
    return;
  }
  MLOG_WARN(kTag, "LUM state is [", lum::sessionStepName(stateLUM_), "] and HMI state is [",
            hmiStateName(stateHMI_), "]");
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

// ---------------------------------------------------------------------------------------------
// LUM events

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
  queueErrorHandling(errorCode);
}

void Logic::queueErrorHandling(uint32_t errorCode) {
  errorCode_.store(errorCode);
  writeErrorCode(errorCode);
  // First in, first out: the result is fetched before the session closes, the state comes last.
  enqueue([this] { seqGetDomainUpdateResult(); });
  enqueue([this] { seqCloseDomainUpdate(); });
  // An error made up by the status poll has no code of its own: it takes the result's code,
  // which seqGetDomainUpdateResult adopts, when the task runs.
  enqueue([this, errorCode] {
    seqInstallationFailed(static_cast<int>(errorCode != 0 ? errorCode : errorCode_.load()));
  });
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
  // A poll chain that ended on a lost LUM is picked up again once the LUM is back.
  const uint32_t step = stateLUM_;
  const bool pollingStep = step == 1 || step == 3 || step == 5 || step == 7;
  if (connected && pollingStep && !polling_.exchange(true)) {
    MLOG_INFO(kTag, "Resuming status polling");
    enqueue([this] { seqGetStatus(); });
  }
}

void Logic::eventInternal(int value) {
  MLOG_INFO(kTag, "Internal event [", value, "]", value == 1 ? ", USB channel re-armed" : "");
}

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
bool Logic::startExpected(uint32_t before, const char* phase) const {
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
    seqInstallationFailed(kErrStartDownload);
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
    seqInstallationFailed(kErrStartUpdate);
  }
}

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
    return;
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
        queueErrorHandling(errorCode_);
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

bool Logic::seqCancelDomainUpdate() {
  MLOG_INFO(kTag, "Cancel update in progress");
  setStateLUM(7);
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return false;
  }
  Client::CancelDomainUpdateOutput out;
  if (!lum->cancelDomainUpdate(kClientId, riid_, out, true)) {
    MLOG_ERROR(kTag, "CancelDomainUpdate failed!");
    return false;
  }
  MLOG_INFO(kTag, "CancelDomainUpdate, LUM returnStatus=[",
            lum::sequenceReturnStatusName(status(out.returnStatus)), "]");
  return true;
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
  // Complete, whatever the last progress poll saw before the LUM finished.
  seqUpdateProgress(100);
  setStateHMI(eINSTALLATIONFINISHED);
  sendHmiState(eINSTALLATIONFINISHED, medium().trainName);
  setStateLUM(0);
  relinquishIfHeld();
}

void Logic::seqInstallationFailed(int errorCode) {
  MLOG_ERROR(kTag, "InstallationFailed, errorCode [", errorCode, "]");
  errorCode_.store(static_cast<uint32_t>(errorCode));
  writeErrorCode(static_cast<uint32_t>(errorCode));
  setStateHMI(eINSTALLATIONFAILED);
  sendHmiState(eINSTALLATIONFAILED, medium().trainName);
  if (signalUSBhmiSetErrorCode) {
    signalUSBhmiSetErrorCode(static_cast<uint32_t>(errorCode));
  }
  setStateLUM(0);
  relinquishIfHeld();
}

// ---------------------------------------------------------------------------------------------
// Key manifest and URL resolution

bool Logic::ReadKeyManifest() {
  restoreMedium();
  const Medium taken = medium();
  const std::string url = joinUrl(taken.usbPath, taken.keyManifestFileAddr);
  uint64_t size = 0;
  if (taken.keyManifestFileAddr.empty() || !Http::_Size(url, size, kHttpTries)) {
    MLOG_ERROR(kTag, "Error reading keyManifest at [", url, "]");
    seqInstallationFailed(kErrKeyManifestRead);
    return false;
  }
  if (size > kKeyManifestMaxSize) {
    MLOG_ERROR(kTag, "Error keyManifest [", url, "] too big! size=[", size, "], max=[",
               kKeyManifestMaxSize, "]");
    enqueue([this] { seqInstallationFailed(kErrKeyManifestSize); });
    return false;
  }
  std::string text;
  if (!Http::_Get(url, text, kHttpTries) || text.size() > kKeyManifestMaxSize) {
    MLOG_ERROR(kTag, "Error reading keyManifest at [", url, "]");
    seqInstallationFailed(kErrKeyManifestRead);
    return false;
  }
  KeyManifest manifest;
  if (!manifest.Extract(text)) {
    MLOG_ERROR(kTag, "Error decrypting keyManifest from [", url, "]");
    seqInstallationFailed(kErrKeyManifestDecrypt);
    return false;
  }
  setKeyManifest(manifest.payloadText());
  return true;
}

void Logic::seqResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  if (keyManifest().empty()) {
    MLOG_INFO(kTag, "No keyManifest loaded!");
    if (!ReadKeyManifest()) {
      return;
    }
  } else {
    MLOG_INFO(kTag, "Key manifest loaded!");
  }
  restoreMedium();
  const Medium taken = medium();
  const std::string& address = taken.keyManifestFileAddr;
  const size_t slash = address.rfind('/');
  const std::string base = slash == std::string::npos ? "" : address.substr(0, slash);
  MLOG_INFO(kTag, "FileNames.size()=", request.fileNames.size(), ", Base from keyManifest [", base,
            "]");

  const Json payload = Json::Load(keyManifest());
  const Json* files = payload.find("EncryptedFiles");
  lum11::UpdateUrlResponseStruct response;
  response.updateURLRequestID = request.updateURLRequestID;
  response.error = lum11::CM_UrlError::noError;
  for (const std::string& name : request.fileNames) {
    MLOG_INFO(kTag, "FileName [", name, "]");
    bool found = false;
    size_t index = 0;
    if (files != nullptr && !name.empty()) {
      for (const Json& entry : files->ArrayRange()) {
        const Json* file = entry.find("File");
        const std::string path = file != nullptr ? file->ToString() : "";
        if (path.find("/" + name) != std::string::npos) {
          found = true;
          break;
        }
        ++index;
      }
    }
    if (!found) {
      MLOG_ERROR(kTag, "Cannot find file [", name, "] in keyManifest at [", address, "]");
      response.error = lum11::CM_UrlError::fileNotFound;
      response.urlInfo.push_back("");
      continue;
    }
    const Json& entry = files->ArrayRange()[index];
    const Json* parameters = entry.find("CryptoParameters");
    const size_t count = parameters != nullptr ? parameters->ArrayRange().size() : 0;
    if (count != 3) {
      MLOG_ERROR(kTag, "Insufficient CryptoParameters at index [", index, "], File [", name,
                 "], CryptoParameters.size()=", count);
      response.error = lum11::CM_UrlError::internalError;
      response.urlInfo.push_back("");
      continue;
    }
    MLOG_INFO(kTag, "found at index [", index, "], File [", name,
              "], CryptoParameters.size()=", count);
    // One compact JSON object per requested file, in request order: the file's URL on the
    // medium and its three crypto parameters as (name, value) pairs.
    std::string info = "{\"fileName\":" + Json(name).dump() +
                       ",\"url\":" + Json(taken.updateBaseUrl + name).dump() +
                       ",\"cryptoParameters\":[";
    bool first = true;
    for (const Json& parameter : parameters->ArrayRange()) {
      const Json* key = parameter.find("Name");
      const Json* value = parameter.find("Value");
      info += first ? "" : ",";
      info += "{\"name\":" + Json(key != nullptr ? key->ToString() : "").dump() +
              ",\"value\":" + Json(value != nullptr ? value->ToString() : "").dump() + "}";
      first = false;
    }
    info += "]}";
    response.urlInfo.push_back(info);
  }
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return;
  }
  lum->updateURLResponse(response, true);
}

}  // namespace orv

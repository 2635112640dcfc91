#include "logic/multiplexer.h"

#include <time.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "interfaces/diagnosis/nodbox/diagnosis_messwert.h"
#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"
#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "interfaces/lum/diag_local_update_manager_control_service.h"
#include "interfaces/lum/diag_lum_control_client.h"
#include "logic/logic.h"
#include "minfw/clock.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

namespace {

constexpr const char* kTag = "GLOBAL";
constexpr const char* kLumInstance = "12233";
constexpr const char* kDiagMasterInstance = "1";

constexpr const char* kUnsetDate = "--.--.----";
constexpr const char* kUnsetTime = "--:--:--";
// A start that was requested but not yet stamped.
constexpr const char* kRequestedDate = "**.**.****";
constexpr const char* kRequestedTime = "**:**:**";

const char* trueFalse(bool value) {
  return value ? "True" : "False";
}

// The current local wall time formatted with `format` (clock seam, so tests choose the time).
std::string localNow(const char* format) {
  const time_t seconds = std::chrono::system_clock::to_time_t(kel::vxp3::minfw::clock().wallNow());
  struct tm local {};
  if (localtime_r(&seconds, &local) == nullptr) {
    return "";
  }
  char text[32];
  const size_t length = strftime(text, sizeof(text), format, &local);
  return std::string(text, length);
}

// The read-out text of an error code: the service's own codes by cause, 0 as none, and
// everything else as a code the LUM reported.
const char* errorText(int32_t code) {
  switch (code) {
    case 0:
      return "none";
    case 601:
      return "LUM interface not available";
    case 602:
      return "createDomainUpdateSession failed";
    case 603:
      return "startDomainUpdateDownload failed";
    case 605:
      return "startDomainUpdate failed";
    case 607:
      return "getDomainUpdateResult failed";
    case 608:
      return "update forcefully interrupted";
    case 609:
      return "unexpected answer from LUM";
    case 610:
      return "update medium not readable";
    case 612:
      return "key manifest not readable";
    case 613:
      return "key manifest not decryptable";
    case 615:
      return "getDomainUpdateProgress failed";
    case 616:
      return "getDomainUpdateDownloadProgress failed";
    case 617:
      return "key manifest too big";
    case 618:
      return "update medium not available";
    case 619:
      return "update order mismatch";
    case 620:
      return "resume kept ending the service";
    default:
      return "LUM error";
  }
}

}  // namespace

Multiplexer::Multiplexer(std::shared_ptr<Persistence> persistence)
    : persistence_(std::move(persistence)) {
  if (!persistence_) {
    throw std::runtime_error("Multiplexer received null persistence object!");
  }
  const uint32_t recorded = persistence_->getChannel(ACTIVE_NONE);
  MLOG_INFO(kTag, "ActiveChannel is [", channelName(recorded), "]");
  // A value that names no channel could never be released again; nobody holds control then.
  if (recorded > ACTIVE_NONE) {
    MLOG_WARN(kTag, "Record names no channel (", recorded, "), control is free");
    active_.store(ACTIVE_NONE);
  } else {
    active_.store(recorded);
  }
}

Multiplexer::~Multiplexer() = default;

// ---------------------------------------------------------------------------------------------
// Start-up

bool Multiplexer::createInterfaces() {
  // The list index is the channel value: the diagnostic master first, then the USB channel.
  // The service is offered by its init(), once its slots are bound.
  addChannel(std::make_unique<DiagLocalUpdateManagerControlService>(kDiagMasterInstance));
  addChannel(std::make_unique<Logic>(persistence_));
  setLumClient(std::make_shared<DiagLUMControlClient>(
      std::make_unique<DiagLocalUpdateManagerControlClient>()));
  setRoutineClient(std::make_unique<DiagnosisViRoutineClient>());
  setMesswertClient(std::make_unique<DiagnosisMesswert>());
  return true;
}

// Each missing piece ends the binding with false.
bool Multiplexer::initBindings() {
  if (channels_.size() != kChannelCount) {
    MLOG_ERROR(kTag, "Not all interfaces initialized!");
    return false;
  }
  if (!lumClient_) {
    MLOG_ERROR(kTag, "LUM object not defined!");
    return false;
  }
  if (!diagMesswert_) {
    MLOG_ERROR(kTag, "diagMesswert not defined!");
    return false;
  }
  if (!diagRoutineCtrl_) {
    MLOG_ERROR(kTag, "diagRoutineCtrl not defined!");
    return false;
  }
  for (size_t index = 0; index < channels_.size(); ++index) {
    if (!channels_[index]) {
      MLOG_ERROR(kTag, "Input signal for [", index, "] is undefined!");
      return false;
    }
    bindChannel(*channels_[index]);
  }
  diagRoutineCtrl_->signalLogicDiagnoseStartUpdate = [this](const std::string& text, int number) {
    return diagnoseStartUpdate(text, number);
  };
  diagMesswert_->signalDiagnoseUpdateState = [this] { return diagnoseUpdateState(); };
  diagMesswert_->signalDiagnoseTimestamps = [this] { return diagnoseTimestamps(); };
  return true;
}

void Multiplexer::bindChannel(ILumChannel& channel) {
  channel.signalRequestExclusiveControl = [this](uint32_t value) {
    return requestExclusiveControl(value, false);
  };
  channel.signalRequestTemporaryControl = [this](uint32_t value) {
    return requestExclusiveControl(value, true);
  };
  channel.signalRequestInterface = [this](uint32_t value) { return requestInterface(value); };
  channel.signalRelinquish = [this](uint32_t value) { return relinquishControl(value); };
  channel.signalQueryControl = [this] { return queryControl(); };
  channel.signalQueryAlive = [this] { return lumClient_ != nullptr && lumClient_->connected(); };
  channel.signalSetUpdateType = [this](uint32_t value) { return setUpdateType(value); };
  channel.signalGetUpdateType = [this] { return getUpdateType(); };
  channel.signalSetUpdateTimestampStart = [this] { return setUpdateTimestampStart(); };
  channel.signalSetUpdateTimestampEnd = [this] { return setUpdateTimestampEnd(); };
  channel.signalSetErrorCode = [this](uint32_t value) { return setErrorCode(value); };
}

bool Multiplexer::initInterfaces() {
  bool lumUp = false;
  if (lumClient_) {
    bindLumEvents();
    lumUp = lumClient_->init(kLumInstance);
  } else {
    MLOG_ERROR(kTag, "LUM object not defined!");
  }
  const bool routineUp = diagRoutineCtrl_ != nullptr && diagRoutineCtrl_->connect();
  const bool messwertUp = diagMesswert_ != nullptr && diagMesswert_->connect();
  MLOG_INFO(kTag, "LUM init [", trueFalse(lumUp), "]");
  MLOG_INFO(kTag, "DiagnosisRoutineCtrl init [", trueFalse(routineUp), "]");
  MLOG_INFO(kTag, "DiagnosisMesswert init [", trueFalse(messwertUp), "]");
  // The channels start last, once their slots are bound and the clients are up; their start-up
  // (the HMI service and its socket) must not hold back the report above.
  for (const std::unique_ptr<ILumChannel>& channel : channels_) {
    if (channel) {
      channel->init();
    }
  }
  // The routine client is optional: without it only the tester's routine start is missing.
  return lumUp && messwertUp;
}

// Each slot calls the virtual event operation, so that a subclass can intercept events.
void Multiplexer::bindLumEvents() {
  DiagLocalUpdateManagerControlClient& client = lumClient_->client();
  client.signalEventConnection = [this](bool connected) { eventConnection(connected); };
  client.signalEventDomainReadyForDownloadNotification =
      [this](uint16_t riid, const lum11::ReadyForDownloadInfo& info) {
        eventDomainReadyForDownloadNotification(riid, info);
      };
  client.signalEventDomainReadyForUpdateNotification =
      [this](uint16_t riid, const lum11::ReadyForUpdateInfo& info) {
        eventDomainReadyForUpdateNotification(riid, info);
      };
  client.signalEventDomainUpdateFinishedNotification = [this](uint16_t riid) {
    eventDomainUpdateFinishedNotification(riid);
  };
  client.signalEventDomainOffTimeNotification = [this](uint16_t riid, uint16_t timeout) {
    eventDomainOffTimeNotification(riid, timeout);
  };
  client.signalEventDebugMessageNotification = [this](uint16_t riid, const std::string& id,
                                                      const std::string& message) {
    eventDebugMessageNotification(riid, id, message);
  };
  client.signalEventResolveUpdateURLRequest =
      [this](const lum11::resolveUpdateURLRequest_fileNames& fileNames, lum11::CM_FileType fileType,
             const lum11::DT_uuid& updateURLRequestID) {
        ResolveUpdateURLRequest request;
        request.fileNames = fileNames;
        request.fileType = fileType;
        request.updateURLRequestID = updateURLRequestID;
        eventResolveUpdateURLRequest(request);
      };
  client.signalEventDomainErrorNotification = [this](uint16_t riid, uint32_t errorCode) {
    eventDomainErrorNotification(riid, errorCode);
  };
  lumClient_->signalEventInternal = [this](int value) { eventInternal(value); };
}

void Multiplexer::addChannel(std::unique_ptr<ILumChannel> channel) {
  channels_.push_back(std::move(channel));
}

ILumChannel* Multiplexer::channel(uint32_t value) const {
  return value < channels_.size() ? channels_[value].get() : nullptr;
}

void Multiplexer::setLumClient(std::shared_ptr<DiagLUMControlClient> client) {
  lumClient_ = std::move(client);
}

void Multiplexer::setRoutineClient(std::unique_ptr<IRoutine> client) {
  diagRoutineCtrl_ = std::move(client);
}

void Multiplexer::setMesswertClient(std::unique_ptr<IMesswert> client) {
  diagMesswert_ = std::move(client);
}

// ---------------------------------------------------------------------------------------------
// Control arbitration

bool Multiplexer::requestExclusiveControl(uint32_t channel, bool temporary) {
  if (channel >= kChannelCount) {
    MLOG_ERROR(kTag, "Invalid channel [", channelName(channel), "] (", channel, ")!");
    return false;
  }
  std::lock_guard<std::mutex> lock(grantMutex_);
  const uint32_t holder = active_.load();
  if (holder == channel) {
    MLOG_INFO(kTag, "Control is already [", channelName(channel), "]");
    return true;
  }
  if (holder == ACTIVE_NONE) {
    active_.store(channel);
    if (!temporary) {
      persistence_->setChannel(channel);
    }
    MLOG_INFO(kTag, "Control is", temporary ? "temporary " : " ", "now [", channelName(channel),
              "]");
    return true;
  }
  MLOG_WARN(kTag, "Control is [", channelName(holder), "]");
  return false;
}

bool Multiplexer::relinquishControl(uint32_t channel) {
  std::lock_guard<std::mutex> lock(grantMutex_);
  const uint32_t holder = active_.load();
  if (channel >= kChannelCount || holder != channel) {
    MLOG_WARN(kTag, "Control belongs to [", channelName(holder), "], not [", channelName(channel),
              "]");
    return false;
  }
  MLOG_INFO(kTag, "Control released by [", channelName(channel), "]");
  active_.store(ACTIVE_NONE);
  persistence_->setChannel(ACTIVE_NONE);
  return true;
}

uint32_t Multiplexer::queryControl() {
  const uint32_t holder = active_.load();
  MLOG_TRACE(kTag, "Currently controlling [", channelName(holder), "]");
  return holder;
}

std::shared_ptr<DiagLUMControlClient> Multiplexer::requestInterface(uint32_t channel) {
  if (channel >= kChannelCount || active_.load() != channel) {
    MLOG_ERROR(kTag, "[", channelName(channel), "] is not controlling!");
    return nullptr;
  }
  if (!lumClient_) {
    MLOG_ERROR(kTag, "LUM object not defined!");
  }
  return lumClient_;
}

// ---------------------------------------------------------------------------------------------
// Record operations

bool Multiplexer::setErrorCode(uint32_t errorCode) {
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return false;
  }
  persistence_->setErrorCode(static_cast<int32_t>(errorCode));
  return true;
}

bool Multiplexer::setUpdateType(uint32_t updateType) {
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return false;
  }
  MLOG_INFO(kTag, "UpdateType=0x", kel::vxp3::minfw::hex(updateType));
  persistence_->setUpdateType(updateType);
  return true;
}

uint32_t Multiplexer::getUpdateType() {
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return ORV_USB_UPDATETYPE_NONE;
  }
  return persistence_->getUpdateType(ORV_USB_UPDATETYPE_NONE);
}

bool Multiplexer::setUpdateTimestampStart() {
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return false;
  }
  persistence_->setStartDate(localNow("%d.%m.%Y"));
  persistence_->setStartTime(localNow("%H:%M:%S"));
  persistence_->setEndDate(kUnsetDate);
  persistence_->setEndTime(kUnsetTime);
  return true;
}

bool Multiplexer::setUpdateTimestampEnd() {
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return false;
  }
  persistence_->setEndDate(localNow("%d.%m.%Y"));
  persistence_->setEndTime(localNow("%H:%M:%S"));
  return true;
}

// ---------------------------------------------------------------------------------------------
// Diagnosis clients

diagNewStatusType Multiplexer::diagnoseUpdateState() {
  diagNewStatusType state;
  state.channel = active_.load();
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return state;
  }
  state.updateType = persistence_->getUpdateType(state.updateType);
  state.stateHmi = persistence_->getStateHmi(state.stateHmi);
  state.stateLum = persistence_->getStateLum(state.stateLum);
  state.progress = persistence_->getProgress(state.progress);
  state.errorCode = persistence_->getErrorCode(state.errorCode);
  MLOG_DEBUG(kTag, "updateType [", state.updateType, "], channel [", channelName(state.channel),
             "], stateHmi [", state.stateHmi, "], stateLum [", state.stateLum, "], progress [",
             state.progress, "], errorCode [", state.errorCode, "]");
  return state;
}

diagTimestampType Multiplexer::diagnoseTimestamps() {
  diagTimestampType stamps;
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return stamps;
  }
  stamps.dtType = persistence_->getUpdateType(ORV_USB_UPDATETYPE_NONE);
  stamps.dtStartDate = persistence_->getStartDate();
  stamps.dtStartTime = persistence_->getStartTime();
  stamps.dtEndDate = persistence_->getEndDate();
  stamps.dtEndTime = persistence_->getEndTime();
  stamps.dtErr = persistence_->getErrorCode(0);
  stamps.dtErrTxt = errorText(stamps.dtErr);
  MLOG_INFO(kTag, "dtType [", stamps.dtType, "], dtStartDate [", stamps.dtStartDate,
            "], dtStartTime [", stamps.dtStartTime, "], dtEndDate [", stamps.dtEndDate,
            "], dtEndTime [", stamps.dtEndTime, "], dtErr [", stamps.dtErr, "], dtErrTxt [",
            stamps.dtErrTxt, "]");
  return stamps;
}

bool Multiplexer::diagnoseStartUpdate(const std::string& text, int number) {
  if (active_.load() != ACTIVE_NONE) {
    MLOG_ERROR(kTag, "Cannot start diag update!");
    return false;
  }
  ILumChannel* logic = channels_.size() > ACTIVE_USB ? channels_[ACTIVE_USB].get() : nullptr;
  if (logic == nullptr) {
    MLOG_ERROR(kTag, "Weird, logic is null ?!?");
    return false;
  }
  if (!logic->diagTriggerStartUpdate(text, number)) {
    return false;
  }
  if (!persistence_) {
    MLOG_ERROR(kTag, "No persistence!");
    return false;
  }
  persistence_->setStartDate(kRequestedDate);
  persistence_->setStartTime(kRequestedTime);
  persistence_->setEndDate(kUnsetDate);
  persistence_->setEndTime(kUnsetTime);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Relay of LUM events

ILumChannel* Multiplexer::relayTarget() {
  const uint32_t holder = active_.load();
  if (holder == ACTIVE_NONE) {
    MLOG_WARN(kTag, "No active channel!");
    return nullptr;
  }
  // A record may name a channel that this build does not have; the event has nowhere to go.
  if (holder >= channels_.size() || !channels_[holder]) {
    MLOG_ERROR(kTag, "No interface for active channel [", channelName(holder), "]!");
    return nullptr;
  }
  MLOG_DEBUG(kTag, "Relay, active channel [", channelName(holder), "]");
  return channels_[holder].get();
}

void Multiplexer::eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDomainUpdateFinishedNotification(domainRepairInstructionID);
  }
}

void Multiplexer::eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                                          const lum11::ReadyForDownloadInfo& info) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDomainReadyForDownloadNotification(domainRepairInstructionID, info);
  }
}

void Multiplexer::eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                                        const lum11::ReadyForUpdateInfo& info) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDomainReadyForUpdateNotification(domainRepairInstructionID, info);
  }
}

void Multiplexer::eventDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                                 uint16_t timeout) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDomainOffTimeNotification(domainRepairInstructionID, timeout);
  }
}

void Multiplexer::eventDomainErrorNotification(uint16_t domainRepairInstructionID,
                                               uint32_t errorCode) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDomainErrorNotification(domainRepairInstructionID, errorCode);
  }
}

void Multiplexer::eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                                const std::string& debugMessageID,
                                                const std::string& debugMessage) {
  if (ILumChannel* target = relayTarget()) {
    target->eventDebugMessageNotification(domainRepairInstructionID, debugMessageID, debugMessage);
  }
}

void Multiplexer::eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  if (ILumChannel* target = relayTarget()) {
    target->eventResolveUpdateURLRequest(request);
  }
}

void Multiplexer::eventConnection(bool connected) {
  if (ILumChannel* target = relayTarget()) {
    target->eventConnection(connected);
  }
}

void Multiplexer::eventInternal(int value) {
  if (ILumChannel* target = relayTarget()) {
    target->eventInternal(value);
  }
}

}  // namespace orv

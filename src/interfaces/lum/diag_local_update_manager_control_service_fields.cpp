// The service's sessions and its v12 fields, and how the LUM's events update them. Runs on
// the middleware threads (requests, relayed events) and the poll worker; fieldMutex_ guards
// the entries.

#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <algorithm>
#include <vector>

#include "interfaces/lum/diag_local_update_manager_control_service_internal.h"
#include "interfaces/lum/lum_names.h"
#include "minfw/log.h"

namespace orv {

using namespace dm_service_internal;

namespace {

template <typename Entry>
bool eraseElement(std::vector<Entry>& entries, uint16_t elementId) {
  const std::size_t before = entries.size();
  entries.erase(std::remove_if(entries.begin(), entries.end(),
                               [&](const Entry& e) { return e.elementId == elementId; }),
                entries.end());
  return entries.size() != before;
}

// One entry per elementId, the newest last; a full field drops its oldest entry.
template <typename Entry>
void upsert(std::vector<Entry>& entries, const Entry& entry) {
  eraseElement(entries, entry.elementId);
  entries.push_back(entry);
  if (entries.size() > Service::kFieldEntries) {
    entries.erase(entries.begin());
  }
}

// Without a binding (or a subscriber's connection) the value stays stored and answers getters.
template <typename Field, typename Value>
void publish(Field& field, const Value& value) {
  const mw::Result<void> result = field.Update(value);
  if (!result) {
    MLOG_DEBUG(kTag, "field not published: ", mw::toString(result.error()), " ",
               result.errorMessage());
  }
}

// Drops what a field keeps of one session, and publishes the field if it kept anything.
template <typename Field, typename Entry>
void forget(Field& field, std::vector<Entry>& entries, uint16_t elementId) {
  if (eraseElement(entries, elementId)) {
    publish(field, entries);
  }
}

bool sameState(const SessionState& a, const SessionState& b) {
  return a.elementId == b.elementId && a.domainRepairInstructionID == b.domainRepairInstructionID &&
         a.currentProcessingState == b.currentProcessingState &&
         a.installationTime == b.installationTime && a.downloadDataSize == b.downloadDataSize;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Session and fields

void Service::beginSession(uint16_t domainRepairInstructionID, const std::string& accessID) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  sessionId_ = domainRepairInstructionID;
  activePath_ = accessID;
  // A tester may reuse a session id: what the fields kept of the old session must not read as
  // the new one's (a finished state above all).
  forget(domainUpdateSessionState, sessionStates_, domainRepairInstructionID);
  forget(domainErrorNotification, errors_, domainRepairInstructionID);
  forget(domainOffTimeNotification, offTimes_, domainRepairInstructionID);
  forget(debugMessageNotification, debugMessages_, domainRepairInstructionID);
  forget(resolveUpdateURLRequest, urlRequests_, domainRepairInstructionID);
}

void Service::endSession() {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  activePath_.clear();
}

uint16_t Service::sessionId() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return sessionId_;
}

std::string Service::activePath() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return activePath_;
}

std::vector<SessionState> Service::sessionStates() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return sessionStates_;
}

std::vector<lum12::DT_domainErrorNotification_struct> Service::errorNotifications() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return errors_;
}

std::vector<lum12::DT_resolveUpdateURLRequest_struct> Service::urlRequests() const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  return urlRequests_;
}

SessionState Service::storedState(uint16_t domainRepairInstructionID) const {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  for (const SessionState& entry : sessionStates_) {
    if (entry.elementId == domainRepairInstructionID) {
      return entry;
    }
  }
  SessionState entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  return entry;
}

template <typename Field, typename Entry>
void Service::store(Field& field, std::vector<Entry>& entries, const Entry& entry) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  upsert(entries, entry);
  publish(field, entries);
}

void Service::eventDomainUpdateSessionState(const SessionState& entry) {
  std::lock_guard<std::mutex> lock(fieldMutex_);
  for (const SessionState& stored : sessionStates_) {
    if (stored.elementId == entry.elementId && sameState(stored, entry)) {
      return;
    }
  }
  upsert(sessionStates_, entry);
  publish(domainUpdateSessionState, sessionStates_);
}

// ---------------------------------------------------------------------------------------------
// LUM events

void Service::eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                                      const lum11::ReadyForDownloadInfo& info) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], installationTime [",
            info.installationTime, "], downloadDataSize [", info.downloadDataSize, "]");
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = FieldState::verificationFinished;
  entry.installationTime = info.installationTime;
  entry.downloadDataSize = info.downloadDataSize;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                                    const lum11::ReadyForUpdateInfo& info) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], installationTime [",
            info.installationTime, "], downloadedDataSize [", info.downloadedDataSize, "]");
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = FieldState::downloadFinished;
  entry.installationTime = info.installationTime;
  entry.downloadDataSize = info.downloadedDataSize;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "]");
  bool failed = false;
  {
    std::lock_guard<std::mutex> lock(fieldMutex_);
    for (const auto& error : errors_) {
      failed = failed || error.elementId == domainRepairInstructionID;
    }
  }
  // The event carries no outcome; the next poll cycle corrects it to the LUM's own final state.
  SessionState entry = storedState(domainRepairInstructionID);
  entry.currentProcessingState = failed ? FieldState::failFinished : FieldState::successfulFinished;
  eventDomainUpdateSessionState(entry);
}

void Service::eventDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint16_t timeout) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], timeout [", timeout, "]");
  lum12::DT_domainOffTimeNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  entry.timeout = timeout;
  store(domainOffTimeNotification, offTimes_, entry);
}

void Service::eventDomainErrorNotification(uint16_t domainRepairInstructionID, uint32_t errorCode) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], errorCode [", errorCode, "]");
  lum12::DT_domainErrorNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.domainRepairInstructionID = domainRepairInstructionID;
  entry.errorCode = errorCode;
  store(domainErrorNotification, errors_, entry);
}

void Service::eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                            const std::string& debugMessageID,
                                            const std::string& debugMessage) {
  MLOG_INFO(kTag, "riid [", domainRepairInstructionID, "], debugMessageID [", debugMessageID, "]");
  lum12::DT_debugMessageNotification_struct entry;
  entry.elementId = domainRepairInstructionID;
  entry.debugMessage.domainRepairInstructionID = domainRepairInstructionID;
  entry.debugMessage.debugMessageID = debugMessageID;
  entry.debugMessage.debugMessage = debugMessage;
  store(debugMessageNotification, debugMessages_, entry);
}

void Service::eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  MLOG_INFO(kTag, "fileType [", toString(request.fileType),
            "], fileNames.size()=", request.fileNames.size());
  // The request names no session: it belongs to the one this channel runs.
  lum12::DT_resolveUpdateURLRequest_struct entry;
  entry.elementId = sessionId();
  entry.fileNames = request.fileNames;
  entry.fileType =
      recast<lum12::CM_DT_DiagLocalUpdateManagerControl_resolveUpdateURLRequest_fileType>(
          request.fileType);
  entry.updateURLRequestID = request.updateURLRequestID;
  store(resolveUpdateURLRequest, urlRequests_, entry);
}

void Service::eventConnection(bool connected) {
  MLOG_INFO(kTag, connected ? "LUM connected." : "LUM disconnected!");
  if (!connected) {
    stopPoll();
    return;
  }
  // Only a holder polls; the relay delivers this only to the holder, but a direct call need not.
  if (signalQueryControl && signalQueryControl() == ACTIVE_DM) {
    confirmSession_ = true;
    startPoll();
  }
}

void Service::eventInternal(int value) {
  MLOG_INFO(kTag, "Internal event [", value, "]");
}

}  // namespace orv

#pragma once
// LumSimulator: the behaviour of a Local Update Manager on the version-11 control interface,
// without any transport. One update session at a time runs through verifying ->
// verificationFinished -> downloading -> downloadFinished -> updating -> successfulFinished (or
// failFinished / revertFinished), paced by the clock seam and scripted by a Scenario (busy
// answers, late answers, withheld events, an error, a URL request, loss of the service, a crash).
//
// Time moves only in poll(): it plays every phase end and scripted trigger that is due, each at
// its own scheduled time, so the outcome does not depend on how often poll() runs. Every
// operation polls first. Late answers are not waited for here: a Reply says how late the
// transport must answer.
//
// Threading: thread-safe; one mutex guards all session state. Event callbacks run on the thread
// that called poll() or the operation, after the mutex is released, in the order they arose.
// Bind them before the first call.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "interfaces/lum/lum11_interface.h"
#include "minfw/clock.h"
#include "scenario.h"

namespace lumsim {

namespace methods = lum11::methods;

// What the transport sends or does on the simulator's behalf.
struct SimulatorOutputs {
  std::function<void(const lum11::ReadyForDownloadInfo&, uint16_t)> readyForDownload;
  std::function<void(const lum11::ReadyForUpdateInfo&, uint16_t)> readyForUpdate;
  std::function<void(uint16_t)> updateFinished;
  std::function<void(uint16_t, uint32_t)> error;
  std::function<void(const lum11::resolveUpdateURLRequest_fileNames&, lum11::CM_FileType,
                     const lum11::DT_uuid&)>
      resolveUrl;
  std::function<void()> stopOffer;
  std::function<void()> offer;
  std::function<void(int)> crash;  // the process ends with this status
};

template <typename Output>
struct Reply {
  Output output;
  int64_t delayMs = 0;  // answer this much later (0: at once)
};

class LumSimulator {
 public:
  // The session id under which the state and info reads answer for the current session.
  static constexpr uint16_t kCurrentSession = 0;

  explicit LumSimulator(Scenario scenario, SimulatorOutputs outputs = {});
  LumSimulator(const LumSimulator&) = delete;
  LumSimulator& operator=(const LumSimulator&) = delete;

  // Plays everything that has come due on minfw::clock().
  void poll();

  void updateURLResponse(const methods::UpdateURLResponse::Input& in);
  Reply<methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const methods::CreateDomainUpdateSession::Input& in);
  Reply<methods::GetDomainUpdateSessionState::Output> getDomainUpdateSessionState(
      const methods::SessionInput& in);
  Reply<methods::StartDomainUpdateDownload::Output> startDomainUpdateDownload(
      const methods::SessionInput& in);
  Reply<methods::GetDomainUpdateDownloadProgress::Output> getDomainUpdateDownloadProgress(
      const methods::SessionInput& in);
  Reply<methods::StartDomainUpdate::Output> startDomainUpdate(const methods::SessionInput& in);
  Reply<methods::GetDomainUpdateProgress::Output> getDomainUpdateProgress(
      const methods::SessionInput& in);
  Reply<methods::CancelDomainUpdate::Output> cancelDomainUpdate(const methods::SessionInput& in);
  Reply<methods::SetDebugInstruction::Output> setDebugInstruction(
      const methods::SetDebugInstruction::Input& in);
  Reply<methods::GetDomainConfiguration::Output> getDomainConfiguration(
      const methods::SessionInput& in);
  Reply<methods::GetDomainDownloadInfo::Output> getDomainDownloadInfo(
      const methods::SessionInput& in);
  Reply<methods::GetDomainUpdateInfo::Output> getDomainUpdateInfo(const methods::SessionInput& in);
  Reply<methods::GetDomainUpdateResult::Output> getDomainUpdateResult(
      const methods::SessionInput& in);
  Reply<methods::CloseDomainUpdateSession::Output> closeDomainUpdateSession(
      const methods::SessionInput& in);
  Reply<methods::AckDomainOffTimeNotification::Output> ackDomainOffTimeNotification(
      const methods::AckDomainOffTimeNotification::Input& in);
  Reply<methods::CheckProgrammingPreconditions::Output> checkProgrammingPreconditions(
      const methods::SessionInput& in);
  Reply<methods::GetServiceDescription::Output> getServiceDescription();
  Reply<methods::UpdateClientDownloadFinished::Output> updateClientDownloadFinished(
      const methods::UpdateClientDownloadFinished::Input& in);

  // The URL answers received so far.
  std::vector<lum11::UpdateUrlResponseStruct> urlResponses() const;

 private:
  using TimePoint = kel::vxp3::minfw::Clock::TimePoint;
  using Action = std::function<void()>;

  struct Session {
    SessionScript script;
    std::string accessID;
    uint16_t riid = 0;
    std::vector<uint16_t> diagnosticAddresses;
    lum11::CM_CurrentProcessingState state = lum11::CM_CurrentProcessingState::verifying;
    TimePoint phaseStart{};
    std::optional<TimePoint> heldSince;  // an unanswered URL request stops the phase clock
    std::optional<lum11::DT_uuid> awaitedUrl;
    bool downloadStarted = false;
    bool updateStarted = false;
    int64_t downloadDoneMs = 0;  // progress of a phase that has ended
    int64_t installDoneMs = 0;
    bool errorFired = false, resolveFired = false, stopFired = false, crashFired = false;
    lum11::DomainResult result;
  };

  // The current session's phase, if it has one that scripts can name.
  static std::optional<Phase> phaseOf(lum11::CM_CurrentProcessingState state);
  // Time spent in the current phase up to `at`, not counting a hold.
  int64_t elapsedMs(const Session& s, TimePoint at) const;
  int64_t phaseLengthMs(const Session& s) const;  // -1: the phase waits for a call
  void advanceLocked(TimePoint now, std::vector<Action>& actions);
  void enterLocked(Session& s, lum11::CM_CurrentProcessingState state, TimePoint at);
  void finishPhaseLocked(Session& s, TimePoint at, std::vector<Action>& actions);
  void fireErrorLocked(Session& s, const ErrorPlan& plan, TimePoint at,
                       std::vector<Action>& actions);

  // Counts the call of `op` and gives the busy/late verdict of the script in force.
  bool busyLocked(const std::string& op);
  int64_t delayLocked(const std::string& op) const;
  // invalidState without a session, invalidParameters when it is not this session, else ok.
  lum11::CM_ReturnStatus checkLocked(const std::string& accessID, uint16_t riid) const;
  // checkLocked() for the reads that a poller makes without knowing the session: session id 0
  // names the current session, whoever opened it (unless the scenario is strict).
  lum11::CM_ReturnStatus checkReadLocked(const std::string& accessID, uint16_t riid) const;
  const SessionScript& scriptLocked() const;
  struct Progress {
    int64_t total = 0, processed = 0;
    uint32_t current = 0, count = 0;
    std::string name;
  };
  Progress progressLocked(const Session& s, bool install, TimePoint now) const;

  template <typename Output, typename Body>
  Reply<Output> call(const char* op, Body body);
  void run(std::vector<Action>& actions);

  const Scenario scenario_;
  const SimulatorOutputs outputs_;

  mutable std::mutex mutex_;  // guards everything below
  std::optional<Session> session_;
  std::size_t sessionsCreated_ = 0;
  // Calls per operation: of the open session, and creates since the last close.
  std::vector<std::pair<std::string, uint32_t>> calls_;
  std::optional<TimePoint> reofferAt_;
  std::vector<lum11::UpdateUrlResponseStruct> urlResponses_;
  uint32_t urlRequests_ = 0;
};

}  // namespace lumsim

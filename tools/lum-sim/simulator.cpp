#include "simulator.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "interfaces/lum/lum_names.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace lumsim {

namespace {

constexpr const char* kTag = "SIM";

using kel::vxp3::minfw::cat;
using State = lum11::CM_CurrentProcessingState;
using Status = lum11::CM_ReturnStatus;

int64_t msBetween(kel::vxp3::minfw::Clock::TimePoint from, kel::vxp3::minfw::Clock::TimePoint to) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

// total * part / whole without overflow for any byte count.
int64_t scaled(int64_t total, int64_t part, int64_t whole) {
  if (whole <= 0)
    return total;
  return static_cast<int64_t>(static_cast<long double>(total) * std::min(part, whole) / whole);
}

lum11::DomainResult defaultResult(lum11::CM_SessionStatus status, uint32_t code,
                                  std::string details) {
  lum11::DomainResult r;
  r.sessionStatus = status;
  r.resultCode = code;
  r.errorDetails = std::move(details);
  const bool ok = status == lum11::CM_SessionStatus::successful;
  r.errorCategories = ok ? 0 : 1;
  r.integrityValidationResult.status =
      ok ? lum11::CM_ValidationStatus::successful : lum11::CM_ValidationStatus::notStarted;
  r.safetyValidationResult.status = r.integrityValidationResult.status;
  return r;
}

bool finalState(State s) {
  return s == State::successfulFinished || s == State::failFinished || s == State::revertFinished;
}

}  // namespace

LumSimulator::LumSimulator(Scenario scenario, SimulatorOutputs outputs)
    : scenario_(std::move(scenario)), outputs_(std::move(outputs)) {}

std::optional<Phase> LumSimulator::phaseOf(State state) {
  switch (state) {
    case State::verifying:
      return Phase::verifying;
    case State::verificationFinished:
      return Phase::verificationFinished;
    case State::downloading:
      return Phase::downloading;
    case State::downloadFinished:
      return Phase::downloadFinished;
    case State::updating:
      return Phase::updating;
    default:
      return std::nullopt;
  }
}

int64_t LumSimulator::elapsedMs(const Session& s, TimePoint at) const {
  const TimePoint end = s.heldSince && *s.heldSince < at ? *s.heldSince : at;
  return std::max<int64_t>(0, msBetween(s.phaseStart, end));
}

int64_t LumSimulator::phaseLengthMs(const Session& s) const {
  switch (s.state) {
    case State::verifying:
      return s.script.analyseMs;
    case State::downloading:
      return s.script.downloadMs;
    case State::updating:
      return s.script.installMs;
    case State::cancelling:
      return s.script.cancelMs;
    default:
      return -1;
  }
}

void LumSimulator::enterLocked(Session& s, State state, TimePoint at) {
  s.state = state;
  s.phaseStart = at;
  if (s.heldSince)
    s.heldSince = at;
  MLOG_INFO(kTag, "session ", s.riid, ": ", toString(state));
}

void LumSimulator::finishPhaseLocked(Session& s, TimePoint at, std::vector<Action>& actions) {
  const uint16_t riid = s.riid;
  switch (s.state) {
    case State::verifying: {
      enterLocked(s, State::verificationFinished, at);
      const lum11::ReadyForDownloadInfo info{s.script.installationTime, s.script.totalBytes};
      if (s.script.sends("domainReadyForDownloadNotification") && outputs_.readyForDownload)
        actions.push_back([this, info, riid] { outputs_.readyForDownload(info, riid); });
      break;
    }
    case State::downloading: {
      s.downloadDoneMs = s.script.downloadMs;
      enterLocked(s, State::downloadFinished, at);
      const lum11::ReadyForUpdateInfo info{s.script.installationTime, s.script.totalBytes};
      if (s.script.sends("domainReadyForUpdateNotification") && outputs_.readyForUpdate)
        actions.push_back([this, info, riid] { outputs_.readyForUpdate(info, riid); });
      break;
    }
    case State::updating:
      s.installDoneMs = s.script.installMs;
      s.result = s.script.result.value_or(
          defaultResult(lum11::CM_SessionStatus::successful, 0, std::string()));
      enterLocked(s, State::successfulFinished, at);
      if (s.script.sends("domainUpdateFinishedNotification") && outputs_.updateFinished)
        actions.push_back([this, riid] { outputs_.updateFinished(riid); });
      break;
    case State::cancelling:
      s.result = s.script.result.value_or(
          defaultResult(lum11::CM_SessionStatus::reverted, 0, "cancelled by the client"));
      enterLocked(s, State::revertFinished, at);
      break;
    default:
      break;
  }
}

void LumSimulator::fireErrorLocked(Session& s, const ErrorPlan& plan, TimePoint at,
                                   std::vector<Action>& actions) {
  if (s.state == State::downloading)
    s.downloadDoneMs = elapsedMs(s, at);
  if (s.state == State::updating)
    s.installDoneMs = elapsedMs(s, at);
  const Phase phase = *phaseOf(s.state);
  s.result =
      s.script.result.value_or(defaultResult(lum11::CM_SessionStatus::error, plan.code,
                                             cat("error ", plan.code, " in ", phaseName(phase))));
  MLOG_WARN(kTag, "session ", s.riid, ": scripted error ", plan.code, " in ", phaseName(phase));
  enterLocked(s, State::failFinished, at);
  const uint16_t riid = s.riid;
  const uint32_t code = plan.code;
  if (s.script.sends("domainErrorNotification") && outputs_.error)
    actions.push_back([this, riid, code] { outputs_.error(riid, code); });
}

void LumSimulator::advanceLocked(TimePoint now, std::vector<Action>& actions) {
  // Plays the earliest due happening, then looks again: a phase end moves the session on, and
  // the next phase's happenings are measured from that end, not from `now`.
  enum class Kind { reoffer, resolve, stop, error, crash, phaseEnd };
  for (;;) {
    std::optional<std::pair<TimePoint, Kind>> next;
    auto consider = [&](TimePoint t, Kind k) {
      if (t <= now && (!next || t < next->first))
        next = std::make_pair(t, k);
    };
    if (reofferAt_)
      consider(*reofferAt_, Kind::reoffer);
    if (session_) {
      Session& s = *session_;
      const auto phase = phaseOf(s.state);
      auto trigger = [&](const Trigger& at, bool fired, Kind k) {
        if (fired || !phase || *phase != at.phase)
          return;
        const TimePoint t = s.phaseStart + std::chrono::milliseconds(at.afterMs);
        if (!s.heldSince || t <= *s.heldSince)
          consider(t, k);
      };
      if (s.script.resolveUrl)
        trigger(s.script.resolveUrl->at, s.resolveFired, Kind::resolve);
      if (s.script.stopOffer)
        trigger(s.script.stopOffer->at, s.stopFired, Kind::stop);
      if (s.script.error)
        trigger(s.script.error->at, s.errorFired, Kind::error);
      if (s.script.crash)
        trigger(s.script.crash->at, s.crashFired, Kind::crash);
      const int64_t length = phaseLengthMs(s);
      if (length >= 0 && !s.heldSince)
        consider(s.phaseStart + std::chrono::milliseconds(length), Kind::phaseEnd);
    }
    if (!next)
      return;
    const TimePoint at = next->first;
    switch (next->second) {
      case Kind::reoffer:
        reofferAt_.reset();
        MLOG_INFO(kTag, "offering the service again");
        if (outputs_.offer)
          actions.push_back([this] { outputs_.offer(); });
        break;
      case Kind::resolve: {
        Session& s = *session_;
        s.resolveFired = true;
        lum11::DT_uuid uuid{};
        uuid[0] = static_cast<uint8_t>(s.riid >> 8);
        uuid[1] = static_cast<uint8_t>(s.riid);
        const uint32_t n = ++urlRequests_;
        for (int i = 0; i < 4; ++i)
          uuid[15 - i] = static_cast<uint8_t>(n >> (8 * i));
        const ResolveUrlPlan plan = *s.script.resolveUrl;
        if (plan.holdUntilAnswered) {
          s.heldSince = at;
          s.awaitedUrl = uuid;
        }
        MLOG_INFO(kTag, "session ", s.riid, ": asking for the URLs of ", plan.fileNames.size(),
                  " file(s)");
        if (s.script.sends("resolveUpdateURLRequest") && outputs_.resolveUrl)
          actions.push_back(
              [this, plan, uuid] { outputs_.resolveUrl(plan.fileNames, plan.fileType, uuid); });
        break;
      }
      case Kind::stop: {
        Session& s = *session_;
        s.stopFired = true;
        const int64_t duration = s.script.stopOffer->durationMs;
        if (duration > 0)
          reofferAt_ = at + std::chrono::milliseconds(duration);
        MLOG_WARN(kTag, "session ", s.riid, ": stopping the offer");
        if (outputs_.stopOffer)
          actions.push_back([this] { outputs_.stopOffer(); });
        break;
      }
      case Kind::error:
        session_->errorFired = true;
        fireErrorLocked(*session_, *session_->script.error, at, actions);
        break;
      case Kind::crash: {
        session_->crashFired = true;
        const int code = session_->script.crash->exitCode;
        MLOG_WARN(kTag, "session ", session_->riid, ": crashing with status ", code);
        if (outputs_.crash)
          actions.push_back([this, code] { outputs_.crash(code); });
        break;
      }
      case Kind::phaseEnd:
        finishPhaseLocked(*session_, at, actions);
        break;
    }
  }
}

void LumSimulator::run(std::vector<Action>& actions) {
  for (auto& a : actions)
    a();
  actions.clear();
}

void LumSimulator::poll() {
  std::vector<Action> actions;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    advanceLocked(kel::vxp3::minfw::clock().now(), actions);
  }
  run(actions);
}

const SessionScript& LumSimulator::scriptLocked() const {
  return session_ ? session_->script : scenario_.forSession(sessionsCreated_);
}

bool LumSimulator::busyLocked(const std::string& op) {
  auto it =
      std::find_if(calls_.begin(), calls_.end(), [&](const auto& c) { return c.first == op; });
  if (it == calls_.end())
    it = calls_.insert(calls_.end(), {op, 0});
  const uint32_t n = ++it->second;
  // Only creating is scripted outside a session: everything else belongs to the open one.
  if (!session_ && op != "createDomainUpdateSession")
    return false;
  const auto& busy = scriptLocked().busy;
  const auto b = busy.find(op);
  return b != busy.end() && n <= b->second;
}

int64_t LumSimulator::delayLocked(const std::string& op) const {
  const auto& delays = scriptLocked().delays;
  const auto d = delays.find(op);
  if (d == delays.end())
    return 0;
  uint32_t n = 0;
  for (const auto& c : calls_)
    if (c.first == op)
      n = c.second;
  return d->second.calls == 0 || n <= d->second.calls ? d->second.ms : 0;
}

Status LumSimulator::checkLocked(const std::string& accessID, uint16_t riid) const {
  if (!session_)
    return Status::invalidState;
  if (accessID != session_->accessID || riid != session_->riid)
    return Status::invalidParameters;
  return Status::ok;
}

Status LumSimulator::checkReadLocked(const std::string& accessID, uint16_t riid) const {
  if (riid == kCurrentSession && !scenario_.strictSessionIds)
    return session_ ? Status::ok : Status::invalidState;
  return checkLocked(accessID, riid);
}

LumSimulator::Progress LumSimulator::progressLocked(const Session& s, bool install,
                                                    TimePoint now) const {
  Progress p;
  const bool running = s.state == (install ? State::updating : State::downloading);
  const int64_t done = running ? elapsedMs(s, now) : (install ? s.installDoneMs : s.downloadDoneMs);
  const int64_t length = install ? s.script.installMs : s.script.downloadMs;
  p.total = s.script.totalBytes;
  p.processed = scaled(p.total, done, length);
  p.count = static_cast<uint32_t>(s.script.packages.size());
  if (p.count == 0)
    return p;
  p.current = p.total <= 0
                  ? p.count
                  : std::min<uint32_t>(
                        p.count, static_cast<uint32_t>(scaled(p.count, p.processed, p.total)) + 1);
  p.name = s.script.packages[p.current - 1];
  return p;
}

template <typename Output, typename Body>
Reply<Output> LumSimulator::call(const char* op, Body body) {
  std::vector<Action> actions;
  Reply<Output> reply;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto now = kel::vxp3::minfw::clock().now();
    advanceLocked(now, actions);
    const bool busy = busyLocked(op);
    reply.delayMs = delayLocked(op);
    if (busy) {
      reply.output.returnStatus = Status::busy;
      MLOG_INFO(kTag, op, ": busy");
    } else {
      body(reply.output, now, actions);
    }
  }
  run(actions);
  return reply;
}

void LumSimulator::updateURLResponse(const methods::UpdateURLResponse::Input& in) {
  std::vector<Action> actions;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto now = kel::vxp3::minfw::clock().now();
    advanceLocked(now, actions);
    urlResponses_.push_back(in.updateUrlResponse);
    if (session_ && session_->awaitedUrl &&
        *session_->awaitedUrl == in.updateUrlResponse.updateURLRequestID) {
      Session& s = *session_;
      s.phaseStart += now - *s.heldSince;
      s.heldSince.reset();
      s.awaitedUrl.reset();
      MLOG_INFO(kTag, "session ", s.riid, ": URLs received, going on");
    } else if (!session_ || !session_->resolveFired) {
      MLOG_WARN(kTag, "updateURLResponse without a request");
    }
  }
  run(actions);
}

Reply<methods::CreateDomainUpdateSession::Output> LumSimulator::createDomainUpdateSession(
    const methods::CreateDomainUpdateSession::Input& in) {
  return call<methods::CreateDomainUpdateSession::Output>(
      "createDomainUpdateSession", [&](auto& out, TimePoint now, std::vector<Action>&) {
        if (session_ && !finalState(session_->state)) {
          MLOG_WARN(kTag, "createDomainUpdateSession: session ", session_->riid, " is still open");
          out.returnStatus = Status::invalidState;
          return;
        }
        if (session_) {
          // A client need not close a session that ended (orvane skips the close after an
          // error): the next create replaces it.
          MLOG_INFO(kTag, "session ", session_->riid, " ended unclosed; replaced");
          calls_.clear();
        }
        if (in.accessID.empty()) {
          out.returnStatus = Status::invalidParameters;
          return;
        }
        Session s;
        s.script = scenario_.forSession(sessionsCreated_++);
        s.accessID = in.accessID;
        s.riid = in.vehicleRepairInstructionID;
        s.diagnosticAddresses = in.diagnosticAddress.diagnosticAddresses;
        session_ = std::move(s);
        // The session's own calls count from here; creates count until it is closed.
        calls_.erase(
            std::remove_if(calls_.begin(), calls_.end(),
                           [](const auto& c) { return c.first != "createDomainUpdateSession"; }),
            calls_.end());
        enterLocked(*session_, State::verifying, now);
        out.returnStatus = Status::ok;
        out.domainRepairInstructionID = session_->riid;
      });
}

Reply<methods::GetDomainUpdateSessionState::Output> LumSimulator::getDomainUpdateSessionState(
    const methods::SessionInput& in) {
  return call<methods::GetDomainUpdateSessionState::Output>(
      "getDomainUpdateSessionState", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkReadLocked(in.accessID, in.domainRepairInstructionID);
        out.currentProcessingState = State::idle;
        if (out.returnStatus != Status::ok)
          return;
        out.currentProcessingState = session_->state;
        out.currentProcessingDetails = session_->heldSince ? "waiting for URLs" : "";
      });
}

Reply<methods::StartDomainUpdateDownload::Output> LumSimulator::startDomainUpdateDownload(
    const methods::SessionInput& in) {
  return call<methods::StartDomainUpdateDownload::Output>(
      "startDomainUpdateDownload", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        if (session_->state != State::verificationFinished) {
          out.returnStatus = Status::invalidState;
          return;
        }
        session_->downloadStarted = true;
        enterLocked(*session_, State::downloading, now);
      });
}

Reply<methods::GetDomainUpdateDownloadProgress::Output>
LumSimulator::getDomainUpdateDownloadProgress(const methods::SessionInput& in) {
  return call<methods::GetDomainUpdateDownloadProgress::Output>(
      "getDomainUpdateDownloadProgress", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus == Status::ok && !session_->downloadStarted)
          out.returnStatus = Status::invalidState;
        if (out.returnStatus != Status::ok)
          return;
        const Progress p = progressLocked(*session_, false, now);
        out.totalBytes = p.total;
        out.processedBytes = p.processed;
        const int64_t rate = session_->script.downloadMs > 0
                                 ? p.total * 1000 / session_->script.downloadMs
                                 : p.total;
        out.downloadRate = static_cast<int32_t>(std::min<int64_t>(rate, INT32_MAX));
        out.currentPackageNumber = p.current;
        out.totalPackageNumber = p.count;
        out.packageName = p.name;
        out.currentProcessingState = session_->state;
      });
}

Reply<methods::StartDomainUpdate::Output> LumSimulator::startDomainUpdate(
    const methods::SessionInput& in) {
  return call<methods::StartDomainUpdate::Output>(
      "startDomainUpdate", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        if (session_->state != State::downloadFinished) {
          out.returnStatus = Status::invalidState;
          return;
        }
        session_->updateStarted = true;
        enterLocked(*session_, State::updating, now);
      });
}

Reply<methods::GetDomainUpdateProgress::Output> LumSimulator::getDomainUpdateProgress(
    const methods::SessionInput& in) {
  return call<methods::GetDomainUpdateProgress::Output>(
      "getDomainUpdateProgress", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus == Status::ok && !session_->updateStarted)
          out.returnStatus = Status::invalidState;
        if (out.returnStatus != Status::ok)
          return;
        const Progress p = progressLocked(*session_, true, now);
        out.totalBytes = p.total;
        out.processedBytes = p.processed;
        out.currentPackageNumber = p.current;
        out.totalPackageNumber = p.count;
        out.packageName = p.name;
        out.currentProcessingState = session_->state;
      });
}

Reply<methods::CancelDomainUpdate::Output> LumSimulator::cancelDomainUpdate(
    const methods::SessionInput& in) {
  return call<methods::CancelDomainUpdate::Output>(
      "cancelDomainUpdate", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        switch (session_->state) {
          case State::updating:
            // Past the point of no return: the installation goes on.
            out.cancelStatus = lum11::CM_CancelStatus::notCancellable;
            break;
          case State::verifying:
          case State::verificationFinished:
          case State::downloading:
          case State::downloadFinished:
            if (session_->state == State::downloading)
              session_->downloadDoneMs = elapsedMs(*session_, now);
            session_->heldSince.reset();
            session_->awaitedUrl.reset();
            enterLocked(*session_, State::cancelling, now);
            out.cancelStatus = lum11::CM_CancelStatus::cancelling;
            break;
          case State::cancelling:
            out.cancelStatus = lum11::CM_CancelStatus::cancelling;
            break;
          default:  // already at an end
            out.cancelStatus = lum11::CM_CancelStatus::cancelled;
            break;
        }
      });
}

Reply<methods::SetDebugInstruction::Output> LumSimulator::setDebugInstruction(
    const methods::SetDebugInstruction::Input& in) {
  return call<methods::SetDebugInstruction::Output>(
      "setDebugInstruction", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
      });
}

Reply<methods::GetDomainConfiguration::Output> LumSimulator::getDomainConfiguration(
    const methods::SessionInput& in) {
  return call<methods::GetDomainConfiguration::Output>(
      "getDomainConfiguration", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        out.configurationInformation = "lum-sim";
        out.configurationInformationDetails = cat(session_->diagnosticAddresses.size(), " ECU(s), ",
                                                  session_->script.packages.size(), " package(s)");
      });
}

Reply<methods::GetDomainDownloadInfo::Output> LumSimulator::getDomainDownloadInfo(
    const methods::SessionInput& in) {
  return call<methods::GetDomainDownloadInfo::Output>(
      "getDomainDownloadInfo", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkReadLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        const Progress p = progressLocked(*session_, false, now);
        out.readyForDownloadInfo = {session_->script.installationTime, p.total - p.processed};
      });
}

Reply<methods::GetDomainUpdateInfo::Output> LumSimulator::getDomainUpdateInfo(
    const methods::SessionInput& in) {
  return call<methods::GetDomainUpdateInfo::Output>(
      "getDomainUpdateInfo", [&](auto& out, TimePoint now, std::vector<Action>&) {
        out.returnStatus = checkReadLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        const Progress p = progressLocked(*session_, false, now);
        out.readyForUpdateInfo = {session_->script.installationTime, p.processed};
      });
}

Reply<methods::GetDomainUpdateResult::Output> LumSimulator::getDomainUpdateResult(
    const methods::SessionInput& in) {
  return call<methods::GetDomainUpdateResult::Output>(
      "getDomainUpdateResult", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        if (!finalState(session_->state)) {
          out.returnStatus = Status::invalidState;
          return;
        }
        out.domainResult = session_->result;
      });
}

Reply<methods::CloseDomainUpdateSession::Output> LumSimulator::closeDomainUpdateSession(
    const methods::SessionInput& in) {
  return call<methods::CloseDomainUpdateSession::Output>(
      "closeDomainUpdateSession", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        const State s = session_->state;
        if (s == State::verifying || s == State::downloading || s == State::updating ||
            s == State::cancelling) {
          out.returnStatus = Status::invalidState;  // cancel first
          return;
        }
        MLOG_INFO(kTag, "session ", session_->riid, ": closed");
        session_.reset();
        calls_.clear();
      });
}

Reply<methods::AckDomainOffTimeNotification::Output> LumSimulator::ackDomainOffTimeNotification(
    const methods::AckDomainOffTimeNotification::Input& in) {
  return call<methods::AckDomainOffTimeNotification::Output>(
      "ackDomainOffTimeNotification", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = !session_ ? Status::invalidState
                           : session_->riid != in.domainRepairInstructionID
                               ? Status::invalidParameters
                               : Status::ok;
      });
}

Reply<methods::CheckProgrammingPreconditions::Output> LumSimulator::checkProgrammingPreconditions(
    const methods::SessionInput& in) {
  return call<methods::CheckProgrammingPreconditions::Output>(
      "checkProgrammingPreconditions", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
        if (out.returnStatus != Status::ok)
          return;
        for (const uint16_t address : session_->diagnosticAddresses)
          out.preconditionCheckResult.push_back({address, session_->script.preconditionResult});
      });
}

Reply<methods::GetServiceDescription::Output> LumSimulator::getServiceDescription() {
  return call<methods::GetServiceDescription::Output>(
      "getServiceDescription", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.accessID = session_ ? session_->accessID : std::string();
        out.serviceDescription = "lum-sim";
        out.returnStatus = Status::ok;
      });
}

Reply<methods::UpdateClientDownloadFinished::Output> LumSimulator::updateClientDownloadFinished(
    const methods::UpdateClientDownloadFinished::Input& in) {
  return call<methods::UpdateClientDownloadFinished::Output>(
      "updateClientDownloadFinished", [&](auto& out, TimePoint, std::vector<Action>&) {
        out.returnStatus = checkLocked(in.accessID, in.domainRepairInstructionID);
      });
}

std::vector<lum11::UpdateUrlResponseStruct> LumSimulator::urlResponses() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return urlResponses_;
}

}  // namespace lumsim

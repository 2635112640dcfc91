#pragma once
// The script of a simulated LUM: per update session how long each phase takes, what progress it
// reports, which events it sends or withholds and which faults it plays. Loaded from a JSON file
// (keys in README.md); a file with an unknown key or a value of the wrong kind is refused as a
// whole, with a message that names the file and the key path.
//
// Threading: plain values. parseScenario() (and so loadScenario()) puts a counting sink in front
// of the process logger for the one JSON parse, to learn of syntax errors that the parser only
// logs: call it at start-up, before other threads log JSON faults.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "interfaces/lum/lum11_types.h"

namespace lumsim {

// The phases of a session in which a scripted fault or request can fire.
enum class Phase { verifying, verificationFinished, downloading, downloadFinished, updating };

const char* phaseName(Phase phase);

// Fires `afterMs` after the session entered `phase`, if it is still in it.
struct Trigger {
  Phase phase = Phase::verifying;
  int64_t afterMs = 0;
};

struct ErrorPlan {
  Trigger at;
  uint32_t code = 0;
};

struct ResolveUrlPlan {
  Trigger at;
  std::vector<std::string> fileNames;
  lum11::CM_FileType fileType = lum11::CM_FileType::updatePackage;
  // While the request is unanswered the session's phase clock stands still.
  bool holdUntilAnswered = false;
};

struct StopOfferPlan {
  Trigger at;
  int64_t durationMs = 0;  // 0: the service stays away
};

struct CrashPlan {
  Trigger at;
  int exitCode = 3;
};

struct DelayPlan {
  int64_t ms = 0;
  uint32_t calls = 0;  // how many calls are answered late; 0: every call
};

struct SessionScript {
  int64_t analyseMs = 1000;
  int64_t downloadMs = 2000;
  int64_t installMs = 2000;
  int64_t cancelMs = 500;
  int64_t totalBytes = 4 * 1024 * 1024;
  uint32_t installationTime = 120;
  std::vector<std::string> packages{"domain-app.pkg", "domain-boot.pkg"};
  // Event name (as on the interface) -> sent. Events not named are sent.
  std::map<std::string, bool> events;
  // Operation name -> how many of its first calls in this session answer busy.
  std::map<std::string, uint32_t> busy;
  // Operation name -> late answers.
  std::map<std::string, DelayPlan> delays;
  std::optional<ErrorPlan> error;
  std::optional<lum11::DomainResult> result;  // replaces the result the session would give
  std::optional<ResolveUrlPlan> resolveUrl;
  std::optional<StopOfferPlan> stopOffer;
  std::optional<CrashPlan> crash;
  std::string preconditionResult = "fulfilled";

  bool sends(const std::string& event) const;
};

struct Scenario {
  // Session n of the run follows sessions[n]; later sessions follow the last entry.
  std::vector<SessionScript> sessions{SessionScript{}};
  // Session id 0 in the state and info reads is refused like any unknown id, instead of naming
  // the current session.
  bool strictSessionIds = false;

  const SessionScript& forSession(std::size_t index) const;
};

struct ScenarioResult {
  std::optional<Scenario> scenario;
  std::string error;  // set when scenario is empty
};

// `name` is the file name used in messages.
ScenarioResult parseScenario(const std::string& text, const std::string& name);
ScenarioResult loadScenario(const std::string& path);

// The operation and event names a scenario may name.
const std::vector<std::string>& operationNames();
const std::vector<std::string>& eventNames();

}  // namespace lumsim

#include "scenario.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <utility>

#include "minfw/json.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace lumsim {

namespace {

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::Logger;
using kel::vxp3::minfw::Sink;
using kel::vxp3::minfw::json::JSON;

constexpr int64_t kMaxU32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t kMaxU8 = std::numeric_limits<uint8_t>::max();

const std::vector<std::pair<Phase, const char*>>& phases() {
  static const std::vector<std::pair<Phase, const char*>> table{
      {Phase::verifying, "verifying"},
      {Phase::verificationFinished, "verificationFinished"},
      {Phase::downloading, "downloading"},
      {Phase::downloadFinished, "downloadFinished"},
      {Phase::updating, "updating"}};
  return table;
}

// The JSON parser reports bad syntax only to the log and returns what it could read; this sink
// counts those reports (and passes every record on) so that a broken file is refused instead
// of half-read. Installed only for the one Load() call.
class ParseErrorCounter : public Sink {
 public:
  explicit ParseErrorCounter(std::shared_ptr<Sink> next) : next_(std::move(next)) {}
  void write(const std::string& traceApp, const std::string& name, const std::string& tag,
             const std::string& location, const std::string& message, uint8_t level) override {
    if (tag == "json" && level >= kel::vxp3::minfw::kError)
      ++errors;
    if (next_)
      next_->write(traceApp, name, tag, location, message, level);
  }
  std::size_t errors = 0;  // written with the logger's mutex held, read after uninstalling

 private:
  std::shared_ptr<Sink> next_;
};

// Reads one document, remembering the first fault with its key path.
class Reader {
 public:
  explicit Reader(std::string name) : name_(std::move(name)) {}

  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }

  void fail(const std::string& path, const std::string& what) {
    if (error_.empty())
      error_ = path.empty() ? cat(name_, ": ", what) : cat(name_, ": ", path, ": ", what);
  }

  // Calls `member` for each key of `object`; a key not in `allowed` is a fault.
  bool members(
      const JSON& object, const std::string& path, const std::vector<std::string>& allowed,
      const std::function<void(const std::string&, const JSON&, const std::string&)>& member) {
    if (object.JSONType() != JSON::Class::Object) {
      fail(path, "expected an object");
      return false;
    }
    for (const auto& [key, value] : object.ObjectRange()) {
      const std::string keyPath = path.empty() ? key : cat(path, ".", key);
      bool known = false;
      for (const auto& a : allowed)
        known = known || a == key;
      if (!known) {
        fail(keyPath, "unknown key");
        return false;
      }
      member(key, value, keyPath);
      if (failed())
        return false;
    }
    return true;
  }

  int64_t integer(const JSON& v, const std::string& path, int64_t max) {
    bool ok = false;
    const int64_t n = v.ToInt(ok);
    if (!ok || n < 0 || n > max) {
      fail(path, max == std::numeric_limits<int64_t>::max()
                     ? std::string("expected a non-negative integer")
                     : cat("expected an integer 0..", max));
      return 0;
    }
    return n;
  }
  int64_t integer(const JSON& v, const std::string& path) {
    return integer(v, path, std::numeric_limits<int64_t>::max());
  }

  std::string text(const JSON& v, const std::string& path) {
    bool ok = false;
    std::string s = v.ToString(ok);
    if (!ok)
      fail(path, "expected a string");
    return s;
  }

  bool flag(const JSON& v, const std::string& path) {
    bool ok = false;
    const bool b = v.ToBool(ok);
    if (!ok)
      fail(path, "expected true or false");
    return b;
  }

  std::vector<std::string> texts(const JSON& v, const std::string& path) {
    std::vector<std::string> out;
    if (v.JSONType() != JSON::Class::Array) {
      fail(path, "expected an array of strings");
      return out;
    }
    std::size_t i = 0;
    for (const auto& e : v.ArrayRange()) {
      out.push_back(text(e, cat(path, "[", i++, "]")));
      if (failed())
        break;
    }
    return out;
  }

  Phase phase(const JSON& v, const std::string& path) {
    bool ok = false;
    const std::string s = v.ToString(ok);
    for (const auto& [p, n] : phases())
      if (ok && s == n)
        return p;
    fail(path,
         "expected one of verifying, verificationFinished, downloading, downloadFinished, "
         "updating");
    return Phase::verifying;
  }

  // A trigger's own keys, "phase" and "afterMs"; true when the key was one of them.
  bool trigger(Trigger& t, const std::string& key, const JSON& v, const std::string& path) {
    if (key == "phase")
      t.phase = phase(v, path);
    else if (key == "afterMs")
      t.afterMs = integer(v, path);
    else
      return false;
    return true;
  }

  // An object that must hold "phase".
  bool requirePhase(const JSON& v, const std::string& path) {
    if (v.find("phase") == nullptr) {
      fail(cat(path, ".phase"), "missing");
      return false;
    }
    return true;
  }

  lum11::ValidationResult validation(const JSON& v, const std::string& path) {
    lum11::ValidationResult r;
    members(v, path, {"status", "resultCode", "errorDetails"},
            [&](const std::string& key, const JSON& value, const std::string& p) {
              if (key == "status")
                r.status = static_cast<lum11::CM_ValidationStatus>(integer(value, p, kMaxU8));
              else if (key == "resultCode")
                r.resultCode = static_cast<uint32_t>(integer(value, p, kMaxU32));
              else
                r.errorDetails = text(value, p);
            });
    return r;
  }

  lum11::DomainResult result(const JSON& v, const std::string& path) {
    lum11::DomainResult r;
    members(v, path,
            {"sessionStatus", "resultCode", "errorDetails", "errorCategories", "retries",
             "integrityValidationResult", "safetyValidationResult"},
            [&](const std::string& key, const JSON& value, const std::string& p) {
              if (key == "sessionStatus")
                r.sessionStatus = static_cast<lum11::CM_SessionStatus>(integer(value, p, kMaxU8));
              else if (key == "resultCode")
                r.resultCode = static_cast<uint32_t>(integer(value, p, kMaxU32));
              else if (key == "errorDetails")
                r.errorDetails = text(value, p);
              else if (key == "errorCategories")
                r.errorCategories = static_cast<uint8_t>(integer(value, p, kMaxU8));
              else if (key == "retries")
                r.retries = static_cast<uint8_t>(integer(value, p, kMaxU8));
              else if (key == "integrityValidationResult")
                r.integrityValidationResult = validation(value, p);
              else
                r.safetyValidationResult = validation(value, p);
            });
    return r;
  }

  SessionScript session(const JSON& v, const std::string& path) {
    SessionScript s;
    members(
        v, path,
        {"analyseMs", "downloadMs", "installMs", "cancelMs", "totalBytes", "installationTime",
         "packages", "events", "busy", "delay", "error", "result", "resolveUrl", "stopOffer",
         "crash", "preconditionResult"},
        [&](const std::string& key, const JSON& value, const std::string& p) {
          if (key == "analyseMs")
            s.analyseMs = integer(value, p);
          else if (key == "downloadMs")
            s.downloadMs = integer(value, p);
          else if (key == "installMs")
            s.installMs = integer(value, p);
          else if (key == "cancelMs")
            s.cancelMs = integer(value, p);
          else if (key == "totalBytes")
            s.totalBytes = integer(value, p);
          else if (key == "installationTime")
            s.installationTime = static_cast<uint32_t>(integer(value, p, kMaxU32));
          else if (key == "packages") {
            s.packages = texts(value, p);
            if (!failed() && s.packages.empty())
              fail(p, "expected at least one package name");
          } else if (key == "events")
            members(value, p, eventNames(),
                    [&](const std::string& k, const JSON& e, const std::string& ep) {
                      s.events[k] = flag(e, ep);
                    });
          else if (key == "busy")
            members(value, p, operationNames(),
                    [&](const std::string& k, const JSON& n, const std::string& np) {
                      s.busy[k] = static_cast<uint32_t>(std::min(integer(n, np), kMaxU32));
                    });
          else if (key == "delay")
            members(value, p, operationNames(),
                    [&](const std::string& k, const JSON& d, const std::string& dp) {
                      DelayPlan plan;
                      members(d, dp, {"ms", "calls"},
                              [&](const std::string& dk, const JSON& dv, const std::string& dvp) {
                                if (dk == "ms")
                                  plan.ms = integer(dv, dvp);
                                else
                                  plan.calls =
                                      static_cast<uint32_t>(std::min(integer(dv, dvp), kMaxU32));
                              });
                      s.delays[k] = plan;
                    });
          else if (key == "error") {
            ErrorPlan plan;
            if (requirePhase(value, p) &&
                members(value, p, {"phase", "afterMs", "code"},
                        [&](const std::string& k, const JSON& e, const std::string& ep) {
                          if (!trigger(plan.at, k, e, ep))
                            plan.code = static_cast<uint32_t>(integer(e, ep, kMaxU32));
                        }))
              s.error = plan;
          } else if (key == "result")
            s.result = result(value, p);
          else if (key == "resolveUrl") {
            ResolveUrlPlan plan;
            if (requirePhase(value, p) &&
                members(value, p,
                        {"phase", "afterMs", "fileNames", "fileType", "holdUntilAnswered"},
                        [&](const std::string& k, const JSON& e, const std::string& ep) {
                          if (trigger(plan.at, k, e, ep))
                            return;
                          if (k == "fileNames")
                            plan.fileNames = texts(e, ep);
                          else if (k == "fileType")
                            plan.fileType = static_cast<lum11::CM_FileType>(integer(e, ep, kMaxU8));
                          else
                            plan.holdUntilAnswered = flag(e, ep);
                        }))
              s.resolveUrl = plan;
          } else if (key == "stopOffer") {
            StopOfferPlan plan;
            if (requirePhase(value, p) &&
                members(value, p, {"phase", "afterMs", "durationMs"},
                        [&](const std::string& k, const JSON& e, const std::string& ep) {
                          if (!trigger(plan.at, k, e, ep))
                            plan.durationMs = integer(e, ep);
                        }))
              s.stopOffer = plan;
          } else if (key == "crash") {
            CrashPlan plan;
            if (requirePhase(value, p) &&
                members(value, p, {"phase", "afterMs", "exitCode"},
                        [&](const std::string& k, const JSON& e, const std::string& ep) {
                          if (!trigger(plan.at, k, e, ep))
                            plan.exitCode = static_cast<int>(integer(e, ep, kMaxU8));
                        }))
              s.crash = plan;
          } else
            s.preconditionResult = text(value, p);
        });
    return s;
  }

 private:
  std::string name_;
  std::string error_;
};

}  // namespace

const char* phaseName(Phase phase) {
  for (const auto& [p, n] : phases())
    if (p == phase)
      return n;
  return "UNKNOWN";
}

bool SessionScript::sends(const std::string& event) const {
  const auto it = events.find(event);
  return it == events.end() || it->second;
}

const SessionScript& Scenario::forSession(std::size_t index) const {
  static const SessionScript kDefault;
  if (sessions.empty())
    return kDefault;
  return sessions[index < sessions.size() ? index : sessions.size() - 1];
}

const std::vector<std::string>& operationNames() {
  static const std::vector<std::string> names{"updateURLResponse",
                                              "createDomainUpdateSession",
                                              "getDomainUpdateSessionState",
                                              "startDomainUpdateDownload",
                                              "getDomainUpdateDownloadProgress",
                                              "startDomainUpdate",
                                              "getDomainUpdateProgress",
                                              "cancelDomainUpdate",
                                              "setDebugInstruction",
                                              "getDomainConfiguration",
                                              "getDomainDownloadInfo",
                                              "getDomainUpdateInfo",
                                              "getDomainUpdateResult",
                                              "closeDomainUpdateSession",
                                              "ackDomainOffTimeNotification",
                                              "checkProgrammingPreconditions",
                                              "getServiceDescription",
                                              "updateClientDownloadFinished"};
  return names;
}

const std::vector<std::string>& eventNames() {
  static const std::vector<std::string> names{"domainReadyForDownloadNotification",
                                              "domainReadyForUpdateNotification",
                                              "domainUpdateFinishedNotification",
                                              "domainOffTimeNotification",
                                              "debugMessageNotification",
                                              "resolveUpdateURLRequest",
                                              "domainErrorNotification"};
  return names;
}

ScenarioResult parseScenario(const std::string& text, const std::string& name) {
  ScenarioResult out;
  auto& logger = Logger::instance();
  auto previous = logger.sink();
  auto counter = std::make_shared<ParseErrorCounter>(previous);
  logger.setSink(counter);
  const JSON doc = JSON::Load(text);
  logger.setSink(previous);
  if (counter->errors > 0) {
    out.error = cat(name, ": not valid JSON (the parser's message is in the log)");
    return out;
  }

  Reader reader(name);
  Scenario scenario;
  reader.members(doc, "", {"sessions", "strictSessionIds"},
                 [&](const std::string& key, const JSON& sessions, const std::string& path) {
                   if (key == "strictSessionIds") {
                     scenario.strictSessionIds = reader.flag(sessions, path);
                     return;
                   }
                   if (sessions.JSONType() != JSON::Class::Array || sessions.size() == 0) {
                     reader.fail(path, "expected a non-empty array of session objects");
                     return;
                   }
                   scenario.sessions.clear();
                   std::size_t i = 0;
                   for (const auto& s : sessions.ArrayRange()) {
                     scenario.sessions.push_back(reader.session(s, cat(path, "[", i++, "]")));
                     if (reader.failed())
                       return;
                   }
                 });
  if (reader.failed()) {
    out.error = reader.error();
    return out;
  }
  out.scenario = std::move(scenario);
  return out;
}

ScenarioResult loadScenario(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    ScenarioResult out;
    out.error = cat(path, ": cannot be read");
    return out;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parseScenario(text.str(), path);
}

}  // namespace lumsim

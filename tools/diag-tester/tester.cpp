#include "tester.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <utility>

#include "interfaces/host_interfaces.h"
#include "interfaces/lum/lum_names.h"
#include "minfw/clock.h"
#include "minfw/log.h"
#include "minfw/str.h"
#include "platform/someip/config.h"
#include "printer.h"

namespace orv::tester {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;
using minfw::cat;
using PS = ProcessingState;
using RS = lum12::CM_ReturnStatus_state;

namespace {

// A forwarded call waits for the LUM without retries; this bounds one answer generously.
constexpr int64_t kCallLimitMs = 15000;
constexpr int64_t kStepMs = 100;
constexpr int64_t kProgressEveryMs = 1000;
// How long a failed session is given to reach an end after its cancel.
constexpr int64_t kAbandonLimitMs = 15000;
// Samples kept between two looks at a field; the service publishes a few per session.
constexpr std::size_t kFieldCache = 64;

int64_t msSince(minfw::Clock::TimePoint start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(minfw::clock().now() - start)
      .count();
}

const char* statusName(RS status) {
  return lum::returnStatusName(status);
}

// The middleware's log lines interleave with the tester's output; below a warning they are
// noise unless asked for.
void initLog(bool verbose) {
  minfw::Logger::instance().init("diag-tester", "DIAG", verbose ? minfw::kDebug : minfw::kWarn);
}

}  // namespace

std::string progressBar(int64_t done, int64_t total, int width) {
  const int64_t percent = total <= 0 ? 0 : std::clamp<int64_t>(done * 100 / total, 0, 100);
  const int filled = static_cast<int>(percent * width / 100);
  char tail[8];
  std::snprintf(tail, sizeof tail, "%4d%%", static_cast<int>(percent));
  return "[" + std::string(static_cast<std::size_t>(filled), '#') +
         std::string(static_cast<std::size_t>(width - filled), '-') + "]" + tail;
}

std::string describe(const SessionState& entry) {
  return cat("[", entry.domainRepairInstructionID, "] ", toString(entry.currentProcessingState),
             ", installationTime ", entry.installationTime, " s, ", entry.downloadDataSize,
             " bytes");
}

bool finalState(PS state) {
  return state == PS::successfulFinished || state == PS::failFinished ||
         state == PS::revertFinished;
}

Tester::Tester(Options options, std::ostream& out, std::ostream& err)
    : options_(std::move(options)), out_(out), err_(err) {}

Tester::~Tester() {
  // Stopping the runtime drops its connections on purpose; that is no warning here.
  if (!options_.verbose)
    minfw::Logger::instance().setMinLevel(minfw::kError);
  // Proxy and services before the runtime that carries them.
  proxy_.reset();
  routine_.reset();
  measurement_.reset();
  runtime_.reset();
}

bool Tester::interrupted(int64_t ms) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  const timespec wait{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  for (;;) {
    const int signal = sigtimedwait(&stop, nullptr, &wait);
    if (signal > 0)
      return true;
    if (errno != EINTR)
      return false;
  }
}

template <typename T>
std::optional<T> Tester::await(const char* op, mw::Future<T> future) {
  if (future.wait_for(std::chrono::milliseconds(kCallLimitMs)) != mw::FutureStatus::kReady) {
    err_ << "diag-tester: " << op << ": no answer within " << kCallLimitMs / 1000 << " s\n";
    return std::nullopt;
  }
  mw::Result<T> result = future.get();
  if (!result) {
    err_ << "diag-tester: " << op << ": " << mw::toString(result.error()) << " "
         << result.errorMessage() << "\n";
    return std::nullopt;
  }
  return std::move(result).value();
}

int Tester::start() {
  initLog(options_.verbose);
  const std::string path =
      options_.configPath.empty() ? platform::someip::hostConfigPath() : options_.configPath;
  platform::someip::HostConfig config;
  std::string error;
  if (!platform::someip::loadHostConfig(path, hostInterfaces(), config, error)) {
    err_ << "diag-tester: " << error << "\n";
    return kExitUsage;
  }
  runtime_ = platform::someip::Runtime::start(config, "diag-tester", error);
  if (!runtime_) {
    err_ << "diag-tester: cannot start the middleware: " << error << "\n";
    return kExitNotFound;
  }
  return kExitOk;
}

int Tester::findDiagnosticMaster() {
  struct Found {
    std::mutex mutex;
    mw::ServiceHandleContainer handles;  // guarded by mutex
  };
  auto found = std::make_shared<Found>();
  auto find = Proxy::StartFindService(
      [found](mw::ServiceHandleContainer handles, mw::FindServiceHandle) {
        std::lock_guard<std::mutex> lock(found->mutex);
        found->handles = std::move(handles);
      },
      mw::InstanceSpecifier(options_.instance), runtime_.get());
  if (!find) {
    err_ << "diag-tester: cannot look for the service: " << find.errorMessage() << "\n";
    return kExitNotFound;
  }
  const auto start = minfw::clock().now();
  const int64_t limitMs = options_.findS * 1000;
  std::optional<mw::ServiceHandle> handle;
  while (!handle && msSince(start) < limitMs) {
    if (interrupted(kStepMs))
      break;
    std::lock_guard<std::mutex> lock(found->mutex);
    if (!found->handles.empty())
      handle = found->handles.front();
  }
  Proxy::StopFindService(find.value(), runtime_.get());
  if (!handle || mw::Proxy::Preconstruct(*handle, runtime_.get())
                         .wait_for(std::chrono::milliseconds(std::max<int64_t>(
                             limitMs - msSince(start), 1))) != mw::FutureStatus::kReady) {
    err_ << "diag-tester: orvane's diagnostic-master service (instance " << options_.instance
         << ") not found within " << options_.findS << " s\n";
    return kExitNotFound;
  }
  auto created = Proxy::Create(*handle, runtime_.get());
  if (!created) {
    err_ << "diag-tester: cannot reach the service: " << created.errorMessage() << "\n";
    return kExitNotFound;
  }
  proxy_ = std::move(created).value();
  // Subscribed before anything is asked, so that no change of a session goes unseen.
  const bool subscribed = proxy_->domainUpdateSessionState.Subscribe(kFieldCache) &&
                          proxy_->resolveUpdateURLRequest.Subscribe(kFieldCache) &&
                          proxy_->domainOffTimeNotification.Subscribe(kFieldCache) &&
                          proxy_->domainErrorNotification.Subscribe(kFieldCache);
  while (subscribed && msSince(start) < limitMs &&
         proxy_->domainUpdateSessionState.GetSubscriptionState() !=
             mw::SubscriptionState::kSubscribed) {
    if (interrupted(kStepMs))
      break;
  }
  if (!subscribed || proxy_->domainUpdateSessionState.GetSubscriptionState() !=
                         mw::SubscriptionState::kSubscribed) {
    err_ << "diag-tester: the service's fields cannot be subscribed\n";
    return kExitNotFound;
  }
  out_ << "diag-tester: found orvane's diagnostic-master service (instance " << options_.instance
       << ")\n";
  return kExitOk;
}

bool Tester::takeSessionStates() {
  bool changed = false;
  proxy_->domainUpdateSessionState.GetNewSamples(
      [&](mw::SamplePtr<std::vector<SessionState>> sample) {
        if (sample) {
          states_ = *sample;
          changed = true;
        }
      });
  return changed;
}

std::optional<SessionState> Tester::stateOf(uint16_t riid) const {
  for (const SessionState& entry : states_) {
    if (entry.elementId == riid)
      return entry;
  }
  return std::nullopt;
}

void Tester::serveSession(uint16_t riid) {
  proxy_->resolveUpdateURLRequest.GetNewSamples(
      [&](mw::SamplePtr<std::vector<lum12::DT_resolveUpdateURLRequest_struct>> sample) {
        if (!sample)
          return;
        for (const auto& request : *sample) {
          const std::vector<uint8_t> id(request.updateURLRequestID.begin(),
                                        request.updateURLRequestID.end());
          if (request.elementId != riid ||
              std::find(answeredUrls_.begin(), answeredUrls_.end(), id) != answeredUrls_.end())
            continue;
          answeredUrls_.push_back(id);
          lum12::UpdateUrlResponseStruct response;
          response.updateURLRequestID = request.updateURLRequestID;
          for (const std::string& name : request.fileNames)
            response.urlInfo.push_back(options_.baseUrl + "/" + name);
          response.error = lum12::CM_UpdateUrlResponseStruct_error::noError;
          const bool sent = static_cast<bool>(proxy_->updateUrlResponse(response));
          out_ << "diag-tester: URLs of " << request.fileNames.size() << " file(s) "
               << (sent ? "sent" : "NOT sent") << "\n";
        }
      });
  proxy_->domainOffTimeNotification.GetNewSamples(
      [&](mw::SamplePtr<std::vector<lum12::DT_domainOffTimeNotification_struct>> sample) {
        if (!sample)
          return;
        for (const auto& offTime : *sample) {
          if (offTime.elementId != riid || std::find(ackedOffTimes_.begin(), ackedOffTimes_.end(),
                                                     offTime.timeout) != ackedOffTimes_.end())
            continue;
          ackedOffTimes_.push_back(offTime.timeout);
          const auto acked = await("ackDomainOffTimeNotification",
                                   proxy_->ackDomainOffTimeNotification(riid, offTime.timeout));
          out_ << "diag-tester: off-time of " << offTime.timeout
               << " s acknowledged: " << (acked ? statusName(acked->returnStatus) : "no answer")
               << "\n";
        }
      });
  proxy_->domainErrorNotification.GetNewSamples(
      [&](mw::SamplePtr<std::vector<lum12::DT_domainErrorNotification_struct>> sample) {
        if (!sample)
          return;
        for (const auto& error : *sample) {
          if (error.elementId == riid)
            out_ << "diag-tester: the LUM reports error " << error.errorCode << "\n";
        }
      });
}

bool Tester::close(uint16_t riid) {
  const auto closed =
      await("closeDomainUpdateSession", proxy_->closeDomainUpdateSession(options_.accessId, riid));
  out_ << "diag-tester: closeDomainUpdateSession: "
       << (closed ? statusName(closed->returnStatus) : "no answer") << "\n";
  return closed && closed->returnStatus == RS::ok;
}

void Tester::abandon(uint16_t riid) {
  const auto cancelled =
      await("cancelDomainUpdate", proxy_->cancelDomainUpdate(options_.accessId, riid));
  out_ << "diag-tester: cancelDomainUpdate: "
       << (cancelled ? statusName(cancelled->returnStatus) : "no answer") << "\n";
  const auto start = minfw::clock().now();
  // Only a cancel that the LUM took leads to an end worth waiting for.
  while (cancelled && cancelled->returnStatus == RS::ok && msSince(start) < kAbandonLimitMs) {
    takeSessionStates();
    const auto entry = stateOf(riid);
    if (entry && finalState(entry->currentProcessingState))
      break;
    minfw::sleepMs(kStepMs);
  }
  close(riid);
}

int Tester::dmUpdate() {
  Printer print(out_);
  lum12::createDomainUpdateSession_manifestInformation manifests;
  for (const std::string& name : options_.manifests) {
    lum12::DT_manifestInformation_struct entry;
    entry.manifestType = "updateManifest";
    entry.manifestLink = options_.baseUrl + "/" + name;
    manifests.push_back(entry);
  }
  lum12::DT_DownloadSource source;
  source.resolveURL = true;
  source.connectionType = lum12::CM_DownloadSource_connectionType::http;
  source.baseURL = options_.baseUrl;
  lum12::createDomainUpdateSession_diagnosticAddress addresses;
  addresses.diagnosticAddresses = options_.diagAddresses;
  takeSessionStates();

  print.line(cat("diag-tester: createDomainUpdateSession accessID ", options_.accessId,
                 ", session ", options_.session, ", order ", options_.order));
  const auto created = await(
      "createDomainUpdateSession",
      proxy_->createDomainUpdateSession(
          options_.accessId, options_.session, options_.order, manifests, {}, source, addresses,
          lum12::CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType::
              localUpdate));
  if (!created)
    return kExitFailed;
  if (created->returnStatus != RS::ok) {
    print.line(cat("diag-tester: the update was refused: createDomainUpdateSession answered ",
                   statusName(created->returnStatus)));
    return kExitFailed;
  }
  const uint16_t riid = created->domainRepairInstructionID;
  print.line(cat("diag-tester: session ", riid, " created"));

  // The field says where the session is; each step is taken once the state before it is
  // reached. An end state counts only when the LUM has a result for it: a state left in the
  // field by an earlier session of the same id must not end this one.
  enum class Step { kAnalysing, kDownloading, kUpdating };
  Step step = Step::kAnalysing;
  const auto start = minfw::clock().now();
  auto lastProgress = start;
  std::optional<lum12::methods::GetDomainUpdateResult::Output> result;
  std::string askedAt;  // the end state for which the result was asked
  std::string failure;
  while (!result && failure.empty()) {
    if (interrupted(kStepMs)) {
      failure = "interrupted";
      break;
    }
    if (msSince(start) >= options_.timeoutS * 1000) {
      failure = cat("no end of the update within ", options_.timeoutS, " s");
      break;
    }
    serveSession(riid);
    if (takeSessionStates()) {
      if (const auto entry = stateOf(riid))
        print.line(cat("domainUpdateSessionState ", describe(*entry)));
    }
    const auto entry = stateOf(riid);
    const PS state = entry ? entry->currentProcessingState : PS::verifying;
    if (entry && finalState(state)) {
      // Asked once per entry: a stale end state stays until the session's own state comes.
      if (describe(*entry) != askedAt) {
        askedAt = describe(*entry);
        const auto answer =
            await("getDomainUpdateResult", proxy_->getDomainUpdateResult(options_.accessId, riid));
        if (!answer) {
          failure = "getDomainUpdateResult failed";
        } else if (answer->returnStatus == RS::ok) {
          result = answer;
        }
      }
      continue;
    }
    if (step == Step::kAnalysing && state == PS::verificationFinished) {
      const auto started = await("startDomainUpdateDownload",
                                 proxy_->startDomainUpdateDownload(options_.accessId, riid));
      print.line(cat("diag-tester: startDomainUpdateDownload: ",
                     started ? statusName(started->returnStatus) : "no answer"));
      if (!started || started->returnStatus != RS::ok)
        failure = "the download was not started";
      step = Step::kDownloading;
    } else if (step == Step::kDownloading && state == PS::downloadFinished) {
      const auto started =
          await("startDomainUpdate", proxy_->startDomainUpdate(options_.accessId, riid));
      print.line(cat("diag-tester: startDomainUpdate: ",
                     started ? statusName(started->returnStatus) : "no answer"));
      if (!started || started->returnStatus != RS::ok)
        failure = "the installation was not started";
      step = Step::kUpdating;
    } else if (step != Step::kAnalysing && msSince(lastProgress) >= kProgressEveryMs) {
      lastProgress = minfw::clock().now();
      // A session that the LUM no longer knows (it restarted, say) never reaches an end.
      auto show = [&](const char* op, const char* what, const auto& progress) {
        if (!progress || progress->returnStatus != RS::ok)
          failure =
              cat(op, " answered ", progress ? statusName(progress->returnStatus) : "nothing");
        else
          print.bar(what, progress->processedBytes, progress->totalBytes);
      };
      if (step == Step::kDownloading)
        show("getDomainUpdateDownloadProgress", "downloading",
             await("getDomainUpdateDownloadProgress",
                   proxy_->getDomainUpdateDownloadProgress(options_.accessId, riid)));
      else
        show("getDomainUpdateProgress", "installing ",
             await("getDomainUpdateProgress",
                   proxy_->getDomainUpdateProgress(options_.accessId, riid)));
    }
  }
  if (!result) {
    print.line(cat("diag-tester: ", failure, "; cancelling session ", riid));
    abandon(riid);
    return kExitFailed;
  }
  const auto& r = result->domainResult;
  print.line(cat("diag-tester: result ", toString(r.sessionStatus), ", resultCode ", r.resultCode,
                 r.errorDetails.empty() ? std::string() : cat(", ", r.errorDetails), ", integrity ",
                 toString(r.integrityValidationResult.status), ", safety ",
                 toString(r.safetyValidationResult.status)));
  const bool closed = close(riid);
  const bool finished = r.sessionStatus == lum12::CM_DomainResult_sessionStatus::successful &&
                        stateOf(riid)->currentProcessingState == PS::successfulFinished && closed;
  print.line(finished ? "diag-tester: the update finished"
                      : "diag-tester: the update did not finish");
  return finished ? kExitOk : kExitFailed;
}

int Tester::watch() {
  const auto start = minfw::clock().now();
  std::string shown = "-";
  for (;;) {
    if (takeSessionStates()) {
      std::string text = cat("domainUpdateSessionState: ", states_.size(), " session(s)\n");
      for (const SessionState& entry : states_)
        text += cat("  ", describe(entry), "\n");
      if (text != shown)
        out_ << text << std::flush;
      shown = std::move(text);
    }
    if (options_.seconds > 0 && msSince(start) >= options_.seconds * 1000)
      return kExitOk;
    if (interrupted(kStepMs))
      return kExitOk;
  }
}

}  // namespace orv::tester

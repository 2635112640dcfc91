#pragma once
// diag-tester: the workshop tester as a peer process ("diag-tester" of the host configuration).
// It plays the diagnostic master on orvane's version-12 LUM control service: it drives a whole
// domain update through orvane (dm-update) or follows the domainUpdateSessionState field
// (watch). It offers the routine-control and measurement services through which orvane takes a
// diagnostic routine that starts a local update (routine-start) and answers read-outs of the
// update state (measure).
//
// Threading: a Tester is used by the thread that runs the command. The middleware runtime it
// owns runs its own threads; what they share with the command is the discovery result (guarded
// by its mutex) and the services' mailboxes (thread-safe). Field samples are taken from the
// proxy's cache by the command's thread. SIGINT and SIGTERM must be blocked in every thread (main
// blocks them before the runtime starts); the command takes them with sigtimedwait between its
// steps.

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "interfaces/lum/lum12_proxy.h"
#include "platform/someip/runtime.h"
#include "services.h"

namespace orv::tester {

// Exit statuses of the commands.
enum ExitStatus { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNotFound = 3 };

struct Options {
  std::string configPath;  // empty: ORVANE_MIDDLEWARE_CONFIG or config/host.json
  std::string instance = "1";
  int64_t findS = 20;      // how long to look for orvane's service
  int64_t timeoutS = 300;  // dm-update: the whole update
  int64_t seconds = 0;     // watch: 0 until interrupted
  bool verbose = false;    // middleware log lines down to debug
  // The session that dm-update creates.
  std::string accessId = "DIAG-TESTER";
  uint16_t session = 100;
  std::string order = "ORDER-DEMO";  // also the update order of routine-start
  std::string baseUrl = "http://127.0.0.1:29214/medium";
  std::vector<std::string> manifests{"domain-app.json"};
  std::vector<uint16_t> diagAddresses{0x1A01};
};

using SessionState = lum12::DT_domainUpdateSessionState_struct;
using ProcessingState =
    lum12::CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState;

// "[100] downloading, installationTime 120 s, 4194304 bytes"
std::string describe(const SessionState& entry);
bool finalState(ProcessingState state);

class Tester {
 public:
  using Proxy = lum12::proxy::DiagLocalUpdateManagerControlProxy;

  Tester(Options options, std::ostream& out, std::ostream& err);
  ~Tester();
  Tester(const Tester&) = delete;
  Tester& operator=(const Tester&) = delete;

  // Loads the configuration and starts the middleware: kExitOk, kExitUsage for a bad
  // configuration, kExitNotFound when the middleware cannot start.
  int start();
  // Finds orvane's v12 service and subscribes its fields: kExitOk or kExitNotFound after findS.
  int findDiagnosticMaster();
  // Offers the routine-control and measurement services: kExitOk or kExitNotFound.
  int offerServices();

  int dmUpdate();
  int watch();
  int routineStart();
  int measure();

 private:
  // Waits for a call's answer within the call limit; prints why there is none.
  template <typename T>
  std::optional<T> await(const char* op, platform::middleware::Future<T> future);
  // Sleeps up to `ms`; true when SIGINT or SIGTERM arrived.
  bool interrupted(int64_t ms);
  // The newest field value taken from the cache; true when a sample came since the last call.
  bool takeSessionStates();
  std::optional<SessionState> stateOf(uint16_t riid) const;
  // Answers the LUM's URL requests and acknowledges its off-times for the session.
  void serveSession(uint16_t riid);
  // After a failure of a created session: cancel it, wait for its end, close it.
  void abandon(uint16_t riid);
  bool close(uint16_t riid);
  // Asks for one measurement, again every second, until orvane answers or `limitMs` passed.
  std::optional<MeasurementReply> ask(uint16_t measurementId, int64_t limitMs);

  const Options options_;
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<platform::someip::Runtime> runtime_;
  std::shared_ptr<Proxy> proxy_;
  std::unique_ptr<RoutineService> routine_;
  std::unique_ptr<MeasurementService> measurement_;
  uint32_t requestId_ = 0;
  std::vector<SessionState> states_;
  std::vector<std::vector<uint8_t>> answeredUrls_;
  std::vector<uint16_t> ackedOffTimes_;
};

}  // namespace orv::tester

// The diagnostic master's detour: round trip of a version-12 call that orvane forwards to the LUM
// (tester -> orvane -> lum-sim and back) against the same call made directly to lum-sim on
// version 11, one call in flight, the two alternating; p50/p99 in microseconds and their ratios.
// Target: forwarded <= 2.2 x direct. orvane and lum-sim run as the real processes of the release
// build, their output discarded; this process plays the tester ("diag-tester", 127.0.0.3) and
// holds a session through orvane, so that its calls are forwarded. Runs inside a private network
// namespace.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "interfaces/host_interfaces.h"
#include "interfaces/lum/lum11_proxy.h"
#include "interfaces/lum/lum12_proxy.h"
#include "minfw/log.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

extern char** environ;

namespace {

namespace mw = platform::middleware;
using orvane::bench::microsSince;
using orvane::bench::reportPercentiles;
using Direct = lum11::proxy::DiagLocalUpdateManagerControlProxy;
using Forwarded = lum12::proxy::DiagLocalUpdateManagerControlProxy;
using Clock = std::chrono::steady_clock;

constexpr const char* kAccessId = "BENCH";
constexpr uint16_t kSession = 77;
constexpr auto kPatience = std::chrono::seconds(30);

// A peer process with its output discarded; ended by PID.
class Peer {
 public:
  bool start(const std::vector<std::string>& args, const std::string& env = {}) {
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e)
      envp.push_back(*e);
    std::string extra = env;
    if (!extra.empty())
      envp.push_back(extra.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int failed = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0;
  }
  ~Peer() { stop(); }
  void stop() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
};

// The constellation: lum-sim, orvane, and this process's runtime with a proxy of each version.
struct Setup {
  std::string dir;
  Peer lum;
  Peer orvane;
  std::unique_ptr<platform::someip::Runtime> runtime;
  std::unique_ptr<Direct> direct;
  std::unique_ptr<Forwarded> forwarded;
  std::string error;

  template <typename P>
  std::unique_ptr<P> find(const char* instance) {
    std::mutex m;
    mw::ServiceHandleContainer found;
    auto search = P::StartFindService(
        [&](mw::ServiceHandleContainer c, mw::FindServiceHandle) {
          std::lock_guard<std::mutex> lock(m);
          found = c;
        },
        mw::InstanceSpecifier(instance), runtime.get());
    for (auto end = Clock::now() + kPatience; Clock::now() < end;) {
      {
        std::lock_guard<std::mutex> lock(m);
        if (!found.empty())
          break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    P::StopFindService(search.value(), runtime.get());
    std::lock_guard<std::mutex> lock(m);
    if (found.empty() || !mw::Proxy::Preconstruct(found[0], runtime.get()).get())
      return nullptr;
    auto proxy = P::Create(found[0], runtime.get());
    return proxy ? std::move(proxy).value() : nullptr;
  }

  bool start() {
    char templ[] = "/tmp/dm-forward-bench-XXXXXX";
    if (!mkdtemp(templ))
      return fail("mkdtemp");
    dir = templ;
    // A session that stays in its analysis: no events while the calls are timed.
    std::ofstream(dir + "/scenario.json") << R"({"sessions": [{"analyseMs": 3600000}]})";
    if (!lum.start({LUM_SIM_PATH, "--scenario", dir + "/scenario.json"}) ||
        !orvane.start({ORVANE_BIN}, "ORVANE_PERSISTENCE_DIR=" + dir))
      return fail("cannot start lum-sim or orvane");
    platform::someip::HostConfig config;
    if (!platform::someip::loadHostConfig(platform::someip::hostConfigPath(), orv::hostInterfaces(),
                                          config, error))
      return false;
    runtime = platform::someip::Runtime::start(config, "diag-tester", error);
    if (!runtime)
      return false;
    direct = find<Direct>("12233");
    forwarded = find<Forwarded>("1");
    if (!direct || !forwarded)
      return fail("lum-sim or orvane not found");
    // orvane forwards once it has found the LUM itself: the create takes control for channel 0.
    for (auto end = Clock::now() + kPatience; Clock::now() < end;) {
      auto created =
          forwarded->createDomainUpdateSession(kAccessId, kSession, "BENCH", {}, {}, {}, {}, {})
              .get();
      if (created && created.value().returnStatus == lum12::CM_ReturnStatus_state::ok)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return fail("orvane refused the session");
  }
  bool fail(const char* what) {
    error = what;
    return false;
  }
  ~Setup() {
    forwarded.reset();
    direct.reset();
    runtime.reset();
    orvane.stop();
    lum.stop();
    if (!dir.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(dir, ignored);
    }
  }
};

Setup* gSetup = nullptr;
// Microseconds of one getDomainConfiguration round trip; negative when it failed.
template <typename P>
double roundTrip(P& proxy) {
  const auto t0 = Clock::now();
  auto answer = proxy.getDomainConfiguration(kAccessId, kSession).get();
  const double micros = microsSince(t0);
  return answer && static_cast<int>(answer.value().returnStatus) == 0 ? micros : -1;
}

// The two ways alternate, one call in flight, so that both meet the same load of the machine.
void BM_ForwardedVsDirect(benchmark::State& state) {
  std::vector<double> direct, forwarded;
  for (auto _ : state) {
    direct.push_back(roundTrip(*gSetup->direct));
    forwarded.push_back(roundTrip(*gSetup->forwarded));
    if (direct.back() < 0 || forwarded.back() < 0) {
      state.SkipWithError("call failed");
      return;
    }
  }
  reportPercentiles(state, direct);
  const double d50 = state.counters["p50_us"], d99 = state.counters["p99_us"];
  reportPercentiles(state, forwarded);
  const double f50 = state.counters["p50_us"], f99 = state.counters["p99_us"];
  state.counters.erase("p50_us");
  state.counters.erase("p99_us");
  state.counters["direct_p50_us"] = d50;
  state.counters["direct_p99_us"] = d99;
  state.counters["fwd_p50_us"] = f50;
  state.counters["fwd_p99_us"] = f99;
  state.counters["ratio_p50"] = f50 / d50;  // target <= 2.2
  state.counters["ratio_p99"] = f99 / d99;
}
BENCHMARK(BM_ForwardedVsDirect)->UseRealTime()->MinTime(3.0);

}  // namespace

int main(int argc, char** argv) {
  return orvane::bench::runInPrivateNetwork(argc, argv, gSetup);
}

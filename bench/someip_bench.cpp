// SOME/IP binding on loopback: method round trip and event latency with one message in flight
// (p50/p99 in microseconds as counters), and calls per second pipelined on one connection.
// Runs inside a private network namespace (scripts/netns-run), like the binding's tests.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "bench_support.h"
#include "minfw/log.h"
#include "platform/middleware/proxy.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/runtime.h"
#include "platform/someip/testing/test_interface.h"

namespace {

namespace mw = platform::middleware;
using namespace platform::someip;
using namespace platform::someip::testing;
using SteadyClock = std::chrono::steady_clock;

// Server and client runtimes in this process, TestService offered, a proxy connected.
struct Setup {
  HostConfig config;
  std::unique_ptr<Runtime> server;
  std::unique_ptr<Runtime> client;
  std::unique_ptr<mw::Skeleton> skeleton;
  std::unique_ptr<mw::Proxy> proxy;
  std::string error;

  bool start() {
    char dir[] = "/tmp/someip-bench-XXXXXX";
    if (!mkdtemp(dir))
      return fail("mkdtemp");
    std::string path = std::string(dir) + "/host.json";
    std::ofstream(path) << testConfigJson();
    const bool loaded = loadHostConfig(path, {testInterfaceIds()}, config, error);
    std::remove(path.c_str());
    ::rmdir(dir);
    if (!loaded)
      return false;
    server = Runtime::start(config, "server", error);
    client = server ? Runtime::start(config, "client", error) : nullptr;
    if (!client)
      return false;
    skeleton =
        std::move(mw::Skeleton::Create(kTestInterface, mw::InstanceSpecifier("1"), server.get()))
            .value();
    skeleton->handle<Echo>([](const Echo::Input& in) {
      return mw::Future<Echo::Output>::ready(Echo::Output{in.text, in.n});
    });
    skeleton->field<Level>().Update(1);
    if (!skeleton->OfferService())
      return fail("offer");
    std::mutex m;
    std::condition_variable cv;
    mw::ServiceHandleContainer found;
    auto find = mw::Proxy::StartFindService(
        [&](mw::ServiceHandleContainer c, mw::FindServiceHandle) {
          std::lock_guard<std::mutex> lock(m);
          if (!c.empty())
            found = c;
          cv.notify_all();
        },
        kTestInterface, mw::InstanceSpecifier("1"), client.get());
    {
      std::unique_lock<std::mutex> lock(m);
      if (!cv.wait_for(lock, std::chrono::seconds(10), [&] { return !found.empty(); }))
        return fail("service not found");
    }
    mw::Proxy::StopFindService(find.value(), client.get());
    if (!mw::Proxy::Preconstruct(found[0], client.get()).get())
      return fail("cannot connect");
    proxy = std::move(mw::Proxy::Create(found[0], client.get())).value();
    return true;
  }
  bool fail(const char* what) {
    error = what;
    return false;
  }
  ~Setup() {
    proxy.reset();
    skeleton.reset();
    client.reset();
    server.reset();
  }
};

Setup* gSetup = nullptr;

using orvane::bench::microsSince;
using orvane::bench::reportPercentiles;

void BM_MethodRoundTrip(benchmark::State& state) {
  std::vector<double> micros;
  const Echo::Input input{"round trip", 1};
  for (auto _ : state) {
    auto t0 = SteadyClock::now();
    auto r = gSetup->proxy->call<Echo>(input).get();
    micros.push_back(microsSince(t0));
    if (!r) {
      state.SkipWithError("call failed");
      break;
    }
  }
  reportPercentiles(state, micros);
}
BENCHMARK(BM_MethodRoundTrip)->UseRealTime();

void BM_EventLatency(benchmark::State& state) {
  auto& tick = gSetup->proxy->event<Tick>();
  std::mutex m;
  std::condition_variable cv;
  uint64_t received = 0;
  SteadyClock::time_point arrival;
  tick.SetReceiveHandler([&] {
    auto now = SteadyClock::now();
    tick.GetNewSamples([](mw::SamplePtr<Tick::Sample>) {});
    std::lock_guard<std::mutex> lock(m);
    ++received;
    arrival = now;
    cv.notify_all();
  });
  tick.Subscribe(16);
  // Subscribed once a sample gets through.
  for (int i = 0; i < 1000; ++i) {
    gSetup->skeleton->send<Tick>(Tick::Sample{0, "warm-up"});
    std::unique_lock<std::mutex> lock(m);
    if (cv.wait_for(lock, std::chrono::milliseconds(10), [&] { return received > 0; }))
      break;
  }
  std::vector<double> micros;
  uint32_t seq = 0;
  for (auto _ : state) {
    uint64_t before;
    {
      std::lock_guard<std::mutex> lock(m);
      before = received;
    }
    auto t0 = SteadyClock::now();
    gSetup->skeleton->send<Tick>(Tick::Sample{++seq, "event"});
    std::unique_lock<std::mutex> lock(m);
    if (!cv.wait_for(lock, std::chrono::seconds(5), [&] { return received > before; })) {
      state.SkipWithError("event lost");
      break;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(arrival - t0).count());
  }
  tick.UnsetReceiveHandler();
  tick.Unsubscribe();
  reportPercentiles(state, micros);
}
BENCHMARK(BM_EventLatency)->UseRealTime();

// Calls on one connection with up to `range(0)` in flight.
void BM_PipelinedCalls(benchmark::State& state) {
  const std::size_t window = static_cast<std::size_t>(state.range(0));
  const Echo::Input input{"pipelined", 2};
  std::deque<mw::Future<Echo::Output>> inFlight;
  int64_t calls = 0;
  for (auto _ : state) {
    if (inFlight.size() >= window) {
      if (!inFlight.front().get()) {
        state.SkipWithError("call failed");
        break;
      }
      inFlight.pop_front();
    }
    inFlight.push_back(gSetup->proxy->call<Echo>(input));
    ++calls;
  }
  for (auto& f : inFlight)
    f.wait();
  state.counters["calls_per_s"] =
      benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PipelinedCalls)->Arg(64)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return orvane::bench::runInPrivateNetwork(argc, argv, gSetup);
}

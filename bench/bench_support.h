#pragma once
// Helpers of the benchmarks: latency percentiles, and main() for a benchmark whose set-up runs
// peers on loopback inside a private network namespace.
//
// Threading: runInPrivateNetwork() is main(); the others run on the benchmark's thread.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "minfw/log.h"
#include "platform/someip/testing/netns.h"

namespace orvane::bench {

inline double microsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
}

// Sorts `micros` and reports its median and 99th percentile as counters p50_us and p99_us.
inline void reportPercentiles(benchmark::State& state, std::vector<double>& micros) {
  if (micros.empty())
    return;
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// main() of a benchmark: in the private network, starts a `Setup` (bool start(), std::string
// error), publishes it through `current` while the benchmarks run, and stops it.
template <typename Setup>
int runInPrivateNetwork(int argc, char** argv, Setup*& current) {
  if (const int status = platform::someip::testing::enterPrivateNetwork(argc, argv))
    return status;
  kel::vxp3::minfw::Logger::instance().setMinLevel(kel::vxp3::minfw::kError);
  benchmark::Initialize(&argc, argv);
  Setup setup;
  if (!setup.start()) {
    std::fprintf(stderr, "set-up failed: %s\n", setup.error.c_str());
    return 1;
  }
  current = &setup;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  current = nullptr;
  return 0;
}

}  // namespace orvane::bench

#pragma once
// Helpers of the benchmarks: the private network namespace and latency percentiles.
//
// Threading: enterPrivateNetwork() first thing in main(), before any thread starts; the others
// on the benchmark's thread.

#include <benchmark/benchmark.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

namespace orvane::bench {

// Benchmarks that open sockets run inside a private network namespace (scripts/netns-run), like
// the tests: discovery multicast stays on loopback and nothing collides with other runs.
// Outside the namespace: re-runs this program inside one and returns only on failure (status
// 2). Inside: returns 0 at once.
inline int enterPrivateNetwork(int argc, char** argv) {
  const char* inside = getenv("ORVANE_IN_NETNS");
  if (inside && std::strcmp(inside, "1") == 0)
    return 0;
  setenv("ORVANE_IN_NETNS", "1", 1);
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0)
    return 2;
  self[n] = '\0';
  std::vector<char*> args{const_cast<char*>(ORVANE_NETNS_RUN), const_cast<char*>("--"), self};
  for (int i = 1; i < argc; ++i)
    args.push_back(argv[i]);
  args.push_back(nullptr);
  execv(args[0], args.data());
  std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
  return 2;
}

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

}  // namespace orvane::bench

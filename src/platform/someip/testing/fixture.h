#pragma once
// Helpers shared by the binding's socket tests: the test host configuration on disk, a queue of
// discovery reports, and waiting for conditions without fixed sleeps.
//
// Threading: ReportQueue and Signal are thread-safe (one mutex each, guarding their contents).

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/middleware/binding.h"
#include "platform/someip/config.h"

namespace platform::someip::testing {

// Upper bound for anything the tests wait for; only a hang guard, never a speed check.
constexpr std::chrono::seconds kPatience{20};

// A fresh temporary directory, removed with everything in it at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Writes the test configuration into `dir` and loads it; fails the calling test when it cannot.
HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut = nullptr);

// Discovery reports, in order.
class ReportQueue {
 public:
  middleware::FindServiceHandler handler();
  // The next report, or nothing after kPatience.
  std::optional<middleware::ServiceHandleContainer> next();
  // Skips reports until one satisfies `pred`.
  std::optional<middleware::ServiceHandleContainer> until(
      const std::function<bool(const middleware::ServiceHandleContainer&)>& pred);

 private:
  std::mutex mutex_;  // guards reports_
  std::condition_variable cv_;
  std::deque<middleware::ServiceHandleContainer> reports_;
};

// A counter that threads bump and tests wait on.
class Signal {
 public:
  void bump();
  // True once the count reached `n` (false after kPatience).
  bool waitFor(std::size_t n);
  std::size_t count();

 private:
  std::mutex mutex_;  // guards count_
  std::condition_variable cv_;
  std::size_t count_ = 0;
};

}  // namespace platform::someip::testing

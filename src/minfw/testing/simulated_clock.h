#pragma once
// SimulatedClock: virtual time for tests; every requested sleep is recorded.
// Manual mode: sleepFor() blocks until the test advances virtual time past its deadline, so a
// test drives a multi-threaded retry scheme step by step (waitForSleepers() tells it when the
// code has reached its pause). Auto-advance mode: sleepFor() advances virtual time and returns.
// Threading: thread-safe; one mutex guards everything.

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <vector>

#include "minfw/clock.h"

namespace kel::vxp3::minfw::testing {

class SimulatedClock : public Clock {
 public:
  enum class Mode { kManual, kAutoAdvance };

  explicit SimulatedClock(Mode mode = Mode::kManual);

  TimePoint now() override;
  // Starts at 2026-01-01 00:00:00 UTC and moves with virtual time.
  std::chrono::system_clock::time_point wallNow() override;
  void sleepFor(Duration duration) override;

  // Moves virtual time forward and wakes every sleeper whose deadline has passed.
  void advance(Duration duration);
  // Waits in real time, up to `timeout`, until at least `count` threads sleep.
  bool waitForSleepers(std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

  std::vector<Duration> sleeps() const;
  Duration totalSlept() const;
  Duration elapsed() const;

 private:
  const Mode mode_;
  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  Duration elapsed_{0};
  std::multiset<Duration> deadlines_;
  std::vector<Duration> sleeps_;
};

}  // namespace kel::vxp3::minfw::testing

#pragma once
// SimulatedClock: virtual time for tests.
//
// Manual mode: sleepFor() blocks the calling thread until a test advances virtual time past its
// deadline, so a test can drive a multi-threaded retry scheme step by step (waitForSleepers()
// tells it when the code under test has reached its pause). Auto-advance mode: sleepFor()
// advances virtual time at once and returns, for single-threaded code whose pauses only need to
// be counted. Both modes record every requested sleep.
//
// Threading: thread-safe; one mutex guards virtual time, the sleeper count and the sleep log.

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
  ~SimulatedClock() override;

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

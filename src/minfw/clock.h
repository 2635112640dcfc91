#pragma once
// The clock seam: every pause, retry wait and time stamp of the service goes through Clock, so
// tests run seconds-long retry schemes in virtual time (see testing/simulated_clock.h).
//
// Threading: the current clock is a process-wide pointer, read atomically. It is replaced only
// by tests, through ScopedClock, before the threads that use it start.

#include <chrono>
#include <cstdint>

namespace kel::vxp3::minfw {

class Clock {
 public:
  using Duration = std::chrono::nanoseconds;
  using TimePoint = std::chrono::steady_clock::time_point;

  virtual ~Clock();

  // Monotonic time.
  virtual TimePoint now() = 0;
  // Wall-clock time, for dates and times shown to people.
  virtual std::chrono::system_clock::time_point wallNow() = 0;
  // Sleeps the whole duration; a sleep cut short by a signal is resumed with the remaining time.
  virtual void sleepFor(Duration duration) = 0;
};

// The real clock (steady_clock, system_clock, nanosleep).
Clock& systemClock();

// The clock the service uses now: the system clock unless a test installed another.
Clock& clock();

// Convenience: clock().sleepFor(milliseconds).
void sleepMs(int64_t milliseconds);

// Installs a clock for the lifetime of this object (tests only); restores the previous one.
class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock);
  ~ScopedClock();
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

}  // namespace kel::vxp3::minfw

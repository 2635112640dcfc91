#include "minfw/clock.h"

#include <cerrno>
#include <ctime>

#include <atomic>

namespace kel::vxp3::minfw {

namespace {

class SystemClock final : public Clock {
 public:
  TimePoint now() override { return std::chrono::steady_clock::now(); }
  std::chrono::system_clock::time_point wallNow() override {
    return std::chrono::system_clock::now();
  }
  void sleepFor(Duration duration) override {
    if (duration <= Duration::zero())
      return;
    const auto secs = std::chrono::duration_cast<std::chrono::seconds>(duration);
    struct timespec request {};
    request.tv_sec = static_cast<time_t>(secs.count());
    request.tv_nsec = static_cast<long>((duration - secs).count());
    struct timespec remaining {};
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR)
      request = remaining;
  }
};

std::atomic<Clock*>& current() {
  static std::atomic<Clock*> clock{&systemClock()};
  return clock;
}

}  // namespace

Clock::~Clock() = default;

Clock& systemClock() {
  static SystemClock clock;
  return clock;
}

Clock& clock() {
  return *current().load(std::memory_order_acquire);
}

void sleepMs(int64_t milliseconds) {
  clock().sleepFor(std::chrono::milliseconds(milliseconds));
}

ScopedClock::ScopedClock(Clock& clock)
    : previous_(current().exchange(&clock, std::memory_order_acq_rel)) {}

ScopedClock::~ScopedClock() {
  current().store(previous_, std::memory_order_release);
}

}  // namespace kel::vxp3::minfw

#include "minfw/testing/simulated_clock.h"

#include <iterator>
#include <numeric>

namespace kel::vxp3::minfw::testing {

namespace {
// 2026-01-01 00:00:00 UTC.
constexpr std::chrono::seconds kWallEpoch{1767225600};
}  // namespace

SimulatedClock::SimulatedClock(Mode mode) : mode_(mode) {}

Clock::TimePoint SimulatedClock::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return TimePoint(elapsed_);
}

std::chrono::system_clock::time_point SimulatedClock::wallNow() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(kWallEpoch + elapsed_));
}

void SimulatedClock::sleepFor(Duration duration) {
  std::unique_lock<std::mutex> lock(mutex_);
  sleeps_.push_back(duration);
  if (duration < Duration::zero())
    duration = Duration::zero();
  if (mode_ == Mode::kAutoAdvance) {
    elapsed_ += duration;
    changed_.notify_all();
    return;
  }
  const Duration deadline = elapsed_ + duration;
  auto it = deadlines_.insert(deadline);
  changed_.notify_all();
  changed_.wait(lock, [&] { return elapsed_ >= deadline; });
  deadlines_.erase(it);
  changed_.notify_all();
}

void SimulatedClock::advance(Duration duration) {
  std::lock_guard<std::mutex> lock(mutex_);
  elapsed_ += duration;
  changed_.notify_all();
}

bool SimulatedClock::waitForSleepers(std::size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  // Only sleepers that have not been woken yet count.
  return changed_.wait_for(lock, timeout, [&] {
    return std::distance(deadlines_.upper_bound(elapsed_), deadlines_.end()) >=
           static_cast<std::ptrdiff_t>(count);
  });
}

std::vector<Clock::Duration> SimulatedClock::sleeps() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sleeps_;
}

Clock::Duration SimulatedClock::totalSlept() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::accumulate(sleeps_.begin(), sleeps_.end(), Duration::zero());
}

Clock::Duration SimulatedClock::elapsed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return elapsed_;
}

}  // namespace kel::vxp3::minfw::testing

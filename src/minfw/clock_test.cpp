#include "minfw/clock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "minfw/testing/simulated_clock.h"

namespace kel::vxp3::minfw {
namespace {

using std::chrono::milliseconds;
using testing::SimulatedClock;

extern "C" void ignoreSignal(int) {}

TEST(ClockTest, SystemSleepResumesAfterASignal) {
  struct sigaction action {};
  action.sa_handler = ignoreSignal;  // no SA_RESTART: nanosleep returns EINTR
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  std::atomic<bool> asleep{false};
  const auto start = std::chrono::steady_clock::now();
  std::thread sleeper([&] {
    asleep = true;
    systemClock().sleepFor(milliseconds(200));
  });
  while (!asleep)
    std::this_thread::yield();
  for (int i = 0; i < 5; ++i)
    pthread_kill(sleeper.native_handle(), SIGUSR1);
  sleeper.join();
  // An interrupted sleep that were not resumed would end right after the first signal.
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
  sigaction(SIGUSR1, &previous, nullptr);

  // Tests install a simulated clock only for their own scope.
  {
    SimulatedClock simulated(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scoped(simulated);
    EXPECT_EQ(&clock(), &simulated);
  }
  EXPECT_EQ(&clock(), &systemClock());
}

}  // namespace
}  // namespace kel::vxp3::minfw

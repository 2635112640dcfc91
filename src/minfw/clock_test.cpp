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
using std::chrono::seconds;
using testing::SimulatedClock;

TEST(SimulatedClockTest, SleeperWakesOnlyWhenVirtualTimePassesItsDeadline) {
  SimulatedClock clock;
  std::atomic<bool> woke{false};
  std::thread sleeper([&] {
    clock.sleepFor(seconds(10));
    woke = true;
  });
  ASSERT_TRUE(clock.waitForSleepers(1));
  clock.advance(milliseconds(9999));
  // Still asleep: the deadline is one millisecond away.
  EXPECT_TRUE(clock.waitForSleepers(1, milliseconds(0)));
  EXPECT_FALSE(woke);
  clock.advance(milliseconds(1));
  sleeper.join();
  EXPECT_TRUE(woke);
  EXPECT_EQ(clock.elapsed(), seconds(10));
  EXPECT_EQ(clock.sleepers(), 0u);
}

TEST(SimulatedClockTest, AdvanceToNextDeadlineWakesTheEarliestSleeperFirst) {
  SimulatedClock clock;
  std::atomic<int> order{0};
  int shortOne = 0;
  int longOne = 0;
  std::thread a([&] {
    clock.sleepFor(seconds(5));
    longOne = ++order;
  });
  std::thread b([&] {
    clock.sleepFor(seconds(1));
    shortOne = ++order;
  });
  ASSERT_TRUE(clock.waitForSleepers(2));
  ASSERT_TRUE(clock.advanceToNextDeadline());
  b.join();
  EXPECT_EQ(clock.elapsed(), seconds(1));
  ASSERT_TRUE(clock.advanceToNextDeadline());
  a.join();
  EXPECT_EQ(shortOne, 1);
  EXPECT_EQ(longOne, 2);
  EXPECT_FALSE(clock.advanceToNextDeadline());
}

TEST(SimulatedClockTest, AutoAdvanceRecordsEverySleepAndMovesWallTime) {
  SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
  ScopedClock scoped(clock);
  const auto wall0 = minfw::clock().wallNow();
  sleepMs(1000);
  sleepMs(2000);
  EXPECT_EQ(clock.sleeps(), (std::vector<Clock::Duration>{milliseconds(1000), milliseconds(2000)}));
  EXPECT_EQ(clock.totalSlept(), seconds(3));
  EXPECT_EQ(minfw::clock().wallNow() - wall0, seconds(3));
}

TEST(ClockTest, ScopedClockRestoresThePreviousClock) {
  Clock* before = &clock();
  {
    SimulatedClock outer(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock a(outer);
    {
      SimulatedClock inner(SimulatedClock::Mode::kAutoAdvance);
      ScopedClock b(inner);
      EXPECT_EQ(&clock(), &inner);
    }
    EXPECT_EQ(&clock(), &outer);
  }
  EXPECT_EQ(&clock(), before);
  EXPECT_EQ(before, &systemClock());
}

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
}

}  // namespace
}  // namespace kel::vxp3::minfw

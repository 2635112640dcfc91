#include "platform/middleware/future.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

#include "minfw/testing/simulated_clock.h"

namespace platform::middleware {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::SimulatedClock;

TEST(FutureTest, EveryWayOfSettlingReachesTheWaiterAndTheContinuation) {
  // proves, settle, continuation attached before the result is set, error, value
  const std::tuple<const char*, void (*)(Promise<int>&), bool, ErrorCode, int> rows[] = {
      {"a value reaches get() and a continuation attached earlier",
       [](Promise<int>& p) { p.set_value(7); }, true, ErrorCode::kOk, 7},
      {"a value reaches a continuation attached afterwards",
       [](Promise<int>& p) { p.set_value(8); }, false, ErrorCode::kOk, 8},
      {"an error is kept with its code", [](Promise<int>& p) { p.set_error(ErrorCode::kTimeout); },
       true, ErrorCode::kTimeout, 0},
      {"the first result wins; later ones are refused",
       [](Promise<int>& p) {
         p.set_value(1);
         EXPECT_FALSE(p.set_value(2));
         EXPECT_FALSE(p.set_error(ErrorCode::kRemoteError));
       },
       false, ErrorCode::kOk, 1},
      {"a dropped promise breaks instead of leaving the waiter hanging",
       [](Promise<int>& p) { Promise<int> gone = std::move(p); }, true, ErrorCode::kBrokenPromise,
       0},
      {"a promise assigned over an unanswered one breaks the old answer",
       [](Promise<int>& p) { p = Promise<int>(); }, true, ErrorCode::kBrokenPromise, 0},
  };
  for (const auto& [proves, settle, thenFirst, error, value] : rows) {
    SCOPED_TRACE(proves);
    Promise<int> promise;
    Future<int> future = promise.get_future();
    int seen = -1;
    ErrorCode seenError = ErrorCode::kWrongState;
    auto continuation = [&](const Result<int>& r) {
      seenError = r.error();
      seen = r ? r.value() : 0;
    };
    if (thenFirst)
      future.then(continuation);
    settle(promise);
    if (!thenFirst)
      future.then(continuation);
    ASSERT_TRUE(future.is_ready());
    EXPECT_EQ(future.get().error(), error);
    EXPECT_EQ(seenError, error);
    EXPECT_EQ(future.get() ? future.get().value() : 0, value);
    EXPECT_EQ(seen, value);
  }
}

// A binding forgets calls nobody awaits; one answered through a continuation alone is awaited.
TEST(FutureTest, AContinuationKeepsTheAnswerAwaited) {
  Promise<int> promise;
  promise.get_future();
  EXPECT_FALSE(promise.awaited());
  promise.get_future().then([](const Result<int>&) {});
  EXPECT_TRUE(promise.awaited());
  promise.set_value(1);
  EXPECT_FALSE(promise.awaited());
}

TEST(FutureTest, TimedWaitEndsAtTheLimitInVirtualTimeOrAtOnceWithTheAnswer) {
  Future<int> invalid;  // gives an error instead of blocking
  EXPECT_EQ(invalid.wait_for(std::chrono::milliseconds(1000)), FutureStatus::kReady);
  invalid.wait();
  EXPECT_EQ(invalid.get().error(), ErrorCode::kWrongState);
  SimulatedClock clock;
  ScopedClock scoped(clock);
  Promise<int> promise;
  Future<int> future = promise.get_future();
  std::atomic<bool> done{false};
  FutureStatus status = FutureStatus::kReady;
  std::thread waiter([&] {
    status = future.wait_for(std::chrono::milliseconds(1000));
    done = true;
  });
  // The waiter may read the clock only after the first step; keep stepping until it gives up.
  for (int i = 0; i < 100000 && !done; ++i) {
    clock.advance(std::chrono::milliseconds(600));
    std::this_thread::yield();
  }
  waiter.join();
  EXPECT_EQ(status, FutureStatus::kTimeout);
  // A late answer still lands in the future; whoever gave up simply does not read it.
  promise.set_value(5);
  EXPECT_EQ(future.get().value(), 5);
  Promise<int> answered;
  Future<int> quick = answered.get_future();
  std::thread answer([&] { answered.set_value(3); });
  EXPECT_EQ(quick.wait_for(std::chrono::hours(1)), FutureStatus::kReady);
  answer.join();
  EXPECT_EQ(quick.get().value(), 3);
}

TEST(FutureTest, ConcurrentSettersAndWaitersAgreeOnOneResult) {
  for (int round = 0; round < 50; ++round) {
    Promise<int> promise;
    Future<int> future = promise.get_future();
    std::atomic<int> continuationRuns{0}, winners{0};
    std::vector<std::thread> threads;
    std::vector<int> seen(4, -1);
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&, i] { seen[i] = future.get().value(); });
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&, i] {
        if (promise.set_value(100 + i))
          ++winners;
      });
    future.then([&](const Result<int>&) { ++continuationRuns; });
    for (auto& t : threads)
      t.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(continuationRuns.load(), 1);
    EXPECT_EQ(seen, std::vector<int>(4, future.get().value()));
  }
}

}  // namespace
}  // namespace platform::middleware

#include "minfw/thread_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace kel::vxp3::minfw {
namespace {

using testing::ScopedLogCapture;
using testing::SimulatedClock;
using namespace std::chrono_literals;

// True when `f` becomes ready within a bound, so a lost task fails the test instead of hanging.
template <typename Future>
bool ready(const Future& f) {
  return f.wait_for(20s) == std::future_status::ready;
}

// A throwing task is logged and the worker keeps serving the tasks behind it.
TEST(ThreadPoolTest, SingleWorkerRunsTasksInOrderAndFollowUpsQueueBehind) {
  ScopedLogCapture log;
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::promise<void> gate, started, done;
  ThreadPool pool(1, "orvane-worker-pool");
  char name[16] = {};  // a thread's name has at most 15 characters
  pool.enqueue([&] {
    pthread_getname_np(pthread_self(), name, sizeof name);
    started.set_value();
    ready(gate.get_future());
    // Runs after the 200 tasks queued while this one was blocked.
    pool.enqueue([&] {
      order.push_back(-1);
      done.set_value();
    });
  });
  ASSERT_TRUE(ready(started.get_future()));
  EXPECT_STREQ(name, "orvane-worker-p");
  pool.enqueue([] { throw std::runtime_error("init:: no signalQueryAlive!"); });
  for (int i = 0; i < 200; ++i) {
    pool.enqueue([&, i] {
      if (running.fetch_add(1) != 0)
        overlapped = true;
      order.push_back(i);  // unsynchronised on purpose: TSan reports any overlap
      running.fetch_sub(1);
    });
  }
  EXPECT_EQ(pool.pending(), 202u) << "the running task and the queued ones";
  gate.set_value();
  ASSERT_TRUE(ready(done.get_future()));
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 201u);
  for (int i = 0; i < 200; ++i)
    EXPECT_EQ(order[i], i);
  EXPECT_EQ(order.back(), -1);
  EXPECT_TRUE(log->contains("init:: no signalQueryAlive!"));
}

TEST(ThreadPoolTest, DrainWaitsInHalfSecondStepsAndLogsTheCount) {
  SimulatedClock clock;
  ScopedClock scopedClock(clock);
  ScopedLogCapture log;
  ThreadPool pool(1);
  pool.drain();
  EXPECT_TRUE(log->messages().empty()) << "an idle pool drains silently";
  std::promise<void> gate, started;
  pool.enqueue([&] {
    started.set_value();
    ready(gate.get_future());
  });
  ASSERT_TRUE(ready(started.get_future()));
  std::thread drainer([&] { pool.drain(); });
  ASSERT_TRUE(clock.waitForSleepers(1));
  clock.advance(500ms);  // task still running: one more round
  ASSERT_TRUE(clock.waitForSleepers(1));
  gate.set_value();
  for (int i = 0; i < 20000 && pool.pending() != 0; ++i)
    std::this_thread::sleep_for(1ms);
  clock.advance(500ms);
  drainer.join();
  EXPECT_EQ(log->messages(),
            (std::vector<std::string>{"Waiting on threadPool, size=1", "threadPool, size=1",
                                      "threadPool, size=0", "Waiting on threadPool done"}));
  EXPECT_EQ(clock.sleeps(), std::vector<Clock::Duration>(2, 500ms));
}

TEST(ThreadPoolTest, DestructionWaitsForRunningTaskAndDropsQueuedOnes) {
  std::atomic<bool> firstFinished{false};
  std::atomic<int> laterRan{0};
  std::promise<void> gate, started;
  auto pool = std::make_unique<ThreadPool>(1);
  pool->enqueue([&] {
    started.set_value();
    ready(gate.get_future());
    firstFinished = true;
  });
  for (int i = 0; i < 5; ++i)
    pool->enqueue([&] { ++laterRan; });
  ASSERT_TRUE(ready(started.get_future()));
  ThreadPool* raw = pool.get();
  std::thread destroyer([p = std::move(pool)]() mutable { p.reset(); });
  // The pool cannot be gone before the gate opens: its destructor joins the blocked task.
  for (int i = 0; i < 20000 && !raw->stopping(); ++i)
    std::this_thread::sleep_for(1ms);
  gate.set_value();
  destroyer.join();
  EXPECT_TRUE(firstFinished);
  EXPECT_EQ(laterRan, 0);
}

}  // namespace
}  // namespace kel::vxp3::minfw

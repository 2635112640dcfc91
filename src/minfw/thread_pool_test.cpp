#include "minfw/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace kel::vxp3::minfw {
namespace {

using testing::ScopedLogCapture;
using testing::SimulatedClock;

// A latch the test opens to let a blocked task finish.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

TEST(ThreadPoolTest, SingleWorkerRunsTasksInOrderWithoutOverlap) {
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::promise<void> done;
  {
    ThreadPool pool(1);
    for (int i = 0; i < 200; ++i) {
      pool.enqueue([&, i] {
        if (running.fetch_add(1) != 0)
          overlapped = true;
        order.push_back(i);  // unsynchronised on purpose: TSan reports any overlap
        running.fetch_sub(1);
        if (i == 199)
          done.set_value();
      });
    }
    done.get_future().wait();
  }
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i)
    EXPECT_EQ(order[i], i);
}

TEST(ThreadPoolTest, TaskEnqueuedFromTaskRunsAfterEverythingQueuedBeforeIt) {
  std::vector<std::string> order;
  std::promise<void> done;
  Gate gate;
  ThreadPool pool(1);
  pool.enqueue([&] {
    gate.wait();
    order.push_back("first");
    pool.enqueue([&] {
      order.push_back("follow-up");
      done.set_value();
    });
    order.push_back("first returns");
  });
  pool.enqueue([&] { order.push_back("queued before follow-up"); });
  gate.open();
  done.get_future().wait();
  EXPECT_EQ(order, (std::vector<std::string>{"first", "first returns", "queued before follow-up",
                                             "follow-up"}));
}

TEST(ThreadPoolTest, PendingCountsRunningAndQueuedTasks) {
  ThreadPool pool(1);
  EXPECT_EQ(pool.pending(), 0u);
  Gate gate;
  std::promise<void> started;
  pool.enqueue([&] {
    started.set_value();
    gate.wait();
  });
  started.get_future().wait();
  pool.enqueue([] {});
  pool.enqueue([] {});
  EXPECT_EQ(pool.pending(), 3u);
  gate.open();
}

TEST(ThreadPoolTest, DrainWaitsInHalfSecondStepsAndLogsTheCount) {
  SimulatedClock clock;
  ScopedClock scopedClock(clock);
  ScopedLogCapture log;
  ThreadPool pool(1);
  Gate gate;
  std::promise<void> started;
  pool.enqueue([&] {
    started.set_value();
    gate.wait();
  });
  started.get_future().wait();

  std::thread drainer([&] { pool.drain(); });
  ASSERT_TRUE(clock.waitForSleepers(1));
  clock.advance(std::chrono::milliseconds(500));  // task still running: one more round
  ASSERT_TRUE(clock.waitForSleepers(1));
  gate.open();
  while (pool.pending() != 0)
    std::this_thread::yield();
  clock.advance(std::chrono::milliseconds(500));
  drainer.join();

  EXPECT_EQ(log->messages(),
            (std::vector<std::string>{"Waiting on threadPool, size=1", "threadPool, size=1",
                                      "threadPool, size=0", "Waiting on threadPool done"}));
  for (auto d : clock.sleeps())
    EXPECT_EQ(d, std::chrono::milliseconds(500));
}

TEST(ThreadPoolTest, DrainOfIdlePoolLogsNothing) {
  ScopedLogCapture log;
  ThreadPool pool(1);
  pool.drain();
  EXPECT_TRUE(log->messages().empty());
}

TEST(ThreadPoolTest, DestructionWaitsForRunningTaskAndDropsQueuedOnes) {
  std::atomic<bool> firstFinished{false};
  std::atomic<int> laterRan{0};
  Gate gate;
  std::promise<void> started;
  std::thread destroyer;
  {
    auto pool = std::make_unique<ThreadPool>(1);
    pool->enqueue([&] {
      started.set_value();
      gate.wait();
      firstFinished = true;
    });
    for (int i = 0; i < 5; ++i)
      pool->enqueue([&] { ++laterRan; });
    started.get_future().wait();
    ThreadPool* raw = pool.get();
    destroyer = std::thread([p = std::move(pool)]() mutable { p.reset(); });
    // The pool cannot be gone before the gate opens: its destructor joins the blocked task.
    while (!raw->stopping())
      std::this_thread::yield();
    gate.open();
    destroyer.join();
  }
  EXPECT_TRUE(firstFinished);
  EXPECT_EQ(laterRan, 0);
}

TEST(ThreadPoolTest, ThrowingTaskIsLoggedAndWorkerKeepsServing) {
  ScopedLogCapture log;
  std::promise<void> done;
  ThreadPool pool(1);
  pool.enqueue([] { throw std::runtime_error("init:: no signalQueryAlive!"); });
  pool.enqueue([&] { done.set_value(); });
  done.get_future().wait();
  EXPECT_TRUE(log->contains("init:: no signalQueryAlive!"));
}

TEST(ThreadPoolTest, ManyProducersEveryTaskRunsOnce) {
  constexpr int kProducers = 4;
  constexpr int kPerProducer = 500;
  std::atomic<int> ran{0};
  {
    ThreadPool pool(2);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&] {
        for (int i = 0; i < kPerProducer; ++i)
          pool.enqueue([&] { ++ran; });
      });
    }
    for (auto& t : producers)
      t.join();
    while (pool.pending() != 0)
      std::this_thread::yield();
  }
  EXPECT_EQ(ran, kProducers * kPerProducer);
}

}  // namespace
}  // namespace kel::vxp3::minfw

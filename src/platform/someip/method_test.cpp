// Method calls between two runtimes whose answers come late, out of order or to nobody.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"
#include "platform/someip/testing/pair.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::SimulatedClock;

// Keeps the promises of "slow" requests; answers them all, in reverse order of arrival, once
// `batch` of them are held (or when asked). Threading: any thread (its mutex guards held_).
class SlowServer {
 public:
  explicit SlowServer(std::size_t batch) : batch_(batch) {}
  std::function<mw::Future<Slow::Output>(const Slow::Input&)> handler() {
    return [this](const Slow::Input& in) {
      mw::Promise<Slow::Output> p;
      auto f = p.get_future();
      std::lock_guard<std::mutex> lock(mutex_);
      held_.emplace_back(in, std::move(p));
      held.add("held");
      if (held_.size() >= batch_)
        releaseLocked();
      return f;
    };
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    releaseLocked();
  }
  Inbox held;

 private:
  void releaseLocked() {
    for (auto it = held_.rbegin(); it != held_.rend(); ++it)
      it->second.set_value(it->first * it->first);
    held_.clear();
  }
  const std::size_t batch_;
  std::mutex mutex_;  // guards held_
  std::vector<std::pair<uint32_t, mw::Promise<Slow::Output>>> held_;
};

// A pair whose server answers echo at once and slow through `slow`.
bool startPair(RuntimePair& pair, SlowServer& slow) {
  if (!pair.start())
    return false;
  pair.skeleton->handle<Slow>(slow.handler());
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, 0});
  });
  return pair.connect();
}

TEST(MethodTest, ReplyAfterTheWaitingTimeCountsAsNoAnswerAndIsDroppedCleanly) {
  RuntimePair pair;
  SlowServer slow(1000);
  ASSERT_TRUE(startPair(pair, slow));

  SimulatedClock clock;
  ScopedClock scoped(clock);
  auto waited = pair.proxy->call<Slow>(3u);
  {
    // Abandoned at once: its answer must find nobody and harm nobody.
    auto abandoned = pair.proxy->call<Slow>(4u);
  }
  ASSERT_TRUE(slow.held.waitFor("held", kPatience, 2));
  std::atomic<bool> done{false};
  mw::FutureStatus status = mw::FutureStatus::kReady;
  std::thread waiter([&] {
    status = waited.wait_for(std::chrono::milliseconds(1000));
    done = true;
  });
  while (!done) {
    clock.advance(std::chrono::milliseconds(400));
    std::this_thread::yield();
  }
  waiter.join();
  EXPECT_EQ(status, mw::FutureStatus::kTimeout);

  slow.release();
  // The late answer lands in the future nobody reads any more; the connection serves on.
  auto after = pair.proxy->call<Echo>(Echo::Input{"still here", 0}).get();
  ASSERT_TRUE(after);
  EXPECT_EQ(after.value().text, "still here");
  auto late = waited.get();
  ASSERT_TRUE(late);
  EXPECT_EQ(late.value(), 9u);
}

TEST(MethodTest, ConcurrentCallsGetTheirOwnRepliesAndForgottenCallsTheirLateAnswersDropped) {
  constexpr uint32_t kForgotten = 300;
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kPerThread = 25;
  RuntimePair pair;
  // Every answer is held back until all requests are in, then sent in reverse order.
  SlowServer slow(kForgotten + kThreads * kPerThread);
  ASSERT_TRUE(startPair(pair, slow));
  kel::vxp3::minfw::testing::ScopedLogCapture logs;
  // Calls whose futures are dropped at once.
  for (uint32_t i = 0; i < kForgotten; ++i)
    pair.proxy->call<Slow>(100000 + i);

  std::atomic<uint32_t> matched{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::pair<uint32_t, mw::Future<Slow::Output>>> calls;
      for (uint32_t i = 0; i < kPerThread; ++i) {
        uint32_t id = t * 1000 + i;
        calls.emplace_back(id, pair.proxy->call<Slow>(id));
      }
      for (auto& [id, future] : calls) {
        auto r = future.get();
        if (r && r.value() == id * id)
          ++matched;
        else
          ADD_FAILURE() << "call " << id << " got "
                        << (r ? std::to_string(r.value()) : mw::toString(r.error()));
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(matched.load(), kThreads * kPerThread);
  // Released answers were all sent before this one is served: once it is back, all are in.
  ASSERT_TRUE(pair.proxy->call<Echo>(Echo::Input{"after", 0}).get());
  EXPECT_GE(logs->count("matches no pending call"), 256u);
}

}  // namespace
}  // namespace platform::someip

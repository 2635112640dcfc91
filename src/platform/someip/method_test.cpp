// Method calls between two runtimes: answers, errors, late answers and concurrency.
#include <gtest/gtest.h>

#include <algorithm>
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
// `batch` of them are held (or when asked).
class SlowServer {
 public:
  explicit SlowServer(std::size_t batch) : batch_(batch) {}
  std::function<mw::Future<Slow::Output>(const Slow::Input&)> handler() {
    return [this](const Slow::Input& in) {
      mw::Promise<Slow::Output> p;
      auto f = p.get_future();
      std::lock_guard<std::mutex> lock(mutex_);
      held_.emplace_back(in.id, std::move(p));
      held.bump();
      if (held_.size() >= batch_)
        releaseLocked();
      return f;
    };
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    releaseLocked();
  }
  Signal held;

 private:
  void releaseLocked() {
    for (auto it = held_.rbegin(); it != held_.rend(); ++it)
      it->second.set_value(Slow::Output{it->first, it->first * it->first});
    held_.clear();
  }
  const std::size_t batch_;
  std::mutex mutex_;  // guards held_
  std::vector<std::pair<uint32_t, mw::Promise<Slow::Output>>> held_;
};

TEST(MethodTest, AnswersErrorsFieldsAndOneWayCalls) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  std::atomic<uint32_t> noted{0};
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text + "!", in.n + 1});
  });
  pair.skeleton->handleFireAndForget<Note>([&](const Note::Input& in) { noted = in.value; });
  pair.skeleton->field<Level>().Update(42);
  ASSERT_TRUE(pair.connect());
  auto& proxy = *pair.proxy;

  auto echo = proxy.call<Echo>(Echo::Input{"Hi", 1}).get();
  ASSERT_TRUE(echo);
  EXPECT_EQ(echo.value().text, "Hi!");
  EXPECT_EQ(echo.value().n, 2u);

  // Configured for the interface, but the server has no handler: an ERROR on the wire.
  EXPECT_EQ(proxy.call<Ghost>(Ghost::Input{}).get().error(), mw::ErrorCode::kUnknownMethod);
  // A getter without handler is answered with the last value.
  auto level = proxy.field<Level>().Get().get();
  ASSERT_TRUE(level);
  EXPECT_EQ(level.value(), 42u);

  // Requests of one connection are served in order, so the note is in before the echo returns.
  ASSERT_TRUE(proxy.fireAndForget<Note>(Note::Input{9}));
  ASSERT_TRUE(proxy.call<Echo>(Echo::Input{"", 0}).get());
  EXPECT_EQ(noted.load(), 9u);

  // A handler that drops its promise answers with an error instead of leaving the caller hanging.
  pair.skeleton->handle<Echo>([](const Echo::Input&) {
    mw::Promise<Echo::Output> dropped;
    return dropped.get_future();
  });
  EXPECT_EQ(proxy.call<Echo>(Echo::Input{"x", 0}).get().error(), mw::ErrorCode::kRemoteError);
}

TEST(MethodTest, ReplyAfterTheWaitingTimeCountsAsNoAnswerAndIsDroppedCleanly) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  SlowServer slow(1000);
  pair.skeleton->handle<Slow>(slow.handler());
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, 0});
  });
  ASSERT_TRUE(pair.connect());

  SimulatedClock clock;
  ScopedClock scoped(clock);
  auto waited = pair.proxy->call<Slow>(Slow::Input{3});
  {
    // Abandoned at once: its answer must find nobody and harm nobody.
    auto abandoned = pair.proxy->call<Slow>(Slow::Input{4});
  }
  ASSERT_TRUE(slow.held.waitFor(2));
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
  EXPECT_EQ(late.value().square, 9u);
}

TEST(MethodTest, CallsNobodyWaitsForAreForgottenAndTheirLateAnswersDropped) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  SlowServer slow(100000);
  pair.skeleton->handle<Slow>(slow.handler());
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, 0});
  });
  ASSERT_TRUE(pair.connect());
  kel::vxp3::minfw::testing::ScopedLogCapture logs;
  // 300 calls whose futures are dropped at once; the server holds every answer back.
  for (uint32_t i = 0; i < 300; ++i)
    pair.proxy->call<Slow>(Slow::Input{i});
  auto kept = pair.proxy->call<Slow>(Slow::Input{7});
  ASSERT_TRUE(slow.held.waitFor(301));
  slow.release();
  // The kept call still gets its answer; the forgotten ones are logged and dropped.
  auto r = kept.get();
  ASSERT_TRUE(r);
  EXPECT_EQ(r.value().square, 49u);
  // Released answers were all sent before this one is served: once it is back, all are in.
  ASSERT_TRUE(pair.proxy->call<Echo>(Echo::Input{"after", 0}).get());
  EXPECT_GE(logs->count("matches no pending call"), 256u);
}

TEST(MethodTest, ConcurrentCallsAreEachMatchedToTheirOwnReply) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kPerThread = 25;
  // Every answer is held back until all 100 requests are in, then sent in reverse order.
  SlowServer slow(kThreads * kPerThread);
  pair.skeleton->handle<Slow>(slow.handler());
  ASSERT_TRUE(pair.connect());

  std::atomic<uint32_t> matched{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::pair<uint32_t, mw::Future<Slow::Output>>> calls;
      for (uint32_t i = 0; i < kPerThread; ++i) {
        uint32_t id = t * 1000 + i;
        calls.emplace_back(id, pair.proxy->call<Slow>(Slow::Input{id}));
      }
      for (auto& [id, future] : calls) {
        auto r = future.get();
        if (r && r.value().id == id && r.value().square == id * id)
          ++matched;
        else
          ADD_FAILURE() << "call " << id << " got "
                        << (r ? std::to_string(r.value().id) : mw::toString(r.error()));
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(matched.load(), kThreads * kPerThread);
}

}  // namespace
}  // namespace platform::someip

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;

TEST(EventTest, FieldSubscribedAfterItsEventgroupStartsWithTheCurrentValue) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  mw::Skeleton* s = pair.skeleton.get();
  pair.skeleton->handle<Emit>([s](const Emit::Input& in) {
    for (uint32_t i = 1; i <= in.count; ++i)
      s->send<Tick>(Tick::Sample{i, "t"});
    return mw::Future<Emit::Output>::ready(Emit::Output{in.count});
  });
  pair.skeleton->field<Level>().Update(42);
  ASSERT_TRUE(pair.connect());

  // The eventgroup is subscribed through the event; the field's greeting arrives unasked.
  auto ticks = std::make_shared<Signal>();
  auto& tick = pair.proxy->event<Tick>();
  tick.SetReceiveHandler([ticks] { ticks->bump(); });
  ASSERT_TRUE(tick.Subscribe(10));
  while (ticks->count() == 0) {
    ASSERT_TRUE(pair.proxy->call<Emit>(Emit::Input{1}).get());
    if (tick.GetSubscriptionState() != mw::SubscriptionState::kSubscribed)
      std::this_thread::yield();
  }
  // Subscribed only now, it still gets the value, and later updates too.
  auto levels = std::make_shared<Signal>();
  auto& level = pair.proxy->field<Level>();
  level.SetReceiveHandler([levels] { levels->bump(); });
  ASSERT_TRUE(level.Subscribe(5));
  ASSERT_TRUE(levels->waitFor(1));
  pair.skeleton->field<Level>().Update(43);
  ASSERT_TRUE(levels->waitFor(2));
  std::vector<uint32_t> values;
  level.GetNewSamples([&](mw::SamplePtr<uint32_t> v) { values.push_back(*v); });
  EXPECT_EQ(values, (std::vector<uint32_t>{42, 43}));
  tick.UnsetReceiveHandler();
  level.UnsetReceiveHandler();
}

}  // namespace
}  // namespace platform::someip

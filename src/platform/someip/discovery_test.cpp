// Discovery between two processes: this test is the "client"; someip_test_peer is the "server".
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "platform/someip/testing/fixture.h"
#include "platform/someip/testing/test_interface.h"
#include "process.h"

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;

// The server process of these tests, on the test configuration at `configPath`.
std::unique_ptr<orvane::testing::ChildProcess> startPeer(const std::string& configPath) {
  auto peer = std::make_unique<orvane::testing::ChildProcess>();
  EXPECT_TRUE(peer->start(ORVANE_TEST_PEER, {configPath}));
  return peer;
}

// Subscribes to tick and level, waits for the field's greeting (so the eventgroup subscription
// is in place), has the server emit `count` ticks and checks that they arrive complete and in
// order.
void expectEventsInOrder(mw::Proxy& proxy, uint32_t count) {
  // Shared with the handlers: one may still be finishing when this function returns.
  auto inbox = std::make_shared<Inbox>();
  auto& tick = proxy.event<Tick>();
  auto& level = proxy.field<Level>();
  tick.SetReceiveHandler([inbox] { inbox->add("tick"); });
  level.SetReceiveHandler([inbox] { inbox->add("level"); });
  ASSERT_TRUE(tick.Subscribe(100));
  ASSERT_TRUE(level.Subscribe(1));
  ASSERT_TRUE(inbox->waitFor("level")) << "no greeting with the field value";
  uint32_t value = 0;
  level.GetNewSamples([&](mw::SamplePtr<uint32_t> s) { value = *s; });
  EXPECT_EQ(value, 42u);
  auto sent = proxy.call<Emit>(count).get();
  ASSERT_TRUE(sent) << mw::toString(sent.error());
  EXPECT_EQ(sent.value(), count);
  ASSERT_TRUE(inbox->waitFor("tick", kPatience, count));
  uint32_t last = 0;
  tick.GetNewSamples([&](mw::SamplePtr<Tick::Sample> s) {
    ASSERT_TRUE(s);
    EXPECT_EQ(s->seq, ++last);
    EXPECT_EQ(s->text, "tick " + std::to_string(s->seq));
  });
  EXPECT_EQ(last, count);
  tick.UnsetReceiveHandler();
  level.UnsetReceiveHandler();
}

// A proxy of the found service, checked with an echo of `text`.
std::unique_ptr<mw::Proxy> connect(Runtime& rt, const mw::ServiceHandle& handle,
                                   const std::string& text) {
  auto ready = mw::Proxy::Preconstruct(handle, &rt).get();
  EXPECT_TRUE(ready) << mw::toString(ready.error());
  auto proxy = mw::Proxy::Create(handle, &rt);
  if (!proxy) {
    ADD_FAILURE() << "no proxy";
    return nullptr;
  }
  auto r = proxy.value()->call<Echo>(Echo::Input{text, 7}).get();
  EXPECT_TRUE(r && r.value().text == text && r.value().n == 7u)
      << (r ? r.value().text : mw::toString(r.error()));
  return std::move(proxy).value();
}

TEST(DiscoveryTest, MistakesAreReportedAndTheServiceAppearsGoesAndComesBackAcrossProcesses) {
  auto available = [](const mw::ServiceHandleContainer& c) { return !c.empty(); };
  auto gone = [](const mw::ServiceHandleContainer& c) { return c.empty(); };
  TempDir dir;
  std::string path;
  HostConfig config = loadTestConfig(dir, &path);
  std::string error;
  EXPECT_FALSE(Runtime::start(config, "nobody", error));
  EXPECT_NE(error.find("nobody"), std::string::npos) << error;
  auto rt = Runtime::start(config, "client", error);
  ASSERT_TRUE(rt) << error;
  // The same process twice cannot share its SD endpoint, though the port is shared with others.
  EXPECT_FALSE(Runtime::start(config, "client", error));
  EXPECT_EQ(error, "cannot bind SD socket 127.0.0.1:30490: held by another runtime (pid " +
                       std::to_string(getpid()) + ")");
  ReportQueue reports;
  EXPECT_EQ(mw::Proxy::StartFindService(reports.handler(), "NoSuchInterface",
                                        mw::InstanceSpecifier("1"), rt.get())
                .error(),
            mw::ErrorCode::kNotConfigured);
  EXPECT_EQ(mw::Skeleton::Create("NoSuchInterface", mw::InstanceSpecifier("1"), rt.get()).error(),
            mw::ErrorCode::kNotConfigured);
  // A handle the runtime never issued.
  mw::ServiceHandle stale{kTestInterface, 1, 999};
  EXPECT_EQ(mw::Proxy::Preconstruct(stale, rt.get()).get().error(),
            mw::ErrorCode::kServiceNotAvailable);
  EXPECT_EQ(mw::Proxy::Create(stale, rt.get()).error(), mw::ErrorCode::kServiceNotAvailable);
  auto find = mw::Proxy::StartFindService(reports.handler(), kTestInterface,
                                          mw::InstanceSpecifier("1"), rt.get());
  ASSERT_TRUE(find);
  // 1. The server starts: the service appears, a proxy works, events arrive in order.
  auto peer = startPeer(path);
  auto first = reports.until(available);
  ASSERT_TRUE(first);
  ASSERT_EQ(first->size(), 1u);
  EXPECT_EQ((*first)[0].interface, kTestInterface);
  EXPECT_EQ((*first)[0].instanceId, 1);
  auto proxy = connect(*rt, (*first)[0], "hello");
  ASSERT_TRUE(proxy);
  expectEventsInOrder(*proxy, 5);
  // 2. Stop offer: an empty container; the old proxy's connection is gone with the offer.
  peer->kill(SIGUSR1);
  ASSERT_TRUE(reports.until(gone));
  EXPECT_FALSE(proxy->call<Echo>(Echo::Input{"late", 1}).get());
  // 3. Offered again: a new handle, and a proxy made from it works, events included.
  peer->kill(SIGUSR1);
  auto second = reports.until(available);
  ASSERT_TRUE(second);
  EXPECT_NE((*second)[0].token, (*first)[0].token);
  proxy = connect(*rt, (*second)[0], "again");
  ASSERT_TRUE(proxy);
  expectEventsInOrder(*proxy, 3);
  // 4. The server freezes: its offers stop, and the service is reported gone after the TTL.
  peer->kill(SIGSTOP);
  ASSERT_TRUE(reports.until(gone));
  peer->kill(SIGCONT);
  auto third = reports.until(available);
  ASSERT_TRUE(third);
  proxy = connect(*rt, (*third)[0], "thawed");
  ASSERT_TRUE(proxy);
  // 5. The server process is replaced (it reboots): the new instance is found and served.
  peer->kill(SIGKILL);
  ASSERT_TRUE(peer->wait(kPatience));
  peer = startPeer(path);
  auto fourth = reports.until([&](const mw::ServiceHandleContainer& c) {
    return !c.empty() && c[0].token != (*third)[0].token;
  });
  ASSERT_TRUE(fourth);
  proxy = connect(*rt, (*fourth)[0], "rebooted");
  ASSERT_TRUE(proxy);
  expectEventsInOrder(*proxy, 4);
  mw::Proxy::StopFindService(find.value(), rt.get());
  proxy.reset();
  peer->kill(SIGTERM);
  EXPECT_EQ(peer->wait(kPatience), 0);
}

}  // namespace
}  // namespace platform::someip

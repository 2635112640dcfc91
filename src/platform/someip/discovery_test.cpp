// Discovery between two processes: this test is the "client"; someip_test_peer is the "server".
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "minfw/testing/target_command.h"
#include "platform/middleware/proxy.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/runtime.h"
#include "platform/someip/testing/fixture.h"
#include "platform/someip/testing/test_interface.h"

extern char** environ;

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;

class PeerProcess {
 public:
  explicit PeerProcess(const std::string& configPath) {
    std::vector<std::string> args =
        kel::vxp3::minfw::testing::targetCommand({ORVANE_TEST_PEER, configPath});
    std::vector<char*> argv;
    for (auto& a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
      pid_ = -1;
  }
  ~PeerProcess() { kill(SIGKILL); }
  bool running() const { return pid_ > 0; }
  void signal(int sig) { ::kill(pid_, sig); }
  void kill(int sig) {
    if (pid_ <= 0)
      return;
    ::kill(pid_, sig);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

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
  auto peer = std::make_unique<PeerProcess>(path);
  ASSERT_TRUE(peer->running());
  auto first = reports.until(available);
  ASSERT_TRUE(first);
  ASSERT_EQ(first->size(), 1u);
  EXPECT_EQ((*first)[0].interface, kTestInterface);
  EXPECT_EQ((*first)[0].instanceId, 1);
  auto proxy = connect(*rt, (*first)[0], "hello");
  ASSERT_TRUE(proxy);
  expectEventsInOrder(*proxy, 5);

  // 2. Stop offer: an empty container; the old proxy's connection is gone with the offer.
  peer->signal(SIGUSR1);
  ASSERT_TRUE(reports.until(gone));
  EXPECT_FALSE(proxy->call<Echo>(Echo::Input{"late", 1}).get());

  // 3. Offered again: a new handle, and a proxy made from it works, events included.
  peer->signal(SIGUSR1);
  auto second = reports.until(available);
  ASSERT_TRUE(second);
  EXPECT_NE((*second)[0].token, (*first)[0].token);
  proxy = connect(*rt, (*second)[0], "again");
  ASSERT_TRUE(proxy);
  expectEventsInOrder(*proxy, 3);

  // 4. The server freezes: its offers stop, and the service is reported gone after the TTL.
  peer->signal(SIGSTOP);
  ASSERT_TRUE(reports.until(gone));
  peer->signal(SIGCONT);
  auto third = reports.until(available);
  ASSERT_TRUE(third);
  proxy = connect(*rt, (*third)[0], "thawed");
  ASSERT_TRUE(proxy);

  // 5. The server process is replaced (it reboots): the new instance is found and served.
  peer->kill(SIGKILL);
  peer = std::make_unique<PeerProcess>(path);
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
}

}  // namespace
}  // namespace platform::someip

// The routine client against a fake tester over SOME/IP, inside a private network namespace:
// discovery, a request and a start answered on the wire, the tester going away and coming back,
// and bad input from the wire. Real time: every wait is a bounded hang guard, never a measure.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"
#include "interfaces/diagnosis/nodbox/viroutine_interface.h"
#include "interfaces/hmi/medium_path_relay.h"
#include "interfaces/host_interfaces.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

namespace orv {
namespace {

namespace mw = platform::middleware;
namespace events = viroutine::events;
using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::testing::CaptureSink;
using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

// Samples with other contents than orvane expects, under the name of the routine request or of
// an event that orvane does not know.
template <typename... F>
struct RawSample {
  std::tuple<F...> fields;
};
template <typename... F>
void marshal(mw::FieldVisitor& v, RawSample<F...>& s) {
  std::apply([&v](auto&... f) { mw::marshalAll(v, f...); }, s.fields);
}
template <bool kKnown, typename... F>
struct Raw {
  static constexpr const char* kName = kKnown ? "routineRequest" : "bogusEvent";
  using Sample = RawSample<F...>;
};

// The tester's descriptions: the routine service has one more event.
std::vector<mw::InterfaceIds> testerInterfaces() {
  std::vector<mw::InterfaceIds> all = hostInterfaces();
  for (mw::InterfaceIds& ids : all)
    if (ids.name == viroutine::kInterfaceName)
      ids.events.push_back({Raw<false>::kName, 0x8FFF, 1});
  return all;
}

platform::someip::HostConfig load(const std::vector<mw::InterfaceIds>& known) {
  platform::someip::HostConfig config;
  std::string error;
  EXPECT_TRUE(
      platform::someip::loadHostConfig(ORVANE_SOURCE_DIR "/config/host.json", known, config, error))
      << error;
  return config;
}

// A tester process: its runtime and the offered routine service. With `replies` null it does
// not implement startRoutineReply.
struct FakeTester {
  std::unique_ptr<platform::someip::Runtime> runtime;
  std::unique_ptr<mw::Skeleton> skeleton;

  bool start(const platform::someip::HostConfig& config, Inbox* replies) {
    std::string error;
    runtime = platform::someip::Runtime::start(config, "diag-tester", error);
    if (!runtime)
      return false;
    auto created = mw::Skeleton::Create(
        viroutine::kInterfaceName, mw::InstanceSpecifier(viroutine::kServiceName), runtime.get());
    if (!created)
      return false;
    skeleton = std::move(created).value();
    using Reply = viroutine::methods::StartRoutineReply;
    if (replies != nullptr)
      skeleton->handle<Reply>([replies](const Reply::Input& in) {
        replies->add(cat(in.routineId, ":", static_cast<int>(in.routineState)));
        return mw::Future<Reply::Output>::ready(Reply::Output{viroutine::ReturnStatus::ok});
      });
    return static_cast<bool>(skeleton->OfferService());
  }
  void stop() {
    skeleton.reset();
    runtime.reset();
  }
};

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

std::vector<uint8_t> parameter(const std::string& order) {
  std::vector<uint8_t> out(order.begin(), order.end());
  out.resize(DiagnosisViRoutineClient::kParameterSize, 0);
  return out;
}

// Sends a good request until the client has converted it: the first samples after a
// (re)connection may precede the subscription's acknowledgement.
bool requestTaken(mw::Skeleton& tester, CaptureSink& log, const std::string& order) {
  const std::string line = "Converted update order string is: [" + order + "]";
  for (int i = 0; i < 100 && !log.contains(line); ++i) {
    tester.send<events::RoutineRequest>({7, parameter(order)});
    std::this_thread::sleep_for(100ms);
  }
  return eventually([&] { return log.contains(line); });
}

TEST(DiagnosisViRoutineWireTest, ThreadedRequestStartReconnectAndBadInput) {
  const platform::someip::HostConfig testerConfig = load(testerInterfaces());
  std::string error;
  auto orvane = platform::someip::Runtime::start(load(hostInterfaces()), "orvane", error);
  ASSERT_TRUE(orvane) << error;
  Inbox replies, relayed, starts;
  FakeTester tester;
  ASSERT_TRUE(tester.start(testerConfig, &replies));
  ScopedLogCapture log;
  const uint64_t relay =
      MediumPathRelay::instance().bind([&](const std::string& path) { relayed.add(path); });

  auto client = std::make_unique<DiagnosisViRoutineClient>(orvane.get());
  client->signalLogicDiagnoseStartUpdate = [&](const std::string& order, int override) {
    starts.add(cat(order, "/", override));
    return true;
  };
  client->connect();
  ASSERT_TRUE(eventually([&] { return client->connected(); }));

  // A request answered on the wire with 1 then 2, then the start of the update routine.
  ASSERT_TRUE(requestTaken(*tester.skeleton, log.sink(), "ORDER-7"));
  EXPECT_TRUE(replies.waitFor("7:2"));
  tester.skeleton->send<events::StartRoutine>({0x4C9});
  EXPECT_TRUE(starts.waitFor("ORDER-7/0"));
  EXPECT_TRUE(relayed.waitFor(DiagnosisViRoutineClient::kDefaultUpdateEndpoint));
  ASSERT_TRUE(replies.waitFor("1225:2"));
  std::vector<std::string> started;
  for (const std::string& reply : replies.entries())
    if (reply.rfind("1225:", 0) == 0)
      started.push_back(reply);
  EXPECT_EQ(started, (std::vector<std::string>{"1225:1", "1225:2"}));

  // The tester goes away and comes back as a new process, one without startRoutineReply.
  tester.stop();
  ASSERT_TRUE(eventually([&] { return log->contains("Re-connect scheduled"); }));
  EXPECT_TRUE(log->contains("DiagnosisViRoutineClient is dead!"));
  FakeTester second;
  ASSERT_TRUE(second.start(testerConfig, nullptr));
  ASSERT_TRUE(eventually([&] { return log->count("DiagnosticViRoutineProxy connected!") >= 2; }));
  EXPECT_TRUE(log->contains("DiagnosisViRoutineClient is alive!"));
  ASSERT_TRUE(requestTaken(*second.skeleton, log.sink(), "PROBE"));
  EXPECT_TRUE(eventually([&] { return log->contains("Routine response Error: unknown method"); }));

  // Bad input: each is logged, and a good request afterwards is still taken.
  struct Row {
    const char* proves;
    std::function<void(mw::Skeleton&)> send;
    const char* logged;
  } rows[] = {
      {"truncated payload", [](mw::Skeleton& s) { s.send<Raw<true, uint32_t>>({{0x4C9u}}); },
       "sample of routineRequest not readable"},
      {"parameter length beyond the payload",
       [](mw::Skeleton& s) {
         s.send<Raw<true, uint32_t, uint32_t, uint8_t>>({{0x4C9u, 0xFFFFFF00u, uint8_t{1}}});
       },
       "sample of routineRequest not readable"},
      {"unknown event id", [](mw::Skeleton& s) { s.send<Raw<false, uint32_t>>({{0x4C9u}}); },
       "notification 0x8fff from ViRoutine has no subscriber here; dropped"},
      {"64 KiB parameter",
       [](mw::Skeleton& s) {
         s.send<events::RoutineRequest>({0x4C9, std::vector<uint8_t>(65536, '7')});
       },
       "Received data size is [65536] and not equal to [116]"},
  };
  int probe = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    row.send(*second.skeleton);
    EXPECT_TRUE(eventually([&] { return log->contains(row.logged); }));
    EXPECT_TRUE(requestTaken(*second.skeleton, log.sink(), cat("PROBE-", ++probe)));
  }

  client.reset();
  MediumPathRelay::instance().unbind(relay);
  EXPECT_TRUE(log->contains("Terminate DiagnosticViRoutineClient!"));
  second.stop();
}

}  // namespace
}  // namespace orv

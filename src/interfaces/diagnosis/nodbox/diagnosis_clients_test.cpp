// The two diagnosis clients: in process in virtual time, and over SOME/IP against a fake tester
// inside a private network namespace (real time; every wait a bounded hang guard).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_messwert.h"
#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"
#include "interfaces/diagnosis/nodbox/measurements.h"
#include "interfaces/hmi/medium_path_relay.h"
#include "interfaces/host_interfaces.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "minfw/testing/simulated_clock.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"
#include "platform/someip/test_support.h"

namespace orv {
namespace {

namespace mw = platform::middleware;
using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::CaptureSink;
using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using State = DiagnosisViRoutineClient::RoutineState;
using Request = viroutine::events::RoutineRequest;
using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

using Texts = std::vector<std::string>;
using Replies = std::vector<uint32_t>;  // routineId * 10 + state

// Records the replies instead of sending them.
class RecordingRoutine : public DiagnosisViRoutineClient {
 public:
  bool responseUpdateState(uint32_t routineId, State state) override {
    replies.push_back(routineId * 10 + static_cast<uint32_t>(state));
    return true;
  }
  Replies replies;
};

std::vector<uint8_t> bytes(const std::string& text, std::size_t size) {
  std::vector<uint8_t> out(text.begin(), text.end());
  out.resize(size, '0');
  return out;
}

TEST(DiagnosisViRoutineClientTest, ParameterRule) {
  const std::string many(100, 'U');
  struct Row {
    const char* proves;
    std::vector<uint8_t> parameter;
    std::string order;  // stored afterwards ("PREV": unchanged)
    bool override;
    const char* logged;
  } rows[] = {
      {"empty", {}, "PREV", false, "Received data size is [0] and not equal to [116]"},
      {"115 bytes", bytes("ORDER-8", 115), "PREV", false, "Received data size is [115]"},
      {"117 bytes", bytes("ORDER-8", 117), "PREV", false, "Received data size is [117]"},
      {"up to the first zero byte, trailing 0x30 dropped",
       bytes(std::string("ORDER-7000\0ORDER-9", 18), 116), "ORDER-7", false,
       "Converted update order string is: [ORDER-7]"},
      {"only \"0\": override", bytes("", 116), "", true, "Override substring test."},
      {"no zero byte", bytes(many + "0A", 116), many + "0A", false, "string is: [UUU"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    RecordingRoutine client;
    ASSERT_TRUE(client.routineRequest({7, bytes("PREV", 116)}));
    client.replies.clear();
    ScopedLogCapture log;
    EXPECT_TRUE(client.routineRequest({0x4C9, row.parameter}));
    EXPECT_EQ(client.updateOrder(), row.order);
    EXPECT_EQ(client.overrideFlag(), row.override);
    EXPECT_TRUE(log->contains(row.logged));
    EXPECT_EQ(client.replies, (Replies{12251, 12252}));
  }
}

TEST(DiagnosisViRoutineClientTest, StartOfTheUpdateRoutine) {
  const std::string fixed = "http://[fd6f:7276:616e::1]:29214/medium";
  const std::string host = "http://127.0.0.1:8080/medium";
  struct Row {
    const char* proves;
    uint32_t routineId;
    int slot;              // -1 unbound, else what it answers
    const char* endpoint;  // ORVANE_UPDATE_ENDPOINT, or null
    Replies replies;
    Texts relayed, starts;
  } rows[] = {
      {"another routine: mismatch line only", 0x4C8, 1, nullptr, {}, {}, {}},
      {"started", 0x4C9, 1, nullptr, {12251, 12252}, {fixed}, {"/1"}},
      {"refused by the logic", 0x4C9, 0, nullptr, {12250}, {fixed}, {"/1"}},
      {"slot unbound", 0x4C9, -1, nullptr, {12250}, {fixed}, {}},
      {"endpoint from the environment", 0x4C9, 1, host.c_str(), {12251, 12252}, {host}, {"/1"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    if (row.endpoint != nullptr)
      setenv("ORVANE_UPDATE_ENDPOINT", row.endpoint, 1);
    RecordingRoutine client;
    unsetenv("ORVANE_UPDATE_ENDPOINT");
    Texts relayed, starts;
    const uint64_t binding =
        MediumPathRelay::instance().bind([&](const std::string& p) { relayed.push_back(p); });
    if (row.slot >= 0) {
      client.signalLogicDiagnoseStartUpdate = [&](const std::string& order, int override) {
        starts.push_back(order + "/" + std::to_string(override));
        return row.slot == 1;
      };
    }
    client.routineRequest({0x4C9, bytes("", 116)});
    client.replies.clear();
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scoped(clock);
    ScopedLogCapture log;
    client.responseOnStartRoutine(row.routineId);
    MediumPathRelay::instance().unbind(binding);
    EXPECT_EQ(client.replies, row.replies);
    EXPECT_EQ(relayed, row.relayed);
    EXPECT_EQ(starts, row.starts);
    EXPECT_EQ(clock.totalSlept(), std::chrono::seconds(row.relayed.empty() ? 0 : 2));
    EXPECT_EQ(log->contains("No signalLogicDiagnoseStartUpdate bound!"), row.slot < 0);
    if (row.relayed.empty()) {
      EXPECT_EQ(log->messages(),
                (Texts{"DiagnosisViRoutineClient::responseOnStartRoutine, routineID is [1224]",
                       "routineId=0x4c8 does not equal DIAGNOSTIC_VI_ROUTINE_HANDLE=0x4c9"}));
    }
  }
}

// Decodes `data` and encodes it again to the same bytes (the encoder is pinned by the images);
// one byte less or more is refused.
template <typename T>
void expectRoundTrip(const std::vector<uint8_t>& data) {
  T back;
  ASSERT_TRUE(measurement::decode(data, back));
  EXPECT_EQ(measurement::encode(back), data);
  std::vector<uint8_t> shorter(data.begin(), data.end() - 1), longer = data;
  longer.push_back(0);
  EXPECT_FALSE(measurement::decode(shorter, back) || measurement::decode(longer, back));
}

TEST(DiagnosisMesswertTest, EncodingsAndAnswers) {
  using platform::someip::testing::fromHex;
  using Status = vimeasurement::MeasurementStatus;
  EXPECT_EQ(measurement::encode(diagNewStatusType{1, 2, 3, 4, 5, -2}),
            fromHex("00000001 00000002 00000003 00000004 00000005 fffffffe"));
  EXPECT_EQ(measurement::encode(diagTimestampType{1, "a", "", "b", "c", -1, "d"}),
            fromHex("00000001 0001 61 | 0000 | 0001 62 | 0001 63 | ffffffff 0001 64"));
  const diagNewStatusType state{ORV_USB_UPDATETYPE_DIAG, ACTIVE_USB, 9, 5, 42, -619};
  const diagTimestampType stamps{1,   "01.01.2026", "", "--.--.----", std::string(300, 't'),
                                 619, "\xc3\xbc"};
  expectRoundTrip<diagNewStatusType>(measurement::encode(state));
  expectRoundTrip<diagTimestampType>(measurement::encode(stamps));
  DiagnosisMesswert messwert;
  EXPECT_EQ(messwert.answer(1, measurement::kTimestamps).status, Status::notAvailable);
  messwert.signalDiagnoseUpdateState = [&] { return state; };
  messwert.signalDiagnoseTimestamps = [&] { return stamps; };
  const DiagnosisMesswert::Reply reply = messwert.answer(77, measurement::kUpdateState);
  EXPECT_EQ(
      std::tie(reply.requestId, reply.measurementId, reply.status, reply.data),
      std::make_tuple(77u, measurement::kUpdateState, Status::ok, measurement::encode(state)));
  EXPECT_EQ(messwert.answer(78, measurement::kTimestamps).data, measurement::encode(stamps));
  const DiagnosisMesswert::Reply unknown = messwert.answer(79, 0x7777);
  EXPECT_EQ(std::tie(unknown.status, unknown.data),
            std::make_tuple(Status::unknownId, std::vector<uint8_t>{}));
}

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

// The host configuration; the tester's has one more event on the routine service.
platform::someip::HostConfig load(bool tester) {
  std::vector<mw::InterfaceIds> known = hostInterfaces();
  for (mw::InterfaceIds& ids : known)
    if (tester && ids.name == viroutine::kInterfaceName)
      ids.events.push_back({Raw<false>::kName, 0x8FFF, 1});
  platform::someip::HostConfig config;
  std::string error;
  EXPECT_TRUE(
      platform::someip::loadHostConfig(ORVANE_SOURCE_DIR "/config/host.json", known, config, error))
      << error;
  return config;
}

// A tester process offering the routine service; with `replies` null it does not implement
// startRoutineReply.
struct FakeTester {
  std::unique_ptr<platform::someip::Runtime> runtime;
  std::unique_ptr<mw::Skeleton> skeleton;
  bool start(Inbox* replies) {
    std::string error;
    runtime = platform::someip::Runtime::start(load(true), "diag-tester", error);
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
};

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(20ms);
  return condition();
}

// Sends a good request until the client has converted it: the first samples after a
// (re)connection may precede the subscription's acknowledgement.
bool requestTaken(mw::Skeleton& tester, CaptureSink& log, const std::string& order) {
  std::vector<uint8_t> parameter(order.begin(), order.end());
  parameter.resize(DiagnosisViRoutineClient::kParameterSize, 0);
  return eventually([&] {
    const std::string line = "Converted update order string is: [" + order + "]";
    if (!log.contains(line)) {
      tester.send<Request>({7, parameter});
      std::this_thread::sleep_for(100ms);
    }
    return log.contains(line);
  });
}

TEST(DiagnosisViRoutineWireTest, ThreadedRequestStartReconnectAndBadInput) {
  std::string error;
  auto orvane = platform::someip::Runtime::start(load(false), "orvane", error);
  ASSERT_TRUE(orvane) << error;
  Inbox replies, relayed, starts;
  FakeTester tester;
  ASSERT_TRUE(tester.start(&replies));
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
  tester.skeleton->send<viroutine::events::StartRoutine>({0x4C9});
  EXPECT_TRUE(starts.waitFor("ORDER-7/0"));
  EXPECT_TRUE(relayed.waitFor(DiagnosisViRoutineClient::kDefaultUpdateEndpoint));
  ASSERT_TRUE(replies.waitFor("1225:2"));
  // The earlier requests were all answered before the start (one worker, in order).
  const std::vector<std::string> all = replies.entries();
  EXPECT_EQ(std::vector<std::string>(all.end() - 2, all.end()),
            (std::vector<std::string>{"1225:1", "1225:2"}));
  EXPECT_EQ(replies.count("1225:1"), 1u);
  // The tester goes away and comes back as a new process, one without startRoutineReply.
  tester.skeleton.reset();
  tester.runtime.reset();
  ASSERT_TRUE(eventually([&] { return log->contains("Re-connect scheduled"); }));
  EXPECT_TRUE(log->contains("DiagnosisViRoutineClient is dead!"));
  FakeTester second;
  ASSERT_TRUE(second.start(nullptr));
  ASSERT_TRUE(eventually([&] { return log->count("DiagnosticViRoutineProxy connected!") >= 2; }));
  EXPECT_TRUE(log->contains("DiagnosisViRoutineClient is alive!"));
  ASSERT_TRUE(requestTaken(*second.skeleton, log.sink(), "PROBE"));
  EXPECT_TRUE(eventually([&] { return log->contains("Routine response Error: unknown method"); }));
  // Bad input: each is logged, and a good request afterwards is still taken.
  int probe = 0;
  auto bad = [&](const std::function<void(mw::Skeleton&)>& send, const std::string& logged) {
    SCOPED_TRACE(logged);
    const std::size_t before = log->count(logged);
    send(*second.skeleton);
    EXPECT_TRUE(eventually([&] { return log->count(logged) > before; }));
    EXPECT_TRUE(requestTaken(*second.skeleton, log.sink(), cat("PROBE-", ++probe)));
  };
  const std::string unreadable = "sample of routineRequest not readable";
  bad([](mw::Skeleton& s) { s.send<Raw<true, uint32_t>>({{0x4C9u}}); }, unreadable);
  bad(
      [](mw::Skeleton& s) {
        s.send<Raw<true, uint32_t, uint32_t, uint8_t>>({{0x4C9u, ~0u, 1}});
      },
      unreadable);  // a parameter length beyond the payload
  bad([](mw::Skeleton& s) { s.send<Raw<false, uint32_t>>({{0x4C9u}}); },
      "notification 0x8fff from ViRoutine has no subscriber here; dropped");
  bad(
      [](mw::Skeleton& s) {
        s.send<Request>({0x4C9, std::vector<uint8_t>(65536, '7')});
      },
      "Received data size is [65536] and not equal to [116]");
  client.reset();
  MediumPathRelay::instance().unbind(relay);
  EXPECT_TRUE(log->contains("Terminate DiagnosticViRoutineClient!"));
}

}  // namespace
}  // namespace orv

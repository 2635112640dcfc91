// The two diagnosis clients in process, in virtual time: the routine's parameter rule, the start
// of the update routine, the measurement encodings and answers.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_messwert.h"
#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"
#include "interfaces/diagnosis/nodbox/measurements.h"
#include "interfaces/hmi/medium_path_relay.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace orv {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using State = DiagnosisViRoutineClient::RoutineState;

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
      {"64 KiB", bytes("ORDER-8", 65536), "PREV", false, "Received data size is [65536]"},
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

TEST(DiagnosisMesswertTest, EncodingsAndAnswers) {
  const diagNewStatusType state{ORV_USB_UPDATETYPE_DIAG, ACTIVE_USB, 9, 5, 42, -619};
  const diagTimestampType stamps{1,   "01.01.2026", "", "--.--.----", std::string(300, 't'),
                                 619, "\xc3\xbc"};
  auto tied = [](const auto& x) {
    return std::tie(x.dtType, x.dtStartDate, x.dtStartTime, x.dtEndDate, x.dtEndTime, x.dtErr,
                    x.dtErrTxt);
  };
  using Status = vimeasurement::MeasurementStatus;
  struct Row {
    const char* proves;
    uint16_t id;
    bool bound;
    Status status;
    std::size_t size;
  } rows[] = {
      {"update state", measurement::kUpdateState, true, Status::ok, 24},
      {"timestamps", measurement::kTimestamps, true, Status::ok, 4 + 12 + 2 + 12 + 302 + 4 + 4},
      {"unknown id", 0x7777, true, Status::unknownId, 0},
      {"read-out not bound", measurement::kTimestamps, false, Status::notAvailable, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    DiagnosisMesswert messwert;
    if (row.bound) {
      messwert.signalDiagnoseUpdateState = [&] { return state; };
      messwert.signalDiagnoseTimestamps = [&] { return stamps; };
    }
    const DiagnosisMesswert::Reply reply = messwert.answer(77, row.id);
    EXPECT_EQ(std::tie(reply.requestId, reply.measurementId, reply.status),
              std::make_tuple(77u, row.id, row.status));
    ASSERT_EQ(reply.data.size(), row.size);
    if (row.size == 0)
      continue;
    // Round trip; one byte less or more is refused.
    std::vector<uint8_t> shorter(reply.data.begin(), reply.data.end() - 1), longer = reply.data;
    longer.push_back(0);
    diagNewStatusType s;
    diagTimestampType t;
    if (row.id == measurement::kUpdateState) {
      ASSERT_TRUE(measurement::decode(reply.data, s));
      EXPECT_EQ(std::tie(s.updateType, s.channel, s.stateHmi, s.stateLum, s.progress, s.errorCode),
                std::tie(state.updateType, state.channel, state.stateHmi, state.stateLum,
                         state.progress, state.errorCode));
      EXPECT_FALSE(measurement::decode(shorter, s) || measurement::decode(longer, s));
    } else {
      ASSERT_TRUE(measurement::decode(reply.data, t));
      EXPECT_EQ(tied(t), tied(stamps));
      EXPECT_FALSE(measurement::decode(shorter, t) || measurement::decode(longer, t));
    }
  }
}

}  // namespace
}  // namespace orv

// The diagnostic-master channel end to end with real processes: diag-tester on the v12 service,
// the laptop's USB updates, lum-sim as the LUM. Real time: every wait is a bounded hang guard.

#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "interfaces/lum/lum12_interface.h"
#include "platform/someip/serializer.h"
#include "platform/someip/testing/raw_client.h"
#include "update_run.h"

namespace orvane::testing {
namespace {

using std::chrono::seconds;
namespace someip = platform::someip;

constexpr auto kPatience = seconds(90);
constexpr const char* kCreated = "diag-tester: session ";

std::unique_ptr<ChildProcess> dmUpdate(const std::string& session) {
  auto tester = std::make_unique<ChildProcess>();
  EXPECT_TRUE(tester->start(DIAG_TESTER_PATH, {"dm-update", "--session", session, "--base-url",
                                               UpdateRun::kMediumUrl, "--timeout-s", "60"}));
  return tester;
}

// The exit status, or -1 for a process that does not end.
int exitOf(ChildProcess& process) {
  return process.wait(kPatience).value_or(-1);
}

TEST(DiagUpdateTest, TesterAndLaptopTakeTurnsForTheLum) {
  // The tester's session asks for a URL and waits for the answer, which only the tester gives.
  UpdateRun run(R"({"sessions": [{"analyseMs": 800, "downloadMs": 2000, "installMs": 2000},
      {"analyseMs": 800, "downloadMs": 3000, "installMs": 2000,
      "resolveUrl": {"phase": "downloading", "fileNames": ["m1.json"], "holdUntilAnswered": true}}]})");
  run.startOrvane();
  // A USB update holds the LUM: a tester's create meanwhile is refused and reaches no LUM.
  run.handOver();
  ASSERT_TRUE(
      run.waitForRecord([](const auto& r) { return member(r, "channel") == 1; }, seconds(30)))
      << run.orvane().output();
  auto refused = dmUpdate("101");
  EXPECT_EQ(exitOf(*refused), 1) << refused->output() << refused->errorOutput();
  EXPECT_TRUE(count(refused->output(), "answered invalidState")) << refused->output();
  EXPECT_TRUE(count(run.orvane().output(), "Unable to get exlusive lock!"));
  const auto record = run.waitForRest();
  EXPECT_EQ(member(record, "errorcode"), 0);
  EXPECT_EQ(member(record, "progress"), 100);
  // A tester's update holds the LUM for channel 0: a medium from the laptop meanwhile is
  // refused by the USB channel (which then waits for an HMI that never acknowledges; last).
  auto tester = dmUpdate("100");
  ASSERT_TRUE(tester->waitForOutput(kCreated, kPatience)) << tester->errorOutput();
  EXPECT_EQ(member(readRecord(run.recordPath()), "channel"), 0);
  run.handOver();
  EXPECT_TRUE(run.orvane().waitForOutput("OTA update in progress!", seconds(20)));
  ASSERT_EQ(exitOf(*tester), 0) << tester->output() << tester->errorOutput();
  const std::string calls = run.calls();
  for (const char* call :
       {"DIAG-TESTER vehicleRepairInstructionID=100", "NODBOX-USB domainRepairInstructionID=0",
        "updateURLResponse", "/medium/m1.json", "getDomainUpdateResult accessID=DIAG-TESTER",
        "closeDomainUpdateSession accessID=DIAG-TESTER"}) {
    EXPECT_TRUE(count(calls, call)) << call << "\n" << calls;
  }
  // The USB update's create and the tester's: neither refused request reached the LUM.
  EXPECT_EQ(count(calls, "createDomainUpdateSession"), 2u) << calls;
  EXPECT_TRUE(count(run.orvane().output(), "Control is now [ACTIVE_DM]"));
  EXPECT_TRUE(count(run.orvane().output(), "Control released by [ACTIVE_DM]"));
  EXPECT_EQ(member(readRecord(run.recordPath()), "channel"), 2);
}

// One orvane through bad frames on the v12 port (answered or dropped, orvane serves on), a LUM
// restart under a tester's session (the poll worker follows the LUM's connection), and a
// routine that starts an update once the tester is back.
TEST(DiagUpdateTest, BadFramesALumRestartAndARoutineStart) {
  const char* quick =
      R"({"sessions": [{"analyseMs": 500, "downloadMs": 1000, "installMs": 1000}]})";
  UpdateRun run(R"({"sessions": [{"analyseMs": 500, "downloadMs": 60000,
      "crash": {"phase": "downloading", "afterMs": 500, "exitCode": 7}}]})");
  run.startOrvane();
  ChildProcess& orvane = run.orvane();
  EXPECT_TRUE(count(orvane.output(), "Connecting to [12233]"));
  // Bad frames on the v12 port are answered or dropped, and orvane serves on.
  using RC = someip::ReturnCode;
  auto frame = [](uint16_t method, std::vector<uint8_t> payload, uint8_t version = 12) {
    return someip::encodeMessage({19468, method, 0, 0x77, 1, 1, version}, payload);
  };
  lum12::methods::CreateDomainUpdateSession::Input create;
  create.accessID = "WIRE";
  create.manifestInformation.resize(2);
  create.diagnosticAddress.diagnosticAddresses = {1, 2};
  const std::vector<uint8_t> whole = someip::serialize(create);
  lum12::methods::SessionInput huge{std::string(900 * 1024, 'x'), 1};
  std::vector<uint8_t> claims{0xFF, 0xFF, 0xFF, 0xF0, 0xEF, 0xBB, 0xBF};  // a 4 GiB string
  claims.resize(12);
  struct Row {
    std::string proves;
    std::vector<uint8_t> bytes;
    std::optional<RC> answer;  // nothing: the connection is closed instead
  };
  std::vector<Row> rows{
      {"another interface version", frame(14, {}, 11), RC::kWrongInterfaceVersion},
      {"a string longer than the frame", frame(6, claims), RC::kMalformedMessage},
      {"a huge string is read and answered", frame(6, someip::serialize(huge)), RC::kOk},
      {"a length field above 1 MiB", frame(14, {}), std::nullopt},
      {"a create cut short", frame(2, {whole.begin(), whole.end() - 1}), RC::kMalformedMessage},
  };
  rows[3].bytes[5] = 0x20;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    someip::testing::RawClient client({0x7F000001, 30502});
    client.send(row.bytes);
    const auto answer = client.receive();
    ASSERT_EQ(answer.has_value(), row.answer.has_value());
    if (answer) {
      EXPECT_EQ(answer->header.returnCode, *row.answer);
    }
  }
  // A frame cut short by its sender's end; then orvane still answers.
  someip::testing::RawClient({0x7F000001, 30502})
      .send({rows[0].bytes.begin(), rows[0].bytes.begin() + 10});
  someip::testing::RawClient client({0x7F000001, 30502});
  client.send(frame(14, {}));
  const auto answer = client.receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->header.messageType, someip::MessageType::kResponse);
  EXPECT_FALSE(count(run.calls(), "createDomainUpdateSession"));
  EXPECT_TRUE(count(orvane.output(), "not readable"));
  EXPECT_TRUE(count(orvane.output(), "resetting the connection"));
  // The start-up report follows the diagnosis clients, which wait up to 1 s for a tester.
  EXPECT_TRUE(orvane.waitForOutput("LUM init [True]", kPatience)) << orvane.output();
  auto tester = dmUpdate("200");
  ASSERT_TRUE(tester->waitForOutput("startDomainUpdateDownload: ok", kPatience))
      << tester->output() << tester->errorOutput();
  // The LUM crashes and comes back without the session.
  ASSERT_EQ(run.lum().wait(kPatience), 7);
  // Each of these lines comes only from the loss or the return of the LUM here; a LUM that dies
  // says nothing, its offer runs out.
  ASSERT_TRUE(orvane.waitForOutput("LUM disconnected!", kPatience));
  ASSERT_TRUE(orvane.waitForOutput("size is 0", kPatience)) << orvane.output();
  ASSERT_TRUE(orvane.waitForOutput("stopPoll(): Stopped polling thread!", kPatience));
  run.startLum(quick);
  ASSERT_TRUE(orvane.waitForOutput("LUM connected.", kPatience));
  ASSERT_TRUE(orvane.waitForOutput("DiagLocalUpdateManagerControlClient connected!", kPatience, 2));
  ASSERT_TRUE(orvane.waitForOutput("Starting polling thread", kPatience, 2)) << orvane.output();
  // The tester learns that its session is gone; its next update runs to the end and gives
  // control back.
  EXPECT_EQ(exitOf(*tester), 1) << tester->output();
  auto next = dmUpdate("201");
  EXPECT_EQ(exitOf(*next), 0) << next->output() << next->errorOutput();
  EXPECT_EQ(member(readRecord(run.recordPath()), "channel"), 2);
  // The routine service comes with a tester and goes with it ...
  const std::size_t routines = count(orvane.output(), "DiagnosticViRoutineProxy connected!");
  const std::size_t gone = count(orvane.output(), "DiagnosisViRoutineClient is dead!");
  ChildProcess measure;
  ASSERT_TRUE(measure.start(DIAG_TESTER_PATH, {"measure"}));
  EXPECT_EQ(exitOf(measure), 0) << measure.errorOutput();
  EXPECT_TRUE(count(measure.output(), "update type 0, channel ACTIVE_NONE")) << measure.output();
  ASSERT_TRUE(orvane.waitForOutput("DiagnosisViRoutineClient is dead!", kPatience, gone + 1));
  // ... and is reconnected when the next one comes: its routine starts an update of the medium
  // at the update endpoint, which runs to the end without anybody confirming it.
  ChildProcess routine;
  ASSERT_TRUE(routine.start(DIAG_TESTER_PATH, {"routine-start", "--order", "ORDER-9"}));
  EXPECT_TRUE(
      run.waitForRecord([](const auto& r) { return member(r, "updatetype") == 1; }, kPatience));
  EXPECT_EQ(exitOf(routine), 0) << routine.output() << routine.errorOutput();
  EXPECT_TRUE(count(routine.output(), "update type 1, channel ACTIVE_USB")) << routine.output();
  EXPECT_GE(count(orvane.output(), "DiagnosticViRoutineProxy connected!"), routines + 2);
  for (const char* line :
       {"GET [http://127.0.0.1:29214/medium/NodboxUpdateMedium.json]",
        "Update started by diagnostic - do not change state!", "Set USB update type: DIAG!",
        "DIAG auto-responding [eINSTALLATIONFINISHED]"}) {
    EXPECT_TRUE(count(orvane.output(), line)) << line;
  }
  EXPECT_EQ(member(run.waitForRest(), "errorcode"), 0);
  // orvane itself never ended; lum-sim ends cleanly on SIGTERM.
  EXPECT_FALSE(orvane.wait(std::chrono::milliseconds(0)));
  run.lum().kill(SIGTERM);
  EXPECT_EQ(run.lum().wait(seconds(10)), 0);
}

}  // namespace
}  // namespace orvane::testing

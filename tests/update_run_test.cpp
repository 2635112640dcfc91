// Whole updates with real processes: each run, and orvane killed at every step of a session,
// ends in a defined HMI state with control released and an untorn record.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "update_run.h"

namespace orvane::testing {
namespace {

using std::chrono::seconds;

constexpr auto kPatience = seconds(90);

TEST(UpdateRunTest, ThreadedFaultRunsEndInTheirDefinedState) {
  struct Row {
    const char* proves;
    const char* session;      // lum-sim's scenario for the one session
    int64_t errorCode;        // in the record at rest
    const char* logged;       // a line orvane must have logged on the way
    bool lumFailure = false;  // the LUM failed the session: result fetched, session closed once
  };
  const std::vector<Row> rows = {
      {"a session failed as the download is due", R"({"analyseMs": 500,
          "error": {"phase": "verificationFinished", "afterMs": 0, "code": 4712}})",
       4712, "errorCode: 4712", true},
      {"a LUM that stops offering for good", R"({"analyseMs": 300, "downloadMs": 60000,
          "stopOffer": {"phase": "downloading", "afterMs": 300}})",
       608, "LUM not back within [4] s"},
      {"busy answers are waited out", R"({"analyseMs": 300, "downloadMs": 500, "installMs": 500,
          "busy": {"createDomainUpdateSession": 1, "startDomainUpdate": 1}})",
       0, "startDomainUpdate() return status [busy], retry in 10 seconds"},
      {"a withheld ready-for-update event is made up by the poll",
       R"({"analyseMs": 300, "downloadMs": 500, "installMs": 500,
          "events": {"domainReadyForUpdateNotification": false}})",
       0, "RETRY_DOWNLOAD (3)"},
      {"a download start answered too late", R"({"analyseMs": 300, "downloadMs": 2000,
          "delay": {"startDomainUpdateDownload": {"ms": 1500}}})",
       603, "startDomainUpdateDownload failed!"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    UpdateRun run(std::string(R"({"sessions": [)") + row.session + "]}");
    run.startOrvane({{"ORVANE_LUM_LOSS_LIMIT_S", "4"}});
    run.handOver();
    const JSON record = run.waitForRest();
    EXPECT_EQ(member(record, "errorcode"), row.errorCode);
    EXPECT_EQ(count(run.orvane().output(), "InstallationFailed, errorCode ["),
              row.errorCode != 0 ? 1u : 0u);
    if (row.lumFailure) {
      EXPECT_EQ(count(run.calls(), "getDomainUpdateResult"), 1u) << run.calls();
      EXPECT_EQ(count(run.calls(), "closeDomainUpdateSession"), 1u) << run.calls();
    }
    EXPECT_EQ(member(record, "channel"), 2);
    EXPECT_EQ(record.find("trainname") ? record.find("trainname")->ToString() : "?", "");
    if (row.errorCode == 0) {
      EXPECT_EQ(member(record, "progress"), 100);
      EXPECT_NE(run.orvane().output().find("eINSTALLATIONFINISHEDCONFIRMED"), std::string::npos);
    }
    EXPECT_NE(run.orvane().output().find(row.logged), std::string::npos) << run.orvane().output();
  }
}

TEST(UpdateRunTest, ThreadedKilledAtEveryStepResumesToADefinedEnd) {
  struct Row {
    const char* step;   // orvane's log line when it enters the step
    int64_t stateLum;   // the step's value in the record when orvane is killed
    const char* delay;  // lum-sim answers this operation late, to hold orvane in the step
    std::vector<int64_t> errorCodes;  // the ends that the resumption may reach
  };
  // Held steps: the call has taken effect in the LUM, only its answer is outstanding, so the
  // resumed call finds the LUM a step further and is refused (a failure with the step's code),
  // or the poll picks the session up (a clean end).
  const std::vector<Row> rows = {
      {"[CreateSession]", 1, nullptr, {0}},
      {"[StartCreateDownload]", 2, "startDomainUpdateDownload", {0, 603}},
      {"[CreateDownload]", 3, nullptr, {0}},
      {"[StartCreateUpdate]", 4, "startDomainUpdate", {0, 605}},
      {"[CreateUpdate]", 5, nullptr, {0}},
      {"[CloseUpdate]", 6, "closeDomainUpdateSession", {0}},
      // Killed as the step is logged, while its record write is under way: the record holds
      // the step before or this one, whole either way.
      {"[CreateDownload]", -1, nullptr, {0, 603}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.step);
    std::string session = R"({"analyseMs": 2000, "downloadMs": 2500, "installMs": 2500)";
    if (row.delay != nullptr)
      session += std::string(R"(, "delay": {")") + row.delay + R"(": {"ms": 900, "calls": 1}})";
    UpdateRun run(R"({"sessions": [)" + session + "}]}");
    run.startOrvane();
    run.handOver();
    ASSERT_TRUE(run.orvane().waitForOutput(row.step, kPatience)) << run.orvane().output();
    // The step is logged before it is written: kill once the record holds it (or at once).
    if (row.stateLum >= 0) {
      ASSERT_TRUE(run.waitForRecord(
          [&](const JSON& r) { return member(r, "statelum") == row.stateLum; }, seconds(5)));
    }
    run.killOrvane();
    // Whatever write the kill interrupted, the record is whole.
    const JSON before = readRecord(run.recordPath());
    ASSERT_EQ(before.JSONType(), JSON::Class::Object) << readFile(run.recordPath());
    EXPECT_EQ(member(before, "channel"), 1);
    run.startOrvane();
    const JSON record = run.waitForRest();
    const int64_t code = member(record, "errorcode");
    EXPECT_NE(std::find(row.errorCodes.begin(), row.errorCodes.end(), code), row.errorCodes.end())
        << "error code " << code << "\n"
        << run.orvane().output();
    // The restarted orvane showed the interrupted installation again before resuming it.
    EXPECT_NE(run.orvane().output().find("stateHMI is [eINSTALLING]"), std::string::npos);
    EXPECT_NE(run.orvane().output().find("init:: Sync HMI state [eINSTALLING] to welo"),
              std::string::npos);
  }
}

// One more start, to rest (control released, the record whole) with nothing left pending.
void restartToRest(UpdateRun& run, int64_t errorCode, const char* logged) {
  run.startOrvane();
  const JSON record = run.waitForRest();
  EXPECT_EQ(member(record, "errorcode"), errorCode);
  EXPECT_EQ(member(record, "resumeattempts", 0), 0);
  EXPECT_EQ(record.find("handover") ? record.find("handover")->ToString() : "", "");
  EXPECT_NE(run.orvane().output().find(logged), std::string::npos) << run.orvane().output();
}

// The first update is killed once its hand-over is acknowledged; the second, resumed after a
// kill, is killed again while resuming until it is given up.
TEST(UpdateRunTest, ThreadedAnAcknowledgedHandOverSurvivesAKillAndACrashingResumeIsGivenUp) {
  UpdateRun run(R"({"sessions": [{"analyseMs": 300, "installMs": 500},
      {"analyseMs": 300, "installMs": 120000}]})");
  run.startOrvane();
  run.mediumServer().kill(SIGSTOP);  // holds the update before the LUM
  run.handOver();                    // returns once the laptop holds the acknowledgement
  run.killOrvane();
  run.mediumServer().kill(SIGCONT);
  restartToRest(run, 0, "interrupted by the restart, starting it again");
  run.handOver();
  ASSERT_TRUE(
      run.waitForRecord([](const JSON& r) { return member(r, "statelum") == 5; }, kPatience));
  run.killOrvane();
  for (int64_t attempt = 1; attempt <= 3; ++attempt) {
    run.startOrvane();
    // Killed while resuming, once the attempt is counted.
    ASSERT_TRUE(run.waitForRecord(
        [&](const JSON& r) { return member(r, "resumeattempts") == attempt; }, seconds(5)));
    run.killOrvane();
  }
  restartToRest(run, 620, "ended the service 3 times in a row, giving it up");
}

}  // namespace
}  // namespace orvane::testing

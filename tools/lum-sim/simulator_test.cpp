// The simulated LUM in virtual time: session progression, scripted busy answers, withheld
// events, errors and cancel. (Late answers, URL requests and loss of the service are played in
// the whole-update runs.)
#include "simulator.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "interfaces/lum/lum_names.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace lumsim {
namespace {

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using State = lum11::CM_CurrentProcessingState;
using Status = lum11::CM_ReturnStatus;

constexpr const char* kClient = "NODBOX-USB";
constexpr uint16_t kRiid = 7;

// One simulator on a manual virtual clock, with every output written down as text.
struct Rig {
  explicit Rig(SessionScript script = {}, bool strict = false)
      : scoped_(clock_), script_(script), sim(Scenario{{script}, strict}, outputs()) {}
  // Moves time without polling: the next call has to play what came due.
  void advanceOnly(int64_t ms) { clock_.advance(std::chrono::milliseconds(ms)); }
  void advance(int64_t ms) {
    advanceOnly(ms);
    sim.poll();
  }
  Status create(uint16_t riid = kRiid) {
    methods::CreateDomainUpdateSession::Input in;
    in.accessID = kClient;
    in.vehicleRepairInstructionID = riid;
    return sim.createDomainUpdateSession(in).output.returnStatus;
  }
  State state() { return sim.getDomainUpdateSessionState(session()).output.currentProcessingState; }
  static methods::SessionInput session() { return {kClient, kRiid}; }
  // Create, analyse, download: the session ends in downloadFinished.
  void toDownloadFinished() {
    ASSERT_EQ(create(), Status::ok);
    advance(script_.analyseMs);
    ASSERT_EQ(sim.startDomainUpdateDownload(session()).output.returnStatus, Status::ok);
    advance(script_.downloadMs);
  }
  SimulatorOutputs outputs() {
    SimulatorOutputs o;
    o.readyForDownload = [this](const lum11::ReadyForDownloadInfo& i, uint16_t id) {
      seen.push_back(
          cat("readyForDownload:", id, ":", i.installationTime, ":", i.downloadDataSize));
    };
    o.readyForUpdate = [this](const lum11::ReadyForUpdateInfo& i, uint16_t id) {
      seen.push_back(
          cat("readyForUpdate:", id, ":", i.installationTime, ":", i.downloadedDataSize));
    };
    o.updateFinished = [this](uint16_t id) { seen.push_back(cat("updateFinished:", id)); };
    o.error = [this](uint16_t id, uint32_t code) { seen.push_back(cat("error:", id, ":", code)); };
    return o;
  }
  ScopedLogCapture log;  // keeps the simulator's lines out of the test output
  SimulatedClock clock_{SimulatedClock::Mode::kManual};
  ScopedClock scoped_;
  SessionScript script_;
  std::vector<std::string> seen;
  LumSimulator sim;
};

// The operations the tables below name, reduced to their return status.
Status callByName(Rig& rig, const std::string& op) {
  LumSimulator& sim = rig.sim;
  const methods::SessionInput in = Rig::session();
  if (op == "createDomainUpdateSession")
    return rig.create();
  if (op == "getDomainUpdateSessionState")
    return sim.getDomainUpdateSessionState(in).output.returnStatus;
  if (op == "startDomainUpdateDownload")
    return sim.startDomainUpdateDownload(in).output.returnStatus;
  if (op == "startDomainUpdate")
    return sim.startDomainUpdate(in).output.returnStatus;
  if (op == "getDomainUpdateResult")
    return sim.getDomainUpdateResult(in).output.returnStatus;
  ADD_FAILURE() << "no such operation in the test: " << op;
  return Status::internalError;
}

TEST(LumSimulatorTest, CleanSessionRunsThroughEveryState) {
  Rig rig;
  const methods::SessionInput in = Rig::session();
  const std::string rfd = "readyForDownload:7:120:4194304";
  const std::string rfu = "readyForUpdate:7:120:4194304";
  ASSERT_EQ(rig.create(), Status::ok);
  rig.advance(999);  // 1 ms before the analysis ends
  EXPECT_EQ(rig.state(), State::verifying);
  rig.advanceOnly(1);  // exactly on time, a call plays the analysis end without a poll
  EXPECT_EQ(rig.state(), State::verificationFinished);
  EXPECT_EQ(rig.seen, std::vector<std::string>{rfd});
  rig.advance(5000);  // waiting does not start the download
  EXPECT_EQ(rig.state(), State::verificationFinished);
  EXPECT_EQ(rig.sim.startDomainUpdateDownload(in).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.state(), State::downloading);
  rig.advance(1000);  // half way: half the bytes, second of two packages
  const auto d = rig.sim.getDomainUpdateDownloadProgress(in).output;
  EXPECT_EQ(std::tie(d.processedBytes, d.totalBytes, d.currentPackageNumber, d.totalPackageNumber,
                     d.packageName, d.downloadRate),
            std::make_tuple(2097152, 4194304, 2u, 2u, "domain-boot.pkg", 2097152));
  EXPECT_EQ(rig.seen, std::vector<std::string>{rfd});
  rig.advance(1000);  // the download ends and announces the update
  EXPECT_EQ(rig.state(), State::downloadFinished);
  EXPECT_EQ(rig.seen, (std::vector<std::string>{rfd, rfu}));
  EXPECT_EQ(rig.sim.startDomainUpdate(in).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.state(), State::updating);
  rig.advance(500);  // a quarter of the installation
  const auto i = rig.sim.getDomainUpdateProgress(in).output;
  EXPECT_EQ(std::tie(i.processedBytes, i.currentPackageNumber, i.packageName),
            std::make_tuple(1048576, 1u, "domain-app.pkg"));
  EXPECT_EQ(rig.state(), State::updating);
  // One late poll plays the end at its own time and announces it.
  rig.advance(10000);
  const auto r = rig.sim.getDomainUpdateResult(in).output;
  EXPECT_EQ(std::tie(r.returnStatus, r.domainResult.sessionStatus,
                     r.domainResult.integrityValidationResult.status),
            std::make_tuple(Status::ok, lum11::CM_SessionStatus::successful,
                            lum11::CM_ValidationStatus::successful));
  EXPECT_EQ(rig.state(), State::successfulFinished);
  EXPECT_EQ(rig.seen, (std::vector<std::string>{rfd, rfu, "updateFinished:7"}));
  EXPECT_EQ(rig.sim.closeDomainUpdateSession(in).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState(in).output.returnStatus, Status::invalidState);
  EXPECT_TRUE(rig.log->contains("session 7: successfulFinished"));
  // A new session may follow the closed one.
  EXPECT_EQ(rig.create(8), Status::ok);
}

TEST(LumSimulatorTest, BusyAnswersPerOperation) {
  struct Row {
    const char* op;
    uint32_t busy;
    bool needsSession;  // false: called before any session exists
  };
  const std::vector<Row> rows{
      {"createDomainUpdateSession", 3, false},
      {"startDomainUpdateDownload", 2, true},
      {"getDomainUpdateResult", 0, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.op);
    SessionScript script;
    script.busy[row.op] = row.busy;
    script.analyseMs = 0;  // startDomainUpdateDownload is in order at once
    Rig rig(script);
    if (row.needsSession) {
      ASSERT_EQ(rig.create(), Status::ok);
      rig.advance(0);
    }
    for (uint32_t i = 0; i < row.busy; ++i)
      EXPECT_EQ(callByName(rig, row.op), Status::busy) << "call " << i + 1;
    // A busy answer changes nothing: the download has not started.
    if (row.needsSession) {
      EXPECT_EQ(rig.state(), State::verificationFinished);
    }
    EXPECT_NE(callByName(rig, row.op), Status::busy);
    EXPECT_NE(callByName(rig, row.op), Status::busy);
  }
}

TEST(LumSimulatorTest, WithheldEventsAreNotSentButTheSessionGoesOn) {
  const std::vector<std::string> all{"readyForDownload:7:120:4194304",
                                     "readyForUpdate:7:120:4194304", "updateFinished:7"};
  const std::vector<std::pair<const char*, std::size_t>> rows{
      {"domainReadyForDownloadNotification", 0},
      {"domainUpdateFinishedNotification", 2},
  };
  for (const auto& [event, index] : rows) {
    SCOPED_TRACE(event);
    SessionScript script;
    script.events[event] = false;
    Rig rig(script);
    rig.toDownloadFinished();
    ASSERT_EQ(rig.sim.startDomainUpdate(Rig::session()).output.returnStatus, Status::ok);
    rig.advance(2000);
    EXPECT_EQ(rig.state(), State::successfulFinished);
    auto expected = all;
    expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(index));
    EXPECT_EQ(rig.seen, expected);
  }
}

TEST(LumSimulatorTest, ScriptedErrorInEachPhase) {
  struct Row {
    Phase phase;
    int64_t afterMs;
    bool withheld;
    std::vector<std::string> seen;
    int64_t downloaded;  // processed bytes of the download after the error (-1: not asked)
  };
  const std::string rfd = "readyForDownload:7:120:4194304";
  const std::string rfu = "readyForUpdate:7:120:4194304";
  const std::vector<Row> rows{
      {Phase::verifying, 500, false, {"error:7:4711"}, -1},
      {Phase::downloading, 500, false, {rfd, "error:7:4711"}, 1048576},
      {Phase::downloadFinished, 0, false, {rfd, rfu, "error:7:4711"}, 4194304},
      {Phase::updating, 1999, false, {rfd, rfu, "error:7:4711"}, 4194304},
      {Phase::downloading, 500, true, {rfd}, 1048576},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(cat(phaseName(row.phase), row.withheld ? " withheld" : ""));
    SessionScript script;
    script.error = ErrorPlan{{row.phase, row.afterMs}, 4711};
    if (row.withheld)
      script.events["domainErrorNotification"] = false;
    Rig rig(script);
    ASSERT_EQ(rig.create(), Status::ok);
    // Drive the session as a client would, for long enough to pass every phase.
    for (int i = 0; i < 100; ++i) {
      rig.advance(100);
      if (row.phase != Phase::verificationFinished)
        rig.sim.startDomainUpdateDownload(Rig::session());
      if (row.phase != Phase::downloadFinished)
        rig.sim.startDomainUpdate(Rig::session());
    }
    EXPECT_EQ(rig.state(), State::failFinished);
    EXPECT_EQ(rig.seen, row.seen);
    const auto r = rig.sim.getDomainUpdateResult(Rig::session()).output;
    EXPECT_EQ(std::tie(r.returnStatus, r.domainResult.sessionStatus, r.domainResult.resultCode,
                       r.domainResult.errorDetails),
              std::make_tuple(Status::ok, lum11::CM_SessionStatus::error, 4711u,
                              cat("error 4711 in ", phaseName(row.phase))));
    if (row.downloaded >= 0) {
      EXPECT_EQ(rig.sim.getDomainUpdateDownloadProgress(Rig::session()).output.processedBytes,
                row.downloaded);
    }
    EXPECT_EQ(rig.sim.closeDomainUpdateSession(Rig::session()).output.returnStatus, Status::ok);
  }
  // A scripted result replaces the one the session would give.
  SessionScript script;
  script.error = ErrorPlan{{Phase::verifying, 0}, 9};
  lum11::DomainResult scripted;
  scripted.sessionStatus = lum11::CM_SessionStatus::reverted;
  scripted.resultCode = 77;
  script.result = scripted;
  Rig rig(script);
  ASSERT_EQ(rig.create(), Status::ok);
  rig.advance(0);
  EXPECT_EQ(rig.sim.getDomainUpdateResult(Rig::session()).output.domainResult.resultCode, 77u);
  // A failed session need not be closed: the next create replaces it.
  EXPECT_EQ(rig.create(8), Status::ok);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState({kClient, 8}).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState(Rig::session()).output.returnStatus,
            Status::invalidParameters);
}

TEST(LumSimulatorTest, CallsOutOfOrderAreInvalidState) {
  enum Stage { none, created, analysed, downloading, downloaded };
  struct Row {
    const char* what;
    Stage stage;  // how far the session got before the call
    const char* op;
    Status expected;
  };
  const std::vector<Row> rows{
      {"state without a session", none, "getDomainUpdateSessionState", Status::invalidState},
      {"a second session while one is open", created, "createDomainUpdateSession",
       Status::invalidState},
      {"download during the analysis", created, "startDomainUpdateDownload", Status::invalidState},
      {"update before the download", analysed, "startDomainUpdate", Status::invalidState},
      {"download twice", downloading, "startDomainUpdateDownload", Status::invalidState},
      {"result before the end", downloaded, "getDomainUpdateResult", Status::invalidState},
      {"update after the download: in order", downloaded, "startDomainUpdate", Status::ok},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Rig rig;
    if (row.stage >= created) {
      ASSERT_EQ(rig.create(), Status::ok);
    }
    rig.advance(row.stage >= analysed ? 1000 : 0);
    if (row.stage >= downloading) {
      ASSERT_EQ(callByName(rig, "startDomainUpdateDownload"), Status::ok);
    }
    rig.advance(row.stage >= downloaded ? 2000 : 0);
    EXPECT_EQ(callByName(rig, row.op), row.expected);
  }
  // Another client or another session id is refused as a wrong parameter.
  Rig rig;
  ASSERT_EQ(rig.create(), Status::ok);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState({"OTHER", kRiid}).output.returnStatus,
            Status::invalidParameters);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState({kClient, 8}).output.returnStatus,
            Status::invalidParameters);
  // Session id 0 names the current session in the reads a poller makes, whoever asks; every
  // other operation, and a strict scenario, refuse it like any other id.
  const methods::SessionInput current{"OTHER", LumSimulator::kCurrentSession};
  rig.advance(1000);
  EXPECT_EQ(rig.sim.getDomainUpdateSessionState(current).output.currentProcessingState,
            State::verificationFinished);
  EXPECT_EQ(rig.sim.getDomainDownloadInfo(current).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.sim.getDomainUpdateInfo(current).output.returnStatus, Status::ok);
  EXPECT_EQ(rig.sim.startDomainUpdateDownload(current).output.returnStatus,
            Status::invalidParameters);
  Rig strict({}, true);
  EXPECT_EQ(strict.sim.getDomainUpdateSessionState(current).output.returnStatus,
            Status::invalidState);
  ASSERT_EQ(strict.create(), Status::ok);
  EXPECT_EQ(strict.sim.getDomainUpdateSessionState(current).output.returnStatus,
            Status::invalidParameters);
}

TEST(LumSimulatorTest, CancelInEachState) {
  struct Row {
    const char* what;
    int64_t advanceMs;   // after create
    bool startDownload;  // at 1000 ms
    bool startUpdate;    // at 3000 ms
    lum11::CM_CancelStatus status;
    State after;  // 500 ms (cancelMs) later
  };
  const std::vector<Row> rows{
      {"during the analysis", 100, false, false, lum11::CM_CancelStatus::cancelling,
       State::revertFinished},
      {"during the download", 1500, true, false, lum11::CM_CancelStatus::cancelling,
       State::revertFinished},
      {"during the installation: too late", 3500, true, true,
       lum11::CM_CancelStatus::notCancellable, State::updating},
      {"after the end", 6000, true, true, lum11::CM_CancelStatus::cancelled,
       State::successfulFinished},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Rig rig;
    ASSERT_EQ(rig.create(), Status::ok);
    int64_t t = 0;
    auto to = [&](int64_t when) {
      rig.advance(when - t);
      t = when;
    };
    if (row.startDownload) {
      to(1000);
      rig.sim.startDomainUpdateDownload(Rig::session());
    }
    if (row.startUpdate) {
      to(3000);
      rig.sim.startDomainUpdate(Rig::session());
    }
    to(row.advanceMs);
    const auto out = rig.sim.cancelDomainUpdate(Rig::session()).output;
    EXPECT_EQ(std::tie(out.returnStatus, out.cancelStatus),
              std::make_tuple(Status::ok, row.status));
    rig.advance(500);
    EXPECT_EQ(rig.state(), row.after) << toString(rig.state());
    if (row.after == State::revertFinished) {
      EXPECT_EQ(rig.sim.getDomainUpdateResult(Rig::session()).output.domainResult.sessionStatus,
                lum11::CM_SessionStatus::reverted);
    }
  }
}

}  // namespace
}  // namespace lumsim

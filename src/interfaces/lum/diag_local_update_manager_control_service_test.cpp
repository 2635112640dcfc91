#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/lum/testing/fake_lum.h"
#include "logic/multiplexer.h"
#include "logic/testing/fake_channels.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"
#include "minfw/testing/temp_dir.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using kel::vxp3::minfw::testing::TempDir;
using platform::middleware::FutureStatus;
using Service = DiagLocalUpdateManagerControlService;
using PS = lum11::CM_CurrentProcessingState;
using FS =
    lum12::CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState;

using FakeLum = lum::testing::FakeLum;
constexpr uint32_t kNoAnswer = FakeLum::kNoAnswer;
constexpr uint32_t kOk = 0, kIS = 1, kIE = 2;  // invalidState, internalError
constexpr uint32_t kDm = ACTIVE_DM, kUsb = ACTIVE_USB, kNone = ACTIVE_NONE;

// Waits in real time, bounded, until `condition` holds.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 10000 && !condition(); ++i)
    std::this_thread::sleep_for(1ms);
  return condition();
}

// Runs `work` on its own thread while virtual time moves on in poll steps, until it returns.
bool runAdvancing(SimulatedClock& clock, const std::function<void()>& work) {
  auto done = std::async(std::launch::async, work);
  return eventually([&] {
    clock.advance(100ms);
    return done.wait_for(0ms) == std::future_status::ready;
  });
}

template <typename Answer>
uint32_t status(const Service::Future<Answer>& answer) {
  return static_cast<uint32_t>(answer.get().value().returnStatus);
}

struct Files {
  TempDir dir;
  std::shared_ptr<Persistence> record =
      std::make_shared<Persistence>(dir.path(), "persistence.json");
};
// The service as channel 0 of a real Multiplexer; the USB channel is its value 1 there.
struct Rig : Files, Multiplexer {
  explicit Rig(SimulatedClock& c, bool bind = true) : Multiplexer(record), clock(c) {
    addChannel(std::make_unique<Service>("1"));
    dm = static_cast<Service*>(channel(ACTIVE_DM));
    addChannel(std::make_unique<orv::testing::FakeChannel>());  // USB: taken directly here
    setLumClient(lum);
    setRoutineClient(std::make_unique<orv::testing::FakeRoutine>());
    setMesswertClient(std::make_unique<orv::testing::FakeMesswert>());
    if (bind)
      initBindings();
  }
  ~Rig() override {
    EXPECT_TRUE(runAdvancing(clock, [this] { dm->stopPoll(); }));
  }
  // Lets the worker sleep through one poll period; true once it has run a cycle.
  bool cycle() {
    for (int64_t t = 0; t < Service::kPollPeriodMs; t += Service::kPollStepMs) {
      if (!clock.waitForSleepers(1, 2s))
        return false;
      clock.advance(100ms);
    }
    return true;
  }
  SimulatedClock& clock;
  std::shared_ptr<FakeLum> lum = std::make_shared<FakeLum>();
  Service* dm = nullptr;
};

class DmServiceTest : public ::testing::Test {
 protected:
  SimulatedClock clock_;
  ScopedClock scoped_{clock_};
  ScopedLogCapture log_;
};

TEST_F(DmServiceTest, ControlTablePerOperationGroup) {
  enum Op { kCreate, kCancel, kStart, kClose, kDescription };
  struct Row {
    const char* proves;
    Op op;
    uint32_t holder;  // before the call
    bool bound;
    uint32_t lumAnswer, expected;
    const char* logged;
    uint32_t holderAfter;
    bool lumCalled;
  };
  const char* kUsbPath = "getServiceDescription(): Active path (USB update in progress), unable";
  const char* kNoLum = "Unable to get LUM object!";
  const char* kNegative = "LUM negative answer: (invalidState)";
  const std::vector<Row> rows = {
      {"create takes control", kCreate, kNone, 1, kOk, kOk, "Starting polling", kDm, 1},
      {"create while USB holds", kCreate, kUsb, 1, kOk, kIS, "Unable to get exlusive lock!", kUsb,
       0},
      {"create without an answer", kCreate, kNone, 1, kNoAnswer, kIE, "LUM signals error!", kNone,
       1},
      {"create refused by the LUM", kCreate, kNone, 1, kIS, kIS, kNegative, kNone, 1},
      {"a failed create keeps a held session", kCreate, kDm, 1, kIS, kIS, kNegative, kDm, 1},
      {"unbound slots", kCreate, kNone, 0, kOk, kIE, "Signals not bound yet!", kNone, 0},
      {"cancel takes free control for the call", kCancel, kNone, 1, kOk, kOk,
       "Control released by [ACTIVE_DM]", kNone, 1},
      {"cancel while USB holds", kCancel, kUsb, 1, kOk, kIS, kNoLum, kUsb, 0},
      {"a forwarded call leaves control alone", kStart, kDm, 1, kOk, kOk, "<=", kDm, 1},
      {"a forwarded call takes no free control", kStart, kNone, 1, kOk, kIS, kNoLum, kNone, 0},
      {"a closed session gives control back", kClose, kDm, 1, kOk, kOk, "stopPoll(): done", kNone,
       1},
      {"a refused close keeps the session", kClose, kDm, 1, kIS, kIS, "<=", kDm, 1},
      {"description while USB holds", kDescription, kUsb, 1, kOk, kIS, kUsbPath, kUsb, 0},
      {"description without an answer", kDescription, kDm, 1, kNoAnswer, kIE,
       "getServiceDescription(): Active path (), LUM comm error!", kDm, 1},
  };
  const std::vector<std::pair<const char*, std::function<uint32_t(Service&)>>> ops = {
      {"createDomainUpdateSession",
       [](Service& dm) {
         return status(dm.createDomainUpdateSession("T", 7, "", {}, {}, {}, {}, {}));
       }},
      {"cancelDomainUpdate", [](Service& dm) { return status(dm.cancelDomainUpdate("T", 7)); }},
      {"startDomainUpdate", [](Service& dm) { return status(dm.startDomainUpdate("T", 7)); }},
      {"closeDomainUpdateSession",
       [](Service& dm) { return status(dm.closeDomainUpdateSession("T", 7)); }},
      {"getServiceDescription", [](Service& dm) { return status(dm.getServiceDescription()); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    Rig rig(clock_, row.bound);
    const char* op = ops[row.op].first;
    rig.lum->script[op] = {row.lumAnswer};
    ASSERT_TRUE(row.holder == kNone || rig.requestExclusiveControl(row.holder, false));
    log_->clear();
    const uint32_t status = ops[row.op].second(*rig.dm);
    EXPECT_EQ(status, row.expected);
    EXPECT_TRUE(log_->contains(row.logged)) << row.logged;
    EXPECT_EQ(rig.queryControl(), row.holderAfter);
    EXPECT_EQ(rig.lum->count(op), row.lumCalled ? 1u : 0u);
    EXPECT_EQ(rig.dm->polling(), row.op == kCreate && status == kOk);
  }
}

// A closed session forgets the tester's path; a state that changed in any field is published.
TEST_F(DmServiceTest, SessionPathAndStateFollowTheSession) {
  Rig rig(clock_);
  ASSERT_EQ(status(rig.dm->createDomainUpdateSession("T", 7, "", {}, {}, {}, {}, {})), kOk);
  EXPECT_EQ(rig.dm->activePath(), "T");
  EXPECT_TRUE(runAdvancing(clock_, [&] { rig.dm->closeDomainUpdateSession("T", 7); }));
  EXPECT_EQ(rig.dm->activePath(), "");
  lum12::DT_domainUpdateSessionState_struct state;
  state.elementId = state.domainRepairInstructionID = 7;
  state.installationTime = 11;
  rig.dm->eventDomainUpdateSessionState(state);
  state.installationTime = 12;
  rig.dm->eventDomainUpdateSessionState(state);
  state.downloadDataSize = 13;
  rig.dm->eventDomainUpdateSessionState(state);
  ASSERT_EQ(rig.dm->sessionStates().size(), 1u);
  EXPECT_EQ(rig.dm->sessionStates()[0].installationTime, 12u);
  EXPECT_EQ(rig.dm->sessionStates()[0].downloadDataSize, 13u);
}

TEST_F(DmServiceTest, PollCycle) {
  struct Row {
    const char* proves;
    uint32_t holder;
    PS state;
    const char* infoCall;  // besides the state poll
    FS field;
    uint32_t installationTime, holderAfter;
    bool polls;  // the worker is still there
  };
  const std::vector<Row> rows = {
      {"download figures", kDm, PS::downloading, "getDomainDownloadInfo", FS::downloading, 11, kDm,
       1},
      {"update figures", kDm, PS::updating, "getDomainUpdateInfo", FS::updating, 22, kDm, 1},
      {"no figures while failing", kDm, PS::failing, nullptr, FS::failing, 0, kDm, 1},
      {"free control is taken for the cycle", kNone, PS::verifying, nullptr, FS::verifying, 0,
       kNone, 1},
      {"the USB channel's update ends the worker", kUsb, PS::downloading, nullptr, {}, 0, kUsb, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    Rig rig(clock_);
    log_->clear();
    rig.lum->state = row.state;
    ASSERT_TRUE(row.holder == kNone || rig.requestExclusiveControl(row.holder, false));
    rig.dm->startPoll();
    ASSERT_TRUE(rig.cycle());
    ASSERT_TRUE(row.polls ? clock_.waitForSleepers(1)
                          : eventually([&] { return !rig.dm->polling(); }));
    EXPECT_EQ(rig.lum->count("getDomainUpdateSessionState"), row.polls ? 1u : 0u);
    EXPECT_EQ(rig.lum->count(row.infoCall ? row.infoCall : "none"), row.infoCall ? 1u : 0u);
    const auto states = rig.dm->sessionStates();
    ASSERT_EQ(states.size(), row.polls ? 1u : 0u);
    if (row.polls) {
      EXPECT_EQ(states[0].currentProcessingState, row.field);
      EXPECT_EQ(states[0].installationTime, row.installationTime);
    }
    EXPECT_EQ(rig.queryControl(), row.holderAfter);
    ASSERT_EQ(rig.dm->polling(), row.polls);
    // A stop is noticed within one step of the period: no further sleep begins.
    const size_t sleeps = clock_.sleeps().size();
    auto stopped = std::async(std::launch::async, [&] { rig.dm->stopPoll(); });
    ASSERT_TRUE(eventually([&] { return !row.polls || log_->contains("Stopping polling"); }));
    clock_.advance(100ms);
    ASSERT_EQ(stopped.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(clock_.sleeps().size(), sleeps);
  }
}

// A LUM that came back without channel 0's session would keep the LUM locked to it for good;
// an ordinary refusal keeps control.
TEST_F(DmServiceTest, WithoutABindingTheServiceIsNotOffered) {
  EXPECT_FALSE(Service("1").init());
  EXPECT_TRUE(log_->contains("Cannot offer service v12 on [1]"));
}

TEST_F(DmServiceTest, AReconnectedLumWithoutTheSessionGetsControlBack) {
  for (const bool reconnected : {true, false}) {
    SCOPED_TRACE(reconnected ? "after a reconnect" : "an ordinary poll");
    Rig rig(clock_);
    log_->clear();
    rig.lum->script["getDomainUpdateSessionState"] = {kIS};
    ASSERT_TRUE(rig.requestExclusiveControl(kDm, false));
    if (reconnected) {
      rig.dm->eventConnection(true);
    } else {
      rig.dm->startPoll();
    }
    ASSERT_TRUE(rig.cycle());
    ASSERT_TRUE(reconnected ? eventually([&] { return !rig.dm->polling(); })
                            : clock_.waitForSleepers(1));
    EXPECT_EQ(rig.queryControl(), reconnected ? kNone : kDm);
    EXPECT_EQ(log_->contains("control given back"), reconnected);
  }
}

TEST_F(DmServiceTest, AWorkerHangingInTheLumIsLeftRunningWithThePanicLine) {
  std::atomic<bool> hold{true}, held{false};
  Rig rig(clock_);
  rig.lum->onCall = [&](const std::string& op) {
    held = held || op == "getDomainUpdateSessionState";
    while (op == "getDomainUpdateSessionState" && hold)
      std::this_thread::sleep_for(1ms);
  };
  ASSERT_TRUE(rig.requestExclusiveControl(ACTIVE_DM, false));
  rig.dm->startPoll();
  ASSERT_TRUE(rig.cycle());
  ASSERT_TRUE(eventually([&] { return held.load(); }));
  // The LUM comes back while the worker hangs: a new worker replaces it after 12 s.
  auto restarted = std::async(std::launch::async, [&] { rig.dm->eventConnection(true); });
  for (int i = 0; i < Service::kStopWaitSteps; ++i) {
    ASSERT_TRUE(clock_.waitForSleepers(1));
    clock_.advance(50ms);
  }
  ASSERT_EQ(restarted.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(log_->contains("Polling thread still alive!"));
  EXPECT_TRUE(log_->contains("Cannot kill polling thread!! You may panic now..."));
  EXPECT_EQ(log_->count("Starting polling thread"), 2u);
  hold = false;
  EXPECT_TRUE(eventually([&] { return log_->contains("V12 Polling Loop stopped"); }));
}

// The thread receiving the LUM's answer completes a relayed answer; until then the service's LUM
// calls wait, the tester's and the poll worker's alike.
TEST_F(DmServiceTest, ThreadedRelayedAnswerCompletesOnTheAnsweringThread) {
  Rig rig(clock_);
  rig.lum->deferred = {"getDomainConfiguration"};
  rig.lum->configuration = "cfg";
  ASSERT_TRUE(rig.requestExclusiveControl(kDm, false));
  auto held = rig.dm->getDomainConfiguration("T", 7);
  EXPECT_FALSE(held.is_ready());
  auto next =
      std::async(std::launch::async, [&rig] { return status(rig.dm->startDomainUpdate("T", 7)); });
  rig.dm->startPoll();
  EXPECT_TRUE(rig.cycle());
  EXPECT_EQ(next.wait_for(50ms), std::future_status::timeout);
  EXPECT_EQ(rig.lum->count("startDomainUpdate") + rig.lum->count("getDomainUpdateSessionState"),
            0u);
  std::thread([&rig] { rig.lum->answerDeferred(); }).join();
  ASSERT_EQ(held.wait_for(10s), FutureStatus::kReady);
  EXPECT_EQ(held.get().value().configurationInformation, "cfg");
  EXPECT_EQ(status(held), kOk);
  ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(next.get(), kOk);
  EXPECT_TRUE(eventually([&] { return rig.lum->count("getDomainUpdateSessionState") == 1; }));
}

// The tester's create and the USB channel's request meet at the same instant: exactly one gets
// the LUM, the other its refusal, and each round ends with control free.
TEST_F(DmServiceTest, CreateAndUsbRequestRaceForControl) {
  Rig rig(clock_);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    const size_t created = rig.lum->count("createDomainUpdateSession");
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    auto dm = std::async(std::launch::async, [&rig, start] {
      start.wait();
      return status(rig.dm->createDomainUpdateSession("T", 7, "", {}, {}, {}, {}, {}));
    });
    auto usb = std::async(std::launch::async, [&rig, start] {
      start.wait();
      return rig.requestExclusiveControl(ACTIVE_USB, false);
    });
    go.set_value();
    const uint32_t dmStatus = dm.get();
    const bool usbWon = usb.get();
    ASSERT_NE(dmStatus == kOk, usbWon);
    if (usbWon) {
      EXPECT_EQ(dmStatus, kIS);
      EXPECT_EQ(rig.lum->count("createDomainUpdateSession"), created);
      EXPECT_TRUE(rig.relinquishControl(ACTIVE_USB));
    } else {
      EXPECT_EQ(rig.queryControl(), ACTIVE_DM);
      EXPECT_TRUE(runAdvancing(clock_, [&] { rig.dm->closeDomainUpdateSession("T", 7); }));
      EXPECT_FALSE(rig.dm->polling());
    }
    EXPECT_EQ(rig.queryControl(), ACTIVE_NONE);
    EXPECT_EQ(rig.record->getChannel(99), ACTIVE_NONE);
  }
}

}  // namespace
}  // namespace orv

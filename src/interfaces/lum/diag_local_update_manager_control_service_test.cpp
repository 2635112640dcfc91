#include "interfaces/lum/diag_local_update_manager_control_service.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/lum/diag_lum_control_client.h"
#include "logic/multiplexer.h"
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
using Client = DiagLUMControlClient::Client;
using Service = DiagLocalUpdateManagerControlService;
using PS = lum11::CM_CurrentProcessingState;
using FieldState =
    lum12::CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState;

constexpr uint32_t kNoAnswer = 0xFF;
constexpr uint32_t kOk = 0, kInvalidState = 1, kInternalError = 2;

// A LUM facade answering from a table (a return status per operation, or no answer), recording
// every call; it can hold the state poll until the test lets it go. Set the table up before
// threads start.
class FakeLum : public DiagLUMControlClient {
 public:
  FakeLum() : DiagLUMControlClient(std::make_unique<Client>()) {}

  std::map<std::string, uint32_t> status;
  PS state = PS::downloading;

  size_t count(const std::string& op) {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_[op];
  }
  void hold(bool on) {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_ = on;
    changed_.notify_all();
  }

  bool createDomainUpdateSession(const std::string&, uint16_t riid, const std::string&,
                                 const lum11::createDomainUpdateSession_manifestInformation&,
                                 const lum11::createDomainUpdateSession_cryptoParameters&,
                                 const lum11::DownloadSource&,
                                 const lum11::createDomainUpdateSession_diagnosticAddress&,
                                 lum11::CM_SessionType,
                                 Client::CreateDomainUpdateSessionOutput& out, bool) override {
    out.domainRepairInstructionID = riid;
    return reply("createDomainUpdateSession", out);
  }
  bool getDomainUpdateSessionState(const std::string&, uint16_t,
                                   Client::GetDomainUpdateSessionStateOutput& out, bool) override {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls_["held"];
    changed_.wait(lock, [this] { return !hold_; });
    lock.unlock();
    out.currentProcessingState = state;
    return reply("getDomainUpdateSessionState", out);
  }
  bool getDomainDownloadInfo(const std::string&, uint16_t, Client::GetDomainDownloadInfoOutput& out,
                             bool) override {
    out.readyForDownloadInfo = {11, 1000};
    return reply("getDomainDownloadInfo", out);
  }
  bool getDomainUpdateInfo(const std::string&, uint16_t, Client::GetDomainUpdateInfoOutput& out,
                           bool) override {
    out.readyForUpdateInfo = {22, 2000};
    return reply("getDomainUpdateInfo", out);
  }
  bool startDomainUpdate(const std::string&, uint16_t, Client::StartDomainUpdateOutput& out,
                         bool) override {
    return reply("startDomainUpdate", out);
  }
  bool cancelDomainUpdate(const std::string&, uint16_t, Client::CancelDomainUpdateOutput& out,
                          bool) override {
    return reply("cancelDomainUpdate", out);
  }
  bool closeDomainUpdateSession(const std::string&, uint16_t,
                                Client::CloseDomainUpdateSessionOutput& out, bool) override {
    return reply("closeDomainUpdateSession", out);
  }
  bool getServiceDescription(Client::GetServiceDescriptionOutput& out, bool) override {
    return reply("getServiceDescription", out);
  }

 private:
  template <typename Out>
  bool reply(const std::string& op, Out& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++calls_[op];
    const uint32_t value = status.count(op) ? status.at(op) : kOk;
    out.returnStatus = static_cast<lum11::CM_ReturnStatus>(value);
    return value != kNoAnswer;
  }
  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::map<std::string, size_t> calls_;
  bool hold_ = false;
};

class Mux : public Multiplexer {
 public:
  using Multiplexer::addChannel;
  using Multiplexer::Multiplexer;
  using Multiplexer::setLumClient;
};

// Waits in real time, bounded, until `condition` holds.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 10000 && !condition(); ++i) {
    std::this_thread::sleep_for(1ms);
  }
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

// The service as channel 0 of a real Multiplexer, the USB channel as channel 1.
struct Rig {
  explicit Rig(SimulatedClock& c, bool bind = true, bool withLum = true) : clock(c) {
    auto service = std::make_unique<Service>("1");
    // Any channel object serves as the USB channel: the tests call its slots with its value.
    auto channel = std::make_unique<Service>("2");
    dm = service.get();
    usb = channel.get();
    mux.addChannel(std::move(service));
    mux.addChannel(std::move(channel));
    if (withLum) {
      mux.setLumClient(lum);
    }
    if (bind) {
      mux.initBindings();
    }
  }
  ~Rig() {
    EXPECT_TRUE(runAdvancing(clock, [this] { dm->stopPoll(); }));
  }

  // Lets the worker sleep through one poll period; true once it has run a cycle.
  bool cycle() {
    for (int64_t t = 0; t < Service::kPollPeriodMs; t += Service::kPollStepMs) {
      if (!clock.waitForSleepers(1, 2s)) {
        return false;
      }
      clock.advance(100ms);
    }
    return true;
  }
  SimulatedClock& clock;
  TempDir dir;
  std::shared_ptr<Persistence> record =
      std::make_shared<Persistence>(dir.path(), "persistence.json");
  Mux mux{record};
  std::shared_ptr<FakeLum> lum = std::make_shared<FakeLum>();
  Service* dm = nullptr;
  ILumChannel* usb = nullptr;
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
    bool bound, withLum;
    uint32_t lumAnswer, expected;
    const char* logged;
    uint32_t holderAfter;
    bool lumCalled;
  };
  const char* kUsbPath = "getServiceDescription(): Active path (USB update in progress), unable";
  const std::vector<Row> rows = {
      {"create takes control and keeps it", kCreate, ACTIVE_NONE, true, true, kOk, kOk,
       "Starting polling thread", ACTIVE_DM, true},
      {"create while USB holds is refused", kCreate, ACTIVE_USB, true, true, kOk, kInvalidState,
       "Unable to get exlusive lock!", ACTIVE_USB, false},
      {"create without a facade gives control back", kCreate, ACTIVE_NONE, true, false, kOk,
       kInvalidState, "Unable to get LUM object!", ACTIVE_NONE, false},
      {"create without an answer gives control back", kCreate, ACTIVE_NONE, true, true, kNoAnswer,
       kInternalError, "LUM signals error!", ACTIVE_NONE, true},
      {"create refused by the LUM passes its status on", kCreate, ACTIVE_NONE, true, true,
       kInvalidState, kInvalidState, "LUM negative answer: (invalidState)", ACTIVE_NONE, true},
      {"a failed create keeps a session already held", kCreate, ACTIVE_DM, true, true,
       kInvalidState, kInvalidState, "LUM negative answer: (invalidState)", ACTIVE_DM, true},
      {"unbound slots answer at once", kCreate, ACTIVE_NONE, false, true, kOk, kInternalError,
       "Signals not bound yet!", ACTIVE_NONE, false},
      {"cancel takes free control for the call only", kCancel, ACTIVE_NONE, true, true, kOk, kOk,
       "Control released by [ACTIVE_DM]", ACTIVE_NONE, true},
      {"cancel while USB holds gets no LUM", kCancel, ACTIVE_USB, true, true, kOk, kInvalidState,
       "Unable to get LUM object!", ACTIVE_USB, false},
      {"a forwarded call leaves control alone", kStart, ACTIVE_DM, true, true, kOk, kOk,
       "<=", ACTIVE_DM, true},
      {"a forwarded call takes no free control", kStart, ACTIVE_NONE, true, true, kOk,
       kInvalidState, "Unable to get LUM object!", ACTIVE_NONE, false},
      {"a forwarded call without an answer", kStart, ACTIVE_DM, true, true, kNoAnswer,
       kInternalError, "LUM signals error!", ACTIVE_DM, true},
      {"a closed session gives control back", kClose, ACTIVE_DM, true, true, kOk, kOk,
       "stopPoll(): done", ACTIVE_NONE, true},
      {"a refused close keeps the session", kClose, ACTIVE_DM, true, true, kInvalidState,
       kInvalidState, "<=", ACTIVE_DM, true},
      {"description while USB holds", kDescription, ACTIVE_USB, true, true, kOk, kInvalidState,
       kUsbPath, ACTIVE_USB, false},
      {"description without an answer", kDescription, ACTIVE_DM, true, true, kNoAnswer,
       kInternalError, "getServiceDescription(): Active path (), LUM comm error!", ACTIVE_DM, true},
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
    Rig rig(clock_, row.bound, row.withLum);
    const char* op = ops[row.op].first;
    rig.lum->status[op] = row.lumAnswer;
    if (row.holder != ACTIVE_NONE) {
      ASSERT_TRUE(rig.mux.requestExclusiveControl(row.holder, false));
    }
    log_->clear();
    const uint32_t status = ops[row.op].second(*rig.dm);
    EXPECT_EQ(status, row.expected);
    EXPECT_TRUE(log_->contains(row.logged)) << row.logged;
    EXPECT_EQ(rig.mux.queryControl(), row.holderAfter);
    EXPECT_EQ(rig.lum->count(op), row.lumCalled ? 1u : 0u);
    EXPECT_EQ(rig.dm->polling(), row.op == kCreate && status == kOk);
  }
}

TEST_F(DmServiceTest, PollCycle) {
  struct Row {
    const char* proves;
    uint32_t holder;
    PS state;
    const char* infoCall;  // besides the state poll
    FieldState field;
    uint32_t installationTime, holderAfter;
    bool polls;  // the worker is still there
  };
  const std::vector<Row> rows = {
      {"download figures while downloading", ACTIVE_DM, PS::downloading, "getDomainDownloadInfo",
       FieldState::downloading, 11, ACTIVE_DM, true},
      {"update figures while updating", ACTIVE_DM, PS::updating, "getDomainUpdateInfo",
       FieldState::updating, 22, ACTIVE_DM, true},
      {"no figures while failing", ACTIVE_DM, PS::failing, nullptr, FieldState::failing, 0,
       ACTIVE_DM, true},
      {"free control is taken for the cycle and given back", ACTIVE_NONE, PS::verifying, nullptr,
       FieldState::verifying, 0, ACTIVE_NONE, true},
      {"the USB channel's update ends the worker untouched", ACTIVE_USB, PS::downloading, nullptr,
       FieldState::downloading, 0, ACTIVE_USB, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    Rig rig(clock_);
    rig.lum->state = row.state;
    if (row.holder != ACTIVE_NONE) {
      ASSERT_TRUE(rig.mux.requestExclusiveControl(row.holder, false));
    }
    rig.dm->startPoll();
    ASSERT_TRUE(rig.cycle());
    // The cycle is over once the worker sleeps again or has gone.
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
    EXPECT_EQ(rig.mux.queryControl(), row.holderAfter);
    EXPECT_EQ(rig.dm->polling(), row.polls);
  }
}

TEST_F(DmServiceTest, AStopIsNoticedWithinOneStep) {
  Rig rig(clock_);
  rig.dm->startPoll();
  for (int i = 0; i < 7; ++i) {
    ASSERT_TRUE(clock_.waitForSleepers(1));
    clock_.advance(100ms);
  }
  ASSERT_TRUE(clock_.waitForSleepers(1));
  const size_t sleeps = clock_.sleeps().size();
  auto stopped = std::async(std::launch::async, [&] { rig.dm->stopPoll(); });
  ASSERT_TRUE(eventually([&] { return log_->contains("stopPoll(): Stopping polling thread..."); }));
  clock_.advance(100ms);
  ASSERT_EQ(stopped.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(clock_.sleeps().size(), sleeps);  // no further sleep after the stop
  EXPECT_TRUE(log_->contains("stopPoll(): Stopped polling thread!"));
}

TEST_F(DmServiceTest, AWorkerHangingInTheLumIsLeftRunningWithThePanicLine) {
  Rig rig(clock_);
  ASSERT_TRUE(rig.mux.requestExclusiveControl(ACTIVE_DM, false));
  rig.lum->hold(true);
  rig.dm->startPoll();
  ASSERT_TRUE(rig.cycle());
  ASSERT_TRUE(eventually([&] { return rig.lum->count("held") == 1; }));
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
  EXPECT_TRUE(rig.dm->polling());
  rig.lum->hold(false);
  EXPECT_TRUE(eventually([&] { return log_->contains("V12 Polling Loop stopped"); }));
}

// The tester's create and the USB channel's request meet at the same instant: exactly one gets
// the LUM, the other its refusal, and each round ends with control free.
TEST_F(DmServiceTest, CreateAndUsbRequestRaceForControl) {
  Rig rig(clock_);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    const size_t created = rig.lum->count("createDomainUpdateSession");
    std::atomic<int> ready{0};
    auto atOnce = [&ready] {
      ready.fetch_add(1);
      while (ready.load() < 2) {
        std::this_thread::yield();
      }
    };
    uint32_t dmStatus = kNoAnswer;
    std::thread dm([&] {
      pthread_setname_np(pthread_self(), "race-dm");
      atOnce();
      dmStatus = status(rig.dm->createDomainUpdateSession("T", 7, "", {}, {}, {}, {}, {}));
    });
    atOnce();
    const bool usbWon = rig.usb->signalRequestExclusiveControl(ACTIVE_USB);
    dm.join();
    ASSERT_NE(dmStatus == kOk, usbWon);
    if (usbWon) {
      EXPECT_EQ(dmStatus, kInvalidState);
      EXPECT_EQ(rig.lum->count("createDomainUpdateSession"), created);
      EXPECT_FALSE(rig.dm->polling());
      EXPECT_TRUE(rig.usb->signalRelinquish(ACTIVE_USB));
    } else {
      EXPECT_EQ(rig.mux.queryControl(), ACTIVE_DM);
      EXPECT_TRUE(rig.dm->polling());
      EXPECT_TRUE(runAdvancing(clock_, [&] { rig.dm->closeDomainUpdateSession("T", 7); }));
      EXPECT_FALSE(rig.dm->polling());
    }
    EXPECT_EQ(rig.mux.queryControl(), ACTIVE_NONE);
    EXPECT_EQ(rig.record->getChannel(99), ACTIVE_NONE);
  }
}

}  // namespace
}  // namespace orv

#include "logic/multiplexer.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "interfaces/lum/diag_lum_control_client.h"
#include "logic/testing/fake_channels.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"
#include "minfw/testing/temp_dir.h"

namespace orv {
namespace {

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using kel::vxp3::minfw::testing::TempDir;

using testing::FakeChannel;
using testing::FakeMesswert;
using testing::FakeRoutine;

// Exposes the wiring seams and counts intercepted events.
class TestMultiplexer : public Multiplexer {
 public:
  using Multiplexer::addChannel, Multiplexer::channel, Multiplexer::setLumClient,
      Multiplexer::setMesswertClient, Multiplexer::setRoutineClient;
  using Multiplexer::Multiplexer;
  void eventDomainErrorNotification(uint16_t riid, uint32_t errorCode) override {
    ++interceptedErrors;
    Multiplexer::eventDomainErrorNotification(riid, errorCode);
  }
  int interceptedErrors = 0;
};

std::shared_ptr<DiagLUMControlClient> makeLumClient() {
  return std::make_shared<DiagLUMControlClient>(
      std::make_unique<DiagLocalUpdateManagerControlClient>());
}

class MultiplexerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Dates and times are local; pin the zone so the expected texts hold everywhere.
    setenv("TZ", "UTC", 1);
    tzset();
  }
  // A multiplexer with two fake channels; dm/usb point into it.
  std::unique_ptr<TestMultiplexer> withChannels() {
    auto mux = std::make_unique<TestMultiplexer>(persistence_);
    mux->addChannel(std::unique_ptr<FakeChannel>(dm_ = new FakeChannel));
    mux->addChannel(std::unique_ptr<FakeChannel>(usb_ = new FakeChannel));
    return mux;
  }
  // Fully wired: channels, LUM client, both diagnosis clients, bindings made.
  std::unique_ptr<TestMultiplexer> wired() {
    auto mux = withChannels();
    lum_ = makeLumClient();
    mux->setLumClient(lum_);
    mux->setRoutineClient(std::unique_ptr<FakeRoutine>(routine_ = new FakeRoutine));
    mux->setMesswertClient(std::unique_ptr<FakeMesswert>(messwert_ = new FakeMesswert));
    EXPECT_TRUE(mux->initBindings());
    return mux;
  }
  TempDir dir_;
  std::shared_ptr<Persistence> persistence_ =
      std::make_shared<Persistence>(dir_.path(), "persistence.json");
  ScopedLogCapture log_;
  FakeChannel* dm_ = nullptr;
  FakeChannel* usb_ = nullptr;
  FakeRoutine* routine_ = nullptr;
  FakeMesswert* messwert_ = nullptr;
  std::shared_ptr<DiagLUMControlClient> lum_;
};

constexpr uint32_t kAbsent = 99;  // default for reading "channel" when the key is missing

TEST_F(MultiplexerTest, GrantAndReleaseRules) {
  struct Row {
    const char* proves;
    // Steps: g (grant), t (temporary grant), r (release) or w (write the record), the channel (0
    // DM, 1 USB, 2 none, 3 no channel at all) and the expected result (+ or -).
    const char* steps;
    uint32_t holder;
    uint32_t recorded;  // "channel" in the record, kAbsent when never written
    const char* logged;
  };
  const std::vector<Row> rows = {
      {"a free LUM goes to the first caller, persisted", "g1+", ACTIVE_USB, ACTIVE_USB,
       "Control is now [ACTIVE_USB]"},
      {"a second grant to the holder succeeds", "g0+ g0+", ACTIVE_DM, ACTIVE_DM,
       "Control is already [ACTIVE_DM]"},
      {"no pre-emption: the other channel is refused while control is held", "g1+ g0- t0-",
       ACTIVE_USB, ACTIVE_USB, "Control is [ACTIVE_USB]"},
      {"a release by the non-holder fails and keeps the holder", "g0+ r1-", ACTIVE_DM, ACTIVE_DM,
       "Control belongs to [ACTIVE_DM], not [ACTIVE_USB]"},
      {"after the holder's release the other channel wins", "g1+ r1+ g0+", ACTIVE_DM, ACTIVE_DM,
       "Control is now [ACTIVE_DM]"},
      {"a temporary grant is held but not written", "t1+", ACTIVE_USB, kAbsent,
       "Control istemporary now [ACTIVE_USB]"},
      {"a temporary grant keeps the record's last real holder", "g0+ r0+ t1+", ACTIVE_USB,
       ACTIVE_NONE, "Control istemporary now [ACTIVE_USB]"},
      {"a value that names no channel never gets control", "g3- g2-", ACTIVE_NONE, kAbsent,
       "Invalid channel [!!UNDEFINED!!] (3)!"},
      {"a record naming no channel frees control on restart", "g1+ w3+", ACTIVE_USB, 3,
       "Control is now [ACTIVE_USB]"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    TempDir dir;
    auto persistence = std::make_shared<Persistence>(dir.path(), "persistence.json");
    TestMultiplexer mux(persistence);
    auto lum = makeLumClient();
    mux.setLumClient(lum);
    log_->clear();
    for (const char* step = row.steps; *step != '\0'; step += step[3] == ' ' ? 4 : 3) {
      const uint32_t channel = static_cast<uint32_t>(step[1] - '0');
      if (step[0] == 'w') {
        persistence->setChannel(channel);
        continue;
      }
      const bool result = step[0] == 'r' ? mux.relinquishControl(channel)
                                         : mux.requestExclusiveControl(channel, step[0] == 't');
      EXPECT_EQ(result, step[2] == '+') << step;
    }
    EXPECT_EQ(mux.queryControl(), row.holder);
    EXPECT_EQ(persistence->getChannel(kAbsent), row.recorded);
    EXPECT_TRUE(log_->contains(row.logged)) << row.logged;
    // The LUM client goes to the holder only; ACTIVE_NONE itself never gets it.
    for (uint32_t asker : {ACTIVE_DM, ACTIVE_USB, ACTIVE_NONE}) {
      const bool holds = asker == row.holder && asker != ACTIVE_NONE;
      EXPECT_EQ(mux.requestInterface(asker), holds ? lum : nullptr) << asker;
      EXPECT_EQ(log_->contains(cat("[", channelName(asker), "] is not controlling!")), !holds);
    }
    // A restart keeps only a recorded real holder, and as a real one: the other channel stays out.
    const bool real = row.recorded == ACTIVE_DM || row.recorded == ACTIVE_USB;
    const uint32_t restored = real ? row.recorded : ACTIVE_NONE;
    log_->clear();
    Multiplexer after(std::make_shared<Persistence>(dir.path(), "persistence.json"));
    EXPECT_TRUE(log_->contains(
        cat("ActiveChannel is [", channelName(row.recorded == kAbsent ? ACTIVE_NONE : row.recorded),
            "]")));
    EXPECT_EQ(after.queryControl(), restored);
    EXPECT_EQ(after.requestExclusiveControl(restored == ACTIVE_DM ? ACTIVE_USB : ACTIVE_DM, false),
              !real);
  }
  try {
    Multiplexer mux(nullptr);
    ADD_FAILURE() << "constructed without a record";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Multiplexer received null persistence object!");
  }
}

// Every LUM event, through the client's slots and the virtual operations, reaches the holder only.
TEST_F(MultiplexerTest, EventsReachOnlyTheHolder) {
  const std::vector<std::string> all = {
      "connection(false)", "readyForDownload(2)", "readyForUpdate(3)",
      "finished(1)",       "offTime(4,30)",       "debug(6,id,text)",
      "resolve(1,4)",      "error(5,77)",         "internal(1)"};
  for (uint32_t holder : {ACTIVE_DM, ACTIVE_USB, ACTIVE_NONE}) {
    SCOPED_TRACE(channelName(holder));
    auto mux = wired();  // temporary grants leave the record as it was
    routine_->connects = false;
    log_->clear();
    EXPECT_TRUE(mux->initInterfaces());
    EXPECT_TRUE(log_->contains("LUM init [True]"));
    EXPECT_TRUE(log_->contains("DiagnosisRoutineCtrl init [False]"));
    EXPECT_TRUE(log_->contains("DiagnosisMesswert init [True]"));
    if (holder != ACTIVE_NONE) {
      ASSERT_TRUE(mux->requestExclusiveControl(holder, true));
    }
    log_->clear();
    DiagLocalUpdateManagerControlClient& client = lum_->client();
    lum11::DT_uuid id{};
    id[15] = 4;
    client.signalEventConnection(false);
    client.signalEventDomainReadyForDownloadNotification(2, lum11::ReadyForDownloadInfo{});
    client.signalEventDomainReadyForUpdateNotification(3, lum11::ReadyForUpdateInfo{});
    client.signalEventDomainUpdateFinishedNotification(1);
    client.signalEventDomainOffTimeNotification(4, 30);
    client.signalEventDebugMessageNotification(6, "id", "text");
    client.signalEventResolveUpdateURLRequest({"one"}, lum11::CM_FileType{}, id);
    client.signalEventDomainErrorNotification(5, 77);
    lum_->signalEventInternal(1);
    EXPECT_EQ(dm_->calls(), holder == ACTIVE_DM ? all : std::vector<std::string>{});
    EXPECT_EQ(usb_->calls(), holder == ACTIVE_USB ? all : std::vector<std::string>{});
    EXPECT_EQ(mux->interceptedErrors, 1);
    const bool held = holder != ACTIVE_NONE;
    EXPECT_EQ(log_->count(cat("Relay, active channel [", channelName(holder), "]")),
              held ? 9u : 0u);
    EXPECT_EQ(log_->count("No active channel!"), held ? 0u : 9u);
  }
  Multiplexer bare(persistence_);  // no channels added
  ASSERT_TRUE(bare.requestExclusiveControl(ACTIVE_USB, true));
  bare.eventDomainErrorNotification(1, 2);
  EXPECT_TRUE(log_->contains("No interface for active channel [ACTIVE_USB]!"));
}

TEST_F(MultiplexerTest, ConcurrentGrantsHaveExactlyOneWinner) {
  constexpr int kRounds = 20;
  constexpr int kThreadsPerChannel = 4;
  for (int round = 0; round < kRounds; ++round) {
    TempDir dir;
    auto persistence = std::make_shared<Persistence>(dir.path(), "persistence.json");
    Multiplexer mux(persistence);
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<int> wins[2] = {{0}, {0}};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2 * kThreadsPerChannel; ++i) {
      const uint32_t channel = i % 2 == 0 ? ACTIVE_DM : ACTIVE_USB;
      threads.emplace_back([&, channel] {
        pthread_setname_np(pthread_self(), "mux-grant");
        ready.fetch_add(1);
        while (!go.load())
          std::this_thread::yield();
        for (int attempt = 0; attempt < 3; ++attempt) {
          if (mux.requestExclusiveControl(channel, false))
            wins[channel].fetch_add(1);
          mux.queryControl();
        }
      });
    }
    while (ready.load() < 2 * kThreadsPerChannel)
      std::this_thread::yield();
    go.store(true);
    for (std::thread& thread : threads)
      thread.join();
    const uint32_t winner = mux.queryControl();
    ASSERT_NE(winner, ACTIVE_NONE);
    const uint32_t loser = winner == ACTIVE_DM ? ACTIVE_USB : ACTIVE_DM;
    EXPECT_EQ(wins[loser].load(), 0) << "round " << round;
    EXPECT_EQ(wins[winner].load(), 3 * kThreadsPerChannel) << "round " << round;
    EXPECT_EQ(persistence->getChannel(kAbsent), winner) << "round " << round;
    EXPECT_EQ(log_->count("Control is now ["), static_cast<std::size_t>(round + 1));
  }
}

TEST_F(MultiplexerTest, TimestampsFollowTheWallClock) {
  SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
  ScopedClock scoped(clock);
  Multiplexer mux(persistence_);
  persistence_->setEndDate("02.02.2025");
  persistence_->setEndTime("01:02:03");
  clock.advance(std::chrono::hours(24 * 40 + 5) + std::chrono::minutes(6) +
                std::chrono::seconds(7));
  ASSERT_TRUE(mux.setUpdateTimestampStart());
  EXPECT_EQ(persistence_->getStartDate(), "10.02.2026");
  EXPECT_EQ(persistence_->getStartTime(), "05:06:07");
  EXPECT_EQ(persistence_->getEndDate(), "--.--.----");  // an old end must not survive a start
  EXPECT_EQ(persistence_->getEndTime(), "--:--:--");
  clock.advance(std::chrono::hours(20));
  ASSERT_TRUE(mux.setUpdateTimestampEnd());
  EXPECT_EQ(persistence_->getEndDate(), "11.02.2026");
  EXPECT_EQ(persistence_->getEndTime(), "01:06:07");
  EXPECT_EQ(persistence_->getStartTime(), "05:06:07");
  ASSERT_TRUE(mux.setUpdateType(ORV_USB_UPDATETYPE_USB));
  EXPECT_TRUE(log_->contains("UpdateType=0x4"));
  ASSERT_TRUE(mux.setErrorCode(618));
  log_->clear();
  const diagTimestampType stamps = mux.diagnoseTimestamps();
  EXPECT_EQ(stamps.dtType, ORV_USB_UPDATETYPE_USB);
  EXPECT_EQ(stamps.dtStartDate, "10.02.2026");
  EXPECT_EQ(stamps.dtEndTime, "01:06:07");
  EXPECT_EQ(stamps.dtErr, 618);
  EXPECT_EQ(log_->messages(),
            std::vector<std::string>{
                "dtType [4], dtStartDate [10.02.2026], dtStartTime [05:06:07], dtEndDate "
                "[11.02.2026], dtEndTime [01:06:07], dtErr [618], dtErrTxt [update medium not "
                "available]"});
}

TEST_F(MultiplexerTest, DiagnosticStart) {
  struct Row {
    const char* proves;
    uint32_t holder;
    bool withLogic, logicAccepts, expected;
    const char* logged;
    const char* startDate;
  };
  const std::vector<Row> rows = {
      {"a held LUM refuses the start before Logic is asked", ACTIVE_DM, true, true, false,
       "Cannot start diag update!", "01.01.2026"},
      {"a missing USB channel refuses the start", ACTIVE_NONE, false, true, false,
       "Weird, logic is null ?!?", "01.01.2026"},
      {"Logic's refusal is the result and stamps nothing", ACTIVE_NONE, true, false, false, nullptr,
       "01.01.2026"},
      {"an accepted start marks the start as requested", ACTIVE_NONE, true, true, true, nullptr,
       "**.**.****"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    persistence_->setStartDate("01.01.2026");
    persistence_->setEndDate("02.01.2026");
    auto mux = std::make_unique<TestMultiplexer>(persistence_);
    if (row.withLogic) {
      mux = withChannels();
      usb_->acceptDiagStart = row.logicAccepts;
    }
    if (row.holder != ACTIVE_NONE) {
      ASSERT_TRUE(mux->requestExclusiveControl(row.holder, true));
    }
    log_->clear();
    EXPECT_EQ(mux->diagnoseStartUpdate("ORDER-7", 1), row.expected);
    if (row.logged != nullptr) {
      EXPECT_TRUE(log_->contains(row.logged));
    }
    if (row.withLogic) {  // asked only while the LUM is free
      EXPECT_EQ(usb_->calls(), std::vector<std::string>(row.holder == ACTIVE_NONE,
                                                        "diagTriggerStartUpdate(ORDER-7,1)"));
    }
    EXPECT_EQ(persistence_->getStartDate(), row.startDate);
    if (row.expected) {
      EXPECT_EQ(persistence_->getStartTime(), "**:**:**");
      EXPECT_EQ(persistence_->getEndDate(), "--.--.----");
      EXPECT_EQ(persistence_->getEndTime(), "--:--:--");
    } else {
      EXPECT_EQ(persistence_->getEndDate(), "02.01.2026");
    }
  }
}

// Binding stops at the first missing piece, in this order, and binds no channel then.
TEST_F(MultiplexerTest, BindingChecksInOrder) {
  const std::vector<std::pair<std::string, const char*>> rows = {
      {"usb channel", "Not all interfaces initialized!"},  // channels are checked first
      {"lum", "LUM object not defined!"},
      {"messwert", "diagMesswert not defined!"},
      {"routine", "diagRoutineCtrl not defined!"},
      {"usb entry", "Input signal for [1] is undefined!"},  // an empty place
      {"dm entry", "Input signal for [0] is undefined!"},   // checked before the USB channel
      {"", nullptr}};
  for (const auto& [missing, logged] : rows) {
    SCOPED_TRACE(missing);
    TestMultiplexer mux(persistence_);
    mux.addChannel(std::unique_ptr<ILumChannel>(missing == "dm entry" ? nullptr : new FakeChannel));
    if (missing != "usb channel")
      mux.addChannel(
          std::unique_ptr<ILumChannel>(missing == "usb entry" ? nullptr : new FakeChannel));
    if (missing != "lum")
      mux.setLumClient(makeLumClient());
    if (missing != "messwert")
      mux.setMesswertClient(std::make_unique<FakeMesswert>());
    if (missing != "routine")
      mux.setRoutineClient(std::make_unique<FakeRoutine>());
    log_->clear();
    EXPECT_EQ(mux.initBindings(), missing.empty());
    if (logged != nullptr) {
      EXPECT_EQ(log_->messages(), std::vector<std::string>{logged});
    }
    if (ILumChannel* usb = mux.channel(ACTIVE_USB)) {
      EXPECT_EQ(static_cast<bool>(usb->signalQueryControl), missing.empty());
    }
  }
}

TEST_F(MultiplexerTest, BoundSlotsReachTheOperationsWithTheChannelsOwnValue) {
  auto mux = wired();
  ILumChannel& dm = *dm_;
  ILumChannel& usb = *usb_;
  // A real grant to USB, seen by both channels and written; only USB gets the LUM.
  ASSERT_TRUE(usb.signalRequestExclusiveControl(ACTIVE_USB));
  EXPECT_EQ(dm.signalQueryControl(), ACTIVE_USB);
  EXPECT_EQ(persistence_->getChannel(kAbsent), ACTIVE_USB);
  EXPECT_EQ(usb.signalRequestInterface(ACTIVE_USB), lum_);
  EXPECT_FALSE(dm.signalRelinquish(ACTIVE_DM));
  ASSERT_TRUE(usb.signalRelinquish(ACTIVE_USB));
  // A temporary grant, not written.
  ASSERT_TRUE(dm.signalRequestTemporaryControl(ACTIVE_DM));
  EXPECT_EQ(usb.signalQueryControl(), ACTIVE_DM);
  EXPECT_EQ(persistence_->getChannel(kAbsent), ACTIVE_NONE);
  EXPECT_FALSE(dm.signalQueryAlive());  // the LUM has not been found
  // Record operations and timestamps.
  ASSERT_TRUE(usb.signalSetUpdateType(ORV_USB_UPDATETYPE_DIAG));
  EXPECT_EQ(dm.signalGetUpdateType(), ORV_USB_UPDATETYPE_DIAG);
  ASSERT_TRUE(dm.signalSetErrorCode(613));
  ASSERT_TRUE(usb.signalSetUpdateTimestampStart());
  EXPECT_NE(persistence_->getStartDate(), "--.--.----");
  ASSERT_TRUE(dm.signalSetUpdateTimestampEnd());
  EXPECT_NE(persistence_->getEndTime(), "--:--:--");
  // The diagnosis clients' slots.
  EXPECT_EQ(messwert_->signalDiagnoseTimestamps().dtErr, 613);
  const diagNewStatusType state = messwert_->signalDiagnoseUpdateState();
  EXPECT_EQ(state.channel, ACTIVE_DM);
  EXPECT_EQ(state.updateType, ORV_USB_UPDATETYPE_DIAG);
  EXPECT_FALSE(routine_->signalLogicDiagnoseStartUpdate("X", 0));  // the DM holds control
  ASSERT_TRUE(dm.signalRelinquish(ACTIVE_DM));
  EXPECT_TRUE(routine_->signalLogicDiagnoseStartUpdate("X", 0));
  EXPECT_EQ(usb_->calls(), std::vector<std::string>{"diagTriggerStartUpdate(X,0)"});
  EXPECT_TRUE(dm_->calls().empty());
}

}  // namespace
}  // namespace orv

#include "logic/logic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "interfaces/lum/testing/fake_lum.h"
#include "logic/base64.h"
#include "logic/persistence.h"
#include "logic/testing/http_server.h"
#include "minfw/json.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"
#include "minfw/testing/temp_dir.h"

namespace orv {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::LogRecord;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using kel::vxp3::minfw::testing::TempDir;
using PS = lum11::CM_CurrentProcessingState;

using lum::testing::FakeLum;
constexpr uint32_t kNoAnswer = FakeLum::kNoAnswer;

// Plays the head unit: records what it is told, answers nothing by itself.
class RecordingHmi : public IHmiService {
 public:
  std::string seen;  // every call, each followed by a blank
  bool init(std::shared_ptr<Persistence>) override { return true; }
  void hmiSetState(int state, std::string description) override {
    seen += "state:" + std::to_string(state) + ":" + description + " ";
  }
  void hmiSetProgress(uint32_t percent) override {
    seen += "progress:" + std::to_string(percent) + " ";
  }
  void hmiSetErrorCode(uint32_t code) override { seen += "error:" + std::to_string(code) + " "; }
  void hmiDelete() override { seen += "hmiDelete "; }
  void usbDelete() override { seen += "usbDelete "; }
  void hmiSetPackageName(const std::string&) override {}
  void hmiSetDownloadInfo(int64_t, uint32_t) override {}
  void hmiSetUpdateInfo(int64_t, uint32_t) override {}
};

// The control arbitration as the Multiplexer offers it, reduced to what the channel sees.
struct Arbiter {
  uint32_t holder = ACTIVE_NONE;
  uint32_t updateType = ORV_USB_UPDATETYPE_NONE;
  bool alive = true;
  std::vector<std::string> stamps;  // "start" / "end", in order
  std::shared_ptr<FakeLum> lum = std::make_shared<FakeLum>();
};

// Logic whose pool is a queue the test runs task by task: queued order shows, every run repeats.
class TestLogic : public Logic {
 public:
  TestLogic(std::shared_ptr<Persistence> persistence, Arbiter& arbiter)
      : Logic(std::move(persistence)) {
    signalRequestExclusiveControl = [&arbiter](uint32_t channel) {
      const bool free = arbiter.holder == ACTIVE_NONE || arbiter.holder == channel;
      arbiter.holder = free ? channel : arbiter.holder;
      return free;
    };
    signalRequestInterface = [&arbiter](uint32_t channel) {
      return arbiter.holder == channel ? std::static_pointer_cast<DiagLUMControlClient>(arbiter.lum)
                                       : nullptr;
    };
    signalRelinquish = [&arbiter](uint32_t channel) {
      const bool held = arbiter.holder == channel;
      arbiter.holder = held ? ACTIVE_NONE : arbiter.holder;
      return held;
    };
    signalQueryControl = [&arbiter] { return arbiter.holder; };
    signalQueryAlive = [&arbiter] { return arbiter.alive; };
    signalSetUpdateType = [&arbiter](uint32_t type) { return arbiter.updateType = type, true; };
    signalGetUpdateType = [&arbiter] { return arbiter.updateType; };
    signalSetUpdateTimestampStart = [&arbiter] { return arbiter.stamps.push_back("start"), true; };
    signalSetUpdateTimestampEnd = [&arbiter] { return arbiter.stamps.push_back("end"), true; };
  }
  using Logic::seqCloseDomainUpdate, Logic::seqGetStatus, Logic::seqHmiStateChanged,
      Logic::seqInstallationStart, Logic::seqSendStartDomainUpdate,
      Logic::seqSendStartDomainUpdateDownload, Logic::setStateHMI, Logic::setStateLUM;
  void enqueue(std::function<void()> task) override { tasks.push_back(std::move(task)); }
  // Runs queued tasks in order; a poll chain re-queues itself, hence the limit.
  void run(size_t limit = 200) {
    for (size_t i = 0; i < limit && !tasks.empty(); ++i)
      runOne();
  }
  void runOne() {
    std::function<void()> task = std::move(tasks.front());
    tasks.pop_front();
    task();
  }
  RecordingHmi* hmi = nullptr;
  std::deque<std::function<void()>> tasks;

 protected:
  std::unique_ptr<IHmiService> createHmiService() override {
    auto service = std::make_unique<RecordingHmi>();
    hmi = service.get();
    return service;
  }
};

// The steps the sequence tables start.
const auto startDownload = [](TestLogic& l) { l.seqSendStartDomainUpdateDownload(); };
const auto startUpdate = [](TestLogic& l) { l.seqSendStartDomainUpdate(); };
const auto pollStatus = [](TestLogic& l) { l.seqGetStatus(); };

// A DEBUG container whose cipher text is `payload`, padded to exactly `size` bytes when given.
std::string debugManifest(const std::string& payload, size_t size = 0) {
  const std::string head = base64UrlEncode(R"({"alg":"DEBUG","enc":"DEBUG"})") + ".";
  const std::string tail =
      "." + base64UrlEncode("iv") + "." + base64UrlEncode(payload) + "." + base64UrlEncode("t");
  std::string key = base64UrlEncode("k");
  if (size > head.size() + key.size() + tail.size())
    key.append(size - head.size() - key.size() - tail.size(), 'A');
  return head + key + tail;
}

class LogicTest : public ::testing::Test {
 protected:
  LogicTest() : clock_(SimulatedClock::Mode::kAutoAdvance), scoped_(clock_) {
    medium_.put("/medium/NodboxUpdateMedium.json",
                R"({"train": "T1", "order": "ORDER-1", "manifests": ["m1.json"],)"
                R"( "diagAddresses": ["6657"], "keyManifest": "keys/KeyManifest.mose"})");
    medium_.put("/medium/keys/KeyManifest.mose", debugManifest(kPayload));
  }
  static constexpr const char* kPayload =
      R"({"EncryptedFiles": [)"
      R"({"File": "/data/pkg.bin", "CryptoParameters": [{"Name": "Key", "Value": "k1"},)"
      R"( {"Name": "IV", "Value": "iv1"}, {"Name": "Algorithm", "Value": "DEBUG"}]},)"
      R"({"File": "/data/bad.bin", "CryptoParameters": [{"Name": "Key", "Value": "k2"}]}]})";
  std::string location() const { return medium_.base() + "/medium"; }
  // A Logic without a record whose analysis of the medium has run: the medium's fields are
  // known, what the head unit saw so far is forgotten.
  std::unique_ptr<TestLogic> offered() {
    std::unique_ptr<TestLogic> logic = make(false);
    offer(*logic);
    logic->hmi->seen.clear();
    return logic;
  }
  // Presents the medium and runs the analysis: the offer stands afterwards.
  void offer(TestLogic& logic) {
    logic.inputUsbInserted(location());
    logic.run(4);
    ASSERT_EQ(logic.getStateHMI(), eINSTALLATIONAVAILABLE);
  }
  // A Logic on a fresh arbiter and record (or none), initialised, with its start-up tasks run.
  std::unique_ptr<TestLogic> make(bool withRecord = true) {
    arbiter_ = Arbiter{};
    if (withRecord) {
      dir_ = std::make_unique<TempDir>();
      record_ = std::make_shared<Persistence>(dir_->path(), "persistence.json");
    }
    auto logic = std::make_unique<TestLogic>(record_, arbiter_);
    logic->init();
    logic->run();
    logic->hmi->seen.clear();
    return logic;
  }
  // A Logic without a record where an update stands after its session was created.
  std::unique_ptr<TestLogic> installed(uint32_t lumState) {
    std::unique_ptr<TestLogic> logic = make(false);
    installing(*logic, lumState);
    return logic;
  }
  // Puts `logic` where an update stands after its session was created.
  void installing(TestLogic& logic, uint32_t lumState) {
    arbiter_.holder = ACTIVE_USB;
    logic.setStateHMI(eINSTALLING);
    logic.setStateLUM(lumState);
  }
  orv::testing::HttpServer medium_;
  SimulatedClock clock_;
  ScopedClock scoped_;
  ScopedLogCapture log_;
  Arbiter arbiter_;
  std::unique_ptr<TempDir> dir_;
  std::shared_ptr<Persistence> record_;
};

TEST_F(LogicTest, HmiAnswerTransitionTableOverEveryPair) {
  struct Effect {
    uint32_t current, next;
    const char* proves;
    uint32_t stateAfter;
    const char* hmiSeen;
    bool sessionCreated;
  };
  const char* forgets = "hmiDelete usbDelete ";
  const std::vector<Effect> effects = {
      {eINSTALLING, eINSTALLATIONCONFIRMED, "a late confirmation only corrects the display",
       eINSTALLING, "state:9: ", false},
      {eINSTALLATIONREJECTED, eINSTALLATIONREJECTEDCONFIRMED, "a rejection forgets the medium",
       eINVALID, forgets, false},
      {eINSTALLATIONAVAILABLE, eINSTALLATIONCONFIRMED, "a confirmed offer starts the session",
       eINSTALLING, "progress:0 ", true},
      {eINSTALLATIONAVAILABLE, eINSTALLATIONCANCELLED, "a declined offer forgets the medium",
       eINVALID, forgets, false},
      {eINSTALLATIONFAILED, eINSTALLATIONFAILEDCONFIRMED, "an acknowledged failure closes",
       eINVALID, forgets, false},
      {eINSTALLATIONFINISHED, eINSTALLATIONFINISHEDCONFIRMED, "an acknowledged success closes",
       eINVALID, forgets, false}};
  for (uint32_t current = 0; current <= eINVALID; ++current) {
    for (uint32_t next = 0; next <= eINVALID + 1; ++next) {
      const Effect* effect = nullptr;
      for (const Effect& candidate : effects) {
        if (candidate.current == current && candidate.next == next)
          effect = &candidate;
      }
      SCOPED_TRACE(std::string(hmiStateName(current)) + " -> " + hmiStateName(next) + ": " +
                   (effect ? effect->proves : "ignored"));
      std::unique_ptr<TestLogic> logic = offered();
      logic->setStateHMI(current);
      log_->clear();
      logic->seqHmiStateChanged(static_cast<int>(next));
      logic->run(3);
      EXPECT_EQ(logic->getStateHMI(), effect ? effect->stateAfter : current);
      EXPECT_EQ(logic->hmi->seen, effect ? effect->hmiSeen : "");
      EXPECT_EQ(arbiter_.lum->count("createDomainUpdateSession"),
                effect && effect->sessionCreated ? 1u : 0u);
      EXPECT_TRUE(log_->contains(std::string("crtState=[") + hmiStateName(current) +
                                 "], newState=[" + hmiStateName(next) + "]"));
    }
  }
}

TEST_F(LogicTest, DiagnosticStartTable) {
  struct Row {
    const char* proves;
    bool offered;
    uint32_t updateType;
    const char* ctrlOptions;
    int override;
    bool accepted;
    uint32_t errorCode;  // in the record afterwards
    uint32_t stateAfter;
  };
  const std::vector<Row> rows = {
      {"another update type refuses without any change", true, ORV_USB_UPDATETYPE_USB, "ORDER-1", 0,
       false, 77, eINSTALLATIONAVAILABLE},
      {"no offer fails with 618, acknowledged at once", false, ORV_USB_UPDATETYPE_NONE, "ORDER-1",
       0, false, 618, eINVALID},
      {"an order mismatch fails with 619", true, ORV_USB_UPDATETYPE_NONE, "OTHER", 0, false, 619,
       eINVALID},
      {"the override skips the order check", true, ORV_USB_UPDATETYPE_NONE, "OTHER", 1, true, 0,
       eINSTALLING},
      {"a matching order starts without the driver", true, ORV_USB_UPDATETYPE_NONE, "X;ORDER-1;Y",
       0, true, 0, eINSTALLING}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = make();
    if (row.offered)
      offer(*logic);
    record_->setErrorCode(77);
    arbiter_.updateType = row.updateType;
    EXPECT_EQ(logic->diagTriggerStartUpdate(row.ctrlOptions, row.override), row.accepted);
    logic->run(8);
    EXPECT_EQ(static_cast<uint32_t>(record_->getErrorCode(0)), row.errorCode);
    EXPECT_EQ(logic->getStateHMI(), row.stateAfter);
    EXPECT_EQ(arbiter_.lum->count("createDomainUpdateSession"), row.accepted ? 1u : 0u);
  }
}

// Media the analysis does not take: an update stands, the LUM is held, the description is bad.
TEST_F(LogicTest, MediumTheAnalysisDoesNotTake) {
  std::unique_ptr<TestLogic> logic;
  const auto present = [&](const std::function<void(TestLogic&)>& before) {
    logic.reset();  // before make() drops its record
    logic = make();
    before(*logic);
    logic->inputUsbInserted(location());
    logic->run(4);
  };
  present([](TestLogic& l) { l.setStateHMI(eINSTALLATIONFINISHED); });
  EXPECT_TRUE(log_->contains("LUM state is [Idle] and HMI state is [eINSTALLATIONFINISHED]"));
  EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONFINISHED);
  present([this](TestLogic&) { arbiter_.holder = ACTIVE_DM; });
  EXPECT_TRUE(log_->contains("OTA update in progress!"));
  EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONREJECTED);
  EXPECT_EQ(logic->hmi->seen, "state:7:T1 ");
  present([this](TestLogic&) {
    medium_.put("/medium/NodboxUpdateMedium.json", R"({"train": "T1", "manifests": []})");
    record_->setHandOver(location());
  });
  EXPECT_TRUE(log_->contains("Error reading update medium at [" + location() + "]!"));
  EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONFAILED);
  EXPECT_EQ(record_->getErrorCode(0), 610);
  EXPECT_EQ(record_->getHandOver(), "") << "a settled hand-over is not started again";
}

// Answers come from the key manifest; a fault is answered too (names empty), then ends the update.
TEST_F(LogicTest, UrlRequestsAreAnsweredFromTheKeyManifest) {
  using Error = lum11::CM_UrlError;
  struct Row {
    const char* proves;
    std::string manifest;  // empty: not on the medium
    std::string name;      // asked for twice
    Error error;
    uint32_t errorCode;
    size_t headSays = 0;  // the size HEAD announces, when not the manifest's own
  };
  const std::string good = debugManifest(kPayload);
  const std::vector<Row> rows = {
      {"a listed file gets its URL and three parameters", good, "pkg.bin", Error::noError, 0},
      {"an unlisted file", good, "other.bin", Error::fileNotFound, 0},
      {"a file with too few parameters", good, "bad.bin", Error::internalError, 0},
      {"a name that only ends a listed one is not it", good, "kg.bin", Error::fileNotFound, 0},
      {"a manifest exactly at the limit is read", debugManifest(kPayload, 512000), "pkg.bin",
       Error::noError, 0},
      {"one byte over the limit", debugManifest(kPayload, 512001), "pkg.bin", Error::internalError,
       617},
      {"missing file", "", "pkg.bin", Error::internalError, 612},
      {"container that does not decrypt", "a.b.c", "pkg.bin", Error::internalError, 613},
      {"a body longer than its HEAD announced", good, "pkg.bin", Error::internalError, 617, 100}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = make();
    offer(*logic);
    medium_.set("/medium/keys/KeyManifest.mose", [&](orv::testing::HttpServer::Path& p) {
      p.body = row.manifest, p.exists = !row.manifest.empty(), p.headSays = row.headSays;
    });
    installing(*logic, 3);
    log_->clear();
    ResolveUpdateURLRequest request;
    request.fileNames = {row.name, row.name};
    request.updateURLRequestID[0] = 0xAB;
    logic->eventResolveUpdateURLRequest(request);
    logic->run(4);
    EXPECT_TRUE(log_->contains("No keyManifest loaded!"));
    EXPECT_EQ(static_cast<uint32_t>(record_->getErrorCode(0)), row.errorCode);
    EXPECT_EQ(logic->getStateHMI(), row.errorCode == 0 ? eINSTALLING : eINSTALLATIONFAILED);
    ASSERT_EQ(arbiter_.lum->urlResponses.size(), 1u);
    const lum11::UpdateUrlResponseStruct& response = arbiter_.lum->urlResponses[0];
    EXPECT_EQ(response.updateURLRequestID[0], 0xAB);
    EXPECT_EQ(response.error, row.error);
    ASSERT_EQ(response.urlInfo.size(), 2u);
    for (const std::string& text : response.urlInfo) {
      if (row.error == Error::noError) {
        const auto info = JSON::Load(text);
        EXPECT_EQ(info.find("url")->ToString(), location() + "/pkg.bin");
        EXPECT_EQ(info.find("cryptoParameters")->size(), 3u);
      } else {
        EXPECT_EQ(text, "");
      }
    }
    if (row.errorCode == 0) {
      EXPECT_EQ(JSON::Load(record_->getKeyManifest()).find("EncryptedFiles")->size(), 2u);
    }
  }
}

TEST_F(LogicTest, BusyAnswersAreRetriedEveryTenSecondsWithoutLimit) {
  struct Row {
    const char* op;
    uint32_t lumState;
    std::function<void(TestLogic&)> run;
    uint32_t lumStateDuring;  // the step a restart during the calls would resume from
    uint32_t lumStateAfter;
  };
  const std::vector<Row> rows = {
      {"checkProgrammingPreconditions", 1, startDownload, 1, 3},
      {"startDomainUpdateDownload", 1, startDownload, 2, 3},
      {"startDomainUpdate", 3, startUpdate, 4, 5},
      {"closeDomainUpdateSession", 5, [](TestLogic& l) { l.seqCloseDomainUpdate(); }, 6, 6}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.op);
    std::unique_ptr<TestLogic> logic = installed(row.lumState);
    std::vector<uint32_t> during;
    arbiter_.lum->onCall = [&](const std::string& op) {
      if (op == row.op)
        during.push_back(logic->getStateLUM());
    };
    arbiter_.lum->script[row.op] = {4, 4, 4, 4, 4, 4, 4, 0};
    const auto before = clock_.sleeps().size();
    row.run(*logic);
    EXPECT_EQ(arbiter_.lum->count(row.op), 8u);
    EXPECT_EQ(during, std::vector<uint32_t>(8, row.lumStateDuring));
    EXPECT_EQ(logic->getStateLUM(), row.lumStateAfter);
    EXPECT_EQ(logic->getStateHMI(), eINSTALLING);
    const auto sleeps = clock_.sleeps();
    ASSERT_EQ(sleeps.size() - before, 7u);
    for (size_t i = before; i < sleeps.size(); ++i)
      EXPECT_EQ(sleeps[i], std::chrono::seconds(10));
    EXPECT_EQ(log_->count(std::string(row.op) + "() return status [busy], retry in 10 seconds"),
              7u);
  }
}

TEST_F(LogicTest, SessionIsTriedFourTimesWithCancelBetweenFailures) {
  struct Row {
    const char* proves;
    std::deque<uint32_t> answers;
    size_t cancels;
    uint32_t stateHmi, errorCode;
    size_t busyPauses;  // of 10 s each, before the next try
  };
  const std::vector<Row> rows = {
      {"first try", {0}, 0, eINSTALLING, 0, 0},
      {"busy three times, fourth try succeeds", {4, 4, 4, 0}, 0, eINSTALLING, 0, 3},
      {"refusals are cancelled before the next try", {1, 2, 0}, 2, eINSTALLING, 0, 0},
      {"no answer counts as a failed try", std::deque<uint32_t>(4, kNoAnswer), 3,
       eINSTALLATIONFAILED, 602, 0},
      {"the fourth try is the last", {4, 4, 4, 4, 0}, 0, eINSTALLATIONFAILED, 602, 3}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = offered();
    arbiter_.lum->script["createDomainUpdateSession"] = row.answers;
    arbiter_.lum->script["getDomainUpdateSessionState"] = {4};  // keeps the poll quiet
    logic->setStateHMI(eINSTALLATIONCONFIRMED);
    std::vector<SimulatedClock::Duration> created, polled;  // virtual times of these calls
    arbiter_.lum->onCall = [&](const std::string& op) {
      if (op == "createDomainUpdateSession")
        created.push_back(clock_.elapsed());
      else if (op == "getDomainUpdateSessionState")
        polled.push_back(clock_.elapsed());
    };
    const auto before = clock_.sleeps().size();
    logic->seqInstallationStart();
    if (row.errorCode == 0) {  // a created session is first polled a second later
      EXPECT_EQ(polled.at(0) - created.back(), std::chrono::seconds(1));
    }
    const auto sleeps = clock_.sleeps();
    EXPECT_EQ(std::count(sleeps.begin() + before, sleeps.end(), std::chrono::seconds(10)),
              static_cast<std::ptrdiff_t>(row.busyPauses));
    EXPECT_EQ(arbiter_.lum->count("cancelDomainUpdate"), row.cancels);
    EXPECT_EQ(logic->getStateHMI(), row.stateHmi);
    EXPECT_EQ(logic->getErrorCode(), row.errorCode);
    EXPECT_EQ(logic->getStateLUM(), row.errorCode == 0 ? 1u : 0u);
    EXPECT_EQ(arbiter_.holder, row.errorCode == 0 ? ACTIVE_USB : ACTIVE_NONE);
    // Started once the LUM has the session; a session never had ends all the same.
    EXPECT_EQ(arbiter_.stamps, std::vector<std::string>{row.errorCode == 0 ? "start" : "end"});
  }
}

TEST_F(LogicTest, StatusPollMakesUpForAMissingEventAfterTheThirdFurtherPoll) {
  struct Row {
    const char* proves;
    uint32_t lumState;
    PS reported;
    const char* madeUp;  // the LUM call that shows the event was made up
    const char* counterLine;
  };
  const std::vector<Row> rows = {
      {"verification done, no ready-for-download", 1, PS::verificationFinished,
       "startDomainUpdateDownload", "RETRY_VERIFICATION ("},
      {"download done, no ready-for-update", 3, PS::downloadFinished, "startDomainUpdate",
       "RETRY_DOWNLOAD ("},
      {"update done, no finished event", 5, PS::successfulFinished, "closeDomainUpdateSession",
       "RETRY_UPDATE ("},
      {"session failed, no error event", 3, PS::failFinished, "getDomainUpdateResult",
       "RETRY_ERROR ("}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = installed(row.lumState);
    arbiter_.lum->state = row.reported;
    logic->enqueue([&] { logic->seqGetStatus(); });
    // Three further polls count; the event is still expected.
    for (int poll = 0; poll < 3; ++poll)
      logic->runOne();
    EXPECT_EQ(log_->count(row.counterLine), 3u);
    EXPECT_EQ(arbiter_.lum->count(row.madeUp), 0u);
    logic->runOne();  // the fourth makes the event up instead of counting on
    EXPECT_EQ(log_->count(row.counterLine), 3u);
    logic->run(20);
    EXPECT_GE(arbiter_.lum->count(row.madeUp), 1u);
  }
}

TEST_F(LogicTest, AFailureFoundByPollingCarriesTheLumsResultCode) {
  std::unique_ptr<TestLogic> logic = make();
  installing(*logic, 3);
  arbiter_.lum->state = PS::failFinished;
  arbiter_.lum->resultCode = 4242;
  int32_t atClose = 0;  // recorded before the close: a restart during it still knows the code
  arbiter_.lum->onCall = [&](const std::string& op) {
    if (op == "closeDomainUpdateSession")
      atClose = record_->getErrorCode(0);
  };
  logic->enqueue([&] { logic->seqGetStatus(); });
  logic->run(20);
  EXPECT_EQ(atClose, 4242);
  EXPECT_EQ(record_->getErrorCode(0), 4242);
}

TEST_F(LogicTest, EveryErrorPathEndsFailedIdleAndReleased) {
  struct Row {
    const char* proves;
    uint32_t lumState;
    const char* op;  // the LUM call answered so; nullptr: the channel lost its grant instead
    std::deque<uint32_t> answers;
    std::function<void(TestLogic&)> run;
    uint32_t code;
  };
  const auto errorEvent = [](TestLogic& l) { l.eventDomainErrorNotification(1, 4711); };
  const std::vector<Row> rows = {
      {"download start refused", 1, "startDomainUpdateDownload", {1}, startDownload, 603},
      {"update start without answer", 3, "startDomainUpdate", {kNoAnswer}, startUpdate, 605},
      {"poll: invalid state", 3, "getDomainUpdateSessionState", {1}, pollStatus, 608},
      {"poll: status outside the table", 3, "getDomainUpdateSessionState", {9}, pollStatus, 609},
      {"poll in the cancel step refused", 7, "getDomainUpdateSessionState", {1}, pollStatus, 602},
      {"download progress lost",
       3,
       "getDomainUpdateDownloadProgress",
       {kNoAnswer},
       pollStatus,
       616},
      {"update progress lost", 5, "getDomainUpdateProgress", {kNoAnswer}, pollStatus, 615},
      {"result never arrives", 5, "getDomainUpdateResult", std::deque<uint32_t>(3, kNoAnswer),
       errorEvent, 4711},
      {"the channel lost its grant: no facade", 1, nullptr, {}, pollStatus, 601},
      {"a refused start's code outlasts a lost result",
       1,
       "startDomainUpdateDownload",
       {1},
       [this](TestLogic& l) {
         arbiter_.lum->state = PS::failFinished;
         arbiter_.lum->script["getDomainUpdateResult"] = std::deque<uint32_t>(3, kNoAnswer);
         startDownload(l);
       },
       603}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = installed(row.lumState);
    if (row.op)
      arbiter_.lum->script[row.op] = row.answers;
    else
      arbiter_.holder = ACTIVE_DM;
    row.run(*logic);
    logic->run(10);
    EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONFAILED);
    EXPECT_EQ(logic->getStateLUM(), 0u);
    EXPECT_EQ(logic->getErrorCode(), row.code);
    EXPECT_NE(arbiter_.holder, ACTIVE_USB);
    EXPECT_TRUE(log_->contains("InstallationFailed, errorCode [" + std::to_string(row.code) + "]"));
  }
}

// Either end event closes the session, releases the LUM and stamps the end.
TEST_F(LogicTest, EndEventsCloseReleaseAndStampTheEnd) {
  const auto ended = [&](const std::vector<std::string>& calls) {
    EXPECT_EQ(arbiter_.lum->calls(), calls);
    EXPECT_EQ(arbiter_.holder, ACTIVE_NONE);
    EXPECT_EQ(arbiter_.stamps, std::vector<std::string>{"end"});
  };
  // The error event queues the result, the close and the failure, in that order.
  std::unique_ptr<TestLogic> logic = make();
  logic->eventDomainErrorNotification(1, 99);  // no session: nothing to end
  EXPECT_TRUE(logic->tasks.empty());
  installing(*logic, 5);
  std::vector<SimulatedClock::Duration> asked;  // a busy result is asked again a second later
  arbiter_.lum->onCall = [&](const std::string&) { asked.push_back(clock_.elapsed()); };
  arbiter_.lum->script["getDomainUpdateResult"] = {4, 0};
  logic->eventDomainErrorNotification(1, 1234);
  EXPECT_EQ(record_->getErrorCode(0), 1234);
  ASSERT_EQ(logic->tasks.size(), 3u);
  logic->run();
  ended({"getDomainUpdateResult", "getDomainUpdateResult", "closeDomainUpdateSession"});
  EXPECT_EQ(asked.at(1) - asked.at(0), std::chrono::seconds(1));
  EXPECT_EQ(logic->hmi->seen, "state:3: error:1234 ");
  EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONFAILED);
  EXPECT_EQ(record_->getStateLum(9), 0u);
  // The finished event closes, then finishes.
  logic.reset();  // before make() drops its record
  logic = make();
  installing(*logic, 5);
  logic->eventDomainUpdateFinishedNotification(1);
  logic->run();
  ended({"closeDomainUpdateSession"});
  EXPECT_EQ(logic->getStateHMI(), eINSTALLATIONFINISHED);
  EXPECT_EQ(record_->getStateHmi(99), eINSTALLATIONFINISHED);
  EXPECT_EQ(record_->getProgress(0), 100u);
  // The driver's acknowledgement winds the update up.
  logic->seqHmiStateChanged(eINSTALLATIONFINISHEDCONFIRMED);
  EXPECT_EQ(logic->getStateHMI(), eINVALID);
  EXPECT_EQ(record_->getTrainName(), "");
  EXPECT_EQ(arbiter_.updateType, ORV_USB_UPDATETYPE_NONE);
  // With a tester in charge nobody acknowledges: the service does it for the driver.
  for (const uint32_t end : {eINSTALLATIONFINISHED, eINSTALLATIONFAILED}) {
    arbiter_.updateType = ORV_USB_UPDATETYPE_DIAG;
    logic->setStateHMI(end);
    logic->run();
    EXPECT_EQ(logic->getStateHMI(), eINVALID);
  }
}

// The LUM fails its session as a start call goes out: its event comes before, during or after it.
TEST_F(LogicTest, AnErrorEventRacingAStartCallEndsTheUpdateOnceWithTheLumsCode) {
  for (const std::string op : {"startDomainUpdateDownload", "startDomainUpdate"}) {
    for (const std::string when : {"before", "during", "after"}) {
      SCOPED_TRACE(op + ", error event " + when);
      std::unique_ptr<TestLogic> logic = installed(op == "startDomainUpdate" ? 3 : 1);
      log_->clear();
      arbiter_.lum->script[op] = {1};
      arbiter_.lum->state = PS::failFinished;
      auto error = [&](const std::string& at) {
        if (at == when)
          logic->eventDomainErrorNotification(1, 4711);
      };
      arbiter_.lum->onCall = [&](const std::string& call) { error(call == op ? "during" : ""); };
      error("before");
      op == "startDomainUpdate" ? logic->seqSendStartDomainUpdate()
                                : logic->seqSendStartDomainUpdateDownload();
      error("after");
      logic->run(10);
      EXPECT_EQ(log_->count("InstallationFailed, errorCode [4711]"), 1u);
      EXPECT_EQ(log_->count("InstallationFailed"), 1u);
      EXPECT_NE(logic->hmi->seen.find("state:3:"), std::string::npos);
      EXPECT_EQ(logic->hmi->seen.find("state:3:"), logic->hmi->seen.rfind("state:3:"));
      EXPECT_EQ(arbiter_.lum->count("getDomainUpdateResult"), 1u);
      EXPECT_EQ(arbiter_.lum->count("closeDomainUpdateSession"), 1u);
      EXPECT_EQ(arbiter_.holder, ACTIVE_NONE);
    }
  }
}

TEST_F(LogicTest, ALumLostForGoodEndsTheUpdateAtTheLimitOneBackInTimeDoesNot) {
  for (const bool back : {false, true}) {
    SCOPED_TRACE(back ? "back in time" : "gone for good");
    std::unique_ptr<TestLogic> logic = installed(3);
    log_->clear();
    const auto lost = clock_.elapsed();
    logic->eventConnection(false);
    while (!logic->tasks.empty() && clock_.elapsed() - lost < std::chrono::seconds(1799))
      logic->runOne();
    EXPECT_EQ(logic->getStateHMI(), eINSTALLING);
    if (back)
      logic->eventConnection(true);
    logic->run(5);
    EXPECT_GE(clock_.elapsed() - lost, std::chrono::seconds(1800));
    EXPECT_EQ(logic->getStateHMI(), back ? eINSTALLING : eINSTALLATIONFAILED);
    EXPECT_EQ(logic->getErrorCode(), back ? 0u : 608u);
    EXPECT_EQ(log_->count("LUM not back within [1800] s"), back ? 0u : 1u);
  }
}

TEST_F(LogicTest, ProgressAndOrderHelpers) {
  std::unique_ptr<TestLogic> logic = make(false);
  struct Row {
    int64_t processed, total;
    uint32_t percent;
    const char* logged;
  };
  const std::vector<Row> rows = {{0, 0, 0, "Total bytes zero!"},
                                 {150, 100, 100, "Processes bytes > total bytes!"},
                                 {1, 3, 33, nullptr},
                                 {-1, 3, 0, "Processed bytes negative!"},
                                 {1, -3, 0, "Total bytes negative!"},
                                 {INT64_MAX, INT64_MAX, 100, nullptr}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.processed) + "/" + std::to_string(row.total));
    log_->clear();
    EXPECT_EQ(logic->getProgress(row.processed, row.total), row.percent);
    if (row.logged) {
      LogRecord record;
      ASSERT_TRUE(log_->find(row.logged, &record));
      EXPECT_NE(record.location.find("eventDebugMessageNotification"), std::string::npos);
    }
  }
  EXPECT_TRUE(Logic::diagParseUpdateOrder("A;ORDER-1;B", "ORDER-1"));
  EXPECT_FALSE(Logic::diagParseUpdateOrder("A;ORDER-1;B", ""));
  EXPECT_FALSE(Logic::diagParseUpdateOrder("A;B", "ORDER-1"));
  EXPECT_TRUE(log_->contains("Substring [ORDER-1] not found in [A;B], dtErrTxt ["));
}

TEST_F(LogicTest, LateAndDuplicateInputsLeaveARunningUpdateAlone) {
  struct Row {
    const char* proves;
    uint32_t lumState;  // also afterwards
    std::function<void(TestLogic&)> input;
    const char* absentCall;  // the LUM call that must not happen
  };
  const std::vector<Row> rows = {
      {"a second download start (event and made-up poll) is dropped", 3, startDownload,
       "startDomainUpdateDownload"},
      {"a second update start is dropped", 5, startUpdate, "startDomainUpdate"},
      {"refused preconditions fall back to polling the step before", 3,
       [this](TestLogic& l) {
         arbiter_.lum->script["checkProgrammingPreconditions"] = {1};
         l.seqSendStartDomainUpdate();
       },
       "startDomainUpdate"},
      {"a tester's start during the installation fails nothing", 1,
       [](TestLogic& l) { EXPECT_FALSE(l.diagTriggerStartUpdate("ORDER-1", 1)); },
       "cancelDomainUpdate"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::unique_ptr<TestLogic> logic = installed(row.lumState);
    row.input(*logic);
    logic->run(1);
    EXPECT_EQ(logic->getStateLUM(), row.lumState);
    EXPECT_EQ(logic->getStateHMI(), eINSTALLING);
    EXPECT_EQ(arbiter_.holder, ACTIVE_USB);
    EXPECT_EQ(arbiter_.lum->count(row.absentCall), 0u);
  }
}

// The LUM's ready events start the download, then the installation.
TEST_F(LogicTest, ReadyEventsStartTheNextStep) {
  std::unique_ptr<TestLogic> logic = installed(1);
  logic->eventDomainReadyForDownloadNotification(1, lum11::ReadyForDownloadInfo{});
  logic->run(1);
  EXPECT_EQ(arbiter_.lum->count("startDomainUpdateDownload"), 1u);
  logic->tasks.clear();  // the status poll that follows
  logic->eventDomainReadyForUpdateNotification(1, lum11::ReadyForUpdateInfo{});
  logic->run(1);
  EXPECT_EQ(arbiter_.lum->count("startDomainUpdate"), 1u);
}

// The real pool: destruction ends even though the LUM never appeared and a poll chain runs.
TEST_F(LogicTest, ThreadedDestructionEndsWithoutALum) {
  TempDir dir;
  auto record = std::make_shared<Persistence>(dir.path(), "persistence.json");
  record->setStateLum(3);
  record->setStateHmi(eINSTALLING);
  {
    class RealPoolLogic : public Logic {
     public:
      using Logic::Logic;

     protected:
      std::unique_ptr<IHmiService> createHmiService() override {
        return std::make_unique<RecordingHmi>();
      }
    } logic(record);
    logic.signalQueryAlive = [] { return false; };
    logic.init();
  }
  EXPECT_TRUE(log_->contains("Thread interrupted!"));
}

TEST_F(LogicTest, RestartResumesFromEveryRecordedState) {
  struct Resume {
    uint32_t lumState;
    std::vector<std::string> firstCalls;  // the LUM calls the resumption starts with
    uint32_t attempts;                    // resumes counted afterwards (2 before): 0 moved on
  };
  const std::vector<Resume> resumes = {
      {0, {}, 2},
      {1, {"_internal:1", "getDomainUpdateSessionState"}, 3},
      {2, {"_internal:1", "checkProgrammingPreconditions", "startDomainUpdateDownload"}, 0},
      {3, {"_internal:1", "getDomainUpdateSessionState"}, 3},
      {4, {"_internal:1", "checkProgrammingPreconditions", "startDomainUpdate"}, 0},
      {5, {"_internal:1", "getDomainUpdateSessionState"}, 3},
      {6, {"_internal:1", "closeDomainUpdateSession"}, 0},
      {7, {"_internal:1", "getDomainUpdateSessionState"}, 0}};
  for (const Resume& resume : resumes) {
    for (uint32_t hmiState : {eINSTALLATIONAVAILABLE, eINSTALLING}) {
      SCOPED_TRACE("stateLUM " + std::to_string(resume.lumState) + ", " + hmiStateName(hmiState));
      TempDir dir;
      auto record = std::make_shared<Persistence>(dir.path(), "persistence.json");
      record->setStateLum(resume.lumState);
      record->setStateHmi(hmiState);
      record->setTrainName("T1");
      record->setProgress(42);
      record->setResumeAttempts(2);
      record->setHandOver(resume.lumState != 0 ? "http://127.0.0.1/beside-the-update" : "");
      arbiter_ = Arbiter{};
      arbiter_.holder = ACTIVE_USB;
      arbiter_.lum->script["getDomainUpdateSessionState"] = {4};
      TestLogic logic(record, arbiter_);
      logic.init();
      logic.run(4 + resume.firstCalls.size());
      std::vector<std::string> calls = arbiter_.lum->calls();
      calls.resize(std::min(calls.size(), resume.firstCalls.size()));
      EXPECT_EQ(calls, resume.firstCalls);
      EXPECT_EQ(record->getResumeAttempts(99), resume.attempts);
      EXPECT_EQ(record->getHandOver(), "") << "dropped beside a recorded update";
      if (hmiState == eINSTALLATIONAVAILABLE) {
        EXPECT_TRUE(
            log_->contains("Resetting stateHMI from eINSTALLATIONAVAILABLE to eINVALID..."));
        // A cancel in progress means the session was never created: that update failed.
        const uint32_t expected = resume.lumState == 6   ? eINSTALLATIONFINISHED
                                  : resume.lumState == 7 ? eINSTALLATIONFAILED
                                                         : eINVALID;
        EXPECT_EQ(record->getStateHmi(99), expected);
      } else {
        EXPECT_EQ(logic.hmi->seen.rfind("state:9:T1 error:0 progress:42 ", 0), 0u);
      }
      log_->clear();
    }
  }
}

}  // namespace
}  // namespace orv

// A whole USB update in one process against the real lum-sim process, inside a private network
// namespace: Multiplexer, Logic and the real LUM client over SOME/IP, the medium served over
// HTTP, the head unit played by a double that confirms as a driver would. Real time: every wait
// is a bounded hang guard, never a timing assertion.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_messwert.h"
#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"
#include "interfaces/host_interfaces.h"
#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "interfaces/lum/diag_local_update_manager_control_service.h"
#include "interfaces/lum/diag_lum_control_client.h"
#include "logic/base64.h"
#include "logic/logic.h"
#include "logic/multiplexer.h"
#include "logic/persistence.h"
#include "logic/testing/http_server.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "minfw/testing/temp_dir.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"
#include "process.h"

namespace orv {
namespace {

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;
using namespace std::chrono_literals;

constexpr auto kPatience = 60s;

// The head unit with a driver who confirms every offer and acknowledges every end.
class ConfirmingHmi : public IHmiService {
 public:
  explicit ConfirmingHmi(Inbox& inbox) : inbox_(inbox) {}
  bool init(std::shared_ptr<Persistence>) override { return true; }
  void hmiSetState(int state, std::string) override {
    inbox_.add(cat("state:", state));
    int answer = -1;
    if (state == eINSTALLATIONAVAILABLE) {
      answer = eINSTALLATIONCONFIRMED;
    } else if (state == eINSTALLATIONFAILED) {
      answer = eINSTALLATIONFAILEDCONFIRMED;
    } else if (state == eINSTALLATIONFINISHED) {
      answer = eINSTALLATIONFINISHEDCONFIRMED;
    }
    if (answer >= 0 && HmiStateChanged) {
      HmiStateChanged(answer);
    }
  }
  void hmiSetProgress(uint32_t percent) override { progress_ = percent; }
  void hmiSetErrorCode(uint32_t code) override { inbox_.add(cat("error:", code)); }
  void hmiDelete() override { inbox_.add("hmiDelete"); }
  void usbDelete() override {}
  void hmiSetPackageName(const std::string&) override {}
  void hmiSetDownloadInfo(int64_t, uint32_t) override {}
  void hmiSetUpdateInfo(int64_t, uint32_t) override {}

 private:
  Inbox& inbox_;
  std::atomic<uint32_t> progress_{0};
};

class HeadUnitLogic : public Logic {
 public:
  HeadUnitLogic(std::shared_ptr<Persistence> record, Inbox& inbox)
      : Logic(std::move(record)), inbox_(inbox) {}

 protected:
  std::unique_ptr<IHmiService> createHmiService() override {
    return std::make_unique<ConfirmingHmi>(inbox_);
  }

 private:
  Inbox& inbox_;
};

// The service's wiring, with the head-unit double and the test's middleware runtime.
class TestMultiplexer : public Multiplexer {
 public:
  TestMultiplexer(std::shared_ptr<Persistence> record, Inbox& inbox,
                  platform::someip::Runtime* runtime)
      : Multiplexer(record), record_(std::move(record)), inbox_(inbox), runtime_(runtime) {}

  bool createInterfaces() override {
    addChannel(std::make_unique<DiagLocalUpdateManagerControlService>("1", runtime_));
    addChannel(std::make_unique<HeadUnitLogic>(record_, inbox_));
    setLumClient(std::make_shared<DiagLUMControlClient>(
        std::make_unique<DiagLocalUpdateManagerControlClient>(runtime_)));
    setRoutineClient(std::make_unique<DiagnosisViRoutineClient>(runtime_));
    setMesswertClient(std::make_unique<DiagnosisMesswert>(runtime_));
    return true;
  }
  Logic& logic() { return static_cast<Logic&>(*channel(ACTIVE_USB)); }

 private:
  std::shared_ptr<Persistence> record_;
  Inbox& inbox_;
  platform::someip::Runtime* runtime_;
};

// The medium: a description, a DEBUG key manifest and the update manifest, over HTTP.
void serveMedium(orv::testing::HttpServer& server) {
  server.put("/medium/NodboxUpdateMedium.json",
             R"({"train": "TRAIN-7", "order": "ORDER-7", "manifests": ["m1.json"],)"
             R"( "diagAddresses": ["6657"], "keyManifest": "KeyManifest.mose"})");
  const std::string payload =
      R"({"EncryptedFiles": [{"File": "/domain-app.pkg", "CryptoParameters": [)"
      R"({"Name": "Key", "Value": "00"}, {"Name": "IV", "Value": "01"},)"
      R"( {"Name": "Algorithm", "Value": "AES-256-GCM"}]}]})";
  server.put("/medium/KeyManifest.mose", base64UrlEncode(R"({"alg":"DEBUG","enc":"DEBUG"})") + "." +
                                             base64UrlEncode("key") + "." + base64UrlEncode("iv") +
                                             "." + base64UrlEncode(payload) + "." +
                                             base64UrlEncode("tag"));
  server.put("/medium/m1.json", R"({"manifest": "m1"})");
}

// The operation names of lum-sim's call log, without the status polls and progress queries.
std::vector<std::string> sessionCalls(const std::string& log) {
  std::vector<std::string> ops;
  std::istringstream lines(log);
  std::string line;
  while (std::getline(lines, line)) {
    const std::string op = line.substr(0, line.find(' '));
    if (op.rfind("get", 0) != 0 && op != "checkProgrammingPreconditions" &&
        op != "updateURLResponse") {
      ops.push_back(op);
    }
  }
  return ops;
}

// Waits until `logic` rests in eINVALID again after the update.
// At rest once the clean-up that follows eINVALID (update type, key manifest) is written too.
bool waitForRest(Logic& logic, Inbox& inbox, Persistence& record) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (logic.getStateHMI() == eINVALID && logic.getStateLUM() == 0 &&
        record.getUpdateType(99) == ORV_USB_UPDATETYPE_NONE && record.getKeyManifest().empty()) {
      return true;
    }
    inbox.waitFor("pace", 50ms);
  }
  return false;
}

TEST(UsbUpdateTest, ThreadedUpdateRunsToTheEndThenAnErrorEventFailsTheNext) {
  TempDir dir;
  const std::string callLog = dir.file("calls.log");
  const std::string scenario = dir.file("scenario.json");
  writeFile(scenario, R"({"sessions": [
      {"analyseMs": 300, "downloadMs": 600, "installMs": 600, "totalBytes": 1000,
       "resolveUrl": {"phase": "downloading", "afterMs": 100, "fileNames": ["domain-app.pkg"]}},
      {"analyseMs": 300, "downloadMs": 3000,
       "error": {"phase": "downloading", "afterMs": 300, "code": 4711}}]})");
  const std::string config = ORVANE_SOURCE_DIR "/config/host.json";
  orvane::testing::ChildProcess lumSim;
  ASSERT_TRUE(lumSim.start(LUM_SIM_PATH,
                           {"--scenario", scenario, "--call-log", callLog, "--config", config}));

  platform::someip::HostConfig hostConfig;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(config, orv::hostInterfaces(), hostConfig, error))
      << error;
  auto runtime = platform::someip::Runtime::start(hostConfig, "orvane", error);
  ASSERT_TRUE(runtime) << error;

  orv::testing::HttpServer server;
  serveMedium(server);
  const std::string location = server.base() + "/medium";
  ScopedLogCapture log;
  Inbox inbox;
  auto record = std::make_shared<Persistence>(dir.path(), "persistence.json");
  {
    TestMultiplexer mux(record, inbox, runtime.get());
    ASSERT_TRUE(mux.createInterfaces());
    mux.initBindings();
    mux.initInterfaces();
    Logic& logic = mux.logic();

    // A clean update.
    logic.inputUsbInserted(location);
    ASSERT_TRUE(inbox.waitFor("state:5", kPatience)) << "no eINSTALLATIONFINISHED";
    ASSERT_TRUE(waitForRest(logic, inbox, *record));
    EXPECT_EQ(record->getStateHmi(99), eINVALID);
    EXPECT_EQ(record->getStateLum(99), 0u);
    EXPECT_EQ(record->getErrorCode(99), 0);
    EXPECT_EQ(record->getProgress(0), 100u);
    EXPECT_EQ(record->getTrainName(), "");
    EXPECT_EQ(record->getKeyManifest(), "");
    EXPECT_EQ(record->getUsbPath(), "");
    EXPECT_EQ(record->getChannel(99), ACTIVE_NONE);
    EXPECT_EQ(record->getUpdateType(99), ORV_USB_UPDATETYPE_NONE);
    EXPECT_TRUE(
        log->contains("found at index [0], File [domain-app.pkg], CryptoParameters.size()=3"));

    // The next session fails in the LUM: its code reaches the record, control goes back.
    logic.inputUsbInserted(location);
    ASSERT_TRUE(inbox.waitFor("error:4711", kPatience)) << "no failure reported";
    ASSERT_TRUE(waitForRest(logic, inbox, *record));
    EXPECT_EQ(record->getErrorCode(0), 4711);
    EXPECT_EQ(record->getStateLum(99), 0u);
    EXPECT_EQ(record->getChannel(99), ACTIVE_NONE);
    EXPECT_EQ(inbox.count("state:3"), 1u);
  }

  const std::string calls = readFile(callLog);
  EXPECT_EQ(sessionCalls(calls),
            (std::vector<std::string>{"createDomainUpdateSession", "startDomainUpdateDownload",
                                      "startDomainUpdate", "closeDomainUpdateSession",
                                      "createDomainUpdateSession", "startDomainUpdateDownload",
                                      "closeDomainUpdateSession"}))
      << calls;
  EXPECT_NE(calls.find("updateURLResponse"), std::string::npos) << calls;
}

}  // namespace
}  // namespace orv

// A whole USB update through the service's own wiring in this process, against a real lum-sim
// over SOME/IP. Real time: every wait is a bounded hang guard.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "interfaces/host_interfaces.h"
#include "logic/logic.h"
#include "logic/multiplexer.h"
#include "logic/persistence.h"
#include "logic/testing/http_server.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "minfw/testing/temp_dir.h"
#include "platform/middleware/binding.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"
#include "update_run.h"

namespace orv {
namespace {

using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;
using namespace std::chrono_literals;

constexpr auto kPatience = 60s;

// The service's wiring, its USB channel at hand.
struct Service : Multiplexer {
  using Multiplexer::Multiplexer;
  Logic& logic() { return static_cast<Logic&>(*channel(ACTIVE_USB)); }
};

// The operation names of lum-sim's call log, without the status polls and progress queries.
std::vector<std::string> sessionCalls(const std::string& log) {
  std::vector<std::string> ops;
  std::istringstream lines(log);
  std::string line;
  while (std::getline(lines, line)) {
    const std::string op = line.substr(0, line.find(' '));
    if ((op.rfind("get", 0) != 0 || op == "getDomainUpdateResult") &&
        op != "checkProgrammingPreconditions" && op != "updateURLResponse") {
      ops.push_back(op);
    }
  }
  return ops;
}

// Waits until `logic` rests in eINVALID again after the update that `done` recognises; at rest
// once the clean-up that follows eINVALID (update type, key manifest) is written too.
bool waitForRest(Logic& logic, Persistence& record, const std::function<bool()>& done) {
  Inbox pace;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done() && logic.getStateHMI() == eINVALID && logic.getStateLUM() == 0 &&
        record.getUpdateType(99) == ORV_USB_UPDATETYPE_NONE && record.getKeyManifest().empty()) {
      return true;
    }
    pace.waitFor("pace", 50ms);
  }
  return false;
}

TEST(UsbUpdateTest, ThreadedUpdateRunsToTheEndThenAnErrorEventFailsTheNext) {
  TempDir dir;
  const std::string callLog = dir.file("calls.log");
  const std::string scenario = dir.file("scenario.json");
  writeFile(scenario, R"({"sessions": [
      {"analyseMs": 300, "downloadMs": 600, "installMs": 600, "totalBytes": 1000,
       "packages": ["p1", "p2"], "stopOffer": {"phase": "verifying", "afterMs": 100,
       "durationMs": 1000},
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
  for (const auto& [name, text] : orvane::testing::mediumFiles())
    server.put("/medium/" + name, text);
  const std::string location = server.base() + "/medium";
  ScopedLogCapture log;
  auto record = std::make_shared<Persistence>(dir.path(), "persistence.json");
  platform::middleware::setDefaultBinding(runtime.get());
  {
    Service mux(record);
    ASSERT_TRUE(mux.createInterfaces());
    mux.initBindings();
    mux.initInterfaces();
    Logic& logic = mux.logic();
    // A clean update.
    logic.inputUsbInserted(location);
    ASSERT_TRUE(waitForRest(logic, *record, [&] { return record->getProgress(0) == 100; }));
    EXPECT_TRUE(log->contains("HMI State: 5"));  // eINSTALLATIONFINISHED
    EXPECT_EQ(record->getStateHmi(99), eINVALID);
    EXPECT_EQ(record->getErrorCode(99), 0);
    EXPECT_EQ(record->getProgress(0), 100u);
    EXPECT_EQ(record->getTrainName(), "");
    EXPECT_EQ(record->getUsbPath(), "");
    EXPECT_EQ(record->getChannel(99), ACTIVE_NONE);
    EXPECT_TRUE(
        log->contains("found at index [0], File [domain-app.pkg], CryptoParameters.size()=3"));
    // What lum-sim answered over the wire reached the session: its offer came back in time,
    // the preconditions name the medium's address, the progress names the packages.
    for (const char* line : {"LUM back in time", "diagnosticAddress=0x1a01", "packageName=[p"})
      EXPECT_TRUE(log->contains(line)) << line;
    // The next session fails in the LUM: its code reaches the record, control goes back.
    logic.inputUsbInserted(location);
    ASSERT_TRUE(waitForRest(logic, *record, [&] { return record->getErrorCode(0) == 4711; }));
    EXPECT_TRUE(log->contains("HMI error code: 4711"));
    EXPECT_EQ(record->getStateLum(99), 0u);
    EXPECT_EQ(record->getChannel(99), ACTIVE_NONE);
    EXPECT_EQ(log->count("HMI State: 3"), 1u);  // eINSTALLATIONFAILED
    EXPECT_EQ(log->count("InstallationFailed, errorCode ["), 1u);
  }
  platform::middleware::setDefaultBinding(nullptr);
  const std::string calls = readFile(callLog);
  EXPECT_EQ(sessionCalls(calls),
            (std::vector<std::string>{"createDomainUpdateSession", "startDomainUpdateDownload",
                                      "startDomainUpdate", "closeDomainUpdateSession",
                                      "createDomainUpdateSession", "startDomainUpdateDownload",
                                      "getDomainUpdateResult", "closeDomainUpdateSession"}))
      << calls;
  for (const char* call :
       {"updateURLResponse updateURLRequestID=",
        "createDomainUpdateSession accessID=NODBOX-USB vehicleRepairInstructionID"
        "=1 updateOrderLink=ORDER-9 manifestInformation=[updateManifest:http",
        "diagnosticAddress=[0x1a01] sessionType=localUpdate"})
    EXPECT_TRUE(orvane::testing::count(calls, call)) << call << "\n" << calls;
}

}  // namespace
}  // namespace orv

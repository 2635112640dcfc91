// The real lum-sim process against orvane's real LUM client, inside a private network
// namespace: one clean session from create to close, then SIGTERM; lum-sim's call log must show
// the calls in the order the client made them. Real time: every wait is a bounded hang guard.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "interfaces/host_interfaces.h"
#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "minfw/testing/target_command.h"
#include "minfw/testing/temp_dir.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

namespace {

using kel::vxp3::minfw::testing::Inbox;

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;
using Client = orv::DiagLocalUpdateManagerControlClient;
using State = lum11::CM_CurrentProcessingState;
using Status = lum11::CM_ReturnStatus;
using namespace std::chrono_literals;

constexpr auto kPatience = 20s;
constexpr const char* kClient = "NODBOX-USB";

// The process, ended with SIGTERM (or SIGKILL if the test fails early).
class Process {
 public:
  explicit Process(const std::vector<std::string>& args) {
    // Prepared before fork: only async-signal-safe calls after it.
    std::vector<std::string> command = kel::vxp3::minfw::testing::targetCommand(args);
    std::vector<char*> argv;
    for (std::string& word : command)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Process() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool started() const { return pid_ > 0; }
  // SIGTERM, then the exit status; -1 if it did not end in time.
  int terminate() {
    kill(pid_, SIGTERM);
    return waitExit();
  }
  // The exit status once the process ends by itself; -1 if it did not end in time.
  int waitExit() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      usleep(20000);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
};

// Polls the session state, as orvane does, until it is `target`; paced by the event inbox.
bool pollUntil(Client& client, Inbox& inbox, State target) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    Client::GetDomainUpdateSessionStateOutput out;
    if (client.getDomainUpdateSessionState(kClient, 1, out) && out.returnStatus == Status::ok &&
        out.currentProcessingState == target)
      return true;
    inbox.waitFor("pace", 100ms);
  }
  return false;
}

// The operation names of the call log, a run of state polls counted once.
std::vector<std::string> callSequence(const std::string& log) {
  std::vector<std::string> ops;
  std::istringstream lines(log);
  std::string line;
  while (std::getline(lines, line)) {
    const std::string op = line.substr(0, line.find(' '));
    if (ops.empty() || ops.back() != op || op != "getDomainUpdateSessionState")
      ops.push_back(op);
  }
  return ops;
}

TEST(LumSimProcessTest, ThreadedCleanSessionThroughTheRealClient) {
  TempDir dir;
  const std::string callLog = dir.file("calls.log");
  const std::string scenario = dir.file("scenario.json");
  writeFile(scenario,
            R"({"sessions": [{"analyseMs": 500, "downloadMs": 500, "installMs": 500,
                "totalBytes": 1000, "packages": ["p1", "p2"],
                "delay": {"startDomainUpdateDownload": {"ms": 1500, "calls": 1}}}]})");
  const std::string config = ORVANE_SOURCE_DIR "/config/host.json";
  Process lumSim({LUM_SIM_PATH, "--scenario", scenario, "--call-log", callLog, "--config", config,
                  "-console"});
  ASSERT_TRUE(lumSim.started());

  platform::someip::HostConfig hostConfig;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(config, orv::hostInterfaces(), hostConfig, error))
      << error;
  auto orvane = platform::someip::Runtime::start(hostConfig, "orvane", error);
  ASSERT_TRUE(orvane) << error;

  ScopedLogCapture capture;
  Inbox inbox;
  auto client = std::make_unique<Client>(orvane.get());
  client->signalEventConnection = [&inbox](bool up) { inbox.add(cat("connection:", up)); };
  client->signalEventDomainReadyForUpdateNotification =
      [&inbox](uint16_t id, const lum11::ReadyForUpdateInfo& info) {
        inbox.add(cat("readyForUpdate:", id, ":", info.downloadedDataSize));
      };
  client->signalEventDomainUpdateFinishedNotification = [&inbox](uint16_t id) {
    inbox.add(cat("updateFinished:", id));
  };
  ASSERT_TRUE(client->init("12233"));
  ASSERT_TRUE(inbox.waitFor("connection:true"));

  Client::CreateDomainUpdateSessionOutput created;
  lum11::DownloadSource source;
  source.baseURL = "http://medium/";
  lum11::createDomainUpdateSession_diagnosticAddress addresses;
  addresses.diagnosticAddresses = {0x1a01};
  ASSERT_TRUE(client->createDomainUpdateSession(kClient, 1, "order", {{"ecu", "m.mose", {}}}, {},
                                                source, addresses,
                                                lum11::CM_SessionType::localUpdate, created));
  ASSERT_EQ(created.returnStatus, Status::ok);
  EXPECT_EQ(created.domainRepairInstructionID, 1);

  ASSERT_TRUE(pollUntil(*client, inbox, State::verificationFinished));
  Client::CheckProgrammingPreconditionsOutput preconditions;
  ASSERT_TRUE(client->checkProgrammingPreconditions(kClient, 1, preconditions));
  ASSERT_EQ(preconditions.preconditionCheckResult.size(), 1u);
  EXPECT_EQ(preconditions.preconditionCheckResult[0].diagnosticAddress, 0x1a01);
  // The answer comes after the client's 1000 ms: no answer for the client, yet the download runs.
  Client::StartDomainUpdateDownloadOutput download;
  EXPECT_FALSE(client->startDomainUpdateDownload(kClient, 1, download));
  EXPECT_TRUE(capture->contains("no answer!"));
  EXPECT_TRUE(inbox.waitFor("readyForUpdate:1:1000"));
  ASSERT_TRUE(pollUntil(*client, inbox, State::downloadFinished));
  Client::GetDomainUpdateDownloadProgressOutput progress;
  ASSERT_TRUE(client->getDomainUpdateDownloadProgress(kClient, 1, progress));
  EXPECT_EQ(progress.processedBytes, 1000);
  EXPECT_EQ(progress.packageName, "p2");

  Client::StartDomainUpdateOutput update;
  ASSERT_TRUE(client->startDomainUpdate(kClient, 1, update));
  EXPECT_EQ(update.returnStatus, Status::ok);
  EXPECT_TRUE(inbox.waitFor("updateFinished:1"));
  ASSERT_TRUE(pollUntil(*client, inbox, State::successfulFinished));
  Client::getDomainUpdateResultOutput result;
  ASSERT_TRUE(client->getDomainUpdateResult(kClient, 1, result));
  EXPECT_EQ(result.returnStatus, Status::ok);
  EXPECT_EQ(result.domainResult.sessionStatus, lum11::CM_SessionStatus::successful);
  Client::CloseDomainUpdateSessionOutput closed;
  ASSERT_TRUE(client->closeDomainUpdateSession(kClient, 1, closed));
  EXPECT_EQ(closed.returnStatus, Status::ok);

  client.reset();
  EXPECT_EQ(lumSim.terminate(), 0);

  const std::string log = readFile(callLog);
  EXPECT_EQ(callSequence(log), (std::vector<std::string>{
                                   "createDomainUpdateSession", "getDomainUpdateSessionState",
                                   "checkProgrammingPreconditions", "startDomainUpdateDownload",
                                   "getDomainUpdateSessionState", "getDomainUpdateDownloadProgress",
                                   "startDomainUpdate", "getDomainUpdateSessionState",
                                   "getDomainUpdateResult", "closeDomainUpdateSession"}))
      << log;
  EXPECT_NE(log.find("createDomainUpdateSession accessID=NODBOX-USB vehicleRepairInstructionID=1 "
                     "updateOrderLink=order manifestInformation=[ecu:m.mose]"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("closeDomainUpdateSession accessID=NODBOX-USB domainRepairInstructionID=1"),
            std::string::npos);
}

TEST(LumSimProcessTest, ThreadedServiceGoesAwayComesBackAndCrashes) {
  TempDir dir;
  const std::string callLog = dir.file("calls.log");
  const std::string scenario = dir.file("scenario.json");
  writeFile(scenario, R"({"sessions": [{"analyseMs": 200,
      "stopOffer": {"phase": "verificationFinished", "durationMs": 1000},
      "crash": {"phase": "downloading", "afterMs": 100, "exitCode": 7}}]})");
  const std::string config = ORVANE_SOURCE_DIR "/config/host.json";
  Process lumSim({LUM_SIM_PATH, "--scenario", scenario, "--call-log", callLog, "--config", config});
  ASSERT_TRUE(lumSim.started());

  platform::someip::HostConfig hostConfig;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(config, orv::hostInterfaces(), hostConfig, error))
      << error;
  auto orvane = platform::someip::Runtime::start(hostConfig, "orvane", error);
  ASSERT_TRUE(orvane) << error;
  ScopedLogCapture capture;
  Inbox inbox;
  auto client = std::make_unique<Client>(orvane.get());
  client->signalEventConnection = [&inbox](bool up) { inbox.add(cat("connection:", up)); };
  ASSERT_TRUE(client->init("12233"));
  ASSERT_TRUE(inbox.waitFor("connection:true"));

  Client::CreateDomainUpdateSessionOutput created;
  ASSERT_TRUE(client->createDomainUpdateSession(kClient, 1, "order", {}, {}, {}, {},
                                                lum11::CM_SessionType::localUpdate, created));
  ASSERT_EQ(created.returnStatus, Status::ok);
  // The analysis ends, the offer stops, and after a second it is back, handlers and all.
  ASSERT_TRUE(inbox.waitFor("connection:false"));
  ASSERT_TRUE(inbox.waitFor("connection:true", kPatience, 2));
  Client::GetDomainUpdateSessionStateOutput state;
  ASSERT_TRUE(client->getDomainUpdateSessionState(kClient, 1, state));
  EXPECT_EQ(state.currentProcessingState, State::verificationFinished);
  Client::StartDomainUpdateDownloadOutput download;
  ASSERT_TRUE(client->startDomainUpdateDownload(kClient, 1, download));
  EXPECT_EQ(download.returnStatus, Status::ok);
  EXPECT_EQ(lumSim.waitExit(), 7);
  client.reset();

  const std::string log = readFile(callLog);
  EXPECT_EQ(callSequence(log),
            (std::vector<std::string>{"createDomainUpdateSession", "getDomainUpdateSessionState",
                                      "startDomainUpdateDownload"}))
      << log;
}

}  // namespace

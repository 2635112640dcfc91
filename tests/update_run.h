#pragma once
// UpdateRun: medium-server, lum-sim with its call log, and orvane with its record in a temporary
// folder, in the test's network namespace. Real time, bounded waits; owned by one test thread.

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "logic/base64.h"
#include "minfw/json.h"
#include "minfw/testing/temp_dir.h"
#include "process.h"

namespace orvane::testing {

using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

// The record as orvane left it; Null when missing or unreadable.
inline JSON readRecord(const std::string& path) {
  const std::string text = readFile(path);
  return text.empty() ? JSON() : JSON::Load(text);
}

inline int64_t member(const JSON& record, const char* key, int64_t absent = -1) {
  const JSON* value = record.find(key);
  return value != nullptr ? value->ToInt() : absent;
}

// The update medium by file name: its description, the update manifest and a DEBUG key manifest.
inline std::map<std::string, std::string> mediumFiles() {
  const std::string keys = R"({"EncryptedFiles": [{"File": "/domain-app.pkg", )"
                           R"("CryptoParameters": [{"Name": "Key", "Value": "00"}, )"
                           R"({"Name": "IV", "Value": "01"}, {"Name": "Algorithm", )"
                           R"("Value": "AES-256-GCM"}]}]})";
  return {{"NodboxUpdateMedium.json",
           R"({"train": "TRAIN-9", "order": "ORDER-9", "manifests": ["m1.json"],)"
           R"( "diagAddresses": ["6657"], "keyManifest": "KeyManifest.mose"})"},
          {"m1.json", R"({"manifest": "m1"})"},
          {"KeyManifest.mose", orv::base64UrlEncode(R"({"alg":"DEBUG","enc":"DEBUG"})") + "." +
                                   orv::base64UrlEncode("key") + "." + orv::base64UrlEncode("iv") +
                                   "." + orv::base64UrlEncode(keys) + "." +
                                   orv::base64UrlEncode("tag")}};
}

class UpdateRun {
 public:
  static constexpr const char* kMediumUrl = "http://127.0.0.1:29214/medium";
  explicit UpdateRun(const std::string& scenario) {
    const std::string medium = dir_.path() + "/medium";
    mkdirOrFail(medium);
    for (const auto& [name, text] : mediumFiles())
      writeFile(medium + "/" + name, text);
    mkdirOrFail(recordDir());
    EXPECT_TRUE(server_.start(MEDIUM_SERVER_PATH, {"--dir", medium, "--port", "29214"}));
    startLum(scenario);
    EXPECT_TRUE(server_.waitForOutput("serving", kShort)) << server_.errorOutput();
  }
  std::string mediumDir() const { return dir_.path() + "/medium"; }
  std::string recordDir() const { return dir_.path() + "/record"; }
  std::string recordPath() const { return recordDir() + "/persistence.json"; }
  std::string calls() const { return readFile(dir_.path() + "/calls.log"); }
  ChildProcess& orvane() { return *orvane_; }
  ChildProcess& lum() { return *lum_; }
  ChildProcess& mediumServer() { return server_; }
  // (Re)starts lum-sim, with `scenario` when given, else the last one; a fresh call log.
  void startLum(const std::string& scenario = {}) {
    if (!scenario.empty())
      writeFile(dir_.path() + "/scenario.json", scenario);
    lum_ = std::make_unique<ChildProcess>();
    EXPECT_TRUE(lum_->start(LUM_SIM_PATH, {"--scenario", dir_.path() + "/scenario.json",
                                           "--call-log", dir_.path() + "/calls.log"}));
  }
  // (Re)starts orvane, with `env` added to its environment, and waits until it has found the LUM.
  void startOrvane(std::map<std::string, std::string> env = {}) {
    orvane_ = std::make_unique<ChildProcess>();
    env.insert({{"ORVANE_PERSISTENCE_DIR", recordDir()}, {"ORVANE_UPDATE_ENDPOINT", kMediumUrl}});
    ASSERT_TRUE(orvane_->start(ORVANE_BIN, {"-console"}, env));
    ASSERT_TRUE(orvane_->waitForOutput("DiagLocalUpdateManagerControlClient connected!", kLong))
        << orvane_->output();
    ASSERT_TRUE(orvane_->waitForOutput("Server created with FD", kLong)) << orvane_->output();
  }
  // Hands the medium's location over as the workshop laptop does.
  void handOver() {
    ChildProcess laptop;
    ASSERT_TRUE(laptop.start(ORVANE_LAPTOP_PATH, {"start", kMediumUrl}));
    ASSERT_EQ(laptop.wait(kShort), 0) << laptop.output() << laptop.errorOutput();
  }
  void killOrvane() {
    orvane_->kill(SIGKILL);
    ASSERT_TRUE(orvane_->wait(std::chrono::seconds(10)));
  }
  // Polls the record until `ready` holds; false after `limit`.
  bool waitForRecord(const std::function<bool(const JSON&)>& ready,
                     std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (ready(readRecord(recordPath())))
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // Waits until the record shows the update at rest: no LUM step, HMI back at eINVALID.
  JSON waitForRest() {
    JSON record;
    const bool rested = waitForRecord(
        [&](const JSON& r) {
          record = r;
          return member(r, "statelum") == 0 && member(r, "statehmi") == 10 &&
                 member(r, "channel", 2) == 2;
        },
        std::chrono::seconds(90));
    EXPECT_TRUE(rested) << "the update did not come to rest; record: " << record.dump() << "\n"
                        << orvane_->output();
    return record;
  }

 private:
  static constexpr std::chrono::seconds kShort{20}, kLong{30};
  static void mkdirOrFail(const std::string& path) {
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path;
  }
  TempDir dir_;
  ChildProcess server_;
  std::unique_ptr<ChildProcess> lum_, orvane_;
};

}  // namespace orvane::testing

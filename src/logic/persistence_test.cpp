#include "logic/persistence.h"
#include "minfw/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "minfw/file_system.h"
#include "minfw/json.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/fault_file_system.h"
#include "minfw/testing/simulated_clock.h"

namespace orv {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::ScopedFileSystem;
using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::FaultFileSystem;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

// The member names of an object, in order.
std::set<std::string> keys(const JSON& object) {
  std::set<std::string> names;
  for (const auto& member : object.ObjectRange())
    names.insert(member.first);
  return names;
}

class PersistenceTest : public ::testing::Test {
 protected:
  PersistenceTest() : record_(dir_.path(), "persistence.json") {}

  JSON onDisk() const { return JSON::Load(readFile(record_.path())); }

  ScopedLogCapture log_;
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  TempDir dir_;
  Persistence record_;
};

TEST_F(PersistenceTest, WithoutFileEveryGetterGivesItsDefault) {
  EXPECT_EQ(record_.getUpdateType(7), 7u);
  EXPECT_EQ(record_.getChannel(2), 2u);
  EXPECT_EQ(record_.getRepairInstructionId(1), 1u);
  EXPECT_EQ(record_.getStateHmi(10), 10u);
  EXPECT_EQ(record_.getStateLum(3), 3u);
  EXPECT_EQ(record_.getErrorCode(-4), -4);
  EXPECT_EQ(record_.getProgress(99), 99u);
  EXPECT_EQ(record_.getTrainName(), "");
  EXPECT_EQ(record_.getKeyManifest(), "");
  EXPECT_EQ(record_.getStartDate(), "--.--.----");
  EXPECT_EQ(record_.getStartTime(), "--:--:--");
  EXPECT_EQ(record_.getEndDate(), "--.--.----");
  EXPECT_EQ(record_.getEndTime(), "--:--:--");
  EXPECT_FALSE(std::filesystem::exists(record_.path())) << "readers must not create the file";
}

TEST_F(PersistenceTest, FirstTimestampCreatesAMinimalRecordWithMode0644) {
  record_.setStartDate("21.11.2026");
  const JSON root = onDisk();
  ASSERT_EQ(root.JSONType(), JSON::Class::Object);
  EXPECT_EQ(keys(root), std::set<std::string>{"timestamps"});
  const JSON* timestamps = root.find("timestamps");
  ASSERT_NE(timestamps, nullptr);
  EXPECT_EQ(keys(*timestamps), std::set<std::string>{"start-date"});
  EXPECT_EQ(timestamps->find("start-date")->ToString(), "21.11.2026");
  EXPECT_EQ(record_.getStartDate(), "21.11.2026");
  EXPECT_EQ(record_.getStartTime(), "--:--:--");

  struct stat status {};
  ASSERT_EQ(::stat(record_.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_EQ(status.st_gid, getgid());
}

TEST_F(PersistenceTest, EveryKeyRoundTripsAndLeavesTheOthersAlone) {
  struct Row {
    const char* key;
    std::function<void(Persistence&)> set;
    std::function<std::string(Persistence&)> get;
    std::string expected;
  };
  const uint32_t maxU = std::numeric_limits<uint32_t>::max();
  const std::vector<Row> rows = {
      {"channel", [](Persistence& p) { p.setChannel(1); },
       [](Persistence& p) { return std::to_string(p.getChannel(2)); }, "1"},
      {"updatetype", [](Persistence& p) { p.setUpdateType(4); },
       [](Persistence& p) { return std::to_string(p.getUpdateType(0)); }, "4"},
      {"repairinstructionid", [](Persistence& p) { p.setRepairInstructionId(65535); },
       [](Persistence& p) { return std::to_string(p.getRepairInstructionId(1)); }, "65535"},
      {"statehmi", [](Persistence& p) { p.setStateHmi(10); },
       [](Persistence& p) { return std::to_string(p.getStateHmi(0)); }, "10"},
      {"statelum", [](Persistence& p) { p.setStateLum(0); },
       [](Persistence& p) { return std::to_string(p.getStateLum(7)); }, "0"},
      {"errorcode", [](Persistence& p) { p.setErrorCode(-1); },
       [](Persistence& p) { return std::to_string(p.getErrorCode(0)); }, "-1"},
      {"progress", [maxU](Persistence& p) { p.setProgress(maxU); },
       [](Persistence& p) { return std::to_string(p.getProgress(0)); }, std::to_string(maxU)},
      {"trainname", [](Persistence& p) { p.setTrainName("T \"quoted\" \\ train"); },
       [](Persistence& p) { return p.getTrainName(); }, "T \"quoted\" \\ train"},
      {"usbpath", [](Persistence& p) { p.setUsbPath("http://[fd00::1]:29214/medium"); },
       [](Persistence& p) { return p.getUsbPath(); }, "http://[fd00::1]:29214/medium"},
      {"keyManifest", [](Persistence& p) { p.setKeyManifest("eyJhbGciOi.x.y"); },
       [](Persistence& p) { return p.getKeyManifest(); }, "eyJhbGciOi.x.y"},
      {"timestamps", [](Persistence& p) { p.setStartTime("08:00:01"); },
       [](Persistence& p) { return p.getStartTime(); }, "08:00:01"},
      {"timestamps", [](Persistence& p) { p.setEndDate("22.11.2026"); },
       [](Persistence& p) { return p.getEndDate(); }, "22.11.2026"},
      {"timestamps", [](Persistence& p) { p.setEndTime("23:59:59"); },
       [](Persistence& p) { return p.getEndTime(); }, "23:59:59"},
  };
  std::set<std::string> written;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    row.set(record_);
    written.insert(row.key);
    EXPECT_EQ(row.get(record_), row.expected);
    EXPECT_EQ(keys(onDisk()), written);
  }
  // Every earlier value is still there after all the other writes.
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    EXPECT_EQ(row.get(record_), row.expected);
  }
}

TEST_F(PersistenceTest, BadContentReadsAsDefaultsAndIsReplacedOnWrite) {
  struct Row {
    const char* proves;
    std::string file;
    uint32_t updateType;    // getUpdateType(7)
    std::string startDate;  // getStartDate()
    bool replaced;          // the next setChannel(1) starts a fresh object
  };
  const std::vector<Row> rows = {
      {"a string where a number is expected", R"({"updatetype": "4", "trainname": "t"})", 7,
       "--.--.----", false},
      {"a whole number written as floating point", R"({"updatetype": 4.000000})", 4, "--.--.----",
       false},
      {"a fraction is no update type", R"({"updatetype": 4.5})", 7, "--.--.----", false},
      {"a negative value for an unsigned key", R"({"updatetype": -1})", 7, "--.--.----", false},
      {"a value beyond 32 bits", R"({"updatetype": 4294967296})", 7, "--.--.----", false},
      {"a boolean", R"({"updatetype": true})", 7, "--.--.----", false},
      {"timestamps that are not an object", R"({"timestamps": "yesterday"})", 7, "--.--.----",
       false},
      {"a timestamp that is not a string", R"({"timestamps": {"start-date": 5}})", 7, "--.--.----",
       false},
      {"an array root", "[1, 2, 3]", 7, "--.--.----", true},
      {"a string root", "\"persistence\"", 7, "--.--.----", true},
      {"not JSON at all", "this is not json", 7, "--.--.----", true},
      {"an empty file", "", 7, "--.--.----", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    writeFile(record_.path(), row.file);
    EXPECT_EQ(record_.getUpdateType(7), row.updateType);
    EXPECT_EQ(record_.getStartDate(), row.startDate);
    EXPECT_EQ(record_.getChannel(2), 2u);
    record_.setChannel(1);
    EXPECT_EQ(record_.getChannel(2), 1u);
    const JSON root = onDisk();
    ASSERT_EQ(root.JSONType(), JSON::Class::Object);
    if (row.replaced) {
      EXPECT_EQ(keys(root), std::set<std::string>{"channel"});
    }
  }
}

TEST_F(PersistenceTest, NegativeNumbersFromOutsideSurviveTheNextWrite) {
  writeFile(record_.path(), R"({"errorcode": -5, "statelum": 3, "other": [{"x": -7}]})");
  EXPECT_EQ(record_.getErrorCode(0), -5);
  record_.setChannel(1);
  EXPECT_EQ(record_.getErrorCode(0), -5);
  EXPECT_EQ(record_.getStateLum(0), 3u);
  EXPECT_EQ(record_.getChannel(2), 1u);
  EXPECT_EQ(keys(onDisk()), (std::set<std::string>{"channel", "errorcode", "other", "statelum"}));
}

TEST_F(PersistenceTest, WrongTimestampsAreReplacedByAnObjectOnWrite) {
  writeFile(record_.path(), R"({"timestamps": "yesterday", "channel": 0})");
  record_.setEndTime("12:00:00");
  const JSON root = onDisk();
  EXPECT_EQ(keys(root), (std::set<std::string>{"channel", "timestamps"}));
  EXPECT_EQ(keys(*root.find("timestamps")), std::set<std::string>{"end-time"});
}

TEST_F(PersistenceTest, KeysInOtherCaseAreReadAndRewrittenCanonically) {
  writeFile(record_.path(), R"({"UpdateType": 4, "keymanifest": "km", "TrainName": "train",
                        "Timestamps": {"Start-Date": "01.01.2026", "END-TIME": "10:00:00"}})");
  EXPECT_EQ(record_.getUpdateType(0), 4u);
  EXPECT_EQ(record_.getKeyManifest(), "km");
  EXPECT_EQ(record_.getTrainName(), "train");
  EXPECT_EQ(record_.getStartDate(), "01.01.2026");
  EXPECT_EQ(record_.getEndTime(), "10:00:00");

  record_.setUpdateType(5);
  record_.setKeyManifest("k2");
  record_.setEndDate("02.01.2026");
  JSON root = onDisk();
  // Written keys take their documented spelling; untouched ones keep theirs.
  EXPECT_EQ(keys(root),
            (std::set<std::string>{"TrainName", "keyManifest", "timestamps", "updatetype"}));
  EXPECT_EQ(keys(*root.find("timestamps")),
            (std::set<std::string>{"END-TIME", "Start-Date", "end-date"}));
  EXPECT_EQ(record_.getStartDate(), "01.01.2026");

  record_.setStartDate("03.01.2026");
  record_.setEndTime("11:00:00");
  root = onDisk();
  EXPECT_EQ(keys(*root.find("timestamps")),
            (std::set<std::string>{"end-date", "end-time", "start-date"}));
  EXPECT_EQ(record_.getStartDate(), "03.01.2026");
  EXPECT_EQ(record_.getUpdateType(0), 5u);
}

TEST_F(PersistenceTest, ConcurrentWritersOfDifferentKeysKeepEveryKey) {
  constexpr int kRounds = 15;
  const std::vector<std::function<void(int)>> writers = {
      [this](int i) { record_.setChannel(static_cast<uint32_t>(i)); },
      [this](int i) { record_.setProgress(static_cast<uint32_t>(i)); },
      [this](int i) { record_.setTrainName("train " + std::to_string(i)); },
      [this](int i) { record_.setStartDate("date " + std::to_string(i)); },
  };
  std::vector<std::thread> threads;
  for (std::size_t w = 0; w < writers.size(); ++w) {
    threads.emplace_back([&writers, w] {
      pthread_setname_np(pthread_self(), ("pers-writer-" + std::to_string(w)).c_str());
      for (int i = 1; i <= kRounds; ++i)
        writers[w](i);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(record_.getChannel(0), static_cast<uint32_t>(kRounds));
  EXPECT_EQ(record_.getProgress(0), static_cast<uint32_t>(kRounds));
  EXPECT_EQ(record_.getTrainName(), "train " + std::to_string(kRounds));
  EXPECT_EQ(record_.getStartDate(), "date " + std::to_string(kRounds));
}

TEST_F(PersistenceTest, PowerCutDuringAnUpdateKeepsTheRestOfTheRecord) {
  record_.setChannel(1);
  record_.setStateHmi(3);
  uint64_t steps = 0;
  {
    FaultFileSystem fs;
    ScopedFileSystem scoped(fs);
    record_.setStateHmi(4);
    steps = fs.steps();
  }
  for (uint64_t step = 1; step <= steps; ++step) {
    SCOPED_TRACE("power cut at step " + std::to_string(step));
    record_.setStateHmi(3);
    {
      FaultFileSystem fs;
      fs.crashAtStep(step);
      ScopedFileSystem scoped(fs);
      record_.setStateHmi(4);
      ASSERT_TRUE(fs.crashed());
    }
    EXPECT_EQ(record_.getChannel(2), 1u);
    const uint32_t state = record_.getStateHmi(99);
    EXPECT_TRUE(state == 3 || state == 4) << state;
  }
}

TEST(PersistenceConstruction, PathAndMissingDirectory) {
  TempDir dir;
  EXPECT_EQ(Persistence(dir.path(), "p.json").path(), dir.path() + "/p.json");
  EXPECT_EQ(Persistence(dir.path() + "/", "p.json").path(), dir.path() + "/p.json");

  const std::string missing = dir.path() + "/absent";
  try {
    Persistence record(missing, "persistence.json");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), "Persistence directory does not exist [" + missing + "]!");
  }
}

}  // namespace
}  // namespace orv

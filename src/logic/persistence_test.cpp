#include "logic/persistence.h"
#include "minfw/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <limits>
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

// The member names of an object, sorted (its map's order), each followed by a blank.
std::string keys(const JSON& object) {
  std::string text;
  for (const auto& member : object.ObjectRange())
    text += member.first + " ";
  return text;
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

TEST_F(PersistenceTest, FirstTimestampCreatesAMinimalRecordWithMode0644) {
  EXPECT_EQ(record_.getEndDate(), "--.--.----");
  EXPECT_EQ(record_.getEndTime(), "--:--:--");
  EXPECT_FALSE(std::filesystem::exists(record_.path())) << "readers must not create the file";
  record_.setStartDate("21.11.2026");
  const JSON root = onDisk();
  ASSERT_EQ(root.JSONType(), JSON::Class::Object);
  EXPECT_EQ(keys(root), "timestamps ");
  const JSON* timestamps = root.find("timestamps");
  ASSERT_NE(timestamps, nullptr);
  EXPECT_EQ(keys(*timestamps), "start-date ");
  EXPECT_EQ(timestamps->find("start-date")->ToString(), "21.11.2026");
  EXPECT_EQ(record_.getStartDate(), "21.11.2026");
  EXPECT_EQ(record_.getStartTime(), "--:--:--");
  struct stat status {};
  ASSERT_EQ(::stat(record_.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_EQ(status.st_gid, getgid());
}

// Every key under its file name, intact after all other writes, read back by a fresh reader.
TEST_F(PersistenceTest, EveryKeyRoundTripsAndLeavesTheOthersAlone) {
  const uint32_t maxU = std::numeric_limits<uint32_t>::max();
  record_.setChannel(1);
  record_.setUpdateType(4);
  record_.setRepairInstructionId(65535);
  record_.setStateHmi(10);
  record_.setStateLum(0);
  record_.setErrorCode(-1);
  record_.setProgress(maxU);
  record_.setTrainName("T \"quoted\" \\ train");
  record_.setUsbPath("http://[fd00::1]:29214/medium");
  record_.setKeyManifest("eyJhbGciOi.x.y");
  record_.setStartTime("08:00:01");
  record_.setEndDate("22.11.2026");
  record_.setEndTime("23:59:59");
  EXPECT_EQ(keys(onDisk()),
            "channel errorcode keyManifest progress repairinstructionid statehmi statelum "
            "timestamps trainname updatetype usbpath ");
  EXPECT_EQ(keys(*onDisk().find("timestamps")), "end-date end-time start-time ");
  Persistence reader(dir_.path(), "persistence.json");
  EXPECT_EQ(reader.getChannel(2), 1u);
  EXPECT_EQ(reader.getUpdateType(0), 4u);
  EXPECT_EQ(reader.getRepairInstructionId(1), 65535u);
  EXPECT_EQ(reader.getStateHmi(0), 10u);
  EXPECT_EQ(reader.getStateLum(7), 0u);
  EXPECT_EQ(reader.getErrorCode(0), -1);
  EXPECT_EQ(reader.getProgress(0), maxU);
  EXPECT_EQ(reader.getTrainName(), "T \"quoted\" \\ train");
  EXPECT_EQ(reader.getUsbPath(), "http://[fd00::1]:29214/medium");
  EXPECT_EQ(reader.getKeyManifest(), "eyJhbGciOi.x.y");
  EXPECT_EQ(reader.getStartTime(), "08:00:01");
  EXPECT_EQ(reader.getEndDate(), "22.11.2026");
  EXPECT_EQ(reader.getEndTime(), "23:59:59");
}

TEST_F(PersistenceTest, BadContentReadsAsDefaultsAndIsReplacedOnWrite) {
  struct Row {
    const char* proves;
    std::string file;
    uint32_t updateType;  // getUpdateType(7)
    int errorCode;        // getErrorCode(0), before and after the write
    const char* keys;     // after setChannel(1): a bad root starts a fresh object
  };
  const char *kCU = "channel updatetype ", *kCT = "channel timestamps ";
  const std::vector<Row> rows = {
      {"a string where a number is expected", R"({"updatetype": "4", "trainname": "t"})", 7, 0,
       "channel trainname updatetype "},
      {"a whole number written as floating point", R"({"updatetype": 4.000000})", 4, 0, kCU},
      {"... also at the bottom of the range", R"({"updatetype": 0.000000})", 0, 0, kCU},
      {"a fraction is no update type", R"({"updatetype": 4.5})", 7, 0, kCU},
      {"a negative value for an unsigned key", R"({"updatetype": -1})", 7, 0, kCU},
      {"a value beyond 32 bits", R"({"updatetype": 4294967296})", 7, 0, kCU},
      {"a boolean", R"({"updatetype": true})", 7, 0, kCU},
      {"timestamps that are not an object", R"({"timestamps": "yesterday"})", 7, 0, kCT},
      {"a timestamp that is not a string", R"({"timestamps": {"start-date": 5}})", 7, 0, kCT},
      {"negative numbers from outside survive the next write",
       R"({"errorcode": -5, "statelum": 3, "other": [{"x": -7}]})", 7, -5,
       "channel errorcode other statelum "},
      {"an array root", "[1, 2, 3]", 7, 0, "channel "},
      {"not JSON at all", "this is not json", 7, 0, "channel "},
      {"an empty file", "", 7, 0, "channel "}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    writeFile(record_.path(), row.file);
    EXPECT_EQ(record_.getUpdateType(7), row.updateType);
    EXPECT_EQ(record_.getStartDate(), "--.--.----");
    EXPECT_EQ(record_.getChannel(2), 2u);
    EXPECT_EQ(record_.getErrorCode(0), row.errorCode);
    record_.setChannel(1);
    EXPECT_EQ(record_.getChannel(2), 1u);
    EXPECT_EQ(record_.getErrorCode(0), row.errorCode);
    EXPECT_EQ(keys(onDisk()), row.keys);
  }
  // A wrong "timestamps" member becomes an object on a timestamp write.
  writeFile(record_.path(), R"({"timestamps": "yesterday", "channel": 0})");
  record_.setEndTime("12:00:00");
  EXPECT_EQ(keys(onDisk()), "channel timestamps ");
  EXPECT_EQ(keys(*onDisk().find("timestamps")), "end-time ");
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
  EXPECT_EQ(keys(root), "TrainName keyManifest timestamps updatetype ");
  EXPECT_EQ(keys(*root.find("timestamps")), "END-TIME Start-Date end-date ");
  EXPECT_EQ(record_.getStartDate(), "01.01.2026");
  record_.setStartDate("03.01.2026");
  record_.setEndTime("11:00:00");
  root = onDisk();
  EXPECT_EQ(keys(*root.find("timestamps")), "end-date end-time start-date ");
  EXPECT_EQ(record_.getStartDate(), "03.01.2026");
  EXPECT_EQ(record_.getUpdateType(0), 5u);
}

TEST_F(PersistenceTest, ConcurrentWritersOfDifferentKeysKeepEveryKey) {
  constexpr int kRounds = 15;
  const std::vector<std::function<void(int)>> writers = {
      [this](int i) { record_.setChannel(static_cast<uint32_t>(i)); },
      [this](int i) { record_.setProgress(static_cast<uint32_t>(i)); },
      [this](int i) { record_.setTrainName("train " + std::to_string(i)); },
      [this](int i) { record_.setStartDate("date " + std::to_string(i)); }};
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

#include "minfw/file_with_backup.h"
#include "minfw/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "minfw/file_system.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/fault_file_system.h"
#include "minfw/testing/simulated_clock.h"

namespace kel::vxp3::minfw {
namespace {

using testing::FaultFileSystem;
using testing::readFile;
using testing::ScopedLogCapture;
using testing::SimulatedClock;
using testing::TempDir;
using testing::writeFile;
using Op = FaultFileSystem::Op;
using Names = FaultFileSystem::NameDurability;
using std::chrono::milliseconds;
bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}  // A record whose every byte depends on its seed and position, so any tear or mix shows.
std::string record(char seed, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i)
    text.push_back(static_cast<char>('!' + (seed + i * 7) % 90));
  return text;
}

std::optional<std::string> readBack(const std::string& path) {
  std::string data;
  if (!FileWithBackup::Read(path, data))
    return std::nullopt;
  return data;
}

class FileWithBackupTest : public ::testing::Test {
 protected:
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  ScopedLogCapture log_;
  TempDir dir_;
};

// Power cut at every call of a write, under both durability models, with and without an earlier
// record, with the new record longer and shorter than the old one. After the reboot the record
// is the complete old one or the complete new one; once the directory sync has happened it is
// the new one; before the rename it is the old one.
TEST_F(FileWithBackupTest, PowerCutAtEveryStepLeavesOldOrNewRecord) {
  struct Row {
    const char* proves;
    Names names;
    std::size_t oldSize;  // 0: no earlier record
    std::size_t newSize;
  };
  const std::vector<Row> rows = {
      {"POSIX names, growing record", Names::kOnDirectorySync, 300, 9000},
      {"POSIX names, shrinking record", Names::kOnDirectorySync, 9000, 40},
      {"POSIX names, first record ever", Names::kOnDirectorySync, 0, 500},
      {"journalled names, growing record", Names::kImmediate, 300, 9000},
      {"journalled names, shrinking record", Names::kImmediate, 9000, 40},
      {"journalled names, first record ever: no empty sibling is taken for a record",
       Names::kImmediate, 0, 500},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    const std::string oldRecord = record('o', row.oldSize);
    const std::string newRecord = record('n', row.newSize);

    // Learn the steps of one complete write.
    uint64_t totalSteps = 0;
    uint64_t renameStep = 0;
    uint64_t dirSyncStep = 0;
    {
      TempDir dir;
      const std::string path = dir.file("record.json");
      if (row.oldSize > 0) {
        ASSERT_TRUE(FileWithBackup::Write(path, oldRecord, getuid(), getgid(), 0644));
      }
      FaultFileSystem fs(row.names);
      ScopedFileSystem scoped(fs);
      ASSERT_TRUE(FileWithBackup::Write(path, newRecord, getuid(), getgid(), 0644));
      totalSteps = fs.steps();
      const auto trace = fs.trace();
      for (std::size_t i = 0; i < trace.size(); ++i) {
        if (trace[i].find(" rename ") != std::string::npos)
          renameStep = i + 1;
        if (trace[i].find(" fsync-dir ") != std::string::npos)
          dirSyncStep = i + 1;
      }
    }
    ASSERT_GT(renameStep, 0u);

    // One step beyond the write: the power fails right after Write returned.
    for (uint64_t step = 1; step <= totalSteps + 1; ++step) {
      SCOPED_TRACE("power cut at step " + std::to_string(step));
      TempDir dir;
      const std::string path = dir.file("record.json");
      if (row.oldSize > 0) {
        ASSERT_TRUE(FileWithBackup::Write(path, oldRecord, getuid(), getgid(), 0644));
      }
      {
        FaultFileSystem fs(row.names);
        fs.crashAtStep(step);
        ScopedFileSystem scoped(fs);
        const bool written = FileWithBackup::Write(path, newRecord, getuid(), getgid(), 0644);
        if (step <= renameStep) {
          EXPECT_FALSE(written);
        }
        if (step > totalSteps) {
          EXPECT_TRUE(written);
          fs.crash();
        }
        ASSERT_TRUE(fs.crashed());
      }
      // Reboot: the real file system sees what the disk kept.
      const auto after = readBack(path);
      const std::string found = !after                                   ? "none"
                                : *after == newRecord                    ? "new"
                                : row.oldSize > 0 && *after == oldRecord ? "old"
                                                                         : "torn";
      EXPECT_NE(found, "torn") << after->size() << " bytes";
      if (row.oldSize > 0) {
        EXPECT_NE(found, "none") << "the old record was lost";
      }
      if (step < renameStep && row.oldSize > 0) {
        EXPECT_EQ(found, "old");
      }
      // A write that returned true survives; so does one cut after its directory sync.
      if (step > totalSteps || (dirSyncStep > 0 && step > dirSyncStep)) {
        EXPECT_EQ(found, "new");
      }

      // The service writes again after the reboot and reads its new record.
      const std::string next = record('x', 77);
      ASSERT_TRUE(FileWithBackup::Write(path, next, getuid(), getgid(), 0644));
      EXPECT_EQ(readBack(path), next);
      EXPECT_FALSE(exists(path + ".new"));
    }
  }
}

TEST_F(FileWithBackupTest, FailuresAreRetriedInVirtualTimeOrTolerated) {
  struct Row {
    const char* proves;
    Op op;
    uint32_t nth;
    int error;
    uint32_t times;
    bool written;  // Write's result, and whether the target holds the new data
    std::vector<milliseconds> sleeps;
    std::vector<std::string> messages;
  };
  const milliseconds second(1000);
  const std::vector<Row> rows = {
      {"a write failing twice then succeeding pauses exactly twice 1000 ms",
       Op::kWrite,
       1,
       EIO,
       2,
       true,
       {second, second},
       {"try [2], errno[5]"}},
      {"three failed writes give up and keep the old record",
       Op::kWrite,
       1,
       EIO,
       FaultFileSystem::kAlways,
       false,
       {second, second},
       {"After [3] we give up!", "Unable to write persist file ["}},
      {"three failed opens give up",
       Op::kOpen,
       1,
       EACCES,
       FaultFileSystem::kAlways,
       false,
       {second, second},
       {"After [3] we give up!", "Unable to open ["}},
      {"a failing fsync fails the write", Op::kFsync, 1, EIO, 1, false, {}, {"fsync error ["}},
      {"a failing chmod is logged and tolerated",
       Op::kChmod,
       1,
       EPERM,
       1,
       true,
       {},
       {"tarCreateDir: Chmod error for [", "], permissions=[0644] :"}},
      {"a failing chown (unprivileged process) is logged and tolerated",
       Op::kChown,
       1,
       EPERM,
       1,
       true,
       {},
       {"tarCreateDir: Chown error for [", "], owner=[", "], group=[", "] :"}},
      {"a failing rename fails the write",
       Op::kRename,
       1,
       EXDEV,
       1,
       false,
       {},
       {"Unable to rename ["}},
      {"a failing directory sync is logged, the data is already in place",
       Op::kFsyncDir,
       1,
       EIO,
       1,
       true,
       {},
       {"Unable to sync directory ["}},
      {"a directory that cannot be opened for syncing is logged too",
       Op::kOpenDir,
       1,
       EMFILE,
       1,
       true,
       {},
       {"Unable to sync directory ["}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    TempDir dir;
    const std::string path = dir.file("p.json");
    const std::string oldRecord = record('o', 100);
    const std::string newRecord = record('n', 200);
    writeFile(path, oldRecord);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    FaultFileSystem fs;
    fs.failCall(row.op, row.nth, row.error, row.times);
    ScopedFileSystem scoped(fs);
    log_->clear();

    EXPECT_EQ(FileWithBackup::Write(path, newRecord, getuid(), getgid(), 0644), row.written);
    EXPECT_EQ(readFile(path), row.written ? newRecord : oldRecord);
    const std::vector<Clock::Duration> expected(row.sleeps.begin(), row.sleeps.end());
    EXPECT_EQ(clock.sleeps(), expected);
    for (const std::string& message : row.messages) {
      EXPECT_TRUE(log_->contains(message)) << message;
    }
  }
}

TEST_F(FileWithBackupTest, ShortWritesStillStoreTheWholeRecord) {
  const std::string path = dir_.file("short.json");
  const std::string data = record('s', 5000);
  FaultFileSystem fs;
  fs.shortWrite(1, 1);
  fs.shortWrite(2, 4095);
  ScopedFileSystem scoped(fs);
  EXPECT_TRUE(FileWithBackup::Write(path, data, getuid(), getgid(), 0644));
  EXPECT_EQ(readFile(path), data);
  EXPECT_EQ(fs.calls(Op::kWrite), 3u);
  EXPECT_TRUE(clock_.sleeps().empty());
}

TEST_F(FileWithBackupTest, FailedWriteLeavesNoTornSiblingForTheFirstRecord) {
  const std::string path = dir_.file("first.json");
  FaultFileSystem fs;
  fs.shortWrite(1, 10);
  fs.failCall(Op::kWrite, 2, EIO, FaultFileSystem::kAlways);
  {
    ScopedFileSystem scoped(fs);
    EXPECT_FALSE(FileWithBackup::Write(path, record('n', 100), getuid(), getgid(), 0644));
  }
  EXPECT_EQ(readBack(path), std::nullopt);
}

TEST_F(FileWithBackupTest, WriteSetsModeAndOwnerAndRemovesTheSibling) {
  const std::string path = dir_.file("mode.json");
  ASSERT_TRUE(FileWithBackup::Write(path, "{}", getuid(), getgid(), 0640));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_FALSE(exists(path + ".new"));
}

TEST_F(FileWithBackupTest, ReadFallsBackToTheSibling) {
  struct Row {
    const char* proves;
    std::optional<std::string> target;
    std::optional<std::string> sibling;
    std::optional<std::string> result;
  };
  const std::vector<Row> rows = {
      {"the target wins over a sibling", "target", "sibling", "target"},
      {"a lone sibling is read", std::nullopt, "sibling", "sibling"},
      {"an empty target is an empty record", "", std::nullopt, ""},
      {"an empty lone sibling is a write cut before its fsync", std::nullopt, "", std::nullopt},
      {"neither file", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    TempDir dir;
    const std::string path = dir.file("r.json");
    if (row.target)
      writeFile(path, *row.target);
    if (row.sibling)
      writeFile(path + ".new", *row.sibling);
    EXPECT_EQ(readBack(path), row.result);
    // Read never repairs: the sibling stays for the next Write to replace.
    EXPECT_EQ(exists(path + ".new"), row.sibling.has_value());
  }
}

TEST_F(FileWithBackupTest, ReadOfNothingWarnsWithBothNames) {
  const std::string path = dir_.file("none.json");
  EXPECT_EQ(readBack(path), std::nullopt);
  testing::LogRecord warning;
  ASSERT_TRUE(log_->find("Unable to find neither [", &warning));
  EXPECT_EQ(warning.message, "Unable to find neither [" + path + "], nor [" + path + ".new]");
  EXPECT_EQ(warning.level, kWarn);
  EXPECT_EQ(warning.tag, "pers");
}

TEST_F(FileWithBackupTest, DirectoriesFailAtOnceWithoutPauses) {
  struct Row {
    const char* proves;
    bool write;
    bool siblingIsDirectory;  // else the target is
  };
  const std::vector<Row> rows = {
      {"writing over a directory", true, false},
      {"writing when the sibling is a directory", true, true},
      {"reading a directory", false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    TempDir dir;
    const std::string path = dir.file("d");
    ASSERT_EQ(::mkdir((row.siblingIsDirectory ? path + ".new" : path).c_str(), 0755), 0);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    log_->clear();
    std::string data;
    EXPECT_FALSE(row.write ? FileWithBackup::Write(path, "x", getuid(), getgid(), 0644)
                           : FileWithBackup::Read(path, data));
    EXPECT_TRUE(log_->contains("Trying to open a directory!"));
    EXPECT_TRUE(clock.sleeps().empty());
  }
}

TEST_F(FileWithBackupTest, ReadOfAFifoFailsInsteadOfBlocking) {
  const std::string path = dir_.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
  EXPECT_EQ(readBack(path), std::nullopt);
  EXPECT_TRUE(log_->contains("not a regular file"));
}

TEST_F(FileWithBackupTest, ReadRetriesWithTwiceTheWritePause) {
  const std::string path = dir_.file("slow.json");
  writeFile(path, "content");
  FaultFileSystem fs;
  fs.failCall(Op::kPread, 1, EIO, 2);
  ScopedFileSystem scoped(fs);
  EXPECT_EQ(readBack(path), "content");
  EXPECT_EQ(clock_.sleeps(), std::vector<Clock::Duration>(2, milliseconds(2000)));

  fs.failCall(Op::kPread, 3, EIO, FaultFileSystem::kAlways);
  EXPECT_EQ(readBack(path), std::nullopt);
  EXPECT_TRUE(log_->contains("After [3] we give up!"));
  EXPECT_TRUE(log_->contains("Unable to read [" + path + "]"));
}

}  // namespace
}  // namespace kel::vxp3::minfw

#include "minfw/file_with_backup.h"
#include "minfw/smart_file_handle.h"
#include "minfw/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "minfw/file_system.h"
#include "minfw/str.h"
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
using std::chrono::milliseconds;
using std::filesystem::exists;

// A record whose every byte depends on its seed and position, so any tear or mix shows.
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

bool put(const std::string& path, const std::string& data, uint32_t mode = 0644) {
  return FileWithBackup::Write(path, data, getuid(), getgid(), mode);
}

std::vector<Clock::Duration> pauses(std::size_t count, int ms) {
  return std::vector<Clock::Duration>(count, milliseconds(ms));
}

// Every test runs in virtual time; fs_ is for handles given a file system of their own.
class FileWithBackupTest : public ::testing::Test {
 protected:
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  FaultFileSystem fs_;
  ScopedLogCapture log_;
  TempDir dir_;
};

constexpr uint32_t kAlways = FaultFileSystem::kAlways;

// Power cut at every call of a write, with and without an earlier record, the new one longer
// and shorter than the old. After the reboot the record is the complete old one or the complete
// new one; once the directory sync has happened it is the new one; before the rename the old.
TEST_F(FileWithBackupTest, PowerCutAtEveryStepLeavesOldOrNewRecord) {
  // proves, size of the earlier record (0: none), size of the new one
  const std::tuple<const char*, std::size_t, std::size_t> rows[] = {
      {"growing record", 300, 9000},
      {"shrinking record", 9000, 40},
      {"first record ever", 0, 500},
  };
  for (const auto& [proves, oldSize, newSize] : rows) {
    SCOPED_TRACE(proves);
    const bool hadOne = oldSize > 0;
    const std::string oldRecord = record('o', oldSize), newRecord = record('n', newSize);
    // The old record (if any) written for real, then the new one through `fs`.
    auto attempt = [&](const std::string& path, FaultFileSystem& fs) {
      EXPECT_TRUE(!hadOne || put(path, oldRecord));
      ScopedFileSystem scoped(fs);
      return put(path, newRecord);
    };
    // Learn the steps of one complete write.
    FaultFileSystem learn;
    ASSERT_TRUE(attempt(TempDir().file("record.json"), learn));
    const auto trace = learn.trace();
    const uint64_t totalSteps = trace.size();
    uint64_t renameStep = 0, dirSyncStep = 0;
    for (std::size_t i = 0; i < trace.size(); ++i) {
      renameStep = trace[i].find(" rename ") != std::string::npos ? i + 1 : renameStep;
      dirSyncStep = trace[i].find(" fsync-dir ") != std::string::npos ? i + 1 : dirSyncStep;
    }
    ASSERT_GT(renameStep, 0u);
    // One step beyond the write: the power fails right after Write returned.
    for (uint64_t step = 1; step <= totalSteps + 1; ++step) {
      SCOPED_TRACE("power cut at step " + std::to_string(step));
      TempDir dir;
      const std::string path = dir.file("record.json");
      {
        FaultFileSystem fs;
        fs.crashAtStep(step);
        const bool written = attempt(path, fs);
        EXPECT_FALSE(step <= renameStep && written);
        if (step > totalSteps) {
          EXPECT_TRUE(written);
          fs.crash();
        }
        ASSERT_TRUE(fs.crashed());
      }
      // Reboot: the real file system sees what the disk kept.
      const auto after = readBack(path);
      const std::string found = !after                          ? "none"
                                : *after == newRecord           ? "new"
                                : hadOne && *after == oldRecord ? "old"
                                                                : "torn";
      EXPECT_NE(found, "torn") << after->size() << " bytes";
      EXPECT_FALSE(hadOne && found == "none") << "the old record was lost";
      EXPECT_TRUE(found == "old" || step >= renameStep || !hadOne) << found;
      // A write that returned true survives; so does one cut after its directory sync.
      const bool durable = step > totalSteps || (dirSyncStep > 0 && step > dirSyncStep);
      EXPECT_TRUE(found == "new" || !durable) << found;
      // The service writes again after the reboot and reads its new record.
      ASSERT_TRUE(put(path, record('x', 77)));
      EXPECT_EQ(readBack(path), record('x', 77));
      EXPECT_FALSE(exists(path + ".new"));
    }
  }
}

TEST_F(FileWithBackupTest, FailuresAreRetriedInVirtualTimeOrTolerated) {
  // `written`: Write's result, and whether the target holds the new data; pauses of 1 s each.
  using Row = std::tuple<const char*, Op, int, uint32_t, bool, std::size_t, std::string>;
  const std::vector<Row> rows = {
      {"a write failing twice then succeeding pauses exactly twice", Op::kWrite, EIO, 2, true, 2,
       "try [2], errno[5]"},
      {"three failed writes give up and keep the old record", Op::kWrite, EIO, kAlways, false, 2,
       "Unable to write persist file ["},
      {"three failed opens give up", Op::kOpen, EACCES, kAlways, false, 2, "Unable to open ["},
      {"a failing fsync fails the write", Op::kFsync, EIO, 1, false, 0, "fsync error ["},
      {"a failing chmod is logged and tolerated", Op::kChmod, EPERM, 1, true, 0,
       "], permissions=[0644] :"},
      {"a failing chown (unprivileged process) is logged and tolerated", Op::kChown, EPERM, 1, true,
       0, cat("], owner=[", getuid(), "], group=[", getgid(), "] :")},
      {"a failing rename fails the write", Op::kRename, EXDEV, 1, false, 0, "Unable to rename ["},
      {"a failing directory sync is logged, the data is already in place", Op::kFsyncDir, EIO, 1,
       true, 0, "Unable to sync directory ["},
  };
  for (const auto& [proves, op, error, times, written, sleeps, message] : rows) {
    SCOPED_TRACE(proves);
    TempDir dir;
    const std::string path = dir.file("p.json");
    writeFile(path, record('o', 100));
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    FaultFileSystem fs;
    fs.failCall(op, 1, error, times);
    ScopedFileSystem scoped(fs);
    log_->clear();
    EXPECT_EQ(put(path, record('n', 200)), written);
    EXPECT_EQ(readFile(path), written ? record('n', 200) : record('o', 100));
    EXPECT_EQ(clock.sleeps(), pauses(sleeps, 1000));
    EXPECT_TRUE(log_->contains(message)) << message;
    EXPECT_EQ(log_->contains("After [3] we give up!"), times == kAlways);
  }
}

TEST_F(FileWithBackupTest, ShortWritesStoreTheWholeRecordWithModeAndOwner) {
  const std::string path = dir_.file("short.json"), data = record('s', 5000);
  FaultFileSystem fs;
  fs.shortWrite(1, 1);
  fs.shortWrite(2, 4095);
  {
    ScopedFileSystem scoped(fs);
    EXPECT_TRUE(put(path, data, 0640));
  }
  EXPECT_EQ(readBack(path), data) << "and reading it back leaves its mode alone";
  EXPECT_EQ(fs.calls(Op::kWrite), 3u);
  EXPECT_TRUE(clock_.sleeps().empty());
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_FALSE(exists(path + ".new"));
  // A first record that fails after a short write leaves no torn sibling to be read back.
  const std::string first = dir_.file("first.json");
  FaultFileSystem failing;
  failing.shortWrite(1, 10);
  failing.failCall(Op::kWrite, 2, EIO, kAlways);
  {
    ScopedFileSystem scoped(failing);
    EXPECT_FALSE(put(first, record('n', 100)));
  }
  EXPECT_EQ(readBack(first), std::nullopt);
}

TEST_F(FileWithBackupTest, ReadFallsBackToTheSibling) {
  using Text = std::optional<std::string>;
  const std::vector<std::tuple<const char*, Text, Text, Text>> rows = {
      {"the target wins over a sibling", "target", "sibling", "target"},
      {"a lone sibling is read", std::nullopt, "sibling", "sibling"},
      {"an empty target is an empty record", "", std::nullopt, ""},
      {"an empty lone sibling is a write cut before its fsync", std::nullopt, "", std::nullopt},
      {"neither file", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& [proves, target, sibling, result] : rows) {
    SCOPED_TRACE(proves);
    TempDir dir;
    const std::string path = dir.file("r.json");
    if (target)
      writeFile(path, *target);
    if (sibling)
      writeFile(path + ".new", *sibling);
    log_->clear();
    EXPECT_EQ(readBack(path), result);
    // Read never repairs: the sibling stays for the next Write to replace.
    EXPECT_EQ(exists(path + ".new"), sibling.has_value());
    EXPECT_EQ(log_->contains("Unable to find neither [" + path + "], nor [" + path + ".new]"),
              !result);
  }
}

TEST_F(FileWithBackupTest, DirectoriesAndFifosFailAtOnceWithoutPauses) {
  // proves, write (or read), the path made a directory (a FIFO when it is "fifo"), message
  const std::vector<std::tuple<const char*, bool, std::string, const char*>> rows = {
      {"writing over a directory", true, "d", "Trying to open a directory!"},
      {"writing when the sibling is a directory", true, "d.new", "Trying to open a directory!"},
      {"reading a directory", false, "d", "Trying to open a directory!"},
      {"reading a FIFO does not block", false, "fifo", "not a regular file"},
  };
  for (const auto& [proves, write, name, message] : rows) {
    SCOPED_TRACE(proves);
    TempDir dir;
    const std::string path = dir.file(name == "fifo" ? "fifo" : "d"), special = dir.file(name);
    ASSERT_EQ(name == "fifo" ? ::mkfifo(special.c_str(), 0644) : ::mkdir(special.c_str(), 0755), 0);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    log_->clear();
    std::string data;
    EXPECT_FALSE(write ? put(path, "x") : FileWithBackup::Read(path, data));
    EXPECT_TRUE(log_->contains(message));
    EXPECT_TRUE(clock.sleeps().empty());
  }
}

TEST_F(FileWithBackupTest, ReadRetriesWithTwiceTheWritePause) {
  const std::string path = dir_.file("slow.json");
  writeFile(path, "content");
  FaultFileSystem fs;
  fs.failCall(Op::kPread, 1, EIO, 2);
  ScopedFileSystem scoped(fs);
  EXPECT_EQ(readBack(path), "content");
  EXPECT_EQ(clock_.sleeps(), pauses(2, 2000));
  fs.failCall(Op::kPread, 3, EIO, kAlways);
  EXPECT_EQ(readBack(path), std::nullopt);
  EXPECT_TRUE(log_->contains("After [3] we give up!"));
  EXPECT_TRUE(log_->contains("Unable to read [" + path + "]"));
  fs.failCall(Op::kOpen, 1, EACCES, kAlways);
  EXPECT_EQ(readBack(path), std::nullopt);
  EXPECT_TRUE(log_->contains("Unable to open [" + path + "]"));
}

// Every row ends with the whole data written.
TEST_F(FileWithBackupTest, HandleWriteSurvivesShortAndFailedWrites) {
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
  // proves, the write call that fails, errno, failures in a row, bytes the first write call
  // writes at most, whether the re-open fails, pauses of 1 s, two texts logged
  using Row = std::tuple<const char*, uint32_t, int, uint32_t, std::size_t, bool, std::size_t,
                         std::string, std::string>;
  const std::size_t whole = data.size();
  const std::vector<Row> rows = {
      {"short writes continue with the rest, without pauses", 1, 0, 0, 5, false, 0,
       "Write [5] bytes, errno[", "] out of [36]"},
      {"a failure after a short write resumes behind the bytes already written", 2, EINTR, 1, 10,
       false, 1, "Write [10] bytes", "try [1], errno[4]"},
      {"a re-open that fails uses up a try and is reported", 1, EIO, 1, whole, true, 2,
       "Cannot re-open [", "try [2], errno[9]"},
      {"a write returning 0 cannot spin for ever", 1, 0, 0, 0, false, 1, "try [1], errno[0]", ""},
  };
  for (const auto& [proves, nth, error, failures, firstWriteMax, reopenFails, sleeps, message,
                    also] : rows) {
    SCOPED_TRACE(proves);
    FaultFileSystem fs;
    fs.failCall(Op::kWrite, nth, error, failures);
    fs.shortWrite(1, firstWriteMax);
    if (reopenFails)
      fs.failCall(Op::kOpen, 2, ENOENT);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    log_->clear();
    const std::string path = dir_.file("w");
    writeFile(path, "stale content that is longer than the new data, to be truncated away");
    SmartFileHandle handle(fs);
    ASSERT_TRUE(handle.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644));
    EXPECT_TRUE(handle.Write(data.data(), data.size(), 0));
    handle.Close();
    EXPECT_EQ(clock.sleeps(), pauses(sleeps, 1000));
    EXPECT_EQ(readFile(path), data);
    EXPECT_TRUE(log_->contains(message)) << message;
    EXPECT_TRUE(log_->contains(also)) << also;
  }
}

// A re-opened write keeps what is before its offset; a read stops at the end of the file.
TEST_F(FileWithBackupTest, HandleOffsetWriteAndReadRetryAndReport) {
  const std::string path = dir_.file("f");
  SmartFileHandle handle(fs_);
  handle.setReadTries(3);
  handle.setPause(2000);
  ASSERT_TRUE(handle.Open(path, O_RDWR | O_CREAT | O_TRUNC, 0644));
  ASSERT_TRUE(handle.Write("hello world", 11, 0));
  fs_.failCall(Op::kWrite, 2, EIO);
  ASSERT_TRUE(handle.Write("WORLD", 5, 6));
  EXPECT_EQ(readFile(path), "hello WORLD");
  fs_.failCall(Op::kPread, 1, EIO);
  std::string buffer(7, '\0');
  EXPECT_TRUE(handle.Read(buffer.data(), buffer.size(), 4));
  EXPECT_EQ(buffer, "o WORLD");
  EXPECT_EQ(clock_.sleeps(), pauses(2, 2000)) << "one pause for the write, one for the read";
  handle.setReadTries(0);  // still one try, and only one
  fs_.failCall(Op::kPread, fs_.calls(Op::kPread) + 1, EIO);
  EXPECT_FALSE(handle.Read(buffer.data(), buffer.size(), 4));
  std::string tooLong(20, '\0');
  EXPECT_FALSE(handle.Read(tooLong.data(), tooLong.size(), 0));
  EXPECT_TRUE(log_->contains("end of file after [11] bytes out of [20]"));
}

}  // namespace
}  // namespace kel::vxp3::minfw

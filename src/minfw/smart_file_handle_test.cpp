#include "minfw/smart_file_handle.h"
#include "minfw/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

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

constexpr uint32_t kAlways = FaultFileSystem::kAlways;

std::vector<Clock::Duration> pauses(std::size_t count, int ms) {
  return std::vector<Clock::Duration>(count, std::chrono::milliseconds(ms));
}

// Every test runs in virtual time with the fault file system installed.
class SmartFileHandleTest : public ::testing::Test {
 protected:
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  FaultFileSystem fs_;
  ScopedLogCapture log_;
  TempDir dir_;
};

TEST_F(SmartFileHandleTest, OpenRetriesUntilSuccessOrGivesUp) {
  struct Row {
    const char* proves;
    int error;
    uint32_t failures;
    int32_t pauseMs;
    bool opens;
    std::size_t sleeps;
    const char* message;
  };
  const std::vector<Row> rows = {
      {"an interrupted open is retried after one pause", EINTR, 1, 1000, true, 1,
       "try [1], errno[4]"},
      {"the pause between tries is configurable", EIO, 2, 250, true, 2, "try [2], errno[5]"},
      {"a pause of 0 does not sleep at all", EIO, 4, 0, true, 0, "try [4], errno[5]"},
      {"five failures give up without a sixth try or a trailing pause", EACCES, kAlways, 1000,
       false, 4, "try [5], errno[13]"},
      {"EISDIR gives up at once", EISDIR, kAlways, 1000, false, 0, "Trying to open a directory!"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    FaultFileSystem fs;
    fs.failCall(Op::kOpen, 1, row.error, row.failures);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    log_->clear();
    SmartFileHandle handle(fs);
    handle.setPause(row.pauseMs);
    EXPECT_EQ(handle.Open(dir_.file("a"), O_WRONLY | O_CREAT, 0644), row.opens);
    EXPECT_EQ(handle.isOpen(), row.opens);
    EXPECT_EQ(clock.sleeps(), pauses(row.sleeps, row.pauseMs));
    EXPECT_TRUE(log_->contains(row.message)) << row.message;
    EXPECT_EQ(log_->contains("After [5] we give up!"), row.error == EACCES);
    EXPECT_FALSE(log_->contains("try [6]"));
  }
  // Failures are logged under the operation's name.
  testing::LogRecord record;
  ASSERT_TRUE(log_->find("Trying to open a directory!", &record));
  EXPECT_EQ(record.tag, "pers");
  EXPECT_EQ(record.level, kError);
  EXPECT_NE(record.location.find("Open("), std::string::npos) << record.location;
}

TEST_F(SmartFileHandleTest, WriteSurvivesShortAndFailedWrites) {
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
  struct Row {
    const char* proves;
    Op op;
    uint32_t nth;
    int error;
    uint32_t failures;
    std::size_t firstWriteMax;  // bytes the first write call writes at most
    bool reopenFails;
    bool written;
    std::size_t sleeps;
    std::string message;
    std::string also;
  };
  const std::size_t whole = data.size();
  const std::vector<Row> rows = {
      {"short writes continue with the rest, without pauses", Op::kWrite, 1, 0, 0, 5, false, true,
       0, "Write [5] bytes, errno[", "] out of [36]"},
      {"two failed writes then success: two pauses, re-open keeps nothing twice", Op::kWrite, 1,
       EIO, 2, whole, false, true, 2, "try [1], errno[5]", "try [2], errno[5]"},
      {"a failure after a short write resumes behind the bytes already written", Op::kWrite, 2,
       EINTR, 1, 10, false, true, 1, "Write [10] bytes", "try [1], errno[4]"},
      {"a re-open that fails uses up a try and is reported", Op::kWrite, 1, EIO, 1, whole, true,
       true, 2, "Cannot re-open [", "try [2], errno[9]"},
      {"five failed writes give up", Op::kWrite, 1, ENOSPC, kAlways, whole, false, false, 4,
       "try [5], errno[28]", "After [5] we give up!"},
      {"a failing fsync fails the write", Op::kFsync, 1, EIO, 1, whole, false, false, 0,
       "fsync error [", ""},
      {"a write returning 0 cannot spin for ever", Op::kWrite, 1, 0, 0, 0, false, true, 1,
       "try [1], errno[0]", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    FaultFileSystem fs;
    fs.failCall(row.op, row.nth, row.error, row.failures);
    fs.shortWrite(1, row.firstWriteMax);
    if (row.reopenFails)
      fs.failCall(Op::kOpen, 2, ENOENT);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock scopedClock(clock);
    log_->clear();
    const std::string path = dir_.file("w");
    writeFile(path, "stale content that is longer than the new data, to be truncated away");
    SmartFileHandle handle(fs);
    ASSERT_TRUE(handle.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644));
    EXPECT_EQ(handle.Write(data.data(), data.size(), 0), row.written);
    handle.Close();
    EXPECT_EQ(clock.sleeps(), pauses(row.sleeps, 1000));
    if (row.written) {
      EXPECT_EQ(readFile(path), data);
    }
    EXPECT_TRUE(log_->contains(row.message)) << row.message;
    EXPECT_TRUE(log_->contains(row.also)) << row.also;
  }
}

// One handle through writes at an offset, reads, truncation, size and advice, each with a fault.
TEST_F(SmartFileHandleTest, OperationsOnAnOpenFileRetryAndReport) {
  const std::string path = dir_.file("f");
  SmartFileHandle handle(fs_);
  handle.setReadTries(3);
  handle.setPause(2000);
  ASSERT_TRUE(handle.Open(path, O_RDWR | O_CREAT | O_TRUNC, 0644));
  ASSERT_TRUE(handle.Write("hello world", 11, 0));
  fs_.failCall(Op::kWrite, 2, EIO);
  ASSERT_TRUE(handle.Write("WORLD", 5, 6));
  EXPECT_EQ(readFile(path), "hello WORLD") << "a re-opened write keeps what is before it";
  EXPECT_EQ(handle.Size(), 11u);
  EXPECT_GT(handle.BlockSize(), 0u);

  fs_.failCall(Op::kPread, 1, EIO);
  std::string buffer(7, '\0');
  EXPECT_TRUE(handle.Read(buffer.data(), buffer.size(), 4));
  EXPECT_EQ(buffer, "o WORLD");
  EXPECT_EQ(clock_.sleeps(), pauses(2, 2000)) << "one pause for the write, one for the read";
  std::string tooLong(20, '\0');
  EXPECT_FALSE(handle.Read(tooLong.data(), tooLong.size(), 0));
  EXPECT_TRUE(log_->contains("end of file after [11] bytes out of [20]"));
  fs_.failCall(Op::kPread, 3, EIO, kAlways);
  EXPECT_FALSE(handle.Read(buffer.data(), buffer.size(), 0));
  EXPECT_TRUE(log_->contains("After [3] we give up!"));

  fs_.failCall(Op::kTruncate, 1, EINTR);
  EXPECT_TRUE(handle.Truncate(4));
  EXPECT_EQ(readFile(path), "hell");
  EXPECT_TRUE(log_->contains("truncate(" + path + ") try [1], errno[4]"));
  fs_.failCall(Op::kFstat, fs_.calls(Op::kFstat) + 1, EIO, kAlways);
  EXPECT_EQ(handle.Size(), 0u);
  EXPECT_TRUE(log_->contains("stat(" + path + ") try [3], errno[5]")) << "the read tries";
  fs_.failCall(Op::kFadvise, 1, EINVAL);
  EXPECT_FALSE(handle.posix_fadvise(0, 0, POSIX_FADV_DONTNEED));
  EXPECT_TRUE(log_->contains("File [" + path + "], posix_fadvise error:"));
}

TEST_F(SmartFileHandleTest, CreatingOpenSetsTheExactModeReadingLeavesItAlone) {
  const mode_t previousMask = umask(077);
  const std::string path = dir_.file("m");
  struct stat status {};
  SmartFileHandle handle(fs_);
  ASSERT_TRUE(handle.Open(path, O_WRONLY | O_CREAT, 0664));
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);  // not masked to 0600
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(handle.Open(path, O_RDONLY, 0666));
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  fs_.failCall(Op::kFchmodat, fs_.calls(Op::kFchmodat) + 1, EPERM);
  EXPECT_TRUE(handle.Open(path, O_WRONLY | O_CREAT, 0600));
  EXPECT_TRUE(log_->contains("fchmodat(" + path + ") : errno[1]"));
  umask(previousMask);
}

}  // namespace
}  // namespace kel::vxp3::minfw

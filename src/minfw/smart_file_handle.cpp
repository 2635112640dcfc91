#include "minfw/smart_file_handle.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "minfw/clock.h"
#include "minfw/log.h"

namespace kel::vxp3::minfw {

namespace {
constexpr const char* kTag = "pers";

// A try count of 0 still makes one attempt.
uint32_t atLeastOnce(uint32_t tries) {
  return std::max<uint32_t>(tries, 1);
}
}  // namespace

SmartFileHandle::SmartFileHandle() : SmartFileHandle(fileSystem()) {}

SmartFileHandle::SmartFileHandle(FileSystem& fs) : fs_(fs) {}

SmartFileHandle::~SmartFileHandle() {
  Close();
}

void SmartFileHandle::pause() const {
  if (pauseMs_ > 0)
    clock().sleepFor(std::chrono::milliseconds(pauseMs_));
}

bool SmartFileHandle::Open(const std::string& path, int flags, mode_t mode) {
  Close();
  path_ = path;
  flags_ = flags;
  mode_ = mode;
  const uint32_t tries = atLeastOnce(openTries_);
  for (uint32_t n = 1; n <= tries; ++n) {
    fd_ = fs_.openat(AT_FDCWD, path_.c_str(), flags | O_CLOEXEC, mode);
    if (fd_ >= 0)
      break;
    const int error = errno;
    MLOG_WARN(kTag, "open(", path_, ") try [", n, "], errno[", error, "] ", errnoText(error));
    if (error == EISDIR) {
      MLOG_ERROR(kTag, "Trying to open a directory!");
      return false;
    }
    if (n < tries)
      pause();
  }
  if (fd_ < 0) {
    MLOG_ERROR(kTag, "After [", tries, "] we give up!");
    return false;
  }
  // Only a creating open has a meaningful mode; applying it to files opened for reading would
  // change the permissions of existing files behind the owner's back.
  if ((flags & O_CREAT) != 0 && fs_.fchmodat(AT_FDCWD, path_.c_str(), mode, 0) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "fchmodat(", path_, ") : errno[", error, "] ", errnoText(error));
  }
  return true;
}

bool SmartFileHandle::reopen() {
  if (fd_ >= 0)
    fs_.close(fd_);
  // What was written before the failure stays: no truncation, no exclusive creation.
  const int flags = flags_ & ~(O_TRUNC | O_EXCL | O_CREAT);
  fd_ = fs_.openat(AT_FDCWD, path_.c_str(), flags | O_CLOEXEC, mode_);
  return fd_ >= 0;
}

bool SmartFileHandle::Read(void* buffer, std::size_t length, off_t offset) {
  if (fd_ < 0) {
    MLOG_ERROR(kTag, "No file opened!");
    return false;
  }
  auto* bytes = static_cast<char*>(buffer);
  const uint32_t tries = atLeastOnce(readTries_);
  uint32_t failures = 0;
  std::size_t done = 0;
  while (done < length) {
    const ssize_t n =
        fs_.pread(fd_, bytes + done, length - done, offset + static_cast<off_t>(done));
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0) {
      MLOG_ERROR(kTag, "read(", path_, ") : end of file after [", done, "] bytes out of [", length,
                 "]");
      return false;
    }
    const int error = errno;
    ++failures;
    MLOG_WARN(kTag, "read(", path_, ") try [", failures, "], errno[", error, "] ",
              errnoText(error));
    if (failures >= tries) {
      MLOG_ERROR(kTag, "After [", tries, "] we give up!");
      return false;
    }
    pause();
    if (!reopen())
      MLOG_ERROR(kTag, "Cannot re-open [", path_, "], errno[", errno, "]");
  }
  return true;
}

bool SmartFileHandle::Write(const void* buffer, std::size_t length, off_t offset) {
  if (fd_ < 0) {
    MLOG_ERROR(kTag, "No file opened!");
    return false;
  }
  if (fs_.lseek(fd_, offset, SEEK_SET) < 0) {
    MLOG_ERROR(kTag, "Unable to seek.");
    return false;
  }
  const auto* bytes = static_cast<const char*>(buffer);
  const uint32_t tries = atLeastOnce(writeTries_);
  uint32_t failures = 0;
  std::size_t done = 0;
  while (done < length) {
    const ssize_t n = fs_.write(fd_, bytes + done, length - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      if (done < length)
        MLOG_WARN(kTag, "Write [", done, "] bytes, errno[", errno, "] out of [", length, "]");
      continue;
    }
    // write() returning 0 for a non-empty buffer makes no progress; treat it as a failure so
    // the loop cannot spin.
    const int error = n == 0 ? 0 : errno;
    ++failures;
    MLOG_WARN(kTag, "write(", path_, ") try [", failures, "], errno[", error, "] ",
              errnoText(error));
    if (failures >= tries) {
      MLOG_ERROR(kTag, "After [", tries, "] we give up!");
      return false;
    }
    pause();
    if (!reopen()) {
      // The next write on the closed descriptor fails with EBADF and uses up a try.
      MLOG_ERROR(kTag, "Cannot re-open [", path_, "], errno[", errno, "]");
      continue;
    }
    if (fs_.lseek(fd_, offset + static_cast<off_t>(done), SEEK_SET) < 0) {
      MLOG_ERROR(kTag, "Unable to seek.");
      return false;
    }
  }
  if (fs_.fsync(fd_) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "fsync error [", path_, "], errno[", error, "] ", errnoText(error));
    return false;
  }
  if (adviseAfterWrite_ != 0)
    posix_fadvise(offset, static_cast<off_t>(length), POSIX_FADV_DONTNEED);
  return true;
}

uint64_t SmartFileHandle::Size() {
  if (fd_ < 0) {
    MLOG_ERROR(kTag, "No file opened!");
    return 0;
  }
  const uint32_t tries = atLeastOnce(readTries_);
  struct stat status {};
  for (uint32_t n = 1; n <= tries; ++n) {
    if (fs_.fstat(fd_, &status) == 0)
      return static_cast<uint64_t>(status.st_size);
    const int error = errno;
    MLOG_WARN(kTag, "stat(", path_, ") try [", n, "], errno[", error, "] ", errnoText(error));
    if (n < tries)
      pause();
  }
  MLOG_ERROR(kTag, "After [", tries, "] we give up!");
  return 0;
}

bool SmartFileHandle::posix_fadvise(off_t offset, off_t length, int advice) {
  if (fd_ < 0) {
    MLOG_ERROR(kTag, "No file opened!");
    return false;
  }
  const int error = fs_.posix_fadvise(fd_, offset, length, advice);
  if (error != 0) {
    MLOG_ERROR(kTag, "File [", path_, "], posix_fadvise error:", errnoText(error));
    return false;
  }
  return true;
}

bool SmartFileHandle::Close() {
  if (fd_ < 0)
    return true;
  const int result = fs_.close(fd_);
  fd_ = -1;
  if (result != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "close(", path_, ") : errno[", error, "] ", errnoText(error));
    return false;
  }
  return true;
}

}  // namespace kel::vxp3::minfw

#pragma once
// SmartFileHandle: a POSIX file descriptor that retries failing calls.
//
// Opening, reading and writing are each tried up to a configurable number of times (5 by
// default) with a pause between tries (1000 ms by default; 0 or less means no pause). A failed
// write re-opens the file and carries on where it stopped; a complete write is fsynced before
// it counts as done. Every failure is logged with the tag "pers" under the name of the
// operation. System calls go through the file-system seam captured at construction
// (file_system.h); pauses go through the clock seam (clock.h).
//
// Threading: owned by one thread; no internal locking. Callers serialise access to one path.

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "minfw/file_system.h"

namespace kel::vxp3::minfw {

class SmartFileHandle {
 public:
  static constexpr uint32_t kDefaultTries = 5;
  static constexpr int32_t kDefaultPauseMs = 1000;

  SmartFileHandle();
  explicit SmartFileHandle(FileSystem& fs);
  ~SmartFileHandle();
  SmartFileHandle(const SmartFileHandle&) = delete;
  SmartFileHandle& operator=(const SmartFileHandle&) = delete;

  void setOpenTries(uint32_t tries) { openTries_ = tries; }
  void setReadTries(uint32_t tries) { readTries_ = tries; }
  void setWriteTries(uint32_t tries) { writeTries_ = tries; }
  void setPause(int32_t milliseconds) { pauseMs_ = milliseconds; }
  // Non-zero: after a complete write, advise the kernel that the written pages are not needed
  // again (POSIX_FADV_DONTNEED), for large one-off files that should not evict the page cache.
  void setAdviseAfterWrite(uint8_t advise) { adviseAfterWrite_ = advise; }

  // Closes a descriptor still open, then opens `path` relative to the current directory. With
  // O_CREAT the permission bits are set to exactly `mode` (fchmodat, bypassing the umask). A
  // directory is refused at once; other failures are retried.
  bool Open(const std::string& path, int flags, mode_t mode);

  // Reads exactly `length` bytes at `offset`. Running into the end of the file is a failure.
  bool Read(void* buffer, std::size_t length, off_t offset);

  // Writes all `length` bytes at `offset`, then fsyncs.
  bool Write(const void* buffer, std::size_t length, off_t offset);

  // Size of the open file; 0 on failure.
  uint64_t Size();

  // Page-cache advice for the open file (POSIX_FADV_*).
  bool posix_fadvise(off_t offset, off_t length, int advice);

  bool Close();

  bool isOpen() const { return fd_ >= 0; }
  int descriptor() const { return fd_; }
  const std::string& path() const { return path_; }

 private:
  void pause() const;
  // Opens path_ again after a failed transfer, without truncating what is already there.
  bool reopen();

  FileSystem& fs_;
  std::string path_;
  int32_t fd_ = -1;
  int flags_ = 0;
  mode_t mode_ = 0;
  uint32_t openTries_ = kDefaultTries;
  uint32_t readTries_ = kDefaultTries;
  uint32_t writeTries_ = kDefaultTries;
  int32_t pauseMs_ = kDefaultPauseMs;
  uint8_t adviseAfterWrite_ = 0;
};

}  // namespace kel::vxp3::minfw

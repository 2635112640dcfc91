#pragma once
// FaultFileSystem: the real POSIX file system with faults injected on request, for tests.
//
// The nth call (from 1) of one operation fails with a chosen errno, once or several times in a
// row; the nth write can be cut short. Every call is a numbered step (from 1, across all
// operations) and traced, so a test can learn the steps of an operation and crash at each.
//
// Power cut (crash(), or crashAtStep(n) instead of step n): every later call fails with EIO and
// the touched files are rewritten to what a disk holds after the reboot. Data is durable up to
// its last fsync (content from before this object first touched it counts as synced); a
// creation or rename is durable only once its directory is fsynced, until then it is undone. A
// crashing write first writes half its bytes, so torn data really reaches the file. Only paths
// opened relative to AT_FDCWD are modelled, and a file belongs to the directory named by its path
// before the last "/". Calls without an Op pass straight through, unnumbered.
//
// Threading: thread-safe; one mutex is held across each call (tests need order, not speed).

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "minfw/file_system.h"

namespace kel::vxp3::minfw::testing {

class FaultFileSystem : public FileSystem {
 public:
  enum class Op {
    kOpen,     // openat of a file
    kOpenDir,  // openat with O_DIRECTORY
    kPread,
    kWrite,
    kFsync,     // fsync of a file
    kFsyncDir,  // fsync of a descriptor opened with O_DIRECTORY
    kClose,
    kChmod,
    kChown,
    kRename,
  };
  static constexpr uint32_t kAlways = UINT32_MAX;

  // Calls nth .. nth+times-1 of `op` fail with `error` (kAlways: every call from nth on).
  void failCall(Op op, uint32_t nth, int error, uint32_t times = 1);
  // The nth write writes at most `maxBytes` bytes.
  void shortWrite(uint32_t nth, std::size_t maxBytes);
  // Step n (counted from 1 over all calls) is not performed: the power fails instead.
  void crashAtStep(uint64_t step);
  // The power fails now.
  void crash();

  bool crashed() const {
    return locked([&] { return crashed_; });
  }
  // Calls so far, the crashing one included.
  uint64_t steps() const {
    return locked([&] { return steps_; });
  }
  uint32_t calls(Op op) const {
    return locked([&] { return calls_.count(op) ? calls_.at(op) : 0; });
  }
  // One line per call: "<step> <op> <path>" or "<step> <op> fd <n>" (a directory's with path).
  std::vector<std::string> trace() const {
    return locked([&] { return trace_; });
  }

  int openat(int dirfd, const char* path, int flags, mode_t mode) override;
  ssize_t pread(int fd, void* buffer, std::size_t count, off_t offset) override;
  ssize_t write(int fd, const void* buffer, std::size_t count) override;
  int fsync(int fd) override;
  int close(int fd) override;
  int chmod(const char* path, mode_t mode) override;
  int chown(const char* path, uid_t owner, gid_t group) override;
  int rename(const char* from, const char* to) override;
  // Not faulted, not recorded.
  ssize_t read(int fd, void* b, std::size_t n) override { return real_.read(fd, b, n); }
  ssize_t pwrite(int fd, const void* b, std::size_t n, off_t at) override {
    return real_.pwrite(fd, b, n, at);
  }
  off_t lseek(int fd, off_t at, int whence) override { return real_.lseek(fd, at, whence); }
  int fchmodat(int dirfd, const char* path, mode_t mode, int flags) override {
    return real_.fchmodat(dirfd, path, mode, flags);
  }
  int ftruncate(int fd, off_t length) override { return real_.ftruncate(fd, length); }
  int truncate(const char* path, off_t length) override { return real_.truncate(path, length); }
  int fstat(int fd, struct stat* status) override { return real_.fstat(fd, status); }
  int stat(const char* path, struct stat* status) override { return real_.stat(path, status); }
  int posix_fadvise(int fd, off_t at, off_t length, int advice) override {
    return real_.posix_fadvise(fd, at, length, advice);
  }

 private:
  template <typename F>  // f() under mutex_
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  struct Fault {
    Op op;
    uint32_t first, last;
    int error;
  };
  // Counts and traces the call; false (errno set) when it fails or the power fails at it, in
  // which case `beforeCrash` runs first. Callers of these private functions hold mutex_.
  bool enter(Op op, const std::string& what, const std::function<void()>& beforeCrash = {});
  std::string describe(int fd) const;
  void touchPath(const std::string& path);
  // The id of the regular file `path` (snapshotted when first seen), if there is one.
  std::optional<uint64_t> idOfPath(const std::string& path);
  uint64_t newId(ino_t inode, std::string data);
  void commitDirectory(const std::string& directory);
  void powerCutLocked();

  FileSystem& real_ = posixFileSystem();
  mutable std::mutex mutex_;  // guards everything below
  std::vector<Fault> faults_;
  std::map<uint32_t, std::size_t> shortWrites_;
  uint64_t crashStep_ = 0;
  bool crashed_ = false;
  uint64_t steps_ = 0;
  std::map<Op, uint32_t> calls_;
  std::vector<std::string> trace_;
  std::map<int, std::string> directories_;  // open directory descriptors -> path
  // Our own file ids, as a freed inode number is reused while the old file may still be the
  // durable one. durableNames_: the file each touched path names after a crash (nullopt: none).
  std::map<ino_t, uint64_t> idOf_;
  uint64_t nextId_ = 1;
  std::map<std::string, std::optional<uint64_t>> durableNames_;
  std::map<uint64_t, std::string> durableData_;
  std::map<std::string, mode_t> modes_;
};

}  // namespace kel::vxp3::minfw::testing

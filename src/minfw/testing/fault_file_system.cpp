#include "minfw/testing/fault_file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "minfw/str.h"
#include "minfw/testing/temp_dir.h"

namespace kel::vxp3::minfw::testing {

namespace {

std::string normalDirectory(std::string directory) {
  while (directory.size() > 1 && directory.back() == '/')
    directory.pop_back();
  return directory;
}

// Trace names, in the order of FaultFileSystem::Op.
const char* const kOpNames[] = {"openat",    "openat-dir", "pread", "write", "fsync",
                                "fsync-dir", "close",      "chmod", "chown", "rename"};

}  // namespace

void FaultFileSystem::failCall(Op op, uint32_t nth, int error, uint32_t times) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t last = times == kAlways || nth > UINT32_MAX - times ? UINT32_MAX : nth + times - 1;
  faults_.push_back(Fault{op, nth, last, error});
}

void FaultFileSystem::shortWrite(uint32_t nth, std::size_t maxBytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  shortWrites_[nth] = maxBytes;
}

void FaultFileSystem::crashAtStep(uint64_t step) {
  std::lock_guard<std::mutex> lock(mutex_);
  crashStep_ = step;
}

void FaultFileSystem::crash() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!crashed_)
    powerCutLocked();
}

std::string FaultFileSystem::describe(int fd) const {
  const auto dir = directories_.find(fd);
  return dir == directories_.end() ? cat("fd ", fd) : cat("fd ", fd, " ", dir->second);
}

bool FaultFileSystem::enter(Op op, const std::string& what,
                            const std::function<void()>& beforeCrash) {
  ++steps_;
  const uint32_t nth = ++calls_[op];
  trace_.push_back(cat(steps_, " ", kOpNames[static_cast<int>(op)], " ", what));
  if (crashed_) {
    errno = EIO;
    return false;
  }
  if (crashStep_ != 0 && steps_ == crashStep_) {
    if (beforeCrash)
      beforeCrash();
    powerCutLocked();
    errno = EIO;
    return false;
  }
  for (const Fault& fault : faults_) {
    if (fault.op == op && nth >= fault.first && nth <= fault.last) {
      errno = fault.error;
      return false;
    }
  }
  return true;
}

uint64_t FaultFileSystem::newId(ino_t inode, std::string data) {
  const uint64_t id = nextId_++;
  idOf_[inode] = id;
  durableData_[id] = std::move(data);
  return id;
}

std::optional<uint64_t> FaultFileSystem::idOfPath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    return std::nullopt;
  const auto it = idOf_.find(status.st_ino);
  if (it != idOf_.end())
    return it->second;
  // A file we have not seen change: what is on disk now counts as durable.
  return newId(status.st_ino, readFile(path));
}

void FaultFileSystem::touchPath(const std::string& path) {
  if (durableNames_.count(path) != 0)
    return;
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0)
    modes_[path] = status.st_mode & 07777;
  durableNames_[path] = idOfPath(path);
}

void FaultFileSystem::commitDirectory(const std::string& directory) {
  const std::string dir = normalDirectory(directory);
  for (auto& [path, binding] : durableNames_) {
    if (normalDirectory(parentDirectory(path)) == dir)
      binding = idOfPath(path);
  }
}

void FaultFileSystem::powerCutLocked() {
  crashed_ = true;
  for (const auto& [path, binding] : durableNames_) {
    struct stat status {};
    mode_t mode = modes_.count(path) != 0 ? modes_.at(path) : 0644;
    if (::stat(path.c_str(), &status) == 0) {
      if (!S_ISREG(status.st_mode))
        continue;
      mode = status.st_mode & 07777;
      ::unlink(path.c_str());
    }
    if (binding) {
      writeFile(path, durableData_[*binding]);
      ::chmod(path.c_str(), mode);
    }
  }
}

int FaultFileSystem::openat(int dirfd, const char* path, int flags, mode_t mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool directory = (flags & O_DIRECTORY) != 0;
  if (!enter(directory ? Op::kOpenDir : Op::kOpen, path))
    return -1;
  const bool writes = (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
  const bool modelled = dirfd == AT_FDCWD && !directory && writes;
  bool existed = false;
  if (modelled) {
    touchPath(path);
    existed = idOfPath(path).has_value();
  }
  const int fd = real_.openat(dirfd, path, flags, mode);
  if (fd < 0)
    return fd;
  const int savedErrno = errno;
  struct stat status {};
  if (directory)
    directories_[fd] = path;
  else if (modelled && !existed && (flags & O_CREAT) != 0 && ::fstat(fd, &status) == 0)
    newId(status.st_ino, "");
  errno = savedErrno;
  return fd;
}

ssize_t FaultFileSystem::pread(int fd, void* buffer, std::size_t count, off_t offset) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!enter(Op::kPread, describe(fd)))
    return -1;
  return real_.pread(fd, buffer, count, offset);
}

ssize_t FaultFileSystem::write(int fd, const void* buffer, std::size_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!enter(Op::kWrite, describe(fd), [&] { real_.write(fd, buffer, count / 2); }))
    return -1;
  const auto cut = shortWrites_.find(calls_[Op::kWrite]);
  if (cut != shortWrites_.end() && cut->second < count)
    count = cut->second;
  return real_.write(fd, buffer, count);
}

int FaultFileSystem::fsync(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto dir = directories_.find(fd);
  const bool directory = dir != directories_.end();
  if (!enter(directory ? Op::kFsyncDir : Op::kFsync, describe(fd)))
    return -1;
  const int result = real_.fsync(fd);
  if (result != 0)
    return result;
  if (directory) {
    commitDirectory(dir->second);
  } else {
    // A descriptor's file is reached through its /proc/self/fd link.
    const std::string file = cat("/proc/self/fd/", fd);
    if (const auto id = idOfPath(file))
      durableData_[*id] = readFile(file);
  }
  return 0;
}

int FaultFileSystem::close(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string what = describe(fd);
  directories_.erase(fd);
  if (!enter(Op::kClose, what)) {
    const int error = errno;
    ::close(fd);  // Linux frees the descriptor even when close reports an error
    errno = error;
    return -1;
  }
  return real_.close(fd);
}

int FaultFileSystem::chmod(const char* path, mode_t mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!enter(Op::kChmod, path))
    return -1;
  return real_.chmod(path, mode);
}

int FaultFileSystem::chown(const char* path, uid_t owner, gid_t group) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!enter(Op::kChown, path))
    return -1;
  return real_.chown(path, owner, group);
}

int FaultFileSystem::rename(const char* from, const char* to) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!enter(Op::kRename, cat(from, " -> ", to)))
    return -1;
  touchPath(from);
  touchPath(to);
  return real_.rename(from, to);
}

}  // namespace kel::vxp3::minfw::testing

#include "minfw/file_system.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kel::vxp3::minfw {

namespace {

class PosixFileSystem final : public FileSystem {
 public:
  int openat(int dirfd, const char* path, int flags, mode_t mode) override {
    return ::openat(dirfd, path, flags, mode);
  }
  ssize_t read(int fd, void* buffer, std::size_t count) override {
    return ::read(fd, buffer, count);
  }
  ssize_t pread(int fd, void* buffer, std::size_t count, off_t offset) override {
    return ::pread(fd, buffer, count, offset);
  }
  ssize_t write(int fd, const void* buffer, std::size_t count) override {
    return ::write(fd, buffer, count);
  }
  ssize_t pwrite(int fd, const void* buffer, std::size_t count, off_t offset) override {
    return ::pwrite(fd, buffer, count, offset);
  }
  off_t lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
  int fsync(int fd) override { return ::fsync(fd); }
  int close(int fd) override { return ::close(fd); }
  int fchmodat(int dirfd, const char* path, mode_t mode, int flags) override {
    return ::fchmodat(dirfd, path, mode, flags);
  }
  int ftruncate(int fd, off_t length) override { return ::ftruncate(fd, length); }
  int truncate(const char* path, off_t length) override { return ::truncate(path, length); }
  int fstat(int fd, struct stat* status) override { return ::fstat(fd, status); }
  int stat(const char* path, struct stat* status) override { return ::stat(path, status); }
  int posix_fadvise(int fd, off_t offset, off_t length, int advice) override {
    return ::posix_fadvise(fd, offset, length, advice);
  }
  int chmod(const char* path, mode_t mode) override { return ::chmod(path, mode); }
  int chown(const char* path, uid_t owner, gid_t group) override {
    return ::chown(path, owner, group);
  }
  int rename(const char* from, const char* to) override { return std::rename(from, to); }
};

std::atomic<FileSystem*>& current() {
  static std::atomic<FileSystem*> fs{&posixFileSystem()};
  return fs;
}

}  // namespace

FileSystem::~FileSystem() = default;

FileSystem& posixFileSystem() {
  static PosixFileSystem fs;
  return fs;
}

FileSystem& fileSystem() {
  return *current().load(std::memory_order_acquire);
}

int syncDirectory(FileSystem& fs, const std::string& directory) {
  const int fd = fs.openat(AT_FDCWD, directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  int result = fs.fsync(fd);
  const int syncErrno = errno;
  fs.close(fd);
  errno = syncErrno;
  return result;
}

std::string errnoText(int error) {
  char buffer[256];
  // GNU strerror_r: returns either `buffer` or a static text.
  return std::string(strerror_r(error, buffer, sizeof(buffer)));
}

std::string parentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  if (slash == 0)
    return "/";
  return path.substr(0, slash);
}

ScopedFileSystem::ScopedFileSystem(FileSystem& fs)
    : previous_(current().exchange(&fs, std::memory_order_acq_rel)) {}

ScopedFileSystem::~ScopedFileSystem() {
  current().store(previous_, std::memory_order_release);
}

}  // namespace kel::vxp3::minfw

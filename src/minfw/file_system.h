#pragma once
// The file-system seam: the few POSIX file calls that SmartFileHandle and FileWithBackup make,
// behind an interface, so tests can inject failures (EINTR, EIO, short writes, failing fsync,
// failing chown) and simulate a power cut between any two calls
// (testing/fault_file_system.h).
//
// Every method behaves like the POSIX call of the same name: the same arguments, the same
// return value, and errno set on failure (posix_fadvise returns the error number, as POSIX
// does). Directories are opened with openat(..., O_DIRECTORY) and synced with fsync().
//
// Threading: the POSIX instance is stateless and thread-safe. The current instance is a
// process-wide pointer, read atomically; it is replaced only by tests, through
// ScopedFileSystem, before the threads that use it start.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace kel::vxp3::minfw {

class FileSystem {
 public:
  virtual ~FileSystem();

  virtual int openat(int dirfd, const char* path, int flags, mode_t mode) = 0;
  virtual ssize_t read(int fd, void* buffer, std::size_t count) = 0;
  virtual ssize_t pread(int fd, void* buffer, std::size_t count, off_t offset) = 0;
  virtual ssize_t write(int fd, const void* buffer, std::size_t count) = 0;
  virtual ssize_t pwrite(int fd, const void* buffer, std::size_t count, off_t offset) = 0;
  virtual off_t lseek(int fd, off_t offset, int whence) = 0;
  virtual int fsync(int fd) = 0;
  virtual int close(int fd) = 0;
  virtual int fchmodat(int dirfd, const char* path, mode_t mode, int flags) = 0;
  virtual int ftruncate(int fd, off_t length) = 0;
  virtual int truncate(const char* path, off_t length) = 0;
  virtual int fstat(int fd, struct stat* status) = 0;
  virtual int stat(const char* path, struct stat* status) = 0;
  virtual int posix_fadvise(int fd, off_t offset, off_t length, int advice) = 0;
  virtual int chmod(const char* path, mode_t mode) = 0;
  virtual int chown(const char* path, uid_t owner, gid_t group) = 0;
  virtual int rename(const char* from, const char* to) = 0;
};

// The real calls.
FileSystem& posixFileSystem();

// The file system the service uses now: the POSIX one unless a test installed another.
FileSystem& fileSystem();

// Makes the directory entries of `directory` durable (open it read-only, fsync, close), so a
// rename or creation inside it survives a power cut. Returns 0, or -1 with errno set.
int syncDirectory(FileSystem& fs, const std::string& directory);

// The system's text for an errno value (thread-safe).
std::string errnoText(int error);

// The directory part of `path` ("." for a bare name, "/" for a file in the root).
std::string parentDirectory(const std::string& path);

// Installs a file system for the lifetime of this object (tests only); restores the previous.
class ScopedFileSystem {
 public:
  explicit ScopedFileSystem(FileSystem& fs);
  ~ScopedFileSystem();
  ScopedFileSystem(const ScopedFileSystem&) = delete;
  ScopedFileSystem& operator=(const ScopedFileSystem&) = delete;

 private:
  FileSystem* previous_;
};

}  // namespace kel::vxp3::minfw

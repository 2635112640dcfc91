#include "minfw/file_with_backup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "minfw/file_system.h"
#include "minfw/log.h"
#include "minfw/smart_file_handle.h"

namespace kel::vxp3::minfw {

namespace {
constexpr const char* kTag = "pers";
constexpr const char* kSuffix = ".new";

constexpr uint32_t kWriteTries = 3;
constexpr int32_t kWritePauseMs = 1000;
constexpr uint32_t kReadTries = 3;
constexpr int32_t kReadPauseMs = 2 * kWritePauseMs;

std::string octal(uint32_t mode) {
  char text[16];
  std::snprintf(text, sizeof(text), "%04o", mode);
  return text;
}
}  // namespace

bool FileWithBackup::Write(std::string path, const std::string& data, uint32_t owner,
                           uint32_t group, uint32_t mode) {
  FileSystem& fs = fileSystem();
  const std::string temp = path + kSuffix;

  // The rename at the end would fail on a directory; find out before writing anything.
  struct stat status {};
  if (fs.stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    MLOG_ERROR(kTag, "Trying to open a directory! [", path, "]");
    return false;
  }

  SmartFileHandle handle(fs);
  handle.setOpenTries(kWriteTries);
  handle.setWriteTries(kWriteTries);
  handle.setPause(kWritePauseMs);
  if (!handle.Open(temp, O_WRONLY | O_CREAT | O_TRUNC, 0666)) {
    MLOG_ERROR(kTag, "Unable to open [", temp, "]");
    return false;
  }
  if (!handle.Write(data.data(), data.size(), 0)) {
    MLOG_ERROR(kTag, "Unable to write persist file [", temp, "]");
    handle.Close();
    // A torn sibling must not be taken for a record when the target is missing; an empty one
    // is ignored by Read(). Best effort: the file system is already failing.
    fs.truncate(temp.c_str(), 0);
    return false;
  }
  handle.Close();

  if (fs.chmod(temp.c_str(), static_cast<mode_t>(mode)) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "tarCreateDir: Chmod error for [", temp, "], permissions=[", octal(mode),
               "] :", errnoText(error));
  }
  if (fs.chown(temp.c_str(), static_cast<uid_t>(owner), static_cast<gid_t>(group)) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "tarCreateDir: Chown error for [", temp, "], owner=[", owner, "], group=[",
               group, "] :", errnoText(error));
  }
  if (fs.rename(temp.c_str(), path.c_str()) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "Unable to rename [", temp, "] to [", path, "] :", errnoText(error));
    return false;
  }
  // Without this the rename may be lost in a power cut, leaving the old record (and the
  // complete sibling) in place. The new data is already under its final name, so a failure
  // here does not fail the write.
  const std::string directory = parentDirectory(path);
  if (syncDirectory(fs, directory) != 0) {
    const int error = errno;
    MLOG_ERROR(kTag, "Unable to sync directory [", directory, "] :", errnoText(error));
  }
  return true;
}

bool FileWithBackup::Read(const std::string& path, std::string& data) {
  FileSystem& fs = fileSystem();
  const std::string temp = path + kSuffix;
  std::string name = path;

  struct stat status {};
  if (fs.stat(path.c_str(), &status) != 0) {
    const bool tempFound = fs.stat(temp.c_str(), &status) == 0;
    if (tempFound && S_ISREG(status.st_mode) && status.st_size == 0)
      MLOG_INFO(kTag, "Ignoring empty [", temp, "]");
    if (!tempFound || (S_ISREG(status.st_mode) && status.st_size == 0)) {
      MLOG_WARN(kTag, "Unable to find neither [", path, "], nor [", temp, "]");
      return false;
    }
    name = temp;
  }
  // Opening a directory read-only succeeds; reading it would then fail try after try.
  if (S_ISDIR(status.st_mode)) {
    MLOG_ERROR(kTag, "Trying to open a directory! [", name, "]");
    return false;
  }
  // A FIFO or device would block the open or never end; the record is a regular file.
  if (!S_ISREG(status.st_mode)) {
    MLOG_ERROR(kTag, "Unable to open [", name, "] : not a regular file");
    return false;
  }

  SmartFileHandle handle(fs);
  handle.setOpenTries(kReadTries);
  handle.setReadTries(kReadTries);
  handle.setPause(kReadPauseMs);
  if (!handle.Open(name, O_RDONLY, 0666)) {
    MLOG_ERROR(kTag, "Unable to open [", name, "]");
    return false;
  }
  const uint64_t size = handle.Size();
  if (size == 0 && status.st_size != 0) {
    MLOG_ERROR(kTag, "Unable to read [", name, "]");
    return false;
  }
  std::string content(size, '\0');
  if (size > 0 && !handle.Read(content.data(), content.size(), 0)) {
    MLOG_ERROR(kTag, "Unable to read [", name, "]");
    return false;
  }
  handle.Close();
  data.swap(content);
  return true;
}

}  // namespace kel::vxp3::minfw

#include "minfw/file_sink.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace kel::vxp3::minfw {

namespace {

bool exists(const std::string& path) {
  std::FILE* probe = std::fopen(path.c_str(), "r");
  if (probe == nullptr)
    return false;
  std::fclose(probe);
  return true;
}

std::string generation(const std::string& path, int i) {
  if (i == 0)
    return path;
  char suffix[16];
  std::snprintf(suffix, sizeof(suffix), ".%02d", i);
  return path + suffix;
}

}  // namespace

File::File(std::string directory) : directory_(std::move(directory)) {}

File::~File() {
  close();
}

void File::write(const std::string& /*traceApp*/, const std::string& name,
                 const std::string& /*tag*/, const std::string& location,
                 const std::string& message, uint8_t level) {
  // The wanted path is directory + name + ".log"; compared piecewise so that a line costs no
  // path text.
  const bool samePath = path_.size() == directory_.size() + name.size() + 4 &&
                        path_.compare(directory_.size(), name.size(), name) == 0;
  if (!samePath) {
    close();
    path_ = directory_ + name + ".log";
    open();
  }
  if (file_ != nullptr && position() > kRotateSize) {
    close();
    rotate();
    open();
  }
  if (file_ == nullptr)
    return;
  const char* line = formatLine(name, location, message, level);
  if (std::fputs(line, file_) >= 0 && written_ >= 0)
    written_ += static_cast<long>(lineLength());
  std::fflush(file_);
}

long File::position() {
  // The log file is written only through this stream, so its position is what we wrote: no
  // lseek per line as ftell would cost. Fallback streams ask ftell.
  return written_ >= 0 ? written_ : std::ftell(file_);
}

void File::open() {
  if (path_.empty())
    return;
  if (exists(path_))
    rotate();
  file_ = std::fopen(path_.c_str(), "w");
  if (file_ != nullptr) {
    written_ = 0;
    return;
  }
  const int error = errno;
  std::fprintf(stderr, "Unable to open the file [%s]: %s (%d)\n", path_.c_str(),
               std::strerror(error), error);
  file_ = std::fopen("/dev/null", "w");
  if (file_ != nullptr)
    return;
  const int nullError = errno;
  std::fprintf(stderr, "Unable to open /dev/null: %s (%d)\n", std::strerror(nullError), nullError);
  file_ = stderr;
}

void File::close() {
  if (file_ != nullptr && file_ != stderr)
    std::fclose(file_);
  file_ = nullptr;
  written_ = -1;
}

void File::rotate() {
  for (int i = kGenerations - 1; i >= 0; --i) {
    const std::string source = generation(path_, i);
    if (!exists(source))
      continue;
    const std::string target = generation(path_, i + 1);
    // The oldest generation is dropped first rather than renamed over: a rename that replaces
    // a file makes ext4 write out the renamed file at once, which stalled a line for ~2 ms.
    if (i + 1 == kGenerations)
      std::remove(target.c_str());
    std::rename(source.c_str(), target.c_str());
  }
}

}  // namespace kel::vxp3::minfw

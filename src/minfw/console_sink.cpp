#include "minfw/console_sink.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kel::vxp3::minfw {

namespace {
constexpr const char* kReset = "\033[0m";
constexpr const char* kColours[] = {"\033[33m", "\033[32m", "\033[36m", "\033[31m", "\033[35m"};
}  // namespace

Console::Console() : timeBuffer_{} {
  line_.resize(200);
}

Console::~Console() = default;

const char* Console::colour(uint8_t level) {
  if (level >= 1 && level <= 5)
    return kColours[level - 1];
  return kReset;
}

void Console::formatTime() {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  struct tm parts {};
  const time_t seconds = tv.tv_sec;
  if (localtime_r(&seconds, &parts) == nullptr)
    std::memset(&parts, 0, sizeof(parts));
  const std::size_t n = std::strftime(timeBuffer_, 21, "%H:%M:%S", &parts);
  std::snprintf(timeBuffer_ + n, sizeof(timeBuffer_) - n, ":%03d",
                static_cast<int>(tv.tv_usec / 1000));
}

const char* Console::formatLine(const std::string& name, const std::string& location,
                                const std::string& message, uint8_t level) {
  formatTime();
  // Padding can make a short name or location take its full column width.
  const std::size_t needed = std::max<std::size_t>(name.size(), 10) +
                             std::max<std::size_t>(location.size(), 25) + message.size() +
                             std::strlen(timeBuffer_) + 49;
  if (line_.size() < needed)
    line_.resize(needed);
  std::snprintf(line_.data(), line_.size(), "%s[%12s] %10s %25s | %s%s\n", colour(level),
                timeBuffer_, name.c_str(), location.c_str(), message.c_str(), kReset);
  return line_.c_str();
}

void Console::write(const std::string& /*traceApp*/, const std::string& name,
                    const std::string& /*tag*/, const std::string& location,
                    const std::string& message, uint8_t level) {
  std::fputs(formatLine(name, location, message, level), stdout);
  std::fflush(stdout);
}

}  // namespace kel::vxp3::minfw

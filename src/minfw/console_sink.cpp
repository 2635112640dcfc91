#include "minfw/console_sink.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

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
  if (tv.tv_sec != timeSecond_) {
    struct tm parts {};
    const time_t seconds = tv.tv_sec;
    if (localtime_r(&seconds, &parts) == nullptr)
      std::memset(&parts, 0, sizeof(parts));
    timeSecondsLength_ = std::strftime(timeBuffer_, 21, "%H:%M:%S", &parts);
    timeSecond_ = tv.tv_sec;
  }
  // ":%03d" of the milliseconds, without a printf per line.
  const int ms = static_cast<int>(tv.tv_usec / 1000);
  char* out = timeBuffer_ + timeSecondsLength_;
  out[0] = ':';
  out[1] = static_cast<char>('0' + ms / 100);
  out[2] = static_cast<char>('0' + ms / 10 % 10);
  out[3] = static_cast<char>('0' + ms % 10);
  out[4] = '\0';
}

char* Console::putPadded(char* out, std::string_view text, std::size_t width) {
  if (text.size() < width) {
    std::memset(out, ' ', width - text.size());
    out += width - text.size();
  }
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

namespace {
char* put(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}
}  // namespace

const char* Console::formatLine(const std::string& name, const std::string& location,
                                const std::string& message, uint8_t level) {
  formatTime();
  // "%s[%12s] %10s %25s | %s%s\n", composed by hand: the printf family was most of a line's
  // cost. Texts end at their first NUL, as "%s" reads them.
  const std::string_view colourText(colour(level));
  const std::string_view timeText(timeBuffer_);
  const std::string_view nameText(name.c_str());
  const std::string_view locationText(location.c_str());
  const std::string_view messageText(message.c_str());
  // Padding can make a short name or location take its full column width.
  const std::size_t needed = std::max<std::size_t>(nameText.size(), 10) +
                             std::max<std::size_t>(locationText.size(), 25) + messageText.size() +
                             std::max<std::size_t>(timeText.size(), 12) + 49;
  if (line_.size() < needed)
    line_.resize(needed);
  char* const begin = line_.data();
  char* out = put(begin, colourText);
  *out++ = '[';
  out = putPadded(out, timeText, 12);
  out = put(out, "] ");
  out = putPadded(out, nameText, 10);
  *out++ = ' ';
  out = putPadded(out, locationText, 25);
  out = put(out, " | ");
  out = put(out, messageText);
  out = put(out, kReset);
  *out++ = '\n';
  *out = '\0';
  lineLength_ = static_cast<std::size_t>(out - begin);
  return begin;
}

void Console::write(const std::string& /*traceApp*/, const std::string& name,
                    const std::string& /*tag*/, const std::string& location,
                    const std::string& message, uint8_t level) {
  std::fputs(formatLine(name, location, message, level), stdout);
  std::fflush(stdout);
}

}  // namespace kel::vxp3::minfw

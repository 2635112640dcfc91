#include "minfw/log.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "minfw/console_sink.h"

namespace kel::vxp3::minfw {

namespace {
constexpr const char* kLevelNames[] = {"trace", "debug", "info", "warn", "error", "fatal"};
constexpr uint8_t kLevelCount = sizeof(kLevelNames) / sizeof(kLevelNames[0]);
}  // namespace

std::string hex(uint64_t value) {
  char buf[17];
  std::snprintf(buf, sizeof(buf), "%llx", static_cast<unsigned long long>(value));
  return buf;
}

bool parseInteger(const char* text, int64_t minimum, int64_t maximum, int64_t* value) {
  char* end = nullptr;
  errno = 0;
  const long long parsed = std::strtoll(text, &end, 0);
  if (end == text || *end != '\0' || errno != 0 || parsed < minimum || parsed > maximum)
    return false;
  *value = parsed;
  return true;
}

std::string levelName(uint8_t level) {
  if (level < kLevelCount)
    return kLevelNames[level];
  return cat("level", level);
}

uint8_t levelFromText(std::string& text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (text.empty())
    return 0;
  for (uint8_t i = 0; i < kLevelCount; ++i) {
    if (std::string_view(kLevelNames[i]).substr(0, text.size()) == text)
      return i;
  }
  return 0;
}

std::string hexText(const void* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return out;
}

std::string hexText(const std::vector<uint8_t>& data) {
  return hexText(data.data(), data.size());
}

Sink::~Sink() = default;

Logger& Logger::instance() {
  static Logger logger;
  return logger;
}

void Logger::init(const std::string& name, const std::string& traceApp, uint8_t minLevel) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    name_ = name;
    traceApp_ = traceApp;
  }
  setMinLevel(minLevel);
  std::shared_ptr<Sink> console;
  try {
    console = std::make_shared<Console>();
  } catch (const std::bad_alloc&) {
  }
  if (!console) {
    std::puts("Unable to create logger sink!");
    return;
  }
  setSink(std::move(console));
}

void Logger::setSink(std::shared_ptr<Sink> sink) {
  std::unique_lock<std::mutex> lock(mutex_);
  sink_.swap(sink);
  lock.unlock();
  // The previous sink, if this was its last user, is destroyed here, outside the mutex.
}

std::shared_ptr<Sink> Logger::sink() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sink_;
}

void Logger::setMinLevel(uint8_t level) {
  minLevel_.store(level, std::memory_order_relaxed);
}

namespace {

// The location rule on views, so a record costs no copies of the signature.
std::string locationOf(std::string_view pretty, std::string_view function, int32_t line) {
  // The first "::function": the first occurrence of the name that follows "::".
  std::size_t p = std::string_view::npos;
  if (!function.empty()) {
    for (std::size_t at = pretty.find(function); at != std::string_view::npos;
         at = pretty.find(function, at + 1)) {
      if (at >= 2 && pretty.compare(at - 2, 2, "::") == 0) {
        p = at - 2;
        break;
      }
    }
  }
  char number[16];
  const auto digits = std::to_chars(number, number + sizeof(number), line);
  std::string loc;
  if (p != std::string_view::npos) {
    const std::size_t blank = p == 0 ? std::string_view::npos : pretty.rfind(' ', p - 1);
    const std::size_t start = blank == std::string_view::npos ? 0 : blank;
    const std::string_view qualified = pretty.substr(start, p + 2 + function.size() - start);
    loc.reserve(qualified.size() + (digits.ptr - number) + 2);
    loc.append(qualified);
  } else if (!function.empty() && pretty.find(function) != std::string_view::npos) {
    loc.reserve(function.size() + (digits.ptr - number) + 2);
    loc.append(function);
  } else {
    loc.reserve(9 + function.size() + (digits.ptr - number) + 2);
    loc.append("Unknown::");
    loc.append(function);
  }
  loc.push_back('(');
  loc.append(number, digits.ptr);
  loc.push_back(')');
  return loc;
}

}  // namespace

std::string Logger::location(const std::string& prettyFunction, const std::string& function,
                             int32_t line) {
  return locationOf(prettyFunction, function, line);
}

void Logger::log(const std::string& message, const std::string& tag, uint8_t level,
                 const char* prettyFunction, const char* function, int32_t line) {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    logLocked(message, tag, level, prettyFunction, function, line);
  } catch (const std::length_error& e) {
    std::fprintf(stderr, "%s: Logger length_error caught: %s\n", name_.c_str(), e.what());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: Logger exception caught: %s\n", name_.c_str(), e.what());
  } catch (...) {
    std::fprintf(stderr, "%s: Logger unknown exception caught!\n", name_.c_str());
  }
}

const std::string& Logger::cachedLocation(const char* prettyFunction, const char* function,
                                          int32_t line) {
  const auto site = reinterpret_cast<std::uintptr_t>(prettyFunction);
  LocationEntry& entry =
      locations_[((site >> 4) ^ static_cast<std::uint32_t>(line)) % locations_.size()];
  if (entry.prettyFunction != prettyFunction || entry.function != function || entry.line != line ||
      entry.prettyText != prettyFunction || entry.functionText != function) {
    std::string location = locationOf(prettyFunction, function, line);
    // Invalid while refilled, so an exception half way leaves no stale entry behind.
    entry.prettyFunction = nullptr;
    entry.prettyText = prettyFunction;
    entry.functionText = function;
    entry.location = std::move(location);
    entry.function = function;
    entry.line = line;
    entry.prettyFunction = prettyFunction;
  }
  return entry.location;
}

void Logger::logLocked(const std::string& message, const std::string& tag, uint8_t level,
                       const char* prettyFunction, const char* function, int32_t line) {
  if (level < minLevel_.load(std::memory_order_relaxed))
    return;
  const std::string& loc =
      cachedLocation(prettyFunction ? prettyFunction : "", function ? function : "", line);
  if (sink_) {
    sink_->write(traceApp_, name_, tag, loc, message, level);
  } else {
    std::printf("%s: %s: %s\n", name_.c_str(), loc.c_str(), message.c_str());
  }
}

}  // namespace kel::vxp3::minfw

#include "minfw/log.h"

#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>
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

std::string Logger::location(const std::string& prettyFunction, const std::string& function,
                             int32_t line) {
  std::string loc;
  const std::size_t p = prettyFunction.find("::" + function);
  if (!function.empty() && p != std::string::npos) {
    const std::size_t blank = p == 0 ? std::string::npos : prettyFunction.rfind(' ', p - 1);
    const std::size_t start = blank == std::string::npos ? 0 : blank;
    loc = prettyFunction.substr(start, p + 2 + function.size() - start);
  } else if (!function.empty() && prettyFunction.find(function) != std::string::npos) {
    loc = function;
  } else {
    loc = "Unknown::" + function;
  }
  loc += "(";
  loc += std::to_string(line);
  loc += ")";
  return loc;
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

void Logger::logLocked(const std::string& message, const std::string& tag, uint8_t level,
                       const char* prettyFunction, const char* function, int32_t line) {
  if (level < minLevel_.load(std::memory_order_relaxed))
    return;
  const std::string loc =
      location(prettyFunction ? prettyFunction : "", function ? function : "", line);
  if (sink_) {
    sink_->write(traceApp_, name_, tag, loc, message, level);
  } else {
    std::printf("%s: %s: %s\n", name_.c_str(), loc.c_str(), message.c_str());
  }
}

}  // namespace kel::vxp3::minfw

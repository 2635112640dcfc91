#pragma once
// The process-wide logger of kel::vxp3::minfw.
//
// Every component logs through the MLOG_* macros, which add the caller's signature, bare
// function name and line. The logger filters by level, turns signature and name into a short
// location ("orv::Logic::seqStart(120)") and hands one finished record to exactly one sink.
//
// Threading: thread-safe. One mutex serialises every record from composition to the end of the
// sink call, so a sink is called by one thread at a time and lines never interleave. Replacing
// the sink is atomic with respect to records (the record in flight keeps the old sink alive).

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "minfw/str.h"

namespace kel::vxp3::minfw {

// Log levels; the value is the position in the name table. Values above kFatal pass the filter
// and print without colour (the HMI front end logs at 6).
enum LogLevel : uint8_t {
  kTrace = 0,
  kDebug = 1,
  kInfo = 2,
  kWarn = 3,
  kError = 4,
  kFatal = 5,
};

// "trace" ... "fatal"; any other value gives "level<N>".
std::string levelName(uint8_t level);

// Lower-cases `text` in place and returns the first level whose name begins with it ("w" -> 3,
// "err" -> 4). The empty text and a text that begins no name give 0.
uint8_t levelFromText(std::string& text);

// Two lower-case hex digits per byte, no separators.
std::string hexText(const void* data, std::size_t size);
std::string hexText(const std::vector<uint8_t>& data);

// The receiver of finished records. Implementations are called with the logger mutex held.
class Sink {
 public:
  virtual ~Sink();
  virtual void write(const std::string& traceApp, const std::string& name, const std::string& tag,
                     const std::string& location, const std::string& message, uint8_t level) = 0;
};

class Logger {
 public:
  // The one logger, made on first use; thread-safe.
  static Logger& instance();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Stores both names and the filter level, then installs a fresh Console sink.
  void init(const std::string& name, const std::string& traceApp, uint8_t minLevel);

  // Replaces the current sink with a fresh shared instance of S.
  template <typename S>
  void install() {
    setSink(std::make_shared<S>());
  }
  void setSink(std::shared_ptr<Sink> sink);
  std::shared_ptr<Sink> sink() const;

  void setMinLevel(uint8_t level);
  bool enabled(uint8_t level) const { return level >= minLevel_.load(std::memory_order_relaxed); }

  // Set once by init() at start-up, before other threads log.
  const std::string& name() const { return name_; }
  const std::string& traceApp() const { return traceApp_; }

  // Composes and dispatches one record; never throws.
  void log(const std::string& message, const std::string& tag, uint8_t level,
           const char* prettyFunction, const char* function, int32_t line);

  // The location text of a record: "<qualified name>(<line>)" with a leading blank when the
  // signature has a return type, "<name>(<line>)" for free functions, "Unknown::<name>(<line>)"
  // when the name is not in the signature.
  static std::string location(const std::string& prettyFunction, const std::string& function,
                              int32_t line);

 private:
  Logger() = default;
  void logLocked(const std::string& message, const std::string& tag, uint8_t level,
                 const char* prettyFunction, const char* function, int32_t line);

  // Locations of recent call sites, so that a record from a known site costs no search of its
  // signature. An entry is used only when pointers, line and both texts still match.
  struct LocationEntry {
    const char* prettyFunction = nullptr;
    const char* function = nullptr;
    int32_t line = 0;
    std::string prettyText;
    std::string functionText;
    std::string location;
  };
  const std::string& cachedLocation(const char* prettyFunction, const char* function, int32_t line);

  mutable std::mutex mutex_;  // guards every record, the sink pointer, the names, locations_
  std::string name_;
  std::string traceApp_;
  std::shared_ptr<Sink> sink_;
  std::array<LocationEntry, 64> locations_;
  std::atomic<uint8_t> minLevel_{0};  // read without the mutex by enabled()
};

}  // namespace kel::vxp3::minfw

// MLOG(level, tag, pieces...): the message is cat(pieces...), built only when the level passes.
#define MLOG(level, tag, ...)                                                    \
  do {                                                                           \
    auto& mlog_logger_ = ::kel::vxp3::minfw::Logger::instance();                 \
    const uint8_t mlog_level_ = static_cast<uint8_t>(level);                     \
    if (mlog_logger_.enabled(mlog_level_)) {                                     \
      mlog_logger_.log(::kel::vxp3::minfw::cat(__VA_ARGS__), (tag), mlog_level_, \
                       __PRETTY_FUNCTION__, __func__, __LINE__);                 \
    }                                                                            \
  } while (0)

#define MLOG_TRACE(tag, ...) MLOG(::kel::vxp3::minfw::kTrace, tag, __VA_ARGS__)
#define MLOG_DEBUG(tag, ...) MLOG(::kel::vxp3::minfw::kDebug, tag, __VA_ARGS__)
#define MLOG_INFO(tag, ...) MLOG(::kel::vxp3::minfw::kInfo, tag, __VA_ARGS__)
#define MLOG_WARN(tag, ...) MLOG(::kel::vxp3::minfw::kWarn, tag, __VA_ARGS__)
#define MLOG_ERROR(tag, ...) MLOG(::kel::vxp3::minfw::kError, tag, __VA_ARGS__)
#define MLOG_FATAL(tag, ...) MLOG(::kel::vxp3::minfw::kFatal, tag, __VA_ARGS__)

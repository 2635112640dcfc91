#pragma once
// CaptureSink keeps every log record, so tests assert on the exact texts; ScopedLogCapture
// installs one for its lifetime. Thread-safe: tests read while other threads log.

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "minfw/log.h"

namespace kel::vxp3::minfw::testing {

struct LogRecord {
  std::string tag, location, message;
  uint8_t level;
};

class CaptureSink : public Sink {
 public:
  void write(const std::string& traceApp, const std::string& name, const std::string& tag,
             const std::string& location, const std::string& message, uint8_t level) override;

  std::vector<LogRecord> records() const;
  std::vector<std::string> messages() const;
  // Number of records whose message contains `text`.
  std::size_t count(const std::string& text) const;
  bool contains(const std::string& text) const { return count(text) > 0; }
  // Copies the first record whose message contains `text` into *out; false if none.
  bool find(const std::string& text, LogRecord* out) const;
  void clear();

 private:
  mutable std::mutex mutex_;  // guards records_
  std::vector<LogRecord> records_;
};

class ScopedLogCapture {
 public:
  ScopedLogCapture();
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  CaptureSink& sink() { return *sink_; }
  CaptureSink* operator->() { return sink_.get(); }

 private:
  std::shared_ptr<CaptureSink> sink_;
  std::shared_ptr<Sink> previous_;
};

}  // namespace kel::vxp3::minfw::testing

#include "minfw/testing/capture_sink.h"

namespace kel::vxp3::minfw::testing {

void CaptureSink::write(const std::string& /*traceApp*/, const std::string& /*name*/,
                        const std::string& tag, const std::string& location,
                        const std::string& message, uint8_t level) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.push_back(LogRecord{tag, location, message, level});
}

std::vector<LogRecord> CaptureSink::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<std::string> CaptureSink::messages() const {
  std::vector<std::string> out;
  for (const auto& r : records())
    out.push_back(r.message);
  return out;
}

std::size_t CaptureSink::count(const std::string& text) const {
  std::size_t n = 0;
  for (const auto& r : records())
    n += r.message.find(text) != std::string::npos ? 1 : 0;
  return n;
}

bool CaptureSink::find(const std::string& text, LogRecord* out) const {
  for (const auto& r : records()) {
    if (r.message.find(text) != std::string::npos) {
      if (out)
        *out = r;
      return true;
    }
  }
  return false;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

ScopedLogCapture::ScopedLogCapture()
    : sink_(std::make_shared<CaptureSink>()), previous_(Logger::instance().sink()) {
  Logger::instance().setSink(sink_);
}

ScopedLogCapture::~ScopedLogCapture() {
  Logger::instance().setSink(previous_);
}

}  // namespace kel::vxp3::minfw::testing

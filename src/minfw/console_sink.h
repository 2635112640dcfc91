#pragma once
// Console: coloured, formatted log lines on standard output.
//
// Line form: "<colour>[<time>] <name:10> <location:25> | <message>\e[0m\n" with the time as
// "HH:MM:SS:mmm" in local time. The level colours are the table's own (debug yellow, warn cyan).
//
// Threading: owned by the Logger and called with its mutex held; not thread-safe on its own
// (the line buffer is shared between records).

#include <cstddef>
#include <string>
#include <string_view>

#include "minfw/log.h"

namespace kel::vxp3::minfw {

class Console : public Sink {
 public:
  Console();
  ~Console() override;

  void write(const std::string& traceApp, const std::string& name, const std::string& tag,
             const std::string& location, const std::string& message, uint8_t level) override;

  // The colour escape of a level: the five-entry table indexed by level - 1, "\e[0m" otherwise.
  static const char* colour(uint8_t level);

 protected:
  // Formats one line into the reused buffer and returns it (valid until the next call).
  const char* formatLine(const std::string& name, const std::string& location,
                         const std::string& message, uint8_t level);
  // The length of the line formatLine() returned last.
  std::size_t lineLength() const { return lineLength_; }

 private:
  void formatTime();
  char* putPadded(char* out, std::string_view text, std::size_t width);

  char timeBuffer_[25];
  // The "%H:%M:%S" text is made once per second; only the milliseconds change within it.
  long timeSecond_ = -1;
  std::size_t timeSecondsLength_ = 0;
  std::string line_;  // reused line buffer; only grows
  std::size_t lineLength_ = 0;
};

}  // namespace kel::vxp3::minfw

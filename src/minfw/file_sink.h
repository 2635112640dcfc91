#pragma once
// File: the Console sink's lines in a rotating file, "<dir><name>.log" (dir "/tmp/" by default).
//
// Every start of the process begins a fresh file: an existing file is shifted to ".01" before
// the first line. Once the file has grown past 1 MiB (0x100000 bytes) it is rotated before the
// next line, so a file may exceed the limit by one line. Ten generations are kept, ".01" (newest)
// to ".10" (oldest); generation ".10" is overwritten. Each line is flushed at once so that a
// crash loses nothing. A file that cannot be opened falls back to /dev/null, then to standard
// error, with a note on standard error.
//
// Threading: owned by the Logger and called with its mutex held; not thread-safe on its own
// (stream, path and the inherited line buffer are shared between records).

#include <cstdio>
#include <string>

#include "minfw/console_sink.h"

namespace kel::vxp3::minfw {

class File : public Console {
 public:
  static constexpr long kRotateSize = 0x100000;
  static constexpr int kGenerations = 10;

  // `directory` ends with '/'; tests use a temporary one.
  explicit File(std::string directory = "/tmp/");
  ~File() override;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  void write(const std::string& traceApp, const std::string& name, const std::string& tag,
             const std::string& location, const std::string& message, uint8_t level) override;

  // The path of the current file; empty until the first write.
  const std::string& path() const { return path_; }

 private:
  void open();
  void close();
  void rotate();
  long position();

  const std::string directory_;
  std::FILE* file_ = nullptr;
  std::string path_;
  long written_ = -1;  // bytes written to the log file; -1 on a fallback stream
};

}  // namespace kel::vxp3::minfw

#pragma once
// Progress output of the tester's commands.
//
// Threading: owned by the command's thread.

#include <unistd.h>

#include <cstdint>
#include <ostream>
#include <string>

#include "minfw/str.h"

namespace orv::tester {

// "[#########-----------]  45%": a bar of `width` cells.
std::string progressBar(int64_t done, int64_t total, int width = 30);

// Progress output: one line per event; the bar is redrawn in place on a terminal and printed
// once per change of its percentage elsewhere, so a captured log stays readable.
class Printer {
 public:
  explicit Printer(std::ostream& out) : out_(out), terminal_(isatty(STDOUT_FILENO) == 1) {}
  ~Printer() { endBar(); }

  void line(const std::string& text) {
    endBar();
    out_ << text << "\n" << std::flush;
  }
  void bar(const std::string& what, int64_t done, int64_t total) {
    const std::string text = kel::vxp3::minfw::cat(what, " ", progressBar(done, total));
    if (text == last_)
      return;
    last_ = text;
    if (terminal_) {
      out_ << "\r" << text << std::flush;
      open_ = true;
    } else {
      out_ << text << "\n" << std::flush;
    }
  }

 private:
  void endBar() {
    if (open_)
      out_ << "\n";
    open_ = false;
  }

  std::ostream& out_;
  const bool terminal_;
  bool open_ = false;
  std::string last_;
};

}  // namespace orv::tester

#pragma once
// ChildProcess: a real program with its output and error in files of its own, ended by PID.
// Owned by one test thread.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "minfw/testing/temp_dir.h"

namespace orvane::testing {

// How often `part` occurs in `text`.
std::size_t count(const std::string& text, const std::string& part);

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills (SIGKILL) and reaps a child that still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Starts `path` with `args` and the current environment plus `env` (which overrides).
  bool start(const std::string& path, const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env = {});
  // Waits until standard output contains `text` at least `count` times; false after `timeout`
  // or when the child ended first.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                     std::size_t count = 1);
  // Waits for the child to exit; its exit status (or 128 + signal) or nothing after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // Sends `signal` to the child (by PID, only while it has not been reaped).
  void kill(int signal);
  std::string output() const;
  std::string errorOutput() const;

 private:
  kel::vxp3::minfw::testing::TempDir dir_;  // holds the output files
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace orvane::testing

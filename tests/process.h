#pragma once
// ChildProcess: runs a real program for an integration test, with its standard output and error
// collected, and ends it by PID.
//
// Threading: owned by one test thread. The output is read by a collector thread; `mutex_` guards
// the collected text.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace orvane::testing {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills (SIGKILL) and reaps a child that still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts `path` with `args` and the current environment plus `env` (which overrides).
  // Standard output and standard error are collected separately.
  bool start(const std::string& path, const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env = {});

  pid_t pid() const { return pid_; }

  // Waits until the collected standard output contains `text` at least `count` times; false
  // after `timeout` or when the child closed its output first.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                     std::size_t count = 1);

  // Waits for the child to exit; its exit status (or 128 + signal) or nothing after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);

  // Sends `signal` to the child (by PID, only while it has not been reaped).
  void kill(int signal);

  std::string output() const;
  std::string errorOutput() const;

 private:
  void collect(int fd, std::string* into);

  pid_t pid_ = -1;
  std::optional<int> status_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string out_;      // guarded by mutex_
  std::string err_;      // guarded by mutex_
  int openStreams_ = 0;  // guarded by mutex_
  std::vector<std::thread> collectors_;
};

}  // namespace orvane::testing

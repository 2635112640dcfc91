#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "minfw/testing/target_command.h"

namespace orvane::testing {

using kel::vxp3::minfw::testing::readFile;

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++n;
  return n;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) {
    ::kill(pid_, SIGKILL);
    wait(std::chrono::seconds(10));
  }
}

bool ChildProcess::start(const std::string& path, const std::vector<std::string>& args,
                         const std::map<std::string, std::string>& env) {
  const int out = open(dir_.file("stdout").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const int err = open(dir_.file("stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  // Everything the child needs is prepared before fork: only async-signal-safe calls after it.
  std::vector<std::string> argStrings{path};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  argStrings = kel::vxp3::minfw::testing::targetCommand(argStrings);
  std::vector<char*> argv;
  for (auto& a : argStrings)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (eq)
      merged[std::string(*e, static_cast<std::size_t>(eq - *e))] = eq + 1;
  }
  for (const auto& [k, v] : env)
    merged[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : merged)
    envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& e : envStrings)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  const pid_t pid = out >= 0 && err >= 0 ? fork() : -1;
  if (pid == 0) {
    // A test that crashes must not leave its peers running.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  for (const int fd : {out, err})
    if (fd >= 0)
      close(fd);
  pid_ = pid;
  return pid > 0;
}

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                                 std::size_t n) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    // Whether it had ended before the output is read: then that output is all there is.
    const bool ended = wait(std::chrono::milliseconds(0)).has_value();
    if (count(output(), text) >= n)
      return true;
    if (ended || std::chrono::steady_clock::now() >= deadline)
      return false;
    // Polling an external process: a real pause is the only way to wait for it.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (status_ || pid_ <= 0)
    return status_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int raw = 0;
    const pid_t r = waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
      return status_;
    }
    if (r < 0 || std::chrono::steady_clock::now() >= deadline)
      return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0 && !status_)
    ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  return readFile(dir_.file("stdout"));
}

std::string ChildProcess::errorOutput() const {
  return readFile(dir_.file("stderr"));
}

}  // namespace orvane::testing

#include "process.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "minfw/testing/target_command.h"

namespace orvane::testing {

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) {
    ::kill(pid_, SIGKILL);
    wait(std::chrono::seconds(10));
  }
  for (auto& t : collectors_) {
    if (t.joinable())
      t.join();
  }
}

bool ChildProcess::start(const std::string& path, const std::vector<std::string>& args,
                         const std::map<std::string, std::string>& env) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0)
    return false;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return false;
  }
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

  const pid_t pid = fork();
  if (pid < 0)
    return false;
  if (pid == 0) {
    // A test that crashes must not leave its peers running.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  pid_ = pid;
  close(outPipe[1]);
  close(errPipe[1]);
  openStreams_ = 2;
  collectors_.emplace_back([this, fd = outPipe[0]] { collect(fd, &out_); });
  collectors_.emplace_back([this, fd = errPipe[0]] { collect(fd, &err_); });
  return true;
}

void ChildProcess::collect(int fd, std::string* into) {
  pthread_setname_np(pthread_self(), "child-output");
  char buf[4096];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    std::lock_guard<std::mutex> lock(mutex_);
    into->append(buf, static_cast<std::size_t>(n));
    changed_.notify_all();
  }
  close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  --openStreams_;
  changed_.notify_all();
}

namespace {

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

}  // namespace

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                                 std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, timeout,
                    [&] { return occurrences(out_, text) >= count || openStreams_ == 0; });
  return occurrences(out_, text) >= count;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (status_)
    return status_;
  if (pid_ <= 0)
    return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int raw = 0;
    const pid_t r = waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
      for (auto& t : collectors_) {
        if (t.joinable())
          t.join();
      }
      return status_;
    }
    if (r < 0 || std::chrono::steady_clock::now() >= deadline)
      return std::nullopt;
    // Polling an external process: a real pause is the only way to wait for it.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0 && !status_)
    ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return out_;
}

std::string ChildProcess::errorOutput() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return err_;
}

}  // namespace orvane::testing

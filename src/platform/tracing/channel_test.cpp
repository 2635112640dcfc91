// Trace channel against a private dlt-daemon (own run directory, port and control socket, ::1
// only, no UDP multicast), read back with dlt-receive. libdlt reads DLT_PIPE_DIR when it starts,
// so the logging runs in channel_probe, a child with that environment. Waits are bounded; only
// the exit of a process that logged without a daemon is timed on purpose.

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlt.h>

#include "minfw/testing/target_command.h"
#include "minfw/testing/temp_dir.h"
#include "platform/tracing/channel.h"

namespace {

using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::targetCommand;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;
using namespace std::chrono_literals;

bool waitUntil(std::chrono::milliseconds bound, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    // Polls an external process; nothing in this process could wake us.
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// A started program writing to `output`.out and .err; killed (SIGTERM) and reaped at scope end.
class Child {
 public:
  Child(std::vector<std::string> argv, std::vector<std::string> extraEnv,
        const std::string& output) {
    const std::string outPath = output + ".out", errPath = output + ".err";
    std::vector<char*> args;
    for (std::string& a : argv)
      args.push_back(a.data());
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      for (std::string& e : extraEnv)
        putenv(e.data());
      dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      execvp(args[0], args.data());
      _exit(127);
    }
  }
  ~Child() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGTERM);
      if (!waitExit(5000ms)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
      }
    }
  }
  bool started() const { return pid_ > 0; }
  bool waitExit(std::chrono::milliseconds bound) {
    return exited_ || waitUntil(bound, [this] {
             exited_ = waitpid(pid_, &status_, WNOHANG) == pid_;
             return exited_;
           });
  }
  // The exit code, or -1 when it did not exit normally.
  int exitCode() const { return exited_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
};

// Port 0: a free port of [::1]. Otherwise `port` when something listens there. -1 on failure.
int loopback(int port) {
  const int fd = socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_addr = in6addr_loopback;
  addr.sin6_port = htons(static_cast<uint16_t>(port));
  auto* raw = reinterpret_cast<sockaddr*>(&addr);
  socklen_t len = sizeof(addr);
  const bool ok = fd >= 0 && (port == 0 ? bind(fd, raw, len) == 0 && getsockname(fd, raw, &len) == 0
                                        : connect(fd, raw, len) == 0);
  if (fd >= 0)
    close(fd);
  return ok ? ntohs(addr.sin6_port) : -1;
}

TEST(ChannelIds, EachNameGetsItsOwnFourCharacterIdUntilItsLastChannelGoes) {
  // In-process channels talk to an empty pipe directory, never to a daemon of the host.
  static TempDir pipes;
  setenv("DLT_PIPE_DIR", pipes.path().c_str(), 0);
  tracing::Channel global("LUM_Orvane_GLOBAL", 7, 2);
  tracing::Channel pers("LUM_Orvane_pers", 7, 2);
  tracing::Channel sameAsFirst("LUM_Orvane_GLOBAL", 7, 2);
  tracing::Channel shortTag("LUM_Orvane_io", 7, 2);
  tracing::Channel trailing("Trailing_", 7, 2);
  EXPECT_EQ(global.contextId(), "GLOB") << "the last part of the name, cut to four";
  EXPECT_EQ(pers.contextId(), "PERS") << "same first four characters as GLOBAL; upper-cased";
  EXPECT_EQ(sameAsFirst.contextId(), "GLOB") << "the same name shares its context";
  EXPECT_EQ(shortTag.contextId(), "IO") << "a short part stays short";
  EXPECT_EQ(trailing.contextId(), "TRAI") << "an empty last part falls back to the whole name";
  {
    tracing::Channel first("A_NETWORK", 7, 2);
    tracing::Channel second("B_NETWORK", 7, 2);
    EXPECT_EQ(second.contextId(), "NET1") << "a colliding last part gets a counter";
  }
  tracing::Channel again("B_NETWORK", 7, 2);
  EXPECT_EQ(again.contextId(), "NETW") << "ids are freed with the last channel of their name";
  // Levels the daemon test does not send.
  EXPECT_EQ(tracing::Channel::dltLevel(-1), DLT_LOG_INFO);
  EXPECT_EQ(tracing::Channel::dltLevel(7), DLT_LOG_INFO);
  // Filtering: disabled or below the filter level is dropped.
  EXPECT_FALSE(again.log(5, "not enabled yet")) << "a new channel is silent";
  again.enable();
  EXPECT_FALSE(again.log(5, "below the default level 7"));
  again.setFilterLevel(3);
  EXPECT_FALSE(again.log(2, "below the filter level"));
  EXPECT_TRUE(again.log(3, "at the filter level")) << "buffered by libdlt without a daemon";
}

class DltDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(run_.path().empty());
    ASSERT_EQ(std::system("command -v dlt-daemon dlt-receive stdbuf >/dev/null"), 0)
        << "dlt-daemon, dlt-receive or stdbuf missing: run scripts/setup";
  }

  TempDir run_;
};

TEST_F(DltDaemonTest, RecordsArriveUnderDistinctContextsWithLevelAndText) {
  const int port = loopback(0);
  ASSERT_GT(port, 0);
  writeFile(
      run_.file("dlt.conf"),
      "SendContextRegistration = 1\nECUId = ECU1\nSharedMemorySize = 100000\nLoggingMode = 0\n"
      "LoggingLevel = 6\nTimeOutOnSend = 4\nRingbufferMinSize = 500000\n"
      "RingbufferMaxSize = 10000000\nRingbufferStepSize = 500000\nBindAddress = ::1\n"
      "UDPConnectionSetup = 0\nLoggingFilename = " +
          run_.file("daemon-own.log") + "\nControlSocketPath = " + run_.file("dlt-ctrl.sock") +
          "\nPersistanceStoragePath = " + run_.path() + "\n");
  Child daemon(
      {"dlt-daemon", "-c", run_.file("dlt.conf"), "-t", run_.path(), "-p", std::to_string(port)},
      {}, run_.file("daemon"));
  ASSERT_TRUE(daemon.started());
  ASSERT_TRUE(waitUntil(10s, [&] { return loopback(port) == port; }))
      << "dlt-daemon did not listen on [::1]:" << port << "\n"
      << readFile(run_.file("daemon.out")) << readFile(run_.file("daemon.err"));
  Child receiver({"stdbuf", "-oL", "dlt-receive", "-a", "::1", "-p", std::to_string(port)}, {},
                 run_.file("received"));
  ASSERT_TRUE(receiver.started());
  Child probe(targetCommand({CHANNEL_PROBE_PATH, "records"}), {"DLT_PIPE_DIR=" + run_.path()},
              run_.file("probe"));
  ASSERT_TRUE(probe.waitExit(8s)) << "the probe did not finish";
  EXPECT_EQ(probe.exitCode(), 0) << readFile(run_.file("probe.err"));
  EXPECT_EQ(readFile(run_.file("probe.out")), "ids GLOB PERS GLO1\n");

  // Lines of dlt-receive (regular expressions after " ECU1 CHAN "), and what each proves.
  std::vector<std::pair<std::string, std::string>> rows = {
      {"PERS log warn V 1 \\[pers warn\\]", "a name sharing the first four characters has its id"},
      {"GLO1 log error V 1 \\[other error\\]", "a colliding last part has its own id"},
      {"PERS log info V 1 \\[long y{1375}\\.\\.\\.\\]", "a long text arrives cut to 1383 bytes"},
  };
  // Trace is sent as verbose, levels above fatal as info.
  const char* const dltLevels[] = {"verbose", "debug", "info", "warn", "error", "fatal", "info"};
  for (int level = 0; level <= 6; ++level)
    rows.push_back({std::string("GLOB log ") + dltLevels[level] + " V 1 \\[global level " +
                        std::to_string(level) + "\\]",
                    "its DLT level"});
  auto arrived = [&](const std::string& line) {
    return std::regex_search(readFile(run_.file("received.out")), std::regex(" ECU1 CHAN " + line));
  };
  waitUntil(20s, [&] {
    return std::all_of(rows.begin(), rows.end(),
                       [&](const auto& row) { return arrived(row.first); });
  });
  for (const auto& [line, proves] : rows)
    EXPECT_TRUE(arrived(line)) << proves << ": " << line << "\n"
                               << readFile(run_.file("received.out"));
}

TEST_F(DltDaemonTest, WithoutDaemonLoggingNeitherBlocksNorHoldsTheExit) {
  // The pipe directory exists but no daemon serves it.
  Child probe(targetCommand({CHANNEL_PROBE_PATH, "flood"}), {"DLT_PIPE_DIR=" + run_.path()},
              run_.file("probe"));
  ASSERT_TRUE(probe.started());
  // libdlt would wait 10 s at exit for a daemon; 8 s is generous for the rest.
  ASSERT_TRUE(probe.waitExit(8s)) << "a process that logged without a daemon did not exit";
  EXPECT_EQ(probe.exitCode(), 0) << readFile(run_.file("probe.err"));
  EXPECT_EQ(readFile(run_.file("probe.out")), "logged 10000\n")
      << "all records returned, and nothing of libdlt's on standard output";
  const std::string err = readFile(run_.file("probe.err"));
  EXPECT_THAT(err, ::testing::HasSubstr("~DLT~")) << "libdlt's notes went to standard error";
  // libdlt notes once per start that it found no daemon; a second note would mean that the
  // channel destroyed during exit started libdlt again after its own exit handler.
  const std::size_t note = err.find("cannot be opened");
  EXPECT_NE(note, std::string::npos) << err;
  EXPECT_EQ(note, err.rfind("cannot be opened")) << err;
}

}  // namespace

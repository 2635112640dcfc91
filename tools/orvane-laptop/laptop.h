#pragma once
// The workshop laptop's side of the update-statistics protocol: one TCP line connection to
// the vehicle's loopback service, the parsing of "<HMI state>, <progress>, <error code>", the
// decision when a watched update has ended, and the start / watch commands of orvane-laptop.
//
// Threading: every object here is owned by one thread.

#include <cstdint>
#include <ostream>
#include <string>

namespace orv::laptop {

struct UpdateStats {
  uint32_t state = 10;
  uint32_t progress = 0;
  int32_t errorCode = 0;
};

// "9, 45, 0" (a trailing CR/LF allowed); false for anything else, warn replies included.
bool parseStats(const std::string& reply, UpdateStats* stats);

enum class Outcome { kRunning, kFinished, kFailed };

// Follows the statistics of one update. It has ended on a terminal HMI state, or on eINVALID
// once any other state has been seen (the service acknowledges the end states at once, so a
// poll may see the resting state directly): finished when the error code is 0 and the
// progress 100, failed otherwise.
class UpdateWatch {
 public:
  Outcome observe(const UpdateStats& stats);

 private:
  bool sawActivity_ = false;
};

// "<state name padded> [#####-----]  45%": one line, redrawn in place.
std::string statusLine(const UpdateStats& stats);

// One line-oriented connection. Only loopback addresses (127.0.0.0/8) are accepted.
class LineConnection {
 public:
  LineConnection() = default;
  ~LineConnection();
  LineConnection(const LineConnection&) = delete;
  LineConnection& operator=(const LineConnection&) = delete;

  bool connect(const std::string& host, uint16_t port, std::string* error);
  bool isOpen() const { return fd_ >= 0; }
  // Sends `request` plus "\n" and reads the reply line without its "\n"; false when the
  // connection failed or no reply came within replyTimeoutMs (the connection is closed then).
  bool exchange(const std::string& request, std::string* reply, int replyTimeoutMs = 10000);
  void close();

 private:
  int fd_ = -1;
  std::string pending_;  // bytes received after the last full line
};

struct Options {
  std::string host = "127.0.0.1";
  uint16_t port = 5002;
  int64_t intervalMs = 1000;
  int64_t timeoutS = 0;  // 0: no limit
  std::string url;
};

// Exit statuses of the commands.
enum ExitStatus { kExitFinished = 0, kExitFailed = 1, kExitUsage = 2, kExitNoService = 3 };

// Hands the medium address to the service: kExitFinished when it answered "0, 0, 0".
int runStart(const Options& options, std::ostream& out, std::ostream& err);
// Polls until the update has ended (see UpdateWatch) or the time limit has passed.
int runWatch(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace orv::laptop

#pragma once
// Http: the two requests the update logic makes to the local update-file endpoint, HEAD for the
// size of a remote file and GET for its body, on cpp-httplib's client. Only "http" URLs;
// IPv6 literal hosts are written in brackets ("http://[fd00::1]:29214/medium/x.json").
//
// Each failure is logged (tag "GLOBAL") and answered false. The retrying forms try `tries` times
// (0 counts as 1), pausing 2 seconds through the clock seam after each failed try.
//
// A GET never takes more than its limit (kMaxBody unless given): the body is received piece by
// piece and the transfer is aborted where it crosses the limit, so a server that sends more than
// it announced, or never stops, costs at most the limit in memory and no more reading.
//
// Threading: thread-safe; every request uses its own client. The timeouts are process-wide
// atomics, set only by tests.

#include <cstdint>
#include <string>

namespace orv {

class Http {
 public:
  static constexpr int64_t kRetryPauseMs = 2000;
  // The most a GET takes unless told otherwise: the largest file the update logic reads.
  static constexpr uint64_t kMaxBody = 512000;

  static bool _Size(const std::string& url, uint64_t& size);
  static bool _Get(const std::string& url, std::string& content);
  static bool _Size(const std::string& url, uint64_t& size, unsigned tries);
  static bool _Get(const std::string& url, std::string& content, unsigned tries);
  // A GET of at most `maxBytes`: a longer body (announced or arriving) sets `tooBig` and is
  // answered false at once, without further tries, since the next try would bring the same.
  static bool _Get(const std::string& url, std::string& content, unsigned tries, uint64_t maxBytes,
                   bool& tooBig);

  // The parts of an "http" URL; false for anything else.
  struct Url {
    std::string host;  // without brackets
    int port = 80;
    std::string path;  // "/" when the URL has none
  };
  static bool split(const std::string& url, Url& parts);

  // Connection and read time-outs; the library's defaults unless a test shortens them.
  static void setTimeoutsForTesting(int64_t connectMs, int64_t readMs);
  static void resetTimeouts();
};

}  // namespace orv

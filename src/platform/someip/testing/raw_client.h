#pragma once
// RawClient: a blocking TCP client that sends hand-made bytes to a SOME/IP server and reads
// whole messages back, for tests of bad input on the wire. Its receive limit only guards
// against hangs.
//
// Threading: owned by one test thread.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/someip/connection.h"
#include "platform/someip/header.h"

namespace platform::someip::testing {

class RawClient {
 public:
  explicit RawClient(const Endpoint& server,
                     std::chrono::seconds patience = std::chrono::seconds(20)) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{static_cast<time_t>(patience.count()), 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in a = toSockaddr(server);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;
  bool connected() const { return connected_; }
  void send(const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // The next whole message; nothing when the connection ended.
  std::optional<Message> receive() {
    for (;;) {
      Message m;
      if (!buffer_.empty()) {
        ParseResult r = parseMessage(buffer_.data(), buffer_.size(), m);
        if (r.status == ParseResult::Status::kOk) {
          buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<long>(r.consumed));
          return m;
        }
        if (r.status == ParseResult::Status::kMalformed)
          return std::nullopt;
      }
      uint8_t chunk[4096];
      ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
      if (n <= 0)
        return std::nullopt;
      buffer_.insert(buffer_.end(), chunk, chunk + n);
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  std::vector<uint8_t> buffer_;
};

}  // namespace platform::someip::testing

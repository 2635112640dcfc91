// Stream framing and buffered sending of Connection, over a socket pair.
#include "platform/someip/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "minfw/testing/capture_sink.h"

namespace platform::someip {
namespace {

std::vector<uint8_t> frame(uint16_t method, std::vector<uint8_t> payload = {}) {
  return encodeMessage({0x1234, method, 0, 0, method, 1, 0, MessageType::kRequest, ReturnCode::kOk},
                       payload);
}

struct Pair {
  std::unique_ptr<Connection> conn;
  int peer = -1;
  Pair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    conn = std::make_unique<Connection>(fds[0], Connection::State::kConnected,
                                        Endpoint{0x7F000102, 30501}, Endpoint{0x7F000001, 40000});
    peer = fds[1];
  }
  ~Pair() { ::close(peer); }
  void write(const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

template <typename... Parts>
std::vector<uint8_t> concat(const Parts&... parts) {
  std::vector<uint8_t> all;
  (all.insert(all.end(), parts.begin(), parts.end()), ...);
  return all;
}

TEST(ConnectionTest, FramesTheStreamByTheLengthField) {
  auto a = frame(1, {1, 2, 3});
  auto b = frame(2);
  auto badVersion = frame(3);
  badVersion[12] = 7;
  auto shortLength = frame(4);
  shortLength[7] = 3;
  auto huge = frame(5);
  huge[4] = 0x7F;                                         // announces about 2 GiB
  auto long300 = frame(6, std::vector<uint8_t>(300, 7));  // a length field above 255
  struct Row {
    const char* proves;
    std::vector<uint8_t> stream;
    bool bytewise;          // written a byte at a time, else at once; receive() after each write
    const char* delivered;  // method ids, in order
    bool alive;
    const char* log;
  };
  const Row rows[] = {
      {"several messages in one read are all delivered, in order", concat(a, b, a), false, "1 2 1 ",
       true, ""},
      {"a message that arrives byte by byte is delivered once, when whole", concat(a, long300),
       true, "1 6 ", true, ""},
      {"a frame of an unknown protocol version is skipped and the stream goes on",
       concat(a, badVersion, b), false, "1 2 ", true, "bytes skipped"},
      {"a length field below 8 cannot be resynchronised: the connection ends",
       concat(a, shortLength, b), false, "1 ", false, "resetting the connection"},
      {"an oversized length ends the connection without waiting for (or reading) the bytes", huge,
       false, "", false, "resetting the connection"},
      {"a message cut short stays pending and is not read past",
       concat(a, std::vector<uint8_t>(b.begin(), b.end() - 1)), false, "1 ", true, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    kel::vxp3::minfw::testing::ScopedLogCapture logs;
    Pair p;
    std::string delivered;
    bool alive = true;
    const std::size_t step = row.bytewise ? 1 : row.stream.size();
    for (auto at = row.stream.begin(); alive && at != row.stream.end(); at += step) {
      p.write({at, at + step});
      alive = p.conn->receive(
          [&](Message& m) { delivered += std::to_string(m.header.methodId) + " "; });
    }
    EXPECT_EQ(delivered, row.delivered);
    EXPECT_EQ(alive, row.alive);
    if (*row.log) {
      EXPECT_TRUE(logs->contains(row.log)) << row.log;
    }
  }
}

TEST(ConnectionTest, PeerCloseEndsTheConnectionAndSendsFailAfterClose) {
  Pair p;
  EXPECT_EQ(p.conn->name(), "127.0.1.2:30501->127.0.0.1:40000");  // what the logs name
  ::shutdown(p.peer, SHUT_WR);
  EXPECT_FALSE(p.conn->receive([](Message&) { ADD_FAILURE() << "nothing was sent"; }));
  p.conn->close();
  EXPECT_EQ(p.conn->state(), Connection::State::kClosed);
  EXPECT_FALSE(p.conn->send(frame(1)));
}

TEST(ConnectionTest, WhatTheSocketDoesNotTakeWaitsForFlushInOrder) {
  Pair p;
  int small = 4096;
  ::setsockopt(p.peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  // Far more than the socket holds: the rest must wait in the buffer.
  std::vector<uint8_t> payload(512 * 1024);
  for (std::size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<uint8_t>(i * 7);
  auto big = frame(9, payload);
  auto next = frame(10);
  bool leftover = false;
  ASSERT_TRUE(p.conn->send(big, &leftover));
  EXPECT_TRUE(leftover);
  EXPECT_TRUE(p.conn->wantsWrite());
  ASSERT_TRUE(p.conn->send(next, &leftover));  // queued behind, never interleaved
  std::vector<uint8_t> received;
  std::vector<uint8_t> chunk(65536);
  while (received.size() < big.size() + next.size()) {
    ssize_t n = ::read(p.peer, chunk.data(), chunk.size());
    if (n > 0)
      received.insert(received.end(), chunk.begin(), chunk.begin() + n);
    ASSERT_TRUE(p.conn->flush());
  }
  EXPECT_FALSE(p.conn->wantsWrite());
  EXPECT_TRUE(received == concat(big, next));
}

}  // namespace
}  // namespace platform::someip

#pragma once
// Connection: one TCP stream of SOME/IP messages (either side).
//
// Senders write straight into the socket from their own thread (one system call on the fast
// path); what the socket does not take waits in the send buffer until the I/O thread flushes it.
// The I/O thread reads, frames messages by their length field (several per read, a partial one
// kept for the next read) and owns the close.
//
// A malformed frame whose length is usable is logged and skipped; one whose length field is
// unusable cannot be resynchronised, so the connection is reset.
//
// Threading: thread-safe. mutex_ guards the socket descriptor's open state, the send buffer and
// the state; the receive buffer belongs to the I/O thread alone.

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/someip/header.h"

namespace platform::someip {

struct Endpoint {
  uint32_t address = 0;  // host byte order
  uint16_t port = 0;
  bool operator<(const Endpoint& o) const {
    return address != o.address ? address < o.address : port < o.port;
  }
  bool operator==(const Endpoint& o) const { return address == o.address && port == o.port; }
};

// "127.0.0.2:30501"
std::string toString(const Endpoint& endpoint);
sockaddr_in toSockaddr(const Endpoint& endpoint);

class Connection {
 public:
  enum class State { kConnecting, kConnected, kClosed };

  // Takes ownership of `fd` (non-blocking). `state` is kConnecting for an outgoing connect in
  // progress, kConnected for an accepted one.
  Connection(int fd, State state, Endpoint local, Endpoint peer);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Starts a non-blocking connect from `local` (port 0: any) to `peer`; nullptr on failure.
  static std::unique_ptr<Connection> connectTo(uint32_t localAddress, const Endpoint& peer,
                                               std::string& error);

  // Writes `bytes`, keeping what the socket does not take for the I/O thread (then *leftover is
  // set, so the caller wakes it). False once the connection is closed or on a socket error.
  bool send(const std::vector<uint8_t>& bytes, bool* leftover = nullptr);

  // I/O thread. After POLLOUT while connecting: finishes the connect; false if it failed.
  bool finishConnect(std::string& error);
  // I/O thread. Writes buffered bytes; false on a socket error.
  bool flush();
  // I/O thread. Reads what is available and hands each whole message to `onMessage`, and each
  // skipped malformed one whose header could be read to `onMalformed` (if given, so that a
  // server can answer it with an error). False when the peer closed, on a socket error, or when
  // the stream cannot be resynchronised.
  bool receive(const std::function<void(Message&)>& onMessage,
               const std::function<void(const Message&)>& onMalformed = nullptr);
  // Closes the socket (idempotent). Buffered bytes are dropped.
  void close();

  int fd() const { return fd_; }
  State state() const;
  bool wantsWrite() const;
  const Endpoint& local() const { return local_; }
  const Endpoint& peer() const { return peer_; }
  std::string name() const { return toString(local_) + "->" + toString(peer_); }

 private:
  bool writeLocked();

  const int fd_;
  Endpoint local_;
  const Endpoint peer_;
  mutable std::mutex mutex_;  // guards state_ and sendBuffer_
  State state_;
  std::vector<uint8_t> sendBuffer_;
  std::vector<uint8_t> receiveBuffer_;  // I/O thread only
};

}  // namespace platform::someip

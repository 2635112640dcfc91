#pragma once
// SocketI: the stream-socket operations that the workshop-laptop service needs, so that the
// service can be driven by another transport (or a double) without knowing the OS calls.
//
// Threading: an implementation is used by one serving thread; interrupt() is the one operation
// that another thread may call at any time, to wake that thread out of a blocking call.

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

namespace kel::nodbox::diag::orv {

class SocketI {
 public:
  virtual ~SocketI() = default;

  // Creates, binds and listens; true when the server socket is ready (also when it already was).
  virtual bool makeServerSocket(std::string ip, uint16_t port) = 0;
  // Waits for one client; true when a client is connected.
  virtual bool acceptSocketConnection() = 0;
  // One receive of up to 1024 bytes into `buffer` (resized to 1024). The byte count: 0 when
  // the peer closed, negative on error (errno tells which).
  virtual ssize_t receiveDataSocket(std::vector<char>& buffer) = 0;
  virtual bool sendDataSocket(const std::string& data) = 0;

  // Closes the current client, if any.
  virtual void closeClient() = 0;
  // Wakes a blocked accept or receive for good: every later accept fails. Any thread.
  virtual void interrupt() = 0;
  // Closes both sockets. Only after the serving thread has ended.
  virtual void closeAll() = 0;
};

}  // namespace kel::nodbox::diag::orv

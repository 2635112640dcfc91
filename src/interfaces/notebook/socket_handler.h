#pragma once
// SocketHandler: SocketI over POSIX IPv4 stream sockets. The server socket binds to the given
// address only (never to every interface), reuses the address at once after a restart, and
// keeps one pending connection. Descriptors are close-on-exec. A client that sends nothing for
// the receive timeout makes a receive fail with EAGAIN, so an idle client cannot hold the
// serving thread for ever.
//
// Threading: one serving thread calls the SocketI operations; interrupt() may come from any
// thread. mutex_ guards the two descriptors and interrupted_, so that a descriptor is never
// shut down by interrupt() after the serving thread closed it (the number could be reused).

#include <chrono>
#include <mutex>

#include "interfaces/notebook/socket_i.h"

namespace kel::nodbox::diag::orv {

class SocketHandler : public SocketI {
 public:
  explicit SocketHandler(std::chrono::milliseconds receiveTimeout);
  ~SocketHandler() override;
  SocketHandler(const SocketHandler&) = delete;
  SocketHandler& operator=(const SocketHandler&) = delete;

  bool makeServerSocket(std::string ip, uint16_t port) override;
  bool acceptSocketConnection() override;
  ssize_t receiveDataSocket(std::vector<char>& buffer) override;
  bool sendDataSocket(const std::string& data) override;
  void closeClient() override;
  void interrupt() override;
  void closeAll() override;

 private:
  int clientFd() const;

  const std::chrono::milliseconds receiveTimeout_;
  mutable std::mutex mutex_;  // guards serverFd_, clientFd_, interrupted_
  int serverFd_ = -1;
  int clientFd_ = -1;
  bool interrupted_ = false;
};

}  // namespace kel::nodbox::diag::orv

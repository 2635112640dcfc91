#include "interfaces/notebook/socket_handler.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "minfw/log.h"

namespace kel::nodbox::diag::orv {

namespace {
constexpr const char* kTag = "notebook";
constexpr std::size_t kReceiveSize = 1024;
}  // namespace

SocketHandler::SocketHandler(std::chrono::milliseconds receiveTimeout)
    : receiveTimeout_(receiveTimeout) {}

SocketHandler::~SocketHandler() {
  closeAll();
}

bool SocketHandler::makeServerSocket(std::string ip, uint16_t port) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (serverFd_ >= 0) {
    return true;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, ip.c_str(), &address.sin_addr) != 1) {
    MLOG_ERROR(kTag, "Not an IPv4 address [", ip, "]");
    return false;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    MLOG_ERROR(kTag, "Failed to create socket");
    return false;
  }
  const int on = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 1) != 0) {
    MLOG_ERROR(kTag, "Failed to bind [", ip, ":", port, "]: ", std::strerror(errno));
    ::close(fd);
    return false;
  }
  serverFd_ = fd;
  MLOG_INFO(kTag, "Server created with FD [", fd, "]");
  return true;
}

bool SocketHandler::acceptSocketConnection() {
  int serverFd;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    serverFd = interrupted_ ? -1 : serverFd_;
  }
  if (serverFd < 0) {
    MLOG_ERROR(kTag, "Invalid socket. Null value.");
    return false;
  }
  MLOG_DEBUG(kTag, "Accepting connection on FD [", serverFd, "]");
  const int fd = ::accept4(serverFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (interrupted_) {
      MLOG_DEBUG(kTag, "Accept interrupted");
    } else {
      MLOG_ERROR(kTag, "Failed to accept connection");
    }
    return false;
  }
  const timeval timeout{static_cast<time_t>(receiveTimeout_.count() / 1000),
                        static_cast<suseconds_t>((receiveTimeout_.count() % 1000) * 1000)};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::lock_guard<std::mutex> lock(mutex_);
  if (interrupted_) {
    // interrupt() came between accept and here: it could not see this client.
    ::close(fd);
    return false;
  }
  if (clientFd_ >= 0) {
    ::close(clientFd_);
  }
  clientFd_ = fd;
  MLOG_DEBUG(kTag, "Created client FD on [", fd, "]");
  return true;
}

ssize_t SocketHandler::receiveDataSocket(std::vector<char>& buffer) {
  const int fd = clientFd();
  MLOG_DEBUG(kTag, "Receiving on FD: [", fd, "]");
  if (fd < 0) {
    MLOG_ERROR(kTag, "Invalid socket. Null value.");
    errno = EBADF;
    return -1;
  }
  if (buffer.empty()) {
    MLOG_DEBUG(kTag, "Buffer empty");
  }
  buffer.assign(kReceiveSize, '\0');
  return ::recv(fd, buffer.data(), buffer.size(), 0);
}

bool SocketHandler::sendDataSocket(const std::string& data) {
  MLOG_DEBUG(kTag, "Sending data [", data, "] to socket");
  const int fd = clientFd();
  std::size_t sent = 0;
  while (fd >= 0 && sent < data.size()) {
    // MSG_NOSIGNAL: a laptop that went away must not kill the service with SIGPIPE.
    const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    sent += static_cast<std::size_t>(n);
  }
  if (sent < data.size()) {
    MLOG_ERROR(kTag, "Error while sending value");
    return false;
  }
  return true;
}

void SocketHandler::closeClient() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (clientFd_ >= 0) {
    ::close(clientFd_);
    clientFd_ = -1;
  }
}

void SocketHandler::interrupt() {
  std::lock_guard<std::mutex> lock(mutex_);
  interrupted_ = true;
  // shutdown() wakes a thread blocked in accept() or recv() on these descriptors; close() would
  // not, and could hand the number to another file while the thread still uses it.
  if (serverFd_ >= 0) {
    ::shutdown(serverFd_, SHUT_RDWR);
  }
  if (clientFd_ >= 0) {
    ::shutdown(clientFd_, SHUT_RDWR);
  }
}

void SocketHandler::closeAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (int* fd : {&clientFd_, &serverFd_}) {
    if (*fd >= 0) {
      ::close(*fd);
      *fd = -1;
      MLOG_INFO(kTag, "Closed socket");
    }
  }
}

int SocketHandler::clientFd() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clientFd_;
}

}  // namespace kel::nodbox::diag::orv

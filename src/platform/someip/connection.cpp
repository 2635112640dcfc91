#include "platform/someip/connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "minfw/log.h"

namespace platform::someip {

std::string toString(const Endpoint& e) {
  return kel::vxp3::minfw::cat((e.address >> 24) & 0xFF, '.', (e.address >> 16) & 0xFF, '.',
                               (e.address >> 8) & 0xFF, '.', e.address & 0xFF, ':', e.port);
}

sockaddr_in toSockaddr(const Endpoint& e) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(e.address);
  a.sin_port = htons(e.port);
  return a;
}

Connection::Connection(int fd, State state, Endpoint local, Endpoint peer)
    : fd_(fd), local_(local), peer_(peer), state_(state) {
  int one = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

Connection::~Connection() {
  close();
  ::close(fd_);
}

std::unique_ptr<Connection> Connection::connectTo(uint32_t localAddress, const Endpoint& peer,
                                                  std::string& error) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return nullptr;
  }
  sockaddr_in local = toSockaddr(Endpoint{localAddress, 0});
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    error = std::string("bind: ") + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  sockaddr_in remote = toSockaddr(peer);
  int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
  if (rc != 0 && errno != EINPROGRESS) {
    error = std::string("connect: ") + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  socklen_t len = sizeof local;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
  Endpoint bound{ntohl(local.sin_addr.s_addr), ntohs(local.sin_port)};
  return std::make_unique<Connection>(fd, rc == 0 ? State::kConnected : State::kConnecting, bound,
                                      peer);
}

Connection::State Connection::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

bool Connection::wantsWrite() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_ == State::kConnecting || (state_ == State::kConnected && !sendBuffer_.empty());
}

bool Connection::send(const std::vector<uint8_t>& bytes, bool* leftover) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kClosed)
    return false;
  const bool idle = sendBuffer_.empty();
  sendBuffer_.insert(sendBuffer_.end(), bytes.begin(), bytes.end());
  bool ok = true;
  if (state_ == State::kConnected && idle)
    ok = writeLocked();
  if (leftover)
    *leftover = !sendBuffer_.empty();
  return ok;
}

bool Connection::writeLocked() {
  std::size_t done = 0;
  while (done < sendBuffer_.size()) {
    ssize_t n = ::send(fd_, sendBuffer_.data() + done, sendBuffer_.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
      break;
    sendBuffer_.erase(sendBuffer_.begin(), sendBuffer_.begin() + static_cast<long>(done));
    return false;
  }
  sendBuffer_.erase(sendBuffer_.begin(), sendBuffer_.begin() + static_cast<long>(done));
  return true;
}

bool Connection::finishConnect(std::string& error) {
  int err = 0;
  socklen_t len = sizeof err;
  if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
    err = errno;
  if (err != 0) {
    error = std::strerror(err);
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kConnecting)
    state_ = State::kConnected;
  return writeLocked();
}

bool Connection::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kConnected)
    return state_ != State::kClosed;
  return writeLocked();
}

bool Connection::receive(const std::function<void(Message&)>& onMessage,
                         const std::function<void(const Message&)>& onMalformed) {
  uint8_t chunk[65536];
  for (;;) {
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
      break;
    if (n <= 0)
      return false;  // closed by the peer, or a socket error
    receiveBuffer_.insert(receiveBuffer_.end(), chunk, chunk + n);
    if (static_cast<std::size_t>(n) < sizeof chunk)
      break;
  }
  std::size_t offset = 0;
  bool usable = true;
  while (offset < receiveBuffer_.size()) {
    Message message;
    ParseResult r =
        parseMessage(receiveBuffer_.data() + offset, receiveBuffer_.size() - offset, message);
    if (r.status == ParseResult::Status::kNeedMore)
      break;
    if (r.status == ParseResult::Status::kMalformed) {
      if (r.consumed == 0) {
        MLOG_ERROR("someip", "malformed frame on ", name(), ": ", r.error,
                   "; resetting the connection");
        usable = false;
        break;
      }
      MLOG_ERROR("someip", "malformed frame on ", name(), ": ", r.error, "; ", r.consumed,
                 " bytes skipped");
      offset += r.consumed;
      if (onMalformed)
        onMalformed(message);
      continue;
    }
    offset += r.consumed;
    onMessage(message);
  }
  receiveBuffer_.erase(receiveBuffer_.begin(), receiveBuffer_.begin() + static_cast<long>(offset));
  return usable;
}

void Connection::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kClosed)
    return;
  state_ = State::kClosed;
  sendBuffer_.clear();
  ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace platform::someip

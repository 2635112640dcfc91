// Runtime, the public face of the binding, and the core of RuntimeImpl: the SD sockets and the
// claim on their endpoint, the threads and their shutdown, the I/O loop and its poll set, the tap
// and TCP sends. Threading: the loop runs on "someip-io" and stop() joins it from the owner's
// thread; tap() and sendTcp() run on any thread (the tap under its own mutex).
#include "platform/someip/runtime.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"

namespace platform::someip {

using kel::vxp3::minfw::cat;

namespace {

void nameThisThread(const char* name) {
  pthread_setname_np(pthread_self(), name);
}

// Claims the SD endpoint `sd` for this runtime: a listening unix socket in the abstract
// namespace, named after the endpoint. The SD sockets share their port with other stacks
// (SO_REUSEADDR), so the port no longer refuses a second runtime on the same address; this does.
// The name lives in the network namespace, as the port does, and goes with the process.
// Returns the socket, or -1 and `error` naming the holder.
int claimSdEndpoint(const Endpoint& sd, std::string& error) {
  const std::string name = "orvane-someip-sd@" + toString(sd);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::memcpy(a.sun_path + 1, name.data(), name.size());  // sun_path[0] == 0: abstract
  const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const auto* addr = reinterpret_cast<const sockaddr*>(&a);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd >= 0 && ::bind(fd, addr, len) == 0 && ::listen(fd, 8) == 0)
    return fd;
  const int why = errno;
  if (fd >= 0)
    ::close(fd);
  error = cat("cannot bind SD socket ", toString(sd), ": ");
  if (why != EADDRINUSE) {
    error += cat("cannot claim it: ", std::strerror(why));
    return -1;
  }
  error += "held by another runtime";
  // The holder's pid, from the credentials of its listening socket.
  int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  ucred holder{};
  socklen_t credLen = sizeof holder;
  if (probe >= 0 && ::connect(probe, addr, len) == 0 &&
      ::getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &holder, &credLen) == 0 && holder.pid > 0)
    error += cat(" (pid ", holder.pid, ")");
  if (probe >= 0)
    ::close(probe);
  return -1;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Members of an interface

bool eventIds(const InterfaceConfig& iface, const std::string& name, MemberIds& out) {
  if (auto e = iface.events.find(name); e != iface.events.end()) {
    out = MemberIds{e->second.id, e->second.eventgroup, false};
    return true;
  }
  if (auto f = iface.fields.find(name); f != iface.fields.end()) {
    out = MemberIds{f->second.notifier, f->second.eventgroup, true};
    return true;
  }
  return false;
}

bool methodId(const InterfaceConfig& iface, mw::MemberKind kind, const std::string& name,
              uint16_t& out) {
  if (kind == mw::MemberKind::kMethod) {
    auto m = iface.methods.find(name);
    if (m == iface.methods.end())
      return false;
    out = m->second;
    return true;
  }
  auto f = iface.fields.find(name);
  if (f == iface.fields.end())
    return false;
  if (kind == mw::MemberKind::kFieldGetter) {
    out = f->second.getter;
    return true;
  }
  if (!f->second.setter)
    return false;
  out = *f->second.setter;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Set-up and shutdown

bool RuntimeImpl::open(std::string& error) {
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) {
    error = cat("eventfd: ", std::strerror(errno));
    return false;
  }
  const uint16_t port = config_.sd.port;
  int one = 1;
  unsigned lo = if_nametoindex("lo");

  // Claimed before the bind: two sockets on one address and port would split its unicast.
  instanceFd_ = claimSdEndpoint(Endpoint{unicast_, port}, error);
  if (instanceFd_ < 0)
    return false;

  // SO_REUSEADDR on both SD sockets: other stacks on this host bind 0.0.0.0:30490 with it, and
  // the kernel hands a unicast datagram to the most specific bind, multicast to every member.
  sdUnicastFd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  ::setsockopt(sdUnicastFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = toSockaddr(Endpoint{unicast_, port});
  if (sdUnicastFd_ < 0 || ::bind(sdUnicastFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    error = cat("cannot bind SD socket ", toString(Endpoint{unicast_, port}), ": ",
                std::strerror(errno));
    return false;
  }
  ip_mreqn out{};
  out.imr_address.s_addr = htonl(unicast_);
  out.imr_ifindex = static_cast<int>(lo);
  unsigned char loop = 1;
  unsigned char ttl = 1;
  if (::setsockopt(sdUnicastFd_, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out) != 0 ||
      ::setsockopt(sdUnicastFd_, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0 ||
      ::setsockopt(sdUnicastFd_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) {
    error = cat("cannot set up multicast sending: ", std::strerror(errno));
    return false;
  }

  sdMulticastFd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in m = toSockaddr(Endpoint{config_.sd.multicast, port});
  ::setsockopt(sdMulticastFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (sdMulticastFd_ < 0 ||
      ::bind(sdMulticastFd_, reinterpret_cast<sockaddr*>(&m), sizeof m) != 0) {
    error = cat("cannot bind SD multicast socket ", toString(Endpoint{config_.sd.multicast, port}),
                ": ", std::strerror(errno));
    return false;
  }
  ip_mreqn join{};
  join.imr_multiaddr.s_addr = htonl(config_.sd.multicast);
  join.imr_address.s_addr = htonl(unicast_);
  join.imr_ifindex = static_cast<int>(lo);
  if (::setsockopt(sdMulticastFd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) != 0) {
    error = cat("cannot join ", toString(Endpoint{config_.sd.multicast, port}),
                " on lo: ", std::strerror(errno));
    return false;
  }
  return true;
}

void RuntimeImpl::startThreads() {
  callbacks_ = std::make_unique<Worker>("someip-cb");
  server_ = std::make_unique<Worker>("someip-srv");
  io_ = std::thread([this] { ioLoop(); });
}

void RuntimeImpl::stop() {
  if (stopping_.exchange(true))
    return;
  wake();
  if (io_.joinable())
    io_.join();
  if (server_)
    server_->stop();
  if (callbacks_)
    callbacks_->stop();
  std::vector<std::shared_ptr<ClientLink>> links;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [_, s] : offers_) {
      std::lock_guard<std::mutex> sl(s->mutex);
      for (auto& c : s->connections)
        c->close();
      if (s->listenFd >= 0)
        ::close(s->listenFd);
      s->listenFd = -1;
    }
    for (auto& s : closing_)
      if (s->listenFd >= 0) {
        ::close(s->listenFd);
        s->listenFd = -1;
      }
    for (auto& [_, l] : links_)
      links.push_back(l);
  }
  for (auto& l : links)
    linkFailed(l, "runtime stopped");
  for (int fd : {wakeFd_, sdUnicastFd_, sdMulticastFd_, instanceFd_})
    if (fd >= 0)
      ::close(fd);
}

void RuntimeImpl::wake() {
  uint64_t one = 1;
  ssize_t n = ::write(wakeFd_, &one, sizeof one);
  (void)n;
}

void RuntimeImpl::tap(bool tcp, const Endpoint& from, const Endpoint& to,
                      const std::vector<uint8_t>& bytes) {
  if (!tapping_.load(std::memory_order_relaxed))
    return;
  std::lock_guard<std::mutex> lock(tapMutex_);
  if (tap_)
    tap_(TapRecord{tcp, from, to, bytes});
}

void RuntimeImpl::sendTcp(const std::shared_ptr<Connection>& conn,
                          const std::vector<uint8_t>& bytes, bool* ok) {
  tap(true, conn->local(), conn->peer(), bytes);
  bool leftover = false;
  bool sent = conn->send(bytes, &leftover);
  if (ok)
    *ok = sent;
  if (!sent || leftover)
    wake();
}

// ---------------------------------------------------------------------------------------------
// I/O thread

void RuntimeImpl::buildPollSet(std::vector<pollfd>& fds, std::vector<PollTarget>& targets) {
  fds.clear();
  targets.clear();
  auto add = [&](int fd, short events, PollTarget t) {
    fds.push_back(pollfd{fd, events, 0});
    targets.push_back(std::move(t));
  };
  add(wakeFd_, POLLIN, PollTarget{PollTarget::kWake, {}, {}, {}});
  add(sdUnicastFd_, POLLIN, PollTarget{PollTarget::kSdUnicast, {}, {}, {}});
  add(sdMulticastFd_, POLLIN, PollTarget{PollTarget::kSdMulticast, {}, {}, {}});
  add(instanceFd_, POLLIN, PollTarget{PollTarget::kInstance, {}, {}, {}});
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& s : closing_) {
    if (s->listenFd >= 0) {
      ::close(s->listenFd);
      s->listenFd = -1;
    }
    std::lock_guard<std::mutex> sl(s->mutex);
    s->connections.clear();
  }
  closing_.clear();
  for (auto& [_, s] : offers_) {
    add(s->listenFd, POLLIN, PollTarget{PollTarget::kListener, s, {}, {}});
    std::lock_guard<std::mutex> sl(s->mutex);
    for (auto& c : s->connections)
      add(c->fd(), static_cast<short>(POLLIN | (c->wantsWrite() ? POLLOUT : 0)),
          PollTarget{PollTarget::kServerConn, s, c, {}});
  }
  for (auto& [_, l] : links_)
    add(l->conn->fd(), static_cast<short>(POLLIN | (l->conn->wantsWrite() ? POLLOUT : 0)),
        PollTarget{PollTarget::kLink, {}, {}, l});
}

void RuntimeImpl::ioLoop() {
  nameThisThread("someip-io");
  std::vector<pollfd> fds;
  std::vector<PollTarget> targets;
  while (!stopping_.load()) {
    buildPollSet(fds, targets);
    int rc = ::poll(fds.data(), fds.size(), pollTimeoutMs());
    if (rc < 0 && errno != EINTR) {
      MLOG_ERROR(kTag, "poll: ", std::strerror(errno));
      break;
    }
    for (std::size_t i = 0; rc > 0 && i < fds.size(); ++i) {
      const short ev = fds[i].revents;
      if (!ev)
        continue;
      PollTarget& t = targets[i];
      switch (t.kind) {
        case PollTarget::kWake: {
          uint64_t v;
          ssize_t n = ::read(wakeFd_, &v, sizeof v);
          (void)n;
          break;
        }
        case PollTarget::kSdUnicast:
          readSd(sdUnicastFd_, false);
          break;
        case PollTarget::kSdMulticast:
          readSd(sdMulticastFd_, true);
          break;
        case PollTarget::kInstance:
          // A second runtime asked who holds the endpoint; it has its answer already.
          for (int c; (c = ::accept4(instanceFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
            ::close(c);
          break;
        case PollTarget::kListener:
          acceptAll(t.service);
          break;
        case PollTarget::kServerConn:
          if ((ev & POLLOUT) && !t.conn->flush())
            t.conn->close();
          if (ev & (POLLIN | POLLERR | POLLHUP))
            serverReceive(t.service, t.conn);
          break;
        case PollTarget::kLink:
          linkEvent(t.link, ev);
          break;
      }
    }
    runTimers();
  }
}

// ---------------------------------------------------------------------------------------------
// Runtime

std::unique_ptr<Runtime> Runtime::start(const HostConfig& config, const std::string& process,
                                        std::string& error) {
  auto p = config.processes.find(process);
  if (p == config.processes.end()) {
    error = "no process " + process + " in the host configuration";
    return nullptr;
  }
  auto impl = std::make_unique<RuntimeImpl>(config, process, p->second);
  if (!impl->open(error))
    return nullptr;
  impl->startThreads();
  MLOG_INFO(kTag, "SOME/IP runtime of ", process, " on ",
            toString(Endpoint{p->second, config.sd.port}), ", client id 0x",
            kel::vxp3::minfw::hex(impl->clientId()));
  return std::unique_ptr<Runtime>(new Runtime(std::move(impl)));
}

Runtime::Runtime(std::unique_ptr<RuntimeImpl> impl) : impl_(std::move(impl)) {}

Runtime::~Runtime() {
  if (middleware::defaultBinding() == this)
    middleware::setDefaultBinding(nullptr);
  impl_->stop();
}

uint16_t Runtime::clientId() const {
  return impl_->clientId();
}

uint32_t Runtime::unicast() const {
  return impl_->unicast();
}

void Runtime::setTap(Tap tap) {
  impl_->setTap(std::move(tap));
}

mw::Result<mw::FindServiceHandle> Runtime::startFindService(const std::string& interface,
                                                            const mw::InstanceSpecifier& instance,
                                                            mw::FindServiceHandler handler) {
  return impl_->startFind(interface, instance, std::move(handler));
}

void Runtime::stopFindService(mw::FindServiceHandle handle) {
  impl_->stopFind(handle);
}

mw::Future<void> Runtime::confirm(const mw::ServiceHandle& handle) {
  return impl_->confirm(handle);
}

mw::Result<std::unique_ptr<mw::ProxyBackend>> Runtime::createProxy(
    const mw::ServiceHandle& handle) {
  using R = mw::Result<std::unique_ptr<mw::ProxyBackend>>;
  auto link = impl_->linkFor(handle);
  if (!link)
    return R::fromError(link.error(), link.errorMessage());
  return R(makeProxyBackend(*impl_, link.value()));
}

mw::Result<std::unique_ptr<mw::SkeletonBackend>> Runtime::createSkeleton(
    const std::string& interface, const mw::InstanceSpecifier& instance) {
  using R = mw::Result<std::unique_ptr<mw::SkeletonBackend>>;
  auto service = impl_->makeOffered(interface, instance);
  if (!service)
    return R::fromError(service.error(), service.errorMessage());
  return R(makeSkeletonBackend(*impl_, service.value()));
}

}  // namespace platform::someip

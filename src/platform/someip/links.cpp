// TCP connections: links to found services (connect, confirm, loss) and the connections accepted
// by offered services. Threading: "someip-io" accepts, finishes connects, reads and closes;
// linkFor() and confirm() run on the callers' threads under the runtime mutex; a link's mutex
// guards its pending calls, confirms and groups, a service's mutex its accepted connections.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"

namespace platform::someip {

// ---------------------------------------------------------------------------------------------
// Client links

mw::Result<std::shared_ptr<ClientLink>> RuntimeImpl::linkFor(const mw::ServiceHandle& handle) {
  using R = mw::Result<std::shared_ptr<ClientLink>>;
  std::lock_guard<std::mutex> lock(mutex_);
  auto h = handles_.find(handle.token);
  if (h == handles_.end())
    return R::fromError(mw::ErrorCode::kServiceNotAvailable, "unknown service handle");
  const HandleRecord& rec = h->second;
  auto& slot = links_[rec.tcp];
  if (slot) {
    std::lock_guard<std::mutex> ll(slot->mutex);
    if (!slot->failed)
      return slot;
  }
  std::string error;
  auto conn = Connection::connectTo(unicast_, rec.tcp, error);
  if (!conn) {
    links_.erase(rec.tcp);
    MLOG_ERROR(kTag, "cannot connect to ", toString(rec.tcp), ": ", error);
    return R::fromError(mw::ErrorCode::kServiceNotAvailable, error);
  }
  auto link = std::make_shared<ClientLink>();
  link->iface = rec.iface;
  link->key = rec.key;
  link->server = rec.tcp;
  link->serverSd = rec.sdAddress;
  link->conn = std::move(conn);
  slot = link;
  MLOG_DEBUG(kTag, "connecting to ", rec.iface->name, " at ", toString(rec.tcp));
  wake();
  return link;
}

mw::Future<void> RuntimeImpl::confirm(const mw::ServiceHandle& handle) {
  auto link = linkFor(handle);
  if (!link)
    return mw::Future<void>::ready(mw::Result<void>::fromError(link.error(), link.errorMessage()));
  auto& l = link.value();
  std::lock_guard<std::mutex> lock(l->mutex);
  if (l->failed)
    return mw::Future<void>::ready(
        mw::Result<void>::fromError(mw::ErrorCode::kServiceNotAvailable, "connection lost"));
  if (l->conn->state() == Connection::State::kConnected)
    return mw::Future<void>::ready(mw::Result<void>());
  l->confirms.emplace_back();
  return l->confirms.back().get_future();
}

void RuntimeImpl::linkConnected(const std::shared_ptr<ClientLink>& link) {
  MLOG_DEBUG(kTag, "connected to ", link->iface->name, " at ", toString(link->server), " from ",
             toString(link->conn->local()));
  tap(true, link->conn->local(), link->server, {});  // the connection itself, for recordings
  std::vector<mw::Promise<void>> confirms;
  std::vector<uint16_t> groups;
  {
    std::lock_guard<std::mutex> ll(link->mutex);
    confirms = std::move(link->confirms);
    link->confirms.clear();
    for (auto& [g, _] : link->groups)
      groups.push_back(g);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (uint16_t g : groups)
      sendSubscribeLocked(*link, g, config_.sd.ttlSeconds);
  }
  for (auto& p : confirms)
    p.set_value();
}

void RuntimeImpl::linkFailed(const std::shared_ptr<ClientLink>& link, const std::string& why) {
  link->conn->close();
  std::map<uint16_t, std::unique_ptr<mw::ReplyReceiver>> pending;
  std::vector<mw::Promise<void>> confirms;
  {
    std::lock_guard<std::mutex> ll(link->mutex);
    if (link->failed)
      return;
    link->failed = true;
    pending = std::move(link->pending);
    link->pending.clear();
    confirms = std::move(link->confirms);
    link->confirms.clear();
    for (auto& [_, g] : link->groups)
      g.state = mw::SubscriptionState::kSubscriptionPending;
  }
  MLOG_WARN(kTag, "connection to ", link->iface->name, " at ", toString(link->server),
            " lost: ", why);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = links_.find(link->server);
    if (it != links_.end() && it->second == link)
      links_.erase(it);
  }
  for (auto& [_, r] : pending)
    r->onError(mw::ErrorCode::kNetworkError, why);
  for (auto& p : confirms)
    p.set_error(mw::ErrorCode::kServiceNotAvailable, why);
}

void RuntimeImpl::linkEvent(const std::shared_ptr<ClientLink>& link, short revents) {
  auto& conn = *link->conn;
  if (conn.state() == Connection::State::kConnecting) {
    if (!(revents & (POLLOUT | POLLERR | POLLHUP)))
      return;
    std::string error;
    if (!conn.finishConnect(error)) {
      linkFailed(link, "connect failed: " + error);
      return;
    }
    linkConnected(link);
    return;
  }
  if (revents & POLLOUT) {
    if (!conn.flush()) {
      linkFailed(link, "write failed");
      return;
    }
  }
  if (revents & (POLLIN | POLLERR | POLLHUP)) {
    if (!conn.receive([&](Message& m) { linkMessage(link, m); }))
      linkFailed(link, "closed");
  }
}

// ---------------------------------------------------------------------------------------------
// Connections of offered services

void RuntimeImpl::acceptAll(const std::shared_ptr<OfferedService>& service) {
  if (service->listenFd < 0)
    return;
  for (;;) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = ::accept4(service->listenFd, reinterpret_cast<sockaddr*>(&peer), &len,
                       SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0)
      return;
    Endpoint p{ntohl(peer.sin_addr.s_addr), ntohs(peer.sin_port)};
    auto conn =
        std::make_shared<Connection>(fd, Connection::State::kConnected, service->endpoint, p);
    MLOG_DEBUG(kTag, "client ", toString(p), " connected to ", service->iface->name);
    std::lock_guard<std::mutex> sl(service->mutex);
    service->connections.push_back(std::move(conn));
  }
}

void RuntimeImpl::serverReceive(const std::shared_ptr<OfferedService>& service,
                                const std::shared_ptr<Connection>& conn) {
  // A request of another protocol version is told so (it is not served).
  auto malformed = [&](const Message& m) {
    if (m.header.messageType != MessageType::kRequest ||
        m.header.protocolVersion == kProtocolVersion)
      return;
    Header h = m.header;
    h.protocolVersion = kProtocolVersion;
    h.messageType = MessageType::kError;
    h.returnCode = ReturnCode::kWrongProtocolVersion;
    sendTcp(conn, encodeMessage(h, {}));
  };
  bool alive = conn->receive([&](Message& m) { serverRequest(service, conn, m); }, malformed);
  if (alive)
    return;
  MLOG_DEBUG(kTag, "connection ", conn->name(), " closed");
  conn->close();
  std::lock_guard<std::mutex> sl(service->mutex);
  auto& cs = service->connections;
  cs.erase(std::remove(cs.begin(), cs.end(), conn), cs.end());
  for (auto& [_, subs] : service->subscribers)
    subs.erase(conn->peer());
}

}  // namespace platform::someip

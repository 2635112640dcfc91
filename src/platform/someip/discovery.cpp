// SOME/IP-SD: offers (initial wait, repetitions, cyclic offers, stop), finds, TTL expiry,
// reboot detection, eventgroup subscriptions and their acks, and the SD sockets' reads.
// Threading: SD traffic and timers run on "someip-io", the binding operations on the callers'
// threads, all under the runtime mutex; find handlers are posted to "someip-cb".
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"

namespace platform::someip {

using kel::vxp3::minfw::cat;

namespace {

std::string keyText(const ServiceKey& k) {
  return cat("0x", kel::vxp3::minfw::hex(k.service), ".0x", kel::vxp3::minfw::hex(k.instance));
}

// Resolves the instance text: a decimal number is the instance id, anything else means the
// configured one.
uint16_t instanceOf(const InterfaceConfig& iface, const mw::InstanceSpecifier& instance) {
  const std::string& text = instance.ToString();
  if (!text.empty() && text.size() <= 5 &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    unsigned long v = std::stoul(text);
    if (v > 0 && v < 0xFFFF)
      return static_cast<uint16_t>(v);
  }
  return iface.instanceId;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Finds and offers

mw::Result<mw::FindServiceHandle> RuntimeImpl::startFind(const std::string& interface,
                                                         const mw::InstanceSpecifier& instance,
                                                         mw::FindServiceHandler handler) {
  const InterfaceConfig* iface = config_.findInterface(interface);
  if (!iface) {
    MLOG_ERROR(kTag, "no interface ", interface, " in the host configuration");
    return mw::Result<mw::FindServiceHandle>::fromError(mw::ErrorCode::kNotConfigured, interface);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t id = nextFindId_++;
  FindRecord& f = finds_[id];
  f.iface = iface;
  f.instance = instanceOf(*iface, instance);
  f.handler = std::move(handler);
  f.nextFind = SteadyClock::now() + initialDelayLocked();
  MLOG_DEBUG(kTag, "looking for ", interface, " instance ", f.instance);
  reportFindsLocked(iface);
  wake();
  return mw::FindServiceHandle{id};
}

void RuntimeImpl::stopFind(mw::FindServiceHandle handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  finds_.erase(handle.id);
}

mw::Result<std::shared_ptr<OfferedService>> RuntimeImpl::makeOffered(
    const std::string& interface, const mw::InstanceSpecifier& instance) {
  using R = mw::Result<std::shared_ptr<OfferedService>>;
  const InterfaceConfig* iface = config_.findInterface(interface);
  if (!iface) {
    MLOG_ERROR(kTag, "no interface ", interface, " in the host configuration");
    return R::fromError(mw::ErrorCode::kNotConfigured, interface);
  }
  if (iface->server != process_)
    MLOG_WARN(kTag, interface, " is configured to be offered by ", iface->server, ", not by ",
              process_);
  auto s = std::make_shared<OfferedService>();
  s->iface = iface;
  s->key = ServiceKey{iface->serviceId, instanceOf(*iface, instance)};
  s->endpoint = Endpoint{unicast_, iface->tcpPort};
  return s;
}

mw::Result<void> RuntimeImpl::offer(const std::shared_ptr<OfferedService>& service) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (service->offered)
    return {};
  if (offers_.count(service->key)) {
    MLOG_ERROR(kTag, "service ", keyText(service->key), " is already offered");
    return mw::Result<void>::fromError(mw::ErrorCode::kWrongState, "already offered");
  }
  if (service->listenFd < 0) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = toSockaddr(service->endpoint);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(fd, 64) != 0) {
      std::string why = std::strerror(errno);
      if (fd >= 0)
        ::close(fd);
      MLOG_ERROR(kTag, "cannot listen on ", toString(service->endpoint), ": ", why);
      return mw::Result<void>::fromError(mw::ErrorCode::kNetworkError, why);
    }
    service->listenFd = fd;
  }
  closing_.erase(std::remove(closing_.begin(), closing_.end(), service), closing_.end());
  service->offered = true;
  service->repetitions = 0;
  service->nextOffer = SteadyClock::now() + initialDelayLocked();
  offers_[service->key] = service;
  MLOG_INFO(kTag, "offering ", service->iface->name, " (", keyText(service->key), ") on ",
            toString(service->endpoint));
  wake();
  return {};
}

void RuntimeImpl::stopOffer(const std::shared_ptr<OfferedService>& service) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!service->offered)
    return;
  service->offered = false;
  offers_.erase(service->key);
  // Connections end before the stop is announced: a client that hears it finds them closed.
  {
    std::lock_guard<std::mutex> sl(service->mutex);
    service->subscribers.clear();
    for (auto& c : service->connections)
      c->close();
  }
  SdMessage sd;
  offerEntryLocked(*service, 0, sd);
  sendSdLocked(sd, nullptr);
  closing_.push_back(service);
  MLOG_INFO(kTag, "stopped offering ", service->iface->name, " (", keyText(service->key), ")");
  wake();
}

void RuntimeImpl::subscribeGroup(const std::shared_ptr<ClientLink>& link, uint16_t eventgroup,
                                 bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (link->conn->state() != Connection::State::kConnected)
    return;  // subscribed once connected
  sendSubscribeLocked(*link, eventgroup, on ? config_.sd.ttlSeconds : 0);
}

// ---------------------------------------------------------------------------------------------
// SD, with mutex_ held

milliseconds RuntimeImpl::initialDelayLocked() {
  const uint32_t lo = config_.sd.initialDelayMinMs;
  const uint32_t hi = std::max(lo, config_.sd.initialDelayMaxMs);
  return milliseconds(std::uniform_int_distribution<uint32_t>(lo, hi)(random_));
}

void RuntimeImpl::sendSdLocked(const SdMessage& sdIn, const Endpoint* unicastTo) {
  SdMessage sd = sdIn;
  SdCounter& counter = unicastTo ? unicastCounters_[unicastTo->address] : multicastCounter_;
  Header h;
  h.serviceId = kSdServiceId;
  h.methodId = kSdMethodId;
  h.clientId = 0;
  h.interfaceVersion = 1;
  h.messageType = MessageType::kNotification;
  sd.flags =
      static_cast<uint8_t>((counter.reboot ? SdMessage::kRebootFlag : 0) | SdMessage::kUnicastFlag);
  h.sessionId = counter.take();
  auto bytes = encodeMessage(h, encodeSd(sd));
  Endpoint to = unicastTo ? *unicastTo : Endpoint{config_.sd.multicast, config_.sd.port};
  sockaddr_in a = toSockaddr(to);
  tap(false, Endpoint{unicast_, config_.sd.port}, to, bytes);
  if (::sendto(sdUnicastFd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&a),
               sizeof a) < 0)
    MLOG_WARN(kTag, "SD send to ", toString(to), " failed: ", std::strerror(errno));
}

SdEntry RuntimeImpl::offerEntryLocked(const OfferedService& s, uint32_t ttl, SdMessage& sd) {
  SdEntry e;
  e.type = SdEntryType::kOfferService;
  e.serviceId = s.key.service;
  e.instanceId = s.key.instance;
  e.majorVersion = s.iface->majorVersion;
  e.minorVersion = s.iface->minorVersion;
  e.ttl = ttl;
  e.index1 = static_cast<uint8_t>(sd.options.size());
  e.numOptions1 = 1;
  SdOption o;
  o.type = kSdOptionIpv4Endpoint;
  o.endpoint = SdIpv4Endpoint{s.endpoint.address, kSdProtocolTcp, s.endpoint.port};
  sd.options.push_back(o);
  sd.entries.push_back(e);
  return e;
}

void RuntimeImpl::sendSubscribeLocked(ClientLink& link, uint16_t eventgroup, uint32_t ttl) {
  SdMessage sd;
  SdEntry e;
  e.type = SdEntryType::kSubscribeEventgroup;
  e.serviceId = link.key.service;
  e.instanceId = link.key.instance;
  e.majorVersion = link.iface->majorVersion;
  e.ttl = ttl;
  e.eventgroupId = eventgroup;
  e.index1 = 0;
  e.numOptions1 = 1;
  SdOption o;
  o.endpoint = SdIpv4Endpoint{link.conn->local().address, kSdProtocolTcp, link.conn->local().port};
  sd.options.push_back(o);
  sd.entries.push_back(e);
  Endpoint to{link.serverSd, config_.sd.port};
  sendSdLocked(sd, &to);
}

void RuntimeImpl::reportFindsLocked(const InterfaceConfig* iface) {
  for (auto& [id, f] : finds_) {
    if (f.iface != iface)
      continue;
    mw::ServiceHandleContainer handles;
    std::vector<uint64_t> tokens;
    auto r = remotes_.find(ServiceKey{iface->serviceId, f.instance});
    if (r != remotes_.end() && r->second.available && r->second.iface == iface) {
      handles.push_back(mw::ServiceHandle{iface->name, f.instance, r->second.token});
      tokens.push_back(r->second.token);
    }
    f.searching = handles.empty();
    if (f.searching && !f.reported.empty()) {
      f.sent = 0;
      f.nextFind = SteadyClock::now() + initialDelayLocked();
    }
    if (tokens == f.reported)
      continue;
    f.reported = tokens;
    auto handler = f.handler;
    uint64_t findId = id;
    callbacks_->post(
        [handler, handles, findId] { handler(handles, mw::FindServiceHandle{findId}); });
  }
}

void RuntimeImpl::serviceGoneLocked(const ServiceKey& key, RemoteService& remote, const char* why) {
  if (!remote.available)
    return;
  remote.available = false;
  MLOG_INFO(kTag, remote.iface->name, " (", keyText(key), ") at ", toString(remote.tcp),
            " gone: ", why);
  for (auto& [_, link] : links_) {
    if (!(link->key == key))
      continue;
    std::lock_guard<std::mutex> ll(link->mutex);
    for (auto& [__, g] : link->groups)
      g.state = mw::SubscriptionState::kSubscriptionPending;
  }
  reportFindsLocked(remote.iface);
}

void RuntimeImpl::peerRebootedLocked(uint32_t address) {
  MLOG_INFO(kTag, "peer ", toString(Endpoint{address, config_.sd.port}),
            " rebooted; forgetting its services and subscriptions");
  for (auto& [key, remote] : remotes_)
    if (remote.sdAddress == address)
      serviceGoneLocked(key, remote, "peer rebooted");
  for (auto& [_, s] : offers_) {
    std::lock_guard<std::mutex> sl(s->mutex);
    for (auto& [__, subs] : s->subscribers)
      for (auto it = subs.begin(); it != subs.end();)
        it = it->first.address == address ? subs.erase(it) : std::next(it);
  }
}

void RuntimeImpl::onOfferLocked(const SdMessage& sd, const SdEntry& e, const Endpoint& from) {
  ServiceKey key{e.serviceId, e.instanceId};
  const InterfaceConfig* iface = nullptr;
  for (auto& [_, i] : config_.interfaces)
    if (i.serviceId == e.serviceId && i.majorVersion == e.majorVersion)
      iface = &i;
  if (!iface)
    return;  // nothing we know
  auto r = remotes_.find(key);
  if (e.ttl == 0) {
    if (r != remotes_.end())
      serviceGoneLocked(key, r->second, "offer stopped");
    return;
  }
  std::vector<SdIpv4Endpoint> endpoints;
  if (!endpointsOf(sd, e, endpoints)) {
    MLOG_WARN(kTag, "offer of ", keyText(key), " from ", toString(from),
              " references missing options; ignored");
    return;
  }
  auto tcp = std::find_if(endpoints.begin(), endpoints.end(),
                          [](const SdIpv4Endpoint& ep) { return ep.protocol == kSdProtocolTcp; });
  if (tcp == endpoints.end()) {
    MLOG_WARN(kTag, "offer of ", keyText(key), " from ", toString(from),
              " has no TCP endpoint; ignored");
    return;
  }
  Endpoint ep{tcp->address, tcp->port};
  RemoteService& remote = remotes_[key];
  const bool appeared = !remote.available || !(remote.tcp == ep) || remote.iface != iface;
  remote.expiry =
      e.ttl == kTtlInfinite ? TimePoint::max() : SteadyClock::now() + std::chrono::seconds(e.ttl);
  if (appeared) {
    remote.iface = iface;
    remote.tcp = ep;
    remote.sdAddress = from.address;
    remote.available = true;
    remote.token = nextToken_++;
    handles_[remote.token] = HandleRecord{iface, key, ep, from.address};
    MLOG_INFO(kTag, iface->name, " (", keyText(key), ") offered at ", toString(ep));
    reportFindsLocked(iface);
  }
  // Re-subscribe on every offer: it refreshes the subscriptions and renews them after the
  // server lost them.
  auto l = links_.find(ep);
  if (l != links_.end() && l->second->conn->state() == Connection::State::kConnected) {
    std::vector<uint16_t> groups;
    {
      std::lock_guard<std::mutex> ll(l->second->mutex);
      for (auto& [g, _] : l->second->groups)
        groups.push_back(g);
    }
    for (uint16_t g : groups)
      sendSubscribeLocked(*l->second, g, config_.sd.ttlSeconds);
  }
}

void RuntimeImpl::onFindLocked(const SdEntry& e, const Endpoint& from) {
  for (auto& [key, s] : offers_) {
    if (key.service != e.serviceId)
      continue;
    if (e.instanceId != kAnyInstance && e.instanceId != key.instance)
      continue;
    if (e.majorVersion != kAnyMajor && e.majorVersion != s->iface->majorVersion)
      continue;
    SdMessage sd;
    offerEntryLocked(*s, config_.sd.ttlSeconds, sd);
    sendSdLocked(sd, &from);
  }
}

void RuntimeImpl::onSubscribeLocked(const SdMessage& sd, const SdEntry& e, const Endpoint& from) {
  SdMessage reply;
  SdEntry ack = e;
  ack.type = SdEntryType::kSubscribeEventgroupAck;
  ack.index1 = ack.index2 = ack.numOptions1 = ack.numOptions2 = 0;
  auto nack = [&](const std::string& why) {
    MLOG_WARN(kTag, "subscription of eventgroup ", e.eventgroupId, " of ",
              keyText(ServiceKey{e.serviceId, e.instanceId}), " from ", toString(from),
              " refused: ", why);
    ack.ttl = 0;
    reply.entries.push_back(ack);
    sendSdLocked(reply, &from);
  };
  auto s = offers_.find(ServiceKey{e.serviceId, e.instanceId});
  if (s == offers_.end()) {
    if (e.ttl != 0)
      nack("service not offered");
    return;
  }
  auto& service = s->second;
  bool known = false;
  for (auto& [_, ev] : service->iface->events)
    known = known || ev.eventgroup == e.eventgroupId;
  for (auto& [_, f] : service->iface->fields)
    known = known || f.eventgroup == e.eventgroupId;
  std::vector<SdIpv4Endpoint> endpoints;
  if (!endpointsOf(sd, e, endpoints)) {
    nack("missing options");
    return;
  }
  auto tcp = std::find_if(endpoints.begin(), endpoints.end(),
                          [](const SdIpv4Endpoint& ep) { return ep.protocol == kSdProtocolTcp; });
  if (tcp == endpoints.end()) {
    nack("no TCP endpoint");
    return;
  }
  Endpoint subscriber{tcp->address, tcp->port};
  if (e.ttl == 0) {
    std::lock_guard<std::mutex> sl(service->mutex);
    service->subscribers[e.eventgroupId].erase(subscriber);
    return;
  }
  if (!known) {
    nack("unknown eventgroup");
    return;
  }
  acceptAll(service);
  std::shared_ptr<Connection> conn;
  std::vector<std::vector<uint8_t>> greetings;
  {
    std::lock_guard<std::mutex> sl(service->mutex);
    for (auto& c : service->connections)
      if (c->peer() == subscriber && c->state() == Connection::State::kConnected)
        conn = c;
    if (conn) {
      auto& sub = service->subscribers[e.eventgroupId][subscriber];
      const bool fresh = sub.conn.expired();
      sub.conn = conn;
      sub.expiry = e.ttl == kTtlInfinite ? TimePoint::max()
                                         : SteadyClock::now() + std::chrono::seconds(e.ttl);
      // A new subscriber of a field gets its current value at once.
      for (auto& [_, f] : service->iface->fields) {
        auto v = service->fieldValues.find(f.notifier);
        if (fresh && f.eventgroup == e.eventgroupId && v != service->fieldValues.end()) {
          Header h;
          h.serviceId = service->key.service;
          h.methodId = f.notifier;
          h.interfaceVersion = service->iface->majorVersion;
          h.messageType = MessageType::kNotification;
          h.sessionId = service->notifySession =
              service->notifySession == 0xFFFF ? 1
                                               : static_cast<uint16_t>(service->notifySession + 1);
          greetings.push_back(encodeMessage(h, v->second));
        }
      }
    }
  }
  if (!conn) {
    nack("no TCP connection from " + toString(subscriber));
    return;
  }
  reply.entries.push_back(ack);
  sendSdLocked(reply, &from);
  for (auto& g : greetings)
    sendTcp(conn, g);
}

void RuntimeImpl::onAckLocked(const SdEntry& e, const Endpoint& from) {
  ServiceKey key{e.serviceId, e.instanceId};
  for (auto& [_, link] : links_) {
    if (!(link->key == key) || link->serverSd != from.address)
      continue;
    std::lock_guard<std::mutex> ll(link->mutex);
    auto g = link->groups.find(e.eventgroupId);
    if (g == link->groups.end())
      continue;
    if (e.ttl == 0) {
      MLOG_WARN(kTag, "subscription of eventgroup ", e.eventgroupId, " of ", keyText(key),
                " refused by ", toString(from));
      g->second.state = mw::SubscriptionState::kSubscriptionPending;
    } else {
      g->second.state = mw::SubscriptionState::kSubscribed;
    }
  }
}

void RuntimeImpl::handleSd(const Message& message, const Endpoint& from, bool multicast) {
  if (message.header.serviceId != kSdServiceId || message.header.methodId != kSdMethodId) {
    MLOG_WARN(kTag, "non-SD message on the SD port from ", toString(from), "; dropped");
    return;
  }
  SdMessage sd;
  std::string error;
  if (!decodeSd(message.payload.data(), message.payload.size(), sd, error)) {
    MLOG_ERROR(kTag, "malformed SD message from ", toString(from), ": ", error, "; dropped");
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  // Reboot detection: the flag is set and the session did not move forward.
  const bool reboot = (sd.flags & SdMessage::kRebootFlag) != 0;
  PeerSession& peer = peers_[{from.address, multicast}];
  const bool known = peer.session != 0;
  if (known && reboot && (!peer.reboot || message.header.sessionId <= peer.session)) {
    peerRebootedLocked(from.address);
    // The other channel's record belongs to the old instance too: its first message from the
    // new one must not count as a second reboot.
    peers_.erase({from.address, !multicast});
  }
  peer.session = message.header.sessionId;
  peer.reboot = reboot;

  for (const SdEntry& e : sd.entries) {
    switch (e.type) {
      case SdEntryType::kOfferService:
        onOfferLocked(sd, e, from);
        break;
      case SdEntryType::kFindService:
        onFindLocked(e, from);
        break;
      case SdEntryType::kSubscribeEventgroup:
        onSubscribeLocked(sd, e, from);
        break;
      case SdEntryType::kSubscribeEventgroupAck:
        onAckLocked(e, from);
        break;
      default:
        MLOG_DEBUG(kTag, "SD entry type ", static_cast<int>(e.type), " ignored");
    }
  }
}

// ---------------------------------------------------------------------------------------------
// I/O thread: SD reads and timers

void RuntimeImpl::readSd(int fd, bool multicast) {
  std::vector<uint8_t> buffer(65536);
  for (;;) {
    sockaddr_in src{};
    socklen_t len = sizeof src;
    ssize_t n =
        ::recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&src), &len);
    if (n < 0)
      return;
    Endpoint from{ntohl(src.sin_addr.s_addr), ntohs(src.sin_port)};
    if (from.address == unicast_ && from.port == config_.sd.port)
      continue;  // our own multicast, looped back
    std::vector<uint8_t> datagram(buffer.begin(), buffer.begin() + n);
    tap(false, from,
        multicast ? Endpoint{config_.sd.multicast, config_.sd.port}
                  : Endpoint{unicast_, config_.sd.port},
        datagram);
    std::size_t offset = 0;
    while (offset < datagram.size()) {
      Message m;
      ParseResult r = parseMessage(datagram.data() + offset, datagram.size() - offset, m);
      if (r.status != ParseResult::Status::kOk) {
        MLOG_ERROR(kTag, "malformed SD datagram from ", toString(from), ": ",
                   r.status == ParseResult::Status::kNeedMore ? "truncated" : r.error,
                   "; rest dropped");
        break;
      }
      offset += r.consumed;
      handleSd(m, from, multicast);
    }
  }
}

int RuntimeImpl::pollTimeoutMs() {
  std::lock_guard<std::mutex> lock(mutex_);
  const TimePoint now = SteadyClock::now();
  TimePoint next = now + milliseconds(1000);
  for (auto& [_, s] : offers_)
    next = std::min(next, s->nextOffer);
  for (auto& [_, f] : finds_)
    if (f.searching && f.sent <= config_.sd.repetitionsMax)
      next = std::min(next, f.nextFind);
  for (auto& [_, r] : remotes_)
    if (r.available)
      next = std::min(next, r.expiry);
  if (next <= now)
    return 0;
  return static_cast<int>(
      std::chrono::duration_cast<milliseconds>(next - now + std::chrono::microseconds(999))
          .count());
}

void RuntimeImpl::runTimers() {
  std::lock_guard<std::mutex> lock(mutex_);
  const TimePoint now = SteadyClock::now();
  // Offers: initial wait, repetitions at base, 2 base, 4 base ..., then cyclic.
  SdMessage offers;
  for (auto& [_, s] : offers_) {
    if (now < s->nextOffer)
      continue;
    offerEntryLocked(*s, config_.sd.ttlSeconds, offers);
    if (s->repetitions < config_.sd.repetitionsMax) {
      s->nextOffer = now + milliseconds(uint64_t{config_.sd.repetitionBaseDelayMs}
                                        << std::min<uint32_t>(s->repetitions, 16));
      ++s->repetitions;
    } else {
      s->nextOffer = now + milliseconds(config_.sd.cyclicOfferDelayMs);
    }
  }
  if (!offers.entries.empty())
    sendSdLocked(offers, nullptr);
  // Finds: initial wait, then repetitions until an offer arrives.
  for (auto& [_, f] : finds_) {
    if (!f.searching || f.sent > config_.sd.repetitionsMax || now < f.nextFind)
      continue;
    SdMessage sd;
    SdEntry e;
    e.type = SdEntryType::kFindService;
    e.serviceId = f.iface->serviceId;
    e.instanceId = f.instance;
    e.majorVersion = f.iface->majorVersion;
    e.minorVersion = kAnyMinor;
    e.ttl = config_.sd.ttlSeconds;
    sd.entries.push_back(e);
    sendSdLocked(sd, nullptr);
    f.nextFind = now + milliseconds(uint64_t{config_.sd.repetitionBaseDelayMs}
                                    << std::min<uint32_t>(f.sent, 16));
    ++f.sent;
  }
  // Found services whose offers stopped arriving.
  for (auto& [key, r] : remotes_)
    if (r.available && r.expiry <= now)
      serviceGoneLocked(key, r, "TTL expired");
  // Subscriptions that were not renewed.
  for (auto& [_, s] : offers_) {
    std::lock_guard<std::mutex> sl(s->mutex);
    for (auto& [__, subs] : s->subscribers)
      for (auto it = subs.begin(); it != subs.end();)
        it = (it->second.expiry <= now || it->second.conn.expired()) ? subs.erase(it)
                                                                     : std::next(it);
  }
}

}  // namespace platform::someip

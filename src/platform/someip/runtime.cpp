#include "platform/someip/runtime.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "minfw/log.h"
#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/serializer.h"
#include "platform/someip/worker.h"

namespace platform::someip {

namespace mw = platform::middleware;
using kel::vxp3::minfw::cat;
using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;
using std::chrono::milliseconds;

namespace {

constexpr const char* kTag = "someip";
// Pending calls of one connection above which abandoned ones are forgotten.
constexpr std::size_t kPendingSweep = 256;

struct ServiceKey {
  uint16_t service = 0;
  uint16_t instance = 0;
  bool operator<(const ServiceKey& o) const {
    return service != o.service ? service < o.service : instance < o.instance;
  }
  bool operator==(const ServiceKey& o) const {
    return service == o.service && instance == o.instance;
  }
};

std::string keyText(const ServiceKey& k) {
  return cat("0x", kel::vxp3::minfw::hex(k.service), ".0x", kel::vxp3::minfw::hex(k.instance));
}

ReturnCode toReturnCode(mw::ErrorCode code) {
  switch (code) {
    case mw::ErrorCode::kUnknownService:
      return ReturnCode::kUnknownService;
    case mw::ErrorCode::kUnknownMethod:
      return ReturnCode::kUnknownMethod;
    case mw::ErrorCode::kMalformedMessage:
      return ReturnCode::kMalformedMessage;
    case mw::ErrorCode::kTimeout:
      return ReturnCode::kTimeout;
    case mw::ErrorCode::kServiceNotAvailable:
      return ReturnCode::kNotReachable;
    default:
      return ReturnCode::kNotOk;
  }
}

mw::ErrorCode toErrorCode(ReturnCode code) {
  switch (code) {
    case ReturnCode::kUnknownService:
      return mw::ErrorCode::kUnknownService;
    case ReturnCode::kUnknownMethod:
      return mw::ErrorCode::kUnknownMethod;
    case ReturnCode::kMalformedMessage:
      return mw::ErrorCode::kMalformedMessage;
    case ReturnCode::kTimeout:
      return mw::ErrorCode::kTimeout;
    case ReturnCode::kNotReachable:
      return mw::ErrorCode::kServiceNotAvailable;
    default:
      return mw::ErrorCode::kRemoteError;
  }
}

void nameThisThread(const char* name) {
  pthread_setname_np(pthread_self(), name);
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

// A member of an interface as the wire knows it.
struct MemberIds {
  uint16_t id = 0;
  uint16_t eventgroup = 0;
  bool isField = false;
};

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

// SD session counter of one channel (multicast, or unicast to one peer): sessions 1..0xFFFF,
// the reboot flag set until the first wrap.
struct SdCounter {
  uint16_t next = 1;
  bool reboot = true;
  uint16_t take() {
    uint16_t s = next;
    if (next == 0xFFFF) {
      next = 1;
      reboot = false;
    } else {
      ++next;
    }
    return s;
  }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Tables

// A TCP connection of this process to one service endpoint, shared by every proxy of it.
struct ClientLink {
  const InterfaceConfig* iface = nullptr;
  ServiceKey key;
  Endpoint server;        // TCP endpoint of the service
  uint32_t serverSd = 0;  // unicast address of the offering process (its SD endpoint)
  std::shared_ptr<Connection> conn;

  struct Sub {
    const void* owner = nullptr;
    std::string member;
    uint16_t eventId = 0;
    uint16_t eventgroup = 0;
    std::shared_ptr<mw::SampleReceiver> receiver;
  };
  struct Group {
    int users = 0;
    mw::SubscriptionState state = mw::SubscriptionState::kSubscriptionPending;
  };

  std::mutex mutex;  // guards everything below
  bool failed = false;
  std::map<uint16_t, std::unique_ptr<mw::ReplyReceiver>> pending;  // by session id
  std::vector<Sub> subs;
  std::map<uint16_t, Group> groups;  // by eventgroup
  // The last value of each field seen on this connection, so that a field subscribed after its
  // eventgroup (whose greeting it missed) starts with the current value.
  std::map<uint16_t, std::shared_ptr<const std::vector<uint8_t>>> fieldValues;  // by notifier
  std::vector<mw::Promise<void>> confirms;
};

// A service this process offers.
struct OfferedService {
  const InterfaceConfig* iface = nullptr;
  ServiceKey key;
  Endpoint endpoint;  // TCP listener

  // I/O thread (and offer()/stopOffer() under the runtime mutex).
  int listenFd = -1;
  bool offered = false;
  uint32_t repetitions = 0;
  TimePoint nextOffer{};

  struct Subscriber {
    std::weak_ptr<Connection> conn;
    TimePoint expiry{};
  };

  std::mutex mutex;                                                  // guards everything below
  std::map<uint16_t, std::shared_ptr<mw::RequestHandler>> handlers;  // by method id
  std::map<uint16_t, std::vector<uint8_t>> fieldValues;              // by notifier id
  std::map<uint16_t, std::map<Endpoint, Subscriber>> subscribers;    // by eventgroup
  std::vector<std::shared_ptr<Connection>> connections;              // accepted
  uint16_t notifySession = 0;
};

struct RemoteService {
  const InterfaceConfig* iface = nullptr;
  Endpoint tcp;
  uint32_t sdAddress = 0;
  uint64_t token = 0;
  bool available = false;
  TimePoint expiry{};
};

struct FindRecord {
  const InterfaceConfig* iface = nullptr;
  uint16_t instance = 0;
  mw::FindServiceHandler handler;
  std::vector<uint64_t> reported;  // tokens last reported
  bool searching = true;
  uint32_t sent = 0;
  TimePoint nextFind{};
};

struct HandleRecord {
  const InterfaceConfig* iface = nullptr;
  ServiceKey key;
  Endpoint tcp;
  uint32_t sdAddress = 0;
};

struct PeerSession {
  uint16_t session = 0;
  bool reboot = false;
};

// ---------------------------------------------------------------------------------------------

class RuntimeImpl {
 public:
  RuntimeImpl(const HostConfig& config, std::string process, uint32_t unicast)
      : config_(config),
        process_(std::move(process)),
        unicast_(unicast),
        clientId_(static_cast<uint16_t>(unicast & 0xFFFF)),
        random_(std::random_device{}()) {}

  ~RuntimeImpl() { stop(); }

  bool open(std::string& error);
  void startThreads();
  void stop();

  // Binding operations.
  mw::Result<mw::FindServiceHandle> startFind(const std::string& interface,
                                              const mw::InstanceSpecifier& instance,
                                              mw::FindServiceHandler handler);
  void stopFind(mw::FindServiceHandle handle);
  mw::Future<void> confirm(const mw::ServiceHandle& handle);
  mw::Result<std::shared_ptr<ClientLink>> linkFor(const mw::ServiceHandle& handle);
  mw::Result<std::shared_ptr<OfferedService>> makeOffered(const std::string& interface,
                                                          const mw::InstanceSpecifier& instance);
  mw::Result<void> offer(const std::shared_ptr<OfferedService>& service);
  void stopOffer(const std::shared_ptr<OfferedService>& service);

  // Used by the backends.
  uint16_t nextSession() {
    uint32_t n = sessionCounter_.fetch_add(1, std::memory_order_relaxed);
    return static_cast<uint16_t>(n % 0xFFFF + 1);
  }
  uint16_t clientId() const { return clientId_; }
  uint32_t unicast() const { return unicast_; }
  void sendTcp(const std::shared_ptr<Connection>& conn, const std::vector<uint8_t>& bytes,
               bool* ok = nullptr);
  void subscribeGroup(const std::shared_ptr<ClientLink>& link, uint16_t eventgroup, bool on);
  void notify(const std::shared_ptr<OfferedService>& service, const MemberIds& ids,
              std::vector<uint8_t> payload);
  void setTap(Tap tap) {
    std::lock_guard<std::mutex> lock(tapMutex_);
    tap_ = std::move(tap);
  }
  void tap(bool tcp, const Endpoint& from, const Endpoint& to, const std::vector<uint8_t>& bytes);
  void wake();

  Worker& callbacks() { return *callbacks_; }
  Worker& server() { return *server_; }
  const HostConfig& config() const { return config_; }

 private:
  struct PollTarget {
    enum Kind { kWake, kSdUnicast, kSdMulticast, kListener, kServerConn, kLink } kind;
    std::shared_ptr<OfferedService> service;
    std::shared_ptr<Connection> conn;
    std::shared_ptr<ClientLink> link;
  };

  void ioLoop();
  void buildPollSet(std::vector<pollfd>& fds, std::vector<PollTarget>& targets);
  int pollTimeoutMs();
  void readSd(int fd, bool multicast);
  void handleSd(const Message& message, const Endpoint& from, bool multicast);
  void acceptAll(const std::shared_ptr<OfferedService>& service);
  void serverReceive(const std::shared_ptr<OfferedService>& service,
                     const std::shared_ptr<Connection>& conn);
  void serverRequest(const std::shared_ptr<OfferedService>& service,
                     const std::shared_ptr<Connection>& conn, Message& message);
  void linkEvent(const std::shared_ptr<ClientLink>& link, short revents);
  void linkMessage(const std::shared_ptr<ClientLink>& link, Message& message);
  void linkConnected(const std::shared_ptr<ClientLink>& link);
  void linkFailed(const std::shared_ptr<ClientLink>& link, const std::string& why);
  void runTimers();

  // With mutex_ held.
  void sendSdLocked(const SdMessage& sd, const Endpoint* unicastTo);
  SdEntry offerEntryLocked(const OfferedService& s, uint32_t ttl, SdMessage& sd);
  void reportFindsLocked(const InterfaceConfig* iface);
  void serviceGoneLocked(const ServiceKey& key, RemoteService& remote, const char* why);
  void peerRebootedLocked(uint32_t address);
  void onOfferLocked(const SdMessage& sd, const SdEntry& e, const Endpoint& from);
  void onFindLocked(const SdEntry& e, const Endpoint& from);
  void onSubscribeLocked(const SdMessage& sd, const SdEntry& e, const Endpoint& from);
  void onAckLocked(const SdEntry& e, const Endpoint& from);
  void sendSubscribeLocked(ClientLink& link, uint16_t eventgroup, uint32_t ttl);
  milliseconds initialDelayLocked();

  const HostConfig config_;
  const std::string process_;
  const uint32_t unicast_;
  const uint16_t clientId_;
  std::atomic<uint32_t> sessionCounter_{0};

  int wakeFd_ = -1;
  int sdUnicastFd_ = -1;
  int sdMulticastFd_ = -1;
  std::atomic<bool> stopping_{false};
  std::thread io_;
  std::unique_ptr<Worker> callbacks_;
  std::unique_ptr<Worker> server_;

  std::mutex tapMutex_;  // guards tap_
  Tap tap_;

  std::mutex mutex_;  // guards every table below
  std::mt19937 random_;
  SdCounter multicastCounter_;
  std::map<uint32_t, SdCounter> unicastCounters_;
  std::map<std::pair<uint32_t, bool>, PeerSession> peers_;  // (address, via multicast)
  std::map<ServiceKey, std::shared_ptr<OfferedService>> offers_;
  std::vector<std::shared_ptr<OfferedService>> closing_;  // listeners for the I/O thread to close
  std::map<uint64_t, FindRecord> finds_;
  uint64_t nextFindId_ = 1;
  std::map<ServiceKey, RemoteService> remotes_;
  std::map<uint64_t, HandleRecord> handles_;
  uint64_t nextToken_ = 1;
  std::map<Endpoint, std::shared_ptr<ClientLink>> links_;
};

// ---------------------------------------------------------------------------------------------
// Backends

namespace {

class TcpResponder final : public mw::Responder {
 public:
  TcpResponder(RuntimeImpl& rt, std::weak_ptr<Connection> conn, const Header& request)
      : rt_(rt), conn_(std::move(conn)), header_(request) {}
  ~TcpResponder() override {
    if (!answered_.exchange(true))
      send(MessageType::kError, ReturnCode::kNotOk, {});
  }

  void reply(const mw::Writer& output) override {
    if (answered_.exchange(true))
      return;
    Serializer s;
    output(s);
    if (!s.ok()) {
      MLOG_ERROR(kTag, "answer not writable: ", s.error());
      send(MessageType::kError, ReturnCode::kNotOk, {});
      return;
    }
    send(MessageType::kResponse, ReturnCode::kOk, s.take());
  }
  void error(mw::ErrorCode code, const std::string& message) override {
    if (answered_.exchange(true))
      return;
    MLOG_DEBUG(kTag, "answering with an error: ", mw::toString(code), " ", message);
    send(MessageType::kError, toReturnCode(code), {});
  }

 private:
  void send(MessageType type, ReturnCode code, const std::vector<uint8_t>& payload) {
    auto conn = conn_.lock();
    if (!conn)
      return;
    Header h = header_;
    h.messageType = type;
    h.returnCode = code;
    rt_.sendTcp(conn, encodeMessage(h, payload));
  }

  RuntimeImpl& rt_;
  std::weak_ptr<Connection> conn_;
  const Header header_;
  std::atomic<bool> answered_{false};
};

class SomeipProxyBackend final : public mw::ProxyBackend {
 public:
  SomeipProxyBackend(RuntimeImpl& rt, std::shared_ptr<ClientLink> link)
      : rt_(rt), link_(std::move(link)) {}
  ~SomeipProxyBackend() override {
    std::vector<std::string> members;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      for (auto& s : link_->subs)
        if (s.owner == this)
          members.push_back(s.member);
    }
    for (auto& m : members)
      unsubscribe(m);
  }

  void call(mw::MemberKind kind, const std::string& member, const mw::Writer& input,
            std::unique_ptr<mw::ReplyReceiver> receiver) override {
    uint16_t id = 0;
    if (!methodId(*link_->iface, kind, member, id)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no method ", member, " in the configuration");
      receiver->onError(mw::ErrorCode::kNotConfigured, member);
      return;
    }
    Serializer s;
    input(s);
    if (!s.ok()) {
      receiver->onError(mw::ErrorCode::kMalformedMessage, s.error());
      return;
    }
    Header h;
    h.serviceId = link_->key.service;
    h.methodId = id;
    h.clientId = rt_.clientId();
    h.sessionId = rt_.nextSession();
    h.interfaceVersion = link_->iface->majorVersion;
    h.messageType = MessageType::kRequest;
    auto bytes = encodeMessage(h, s.take());
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      if (link_->failed) {
        receiver->onError(mw::ErrorCode::kServiceNotAvailable, "connection lost");
        return;
      }
      if (link_->pending.size() >= kPendingSweep) {
        // Calls whose callers gave up and whose server never answered would pile up.
        for (auto it = link_->pending.begin(); it != link_->pending.end();)
          it = it->second->wanted() ? std::next(it) : link_->pending.erase(it);
      }
      auto& slot = link_->pending[h.sessionId];
      if (slot)  // a session id that wrapped onto a call never answered
        slot->onError(mw::ErrorCode::kTimeout, "session id reused");
      slot = std::move(receiver);
    }
    bool ok = true;
    rt_.sendTcp(link_->conn, bytes, &ok);
    if (!ok) {
      std::unique_ptr<mw::ReplyReceiver> r;
      {
        std::lock_guard<std::mutex> lock(link_->mutex);
        auto it = link_->pending.find(h.sessionId);
        if (it != link_->pending.end()) {
          r = std::move(it->second);
          link_->pending.erase(it);
        }
      }
      if (r)
        r->onError(mw::ErrorCode::kNetworkError, "send failed");
    }
  }

  mw::Result<void> fireAndForget(const std::string& method, const mw::Writer& input) override {
    uint16_t id = 0;
    if (!methodId(*link_->iface, mw::MemberKind::kMethod, method, id)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no method ", method, " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, method);
    }
    Serializer s;
    input(s);
    Header h;
    h.serviceId = link_->key.service;
    h.methodId = id;
    h.clientId = rt_.clientId();
    h.sessionId = rt_.nextSession();
    h.interfaceVersion = link_->iface->majorVersion;
    h.messageType = MessageType::kRequestNoReturn;
    bool ok = true;
    rt_.sendTcp(link_->conn, encodeMessage(h, s.take()), &ok);
    if (!ok)
      return mw::Result<void>::fromError(mw::ErrorCode::kNetworkError, "send failed");
    return {};
  }

  mw::Result<void> subscribe(const std::string& member,
                             std::shared_ptr<mw::SampleReceiver> receiver) override {
    MemberIds ids;
    if (!eventIds(*link_->iface, member, ids)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no event or field ", member,
                 " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, member);
    }
    bool first = false;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      for (auto& s : link_->subs)
        if (s.owner == this && s.member == member)
          return {};  // already subscribed
      link_->subs.push_back(ClientLink::Sub{this, member, ids.id, ids.eventgroup, receiver});
      first = link_->groups[ids.eventgroup].users++ == 0;
      auto value = link_->fieldValues.find(ids.id);
      if (ids.isField && value != link_->fieldValues.end()) {
        auto payload = value->second;
        rt_.callbacks().post([receiver, payload] {
          Deserializer reader(*payload);
          receiver->onSample(reader);
        });
      }
    }
    if (first)
      rt_.subscribeGroup(link_, ids.eventgroup, true);
    return {};
  }

  void unsubscribe(const std::string& member) override {
    uint16_t group = 0;
    bool last = false;
    bool found = false;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      auto it = std::find_if(link_->subs.begin(), link_->subs.end(), [&](const ClientLink::Sub& s) {
        return s.owner == this && s.member == member;
      });
      if (it == link_->subs.end())
        return;
      found = true;
      group = it->eventgroup;
      link_->subs.erase(it);
      auto g = link_->groups.find(group);
      if (g != link_->groups.end() && --g->second.users == 0) {
        link_->groups.erase(g);
        last = true;
      }
    }
    if (found && last)
      rt_.subscribeGroup(link_, group, false);
  }

  mw::SubscriptionState subscriptionState(const std::string& member) const override {
    std::lock_guard<std::mutex> lock(link_->mutex);
    for (auto& s : link_->subs) {
      if (s.owner == this && s.member == member) {
        auto g = link_->groups.find(s.eventgroup);
        return g == link_->groups.end() ? mw::SubscriptionState::kNotSubscribed : g->second.state;
      }
    }
    return mw::SubscriptionState::kNotSubscribed;
  }

 private:
  RuntimeImpl& rt_;
  std::shared_ptr<ClientLink> link_;
};

class SomeipSkeletonBackend final : public mw::SkeletonBackend {
 public:
  SomeipSkeletonBackend(RuntimeImpl& rt, std::shared_ptr<OfferedService> service)
      : rt_(rt), service_(std::move(service)) {}
  // After destruction none of this skeleton's handlers runs any more: requests still queued for
  // the server thread are let through first (unless we are on it).
  ~SomeipSkeletonBackend() override {
    rt_.stopOffer(service_);
    {
      std::lock_guard<std::mutex> lock(service_->mutex);
      service_->handlers.clear();
    }
    if (!rt_.server().onWorkerThread()) {
      // A task dropped by a stopping worker breaks the promise, which ends the wait too.
      auto drained = std::make_shared<mw::Promise<void>>();
      auto done = drained->get_future();
      rt_.server().post([drained] { drained->set_value(); });
      drained.reset();
      done.wait();
    }
  }

  mw::Result<void> setHandler(mw::MemberKind kind, const std::string& member,
                              std::shared_ptr<mw::RequestHandler> handler) override {
    uint16_t id = 0;
    if (!methodId(*service_->iface, kind, member, id)) {
      MLOG_ERROR(kTag, service_->iface->name, " has no method ", member, " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, member);
    }
    std::lock_guard<std::mutex> lock(service_->mutex);
    service_->handlers[id] = std::move(handler);
    return {};
  }

  mw::Result<void> notify(const std::string& member, const mw::Writer& sample) override {
    MemberIds ids;
    if (!eventIds(*service_->iface, member, ids)) {
      MLOG_ERROR(kTag, service_->iface->name, " has no event or field ", member,
                 " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, member);
    }
    Serializer s;
    sample(s);
    if (!s.ok())
      return mw::Result<void>::fromError(mw::ErrorCode::kMalformedMessage, s.error());
    rt_.notify(service_, ids, s.take());
    return {};
  }

  mw::Result<void> offer() override { return rt_.offer(service_); }
  void stopOffer() override { rt_.stopOffer(service_); }

 private:
  RuntimeImpl& rt_;
  std::shared_ptr<OfferedService> service_;
};

}  // namespace

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

  sdUnicastFd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // No SO_REUSEADDR here: a second runtime of the same process must fail, not share the port.
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
  for (int fd : {wakeFd_, sdUnicastFd_, sdMulticastFd_})
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
// Binding operations

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

void RuntimeImpl::notify(const std::shared_ptr<OfferedService>& service, const MemberIds& ids,
                         std::vector<uint8_t> payload) {
  std::vector<std::shared_ptr<Connection>> targets;
  Header h;
  h.serviceId = service->key.service;
  h.methodId = ids.id;
  h.clientId = 0;
  h.interfaceVersion = service->iface->majorVersion;
  h.messageType = MessageType::kNotification;
  {
    std::lock_guard<std::mutex> lock(service->mutex);
    if (ids.isField)
      service->fieldValues[ids.id] = payload;
    h.sessionId = service->notifySession =
        service->notifySession == 0xFFFF ? 1 : static_cast<uint16_t>(service->notifySession + 1);
    auto g = service->subscribers.find(ids.eventgroup);
    if (g != service->subscribers.end())
      for (auto& [_, sub] : g->second)
        if (auto c = sub.conn.lock())
          targets.push_back(std::move(c));
  }
  if (targets.empty())
    return;
  auto bytes = encodeMessage(h, payload);
  for (auto& c : targets)
    sendTcp(c, bytes);
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
// I/O thread

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

void RuntimeImpl::serverRequest(const std::shared_ptr<OfferedService>& service,
                                const std::shared_ptr<Connection>& conn, Message& m) {
  if (conn->state() == Connection::State::kClosed)
    return;  // the offer was stopped; nothing more is served on it
  tap(true, conn->peer(), conn->local(), encodeMessage(m.header, m.payload));
  const MessageType type = m.header.messageType;
  if (type != MessageType::kRequest && type != MessageType::kRequestNoReturn) {
    MLOG_WARN(kTag, "unexpected ", toString(type), " from ", toString(conn->peer()), "; dropped");
    return;
  }
  const bool answer = type == MessageType::kRequest;
  auto fail = [&](ReturnCode code) {
    MLOG_WARN(kTag, "request 0x", kel::vxp3::minfw::hex(m.header.serviceId), ".0x",
              kel::vxp3::minfw::hex(m.header.methodId), " from ", toString(conn->peer()), ": ",
              toString(code));
    if (!answer)
      return;
    Header h = m.header;
    h.messageType = MessageType::kError;
    h.returnCode = code;
    sendTcp(conn, encodeMessage(h, {}));
  };
  if (m.header.serviceId != service->key.service)
    return fail(ReturnCode::kUnknownService);
  if (m.header.interfaceVersion != service->iface->majorVersion)
    return fail(ReturnCode::kWrongInterfaceVersion);
  std::shared_ptr<mw::RequestHandler> handler;
  const std::vector<uint8_t>* fieldValue = nullptr;
  bool isGetter = false;
  std::vector<uint8_t> answerBytes;
  {
    std::lock_guard<std::mutex> sl(service->mutex);
    auto h = service->handlers.find(m.header.methodId);
    if (h != service->handlers.end()) {
      handler = h->second;
    } else {
      // A getter without handler answers with the field's last value.
      for (auto& [_, f] : service->iface->fields) {
        if (f.getter != m.header.methodId)
          continue;
        isGetter = true;
        auto v = service->fieldValues.find(f.notifier);
        if (v != service->fieldValues.end())
          fieldValue = &v->second;
      }
      if (fieldValue) {
        Header h = m.header;
        h.messageType = MessageType::kResponse;
        answerBytes = encodeMessage(h, *fieldValue);
      }
    }
  }
  if (!handler && isGetter) {
    if (answerBytes.empty())
      return fail(ReturnCode::kNotReady);  // no value yet
    if (answer)
      sendTcp(conn, answerBytes);
    return;
  }
  if (!handler)
    return fail(ReturnCode::kUnknownMethod);
  std::shared_ptr<mw::Responder> responder;
  if (answer)
    responder = std::make_shared<TcpResponder>(*this, conn, m.header);
  auto payload = std::make_shared<std::vector<uint8_t>>(std::move(m.payload));
  server_->post([handler, responder, payload] {
    Deserializer reader(*payload);
    handler->onRequest(reader, responder);
  });
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

void RuntimeImpl::linkMessage(const std::shared_ptr<ClientLink>& link, Message& m) {
  tap(true, link->conn->peer(), link->conn->local(), encodeMessage(m.header, m.payload));
  switch (m.header.messageType) {
    case MessageType::kResponse:
    case MessageType::kError: {
      std::unique_ptr<mw::ReplyReceiver> receiver;
      {
        std::lock_guard<std::mutex> ll(link->mutex);
        auto it = link->pending.find(m.header.sessionId);
        if (it != link->pending.end() && m.header.clientId == clientId_) {
          receiver = std::move(it->second);
          link->pending.erase(it);
        }
      }
      if (!receiver) {
        MLOG_WARN(kTag, "answer with session ", m.header.sessionId, " from ", link->iface->name,
                  " matches no pending call; dropped");
        return;
      }
      if (m.header.messageType == MessageType::kError || m.header.returnCode != ReturnCode::kOk) {
        receiver->onError(toErrorCode(m.header.returnCode), toString(m.header.returnCode));
        return;
      }
      Deserializer reader(m.payload);
      receiver->onReply(reader);
      return;
    }
    case MessageType::kNotification: {
      std::vector<std::shared_ptr<mw::SampleReceiver>> receivers;
      auto payload = std::make_shared<const std::vector<uint8_t>>(std::move(m.payload));
      {
        std::lock_guard<std::mutex> ll(link->mutex);
        for (auto& [_, f] : link->iface->fields)
          if (f.notifier == m.header.methodId)
            link->fieldValues[f.notifier] = payload;
        for (auto& s : link->subs)
          if (s.eventId == m.header.methodId)
            receivers.push_back(s.receiver);
      }
      if (receivers.empty())
        return;
      callbacks_->post([receivers, payload] {
        for (auto& r : receivers) {
          Deserializer reader(*payload);
          r->onSample(reader);
        }
      });
      return;
    }
    default:
      MLOG_WARN(kTag, "unexpected ", toString(m.header.messageType), " from ", link->iface->name,
                "; dropped");
  }
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
  return R(std::make_unique<SomeipProxyBackend>(*impl_, link.value()));
}

mw::Result<std::unique_ptr<mw::SkeletonBackend>> Runtime::createSkeleton(
    const std::string& interface, const mw::InstanceSpecifier& instance) {
  using R = mw::Result<std::unique_ptr<mw::SkeletonBackend>>;
  auto service = impl_->makeOffered(interface, instance);
  if (!service)
    return R::fromError(service.error(), service.errorMessage());
  return R(std::make_unique<SomeipSkeletonBackend>(*impl_, service.value()));
}

}  // namespace platform::someip

#pragma once
// RuntimeImpl, the state behind a Runtime, and the tables it keeps; private to this directory.
// Threading: mutex_ guards the runtime's tables, each ClientLink and OfferedService has its own
// mutex (lock order: runtime, then link or service, then connection); the tap's mutex and the
// workers' queues are taken last, under any of them.

#include <poll.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/someip/header.h"
#include "platform/someip/runtime.h"
#include "platform/someip/sd.h"
#include "platform/someip/worker.h"

namespace platform::someip {

namespace mw = platform::middleware;
using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;
using std::chrono::milliseconds;

constexpr const char* kTag = "someip";

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

// A member of an interface as the wire knows it.
struct MemberIds {
  uint16_t id = 0;
  uint16_t eventgroup = 0;
  bool isField = false;
};

// The wire ids of event or field `name`, and the method id of a method, getter or setter;
// false when the interface has none (runtime.cpp).
bool eventIds(const InterfaceConfig& iface, const std::string& name, MemberIds& out);
bool methodId(const InterfaceConfig& iface, mw::MemberKind kind, const std::string& name,
              uint16_t& out);

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

// The state behind a Runtime: its sockets, threads and tables. Threading: the public methods
// are called from any thread; the private ones run on "someip-io" (or in stop(), once it has
// ended), the ...Locked ones with mutex_ held.
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
    tapping_ = static_cast<bool>(tap);
    tap_ = std::move(tap);
  }
  void tap(bool tcp, const Endpoint& from, const Endpoint& to, const std::vector<uint8_t>& bytes);
  // A received message, encoded again only when a tap records it.
  void tap(const Endpoint& from, const Endpoint& to, const Message& message) {
    if (tapping_.load(std::memory_order_relaxed))
      tap(true, from, to, encodeMessage(message.header, message.payload));
  }
  void wake();

  Worker& callbacks() { return *callbacks_; }
  Worker& server() { return *server_; }
  const HostConfig& config() const { return config_; }

 private:
  struct PollTarget {
    enum Kind { kWake, kSdUnicast, kSdMulticast, kInstance, kListener, kServerConn, kLink } kind;
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
  int instanceFd_ = -1;  // the claim on the SD endpoint (runtime.cpp)
  std::atomic<bool> stopping_{false};
  std::thread io_;
  std::unique_ptr<Worker> callbacks_;
  std::unique_ptr<Worker> server_;

  std::mutex tapMutex_;  // guards tap_
  Tap tap_;
  std::atomic<bool> tapping_{false};  // whether tap_ is set, read without the mutex

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

// The backends of the proxies and skeletons made from a runtime (proxy_backend.cpp,
// skeleton_backend.cpp).
std::unique_ptr<mw::ProxyBackend> makeProxyBackend(RuntimeImpl& rt,
                                                   std::shared_ptr<ClientLink> link);
std::unique_ptr<mw::SkeletonBackend> makeSkeletonBackend(RuntimeImpl& rt,
                                                         std::shared_ptr<OfferedService> service);

}  // namespace platform::someip

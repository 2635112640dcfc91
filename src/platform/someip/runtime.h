#pragma once
// Runtime: the SOME/IP binding of one process (the middleware Binding behind proxies and
// skeletons).
//
// Made from the host configuration and the process name, it owns:
//  - SOME/IP-SD on UDP: a socket on the process's unicast address and the SD port (unicast
//    traffic and all sends) and one bound to the multicast group (joined on lo), through which it
//    offers (initial wait, repetitions, cyclic offers), stops offers, finds, subscribes
//    eventgroups and acknowledges subscriptions; it expires services whose offers stop, and
//    resets what it knows of a peer that reboots. Both sockets share the SD port with other
//    SOME/IP stacks on the host (SO_REUSEADDR); one runtime per unicast address is enforced by
//    an abstract unix socket named after it, held for the runtime's life;
//  - a TCP server per offered service (requests, responses, errors, notifications);
//  - a TCP client connection per found service endpoint, shared by the proxies of it, with
//    requests matched to responses by session id.
// Events and field notifications go over the subscriber's TCP connection: a subscription
// names the subscriber's TCP endpoint, which must be a connection to the service.
//
// Threading: thread-safe. Three named threads: "someip-io" owns every socket read, accept,
// connect and close and the SD timers; "someip-cb" runs discovery and receive handlers;
// "someip-srv" runs method handlers. Senders write to TCP sockets from their own threads.
// The runtime's mutex guards the tables of offers, finds, found services, links and SD
// sessions; each link and each offered service has its own mutex for its pending calls,
// subscriptions and handlers (lock order: runtime, then link or service, then connection).
// The runtime must outlive every proxy and skeleton made from it.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/middleware/binding.h"
#include "platform/someip/config.h"
#include "platform/someip/connection.h"

namespace platform::someip {

class RuntimeImpl;

// One message as it crossed a socket, for recording exchanges.
struct TapRecord {
  bool tcp = false;
  Endpoint from;
  Endpoint to;
  std::vector<uint8_t> bytes;  // UDP: the datagram; TCP: one SOME/IP message, or empty when
                               // the connection was just opened
};
using Tap = std::function<void(const TapRecord&)>;

class Runtime final : public middleware::Binding {
 public:
  // Binds the SD sockets of `process`'s unicast address and starts the threads; nullptr with
  // `error` set on failure.
  static std::unique_ptr<Runtime> start(const HostConfig& config, const std::string& process,
                                        std::string& error);
  ~Runtime() override;
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  uint16_t clientId() const;
  uint32_t unicast() const;
  // Called for every SOME/IP message sent or received from then on (on the threads that move
  // them); set it before traffic starts.
  void setTap(Tap tap);

  middleware::Result<middleware::FindServiceHandle> startFindService(
      const std::string& interface, const middleware::InstanceSpecifier& instance,
      middleware::FindServiceHandler handler) override;
  void stopFindService(middleware::FindServiceHandle handle) override;
  middleware::Future<void> confirm(const middleware::ServiceHandle& handle) override;
  middleware::Result<std::unique_ptr<middleware::ProxyBackend>> createProxy(
      const middleware::ServiceHandle& handle) override;
  middleware::Result<std::unique_ptr<middleware::SkeletonBackend>> createSkeleton(
      const std::string& interface, const middleware::InstanceSpecifier& instance) override;

 private:
  explicit Runtime(std::unique_ptr<RuntimeImpl> impl);
  std::unique_ptr<RuntimeImpl> impl_;
};

}  // namespace platform::someip

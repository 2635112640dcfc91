#pragma once
// The seam between the middleware API (proxy.h, skeleton.h) and a transport binding.
//
// The typed templates turn method inputs, outputs and event samples into calls of the visitor
// protocol of marshal.h; a binding implements these interfaces, resolves interface and member
// names to its own ids, and supplies the FieldVisitor that writes or reads its wire format. So
// nothing here knows a transport.
//
// Threading: a Binding and its backends are thread-safe (each implementation states how).
// Receivers (ReplyReceiver, SampleReceiver, RequestHandler) are called on the binding's threads;
// a binding calls one SampleReceiver from one thread at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/middleware/future.h"
#include "platform/middleware/marshal.h"
#include "platform/middleware/result.h"

namespace platform::middleware {

// Names an instance of a service interface, as the deployment knows it. A decimal text ("1")
// names that instance id; any other text names the instance the host configuration gives.
class InstanceSpecifier {
 public:
  explicit InstanceSpecifier(std::string text) : text_(std::move(text)) {}
  const std::string& ToString() const { return text_; }
  bool operator==(const InstanceSpecifier& other) const { return text_ == other.text_; }

 private:
  std::string text_;
};

// One found service instance. `token` is the binding's key for this appearance of the instance;
// a service that goes away and comes back gets a new token.
struct ServiceHandle {
  std::string interface;
  uint16_t instanceId = 0;
  uint64_t token = 0;
  bool operator==(const ServiceHandle& o) const {
    return interface == o.interface && instanceId == o.instanceId && token == o.token;
  }
};

// Every currently available instance that matches a search; empty when the service is gone.
using ServiceHandleContainer = std::vector<ServiceHandle>;

struct FindServiceHandle {
  uint64_t id = 0;
  bool operator==(const FindServiceHandle& o) const { return id == o.id; }
};

using FindServiceHandler = std::function<void(ServiceHandleContainer, FindServiceHandle)>;

// What a member name refers to when calling or answering.
enum class MemberKind { kMethod, kFieldGetter, kFieldSetter };

// Writes one value's fields into a binding's serializer.
using Writer = std::function<void(FieldVisitor&)>;

// A writing visitor never modifies what it visits, so const values can be written.
template <typename T>
void writeValue(FieldVisitor& visitor, const T& value) {
  marshal(visitor, const_cast<T&>(value));
}

// Receives the answer of one call, exactly one of the two, once.
class ReplyReceiver {
 public:
  virtual ~ReplyReceiver() = default;
  virtual void onReply(FieldVisitor& reader) = 0;
  virtual void onError(ErrorCode code, const std::string& message) = 0;
  // False once nobody can read the answer any more (the caller dropped its future); a binding
  // may then forget the call.
  virtual bool wanted() const { return true; }
};

// Receives the samples of one subscribed event or field.
class SampleReceiver {
 public:
  virtual ~SampleReceiver() = default;
  virtual void onSample(FieldVisitor& reader) = 0;
};

// Answers one request; may be called from any thread, once.
class Responder {
 public:
  virtual ~Responder() = default;
  virtual void reply(const Writer& output) = 0;
  virtual void error(ErrorCode code, const std::string& message) = 0;
};

// Serves one method (or field getter/setter) of an offered service. `responder` is null for
// fire-and-forget methods.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;
  virtual void onRequest(FieldVisitor& reader, std::shared_ptr<Responder> responder) = 0;
};

enum class SubscriptionState { kNotSubscribed, kSubscriptionPending, kSubscribed };

class ProxyBackend {
 public:
  virtual ~ProxyBackend() = default;
  // Sends a request; the answer (or an error, also for a member the configuration lacks) goes to
  // `receiver`.
  virtual void call(MemberKind kind, const std::string& member, const Writer& input,
                    std::unique_ptr<ReplyReceiver> receiver) = 0;
  virtual Result<void> fireAndForget(const std::string& method, const Writer& input) = 0;
  // Subscribes to an event or a field's notifications; samples go to `receiver` until
  // unsubscribe(). After unsubscribe() returns no new sample is delivered (one whose delivery
  // has already begun may still finish; the receiver is shared, so it stays alive for it).
  virtual Result<void> subscribe(const std::string& member,
                                 std::shared_ptr<SampleReceiver> receiver) = 0;
  virtual void unsubscribe(const std::string& member) = 0;
  virtual SubscriptionState subscriptionState(const std::string& member) const = 0;
};

class SkeletonBackend {
 public:
  virtual ~SkeletonBackend() = default;
  virtual Result<void> setHandler(MemberKind kind, const std::string& member,
                                  std::shared_ptr<RequestHandler> handler) = 0;
  // Sends an event sample, or a field's new value, to every subscriber. A field's value is also
  // kept: it answers getters that have no handler and greets new subscribers.
  virtual Result<void> notify(const std::string& member, const Writer& sample) = 0;
  virtual Result<void> offer() = 0;
  virtual void stopOffer() = 0;
};

class Binding {
 public:
  virtual ~Binding() = default;
  // Reports the matching instances now (if any are known) and whenever the set changes.
  virtual Result<FindServiceHandle> startFindService(const std::string& interface,
                                                     const InstanceSpecifier& instance,
                                                     FindServiceHandler handler) = 0;
  virtual void stopFindService(FindServiceHandle handle) = 0;
  // Resolves once the instance can be reached (or with the error why not).
  virtual Future<void> confirm(const ServiceHandle& handle) = 0;
  virtual Result<std::unique_ptr<ProxyBackend>> createProxy(const ServiceHandle& handle) = 0;
  virtual Result<std::unique_ptr<SkeletonBackend>> createSkeleton(
      const std::string& interface, const InstanceSpecifier& instance) = 0;
};

// The binding that the API uses when none is passed explicitly; set once at start-up (main
// installs the process's runtime) before other threads use the middleware. May be null.
void setDefaultBinding(Binding* binding);
Binding* defaultBinding();

}  // namespace platform::middleware

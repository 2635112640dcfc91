#pragma once
// The server side of a service: offer, methods answered through promises, events, fields.
//
// Member descriptors are the same as for proxies (see proxy.h). A method handler returns the
// future of its answer; it may answer at once (Future::ready) or later from any thread through
// the promise it keeps.
//
// Threading: Skeleton is thread-safe as far as its backend is (handlers may be registered before
// or after OfferService; send and Update may be called from any thread). Method handlers run on
// a binding thread, one request at a time; a handler that needs long should keep the promise and
// answer later from its own thread. Once the skeleton is destroyed none of its handlers runs any
// more. The binding must outlive its skeletons.

#include <functional>
#include <memory>
#include <string>

#include "minfw/log.h"
#include "platform/middleware/binding.h"

namespace platform::middleware {

namespace detail {

template <typename In, typename Out>
class MethodHandler final : public RequestHandler {
 public:
  using Function = std::function<Future<Out>(const In&)>;
  MethodHandler(std::string name, Function function)
      : name_(std::move(name)), function_(std::move(function)) {}

  void onRequest(FieldVisitor& reader, std::shared_ptr<Responder> responder) override {
    In input{};
    marshal(reader, input);
    if (!reader.ok()) {
      MLOG_ERROR("mw", "request of ", name_, " not readable: ", reader.error());
      if (responder)
        responder->error(ErrorCode::kMalformedMessage, reader.error());
      return;
    }
    auto future = function_(input);
    future.then([responder](const Result<Out>& result) {
      if (result)
        responder->reply([&result](FieldVisitor& w) { writeValue(w, result.value()); });
      else
        responder->error(result.error(), result.errorMessage());
    });
  }

 private:
  const std::string name_;
  Function function_;
};

template <typename In>
class OneWayHandler final : public RequestHandler {
 public:
  using Function = std::function<void(const In&)>;
  OneWayHandler(std::string name, Function function)
      : name_(std::move(name)), function_(std::move(function)) {}

  void onRequest(FieldVisitor& reader, std::shared_ptr<Responder>) override {
    In input{};
    marshal(reader, input);
    if (!reader.ok()) {
      MLOG_ERROR("mw", "request of ", name_, " not readable, dropped: ", reader.error());
      return;
    }
    function_(input);
  }

 private:
  const std::string name_;
  Function function_;
};

// A getter handler: no input.
struct NoInput {};
inline void marshal(FieldVisitor&, NoInput&) {}

}  // namespace detail

template <typename F>
class SkeletonField {
 public:
  using Value = typename F::Value;
  explicit SkeletonField(SkeletonBackend& backend) : backend_(backend) {}

  // Stores the value and notifies every subscriber.
  Result<void> Update(const Value& value) {
    return backend_.notify(F::kName, [&value](FieldVisitor& w) { writeValue(w, value); });
  }
  // Answers getters through `handler` instead of with the last updated value.
  Result<void> RegisterGetHandler(std::function<Future<Value>()> handler) {
    auto wrapped = [handler = std::move(handler)](const detail::NoInput&) { return handler(); };
    return backend_.setHandler(MemberKind::kFieldGetter, F::kName,
                               std::make_shared<detail::MethodHandler<detail::NoInput, Value>>(
                                   F::kName, std::move(wrapped)));
  }
  // Serves setters: the handler returns the value that is then in effect.
  Result<void> RegisterSetHandler(std::function<Future<Value>(const Value&)> handler) {
    return backend_.setHandler(
        MemberKind::kFieldSetter, F::kName,
        std::make_shared<detail::MethodHandler<Value, Value>>(F::kName, std::move(handler)));
  }

 private:
  SkeletonBackend& backend_;
};

class Skeleton {
 public:
  static Result<std::unique_ptr<Skeleton>> Create(const std::string& interface,
                                                  const InstanceSpecifier& instance,
                                                  Binding* binding = nullptr);

  explicit Skeleton(std::unique_ptr<SkeletonBackend> backend) : backend_(std::move(backend)) {}
  ~Skeleton();
  Skeleton(const Skeleton&) = delete;
  Skeleton& operator=(const Skeleton&) = delete;

  Result<void> OfferService() { return backend_->offer(); }
  void StopOfferService() { backend_->stopOffer(); }

  template <typename M>
  Result<void> handle(
      std::function<Future<typename M::Output>(const typename M::Input&)> function) {
    using H = detail::MethodHandler<typename M::Input, typename M::Output>;
    return backend_->setHandler(MemberKind::kMethod, M::kName,
                                std::make_shared<H>(M::kName, std::move(function)));
  }

  template <typename M>
  Result<void> handleFireAndForget(std::function<void(const typename M::Input&)> function) {
    using H = detail::OneWayHandler<typename M::Input>;
    return backend_->setHandler(MemberKind::kMethod, M::kName,
                                std::make_shared<H>(M::kName, std::move(function)));
  }

  template <typename E>
  Result<void> send(const typename E::Sample& sample) {
    return backend_->notify(E::kName, [&sample](FieldVisitor& w) { writeValue(w, sample); });
  }

  template <typename F>
  SkeletonField<F> field() {
    return SkeletonField<F>(*backend_);
  }

 private:
  std::unique_ptr<SkeletonBackend> backend_;
};

}  // namespace platform::middleware

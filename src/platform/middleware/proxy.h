#pragma once
// The client side of a service: discovery, proxies, method calls, events and fields.
//
// Interface code describes each member with a plain descriptor struct:
//   method: struct M { static constexpr const char* kName = "..."; struct Input; struct Output; };
//   event:  struct E { static constexpr const char* kName = "..."; struct Sample; };
//   field:  struct F { static constexpr const char* kName = "..."; using Value = ...; };
// where Input, Output, Sample and Value have marshal() (marshal.h). The binding resolves the
// names through its configuration.
//
// Threading: Proxy is thread-safe (calls from several threads may overlap; the mutex guards the
// map of event objects). ProxyEvent and ProxyField are thread-safe; their receive handler runs
// on a binding thread, never two at once for one event. Discovery and receive handlers may wait
// on the futures of calls (answers arrive on another binding thread), but while one waits, the
// next handlers wait for it. The binding must outlive its proxies.

#include <cstddef>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "minfw/log.h"
#include "platform/middleware/binding.h"

namespace platform::middleware {

// A received sample; empty when the sample could not be delivered.
template <typename T>
using SamplePtr = std::unique_ptr<const T>;

namespace detail {

template <typename T>
class ValueReply final : public ReplyReceiver {
 public:
  explicit ValueReply(Promise<T> promise) : promise_(std::move(promise)) {}
  void onReply(FieldVisitor& reader) override {
    T value{};
    marshal(reader, value);
    if (!reader.ok()) {
      MLOG_ERROR("mw", "reply not readable: ", reader.error());
      promise_.set_error(ErrorCode::kMalformedMessage, reader.error());
      return;
    }
    promise_.set_value(std::move(value));
  }
  void onError(ErrorCode code, const std::string& message) override {
    promise_.set_error(code, message);
  }
  bool wanted() const override { return promise_.awaited(); }

 private:
  Promise<T> promise_;
};

// The sample cache and receive handler of one subscribed event or field.
template <typename T>
class SampleCache final : public SampleReceiver {
 public:
  explicit SampleCache(std::string name) : name_(std::move(name)) {}

  void onSample(FieldVisitor& reader) override {
    auto sample = std::make_unique<T>();
    marshal(reader, *sample);
    if (!reader.ok()) {
      MLOG_ERROR("mw", "sample of ", name_, " not readable, dropped: ", reader.error());
      return;
    }
    std::function<void()> handler;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      samples_.push_back(std::move(sample));
      while (samples_.size() > cacheSize_)
        samples_.pop_front();
      handler = handler_;
    }
    if (handler)
      handler();
  }

  void setCacheSize(std::size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    cacheSize_ = size == 0 ? 1 : size;
  }
  void setHandler(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handler_ = std::move(handler);
  }
  template <typename F>
  std::size_t take(F&& f, std::size_t maxSamples) {
    std::deque<std::unique_ptr<T>> taken;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      while (!samples_.empty() && taken.size() < maxSamples) {
        taken.push_back(std::move(samples_.front()));
        samples_.pop_front();
      }
    }
    for (auto& s : taken)
      f(SamplePtr<T>(std::move(s)));
    return taken.size();
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    samples_.clear();
  }

 private:
  const std::string name_;
  std::mutex mutex_;  // guards samples_, cacheSize_ and handler_
  std::deque<std::unique_ptr<T>> samples_;
  std::size_t cacheSize_ = 1;
  std::function<void()> handler_;
};

// Subscription plumbing shared by events and fields.
template <typename T>
class Subscribable {
 public:
  Subscribable(ProxyBackend& backend, std::string name)
      : backend_(backend), name_(name), cache_(std::make_shared<SampleCache<T>>(std::move(name))) {}
  virtual ~Subscribable() { backend_.unsubscribe(name_); }

  Result<void> Subscribe(std::size_t maxSampleCount) {
    cache_->setCacheSize(maxSampleCount);
    return backend_.subscribe(name_, cache_);
  }
  void Unsubscribe() {
    backend_.unsubscribe(name_);
    cache_->clear();
  }
  SubscriptionState GetSubscriptionState() const { return backend_.subscriptionState(name_); }
  // `handler` runs on a binding thread after each new sample. A call that has already begun
  // may still finish after UnsetReceiveHandler() returns: whatever it uses must be kept alive by
  // the handler itself (capture shared ownership, not references to locals).
  void SetReceiveHandler(std::function<void()> handler) { cache_->setHandler(std::move(handler)); }
  void UnsetReceiveHandler() { cache_->setHandler(nullptr); }
  // Hands up to `maxSamples` of the oldest unread samples to `f`; returns how many.
  template <typename F>
  Result<std::size_t> GetNewSamples(
      F&& f, std::size_t maxSamples = std::numeric_limits<std::size_t>::max()) {
    return cache_->take(std::forward<F>(f), maxSamples);
  }

 protected:
  ProxyBackend& backend_;
  const std::string name_;
  std::shared_ptr<SampleCache<T>> cache_;
};

class MemberBase {
 public:
  virtual ~MemberBase() = default;
};

}  // namespace detail

template <typename E>
class ProxyEvent final : public detail::MemberBase,
                         public detail::Subscribable<typename E::Sample> {
 public:
  explicit ProxyEvent(ProxyBackend& backend)
      : detail::Subscribable<typename E::Sample>(backend, E::kName) {}
};

template <typename F>
class ProxyField final : public detail::MemberBase, public detail::Subscribable<typename F::Value> {
 public:
  using Value = typename F::Value;
  explicit ProxyField(ProxyBackend& backend) : detail::Subscribable<Value>(backend, F::kName) {}

  Future<Value> Get() {
    Promise<Value> promise;
    auto future = promise.get_future();
    this->backend_.call(
        MemberKind::kFieldGetter, F::kName, [](FieldVisitor&) {},
        std::make_unique<detail::ValueReply<Value>>(std::move(promise)));
    return future;
  }
  Future<Value> Set(const Value& value) {
    Promise<Value> promise;
    auto future = promise.get_future();
    this->backend_.call(
        MemberKind::kFieldSetter, F::kName, [&value](FieldVisitor& w) { writeValue(w, value); },
        std::make_unique<detail::ValueReply<Value>>(std::move(promise)));
    return future;
  }
};

class Proxy {
 public:
  // Starts discovery of `interface` instances; `handler` runs on a binding thread with every
  // change of the matching set (empty = gone). The search stays active until StopFindService.
  static Result<FindServiceHandle> StartFindService(FindServiceHandler handler,
                                                    const std::string& interface,
                                                    const InstanceSpecifier& instance,
                                                    Binding* binding = nullptr);
  static void StopFindService(FindServiceHandle handle, Binding* binding = nullptr);
  // Resolves once the instance behind `handle` is reachable.
  static Future<void> Preconstruct(const ServiceHandle& handle, Binding* binding = nullptr);
  static Result<std::unique_ptr<Proxy>> Create(const ServiceHandle& handle,
                                               Binding* binding = nullptr);

  explicit Proxy(ServiceHandle handle, std::unique_ptr<ProxyBackend> backend)
      : handle_(std::move(handle)), backend_(std::move(backend)) {}
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  const ServiceHandle& GetHandle() const { return handle_; }

  template <typename M>
  Future<typename M::Output> call(const typename M::Input& input) {
    Promise<typename M::Output> promise;
    auto future = promise.get_future();
    backend_->call(
        MemberKind::kMethod, M::kName, [&input](FieldVisitor& w) { writeValue(w, input); },
        std::make_unique<detail::ValueReply<typename M::Output>>(std::move(promise)));
    return future;
  }

  template <typename M>
  Result<void> fireAndForget(const typename M::Input& input) {
    return backend_->fireAndForget(M::kName, [&input](FieldVisitor& w) { writeValue(w, input); });
  }

  // The event object of E, made on first use and kept for the life of the proxy.
  template <typename E>
  ProxyEvent<E>& event() {
    return member<ProxyEvent<E>>(E::kName);
  }
  template <typename F>
  ProxyField<F>& field() {
    return member<ProxyField<F>>(F::kName);
  }

 private:
  template <typename T>
  T& member(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& slot = members_[name];
    if (!slot)
      slot = std::make_unique<T>(*backend_);
    return static_cast<T&>(*slot);
  }

  const ServiceHandle handle_;
  // Declared before members_, so the event objects unsubscribe while the backend still exists.
  std::unique_ptr<ProxyBackend> backend_;
  std::mutex mutex_;  // guards members_
  std::map<std::string, std::unique_ptr<detail::MemberBase>> members_;
};

}  // namespace platform::middleware

#pragma once
// CallbackGate: how middleware callbacks (discovery, event receive handlers) reach a client that
// may be destroyed while they are still registered. The callbacks hold the gate by shared
// pointer; the client's destructor closes it, which waits for a callback inside and keeps later
// ones out.
//
// Threading: thread-safe; mutex_ guards owner_ and is held while a callback runs in the owner,
// so a callback must not wait for the owner's destructor. Receive handlers installed by
// subscribeThroughGate run on a middleware thread.

#include <cstddef>
#include <memory>
#include <mutex>

#include "minfw/log.h"
#include "platform/middleware/proxy.h"

namespace orv {

template <typename Owner>
class CallbackGate {
 public:
  explicit CallbackGate(Owner* owner) : owner_(owner) {}

  // Runs f(owner) unless the gate is closed.
  template <typename F>
  void enter(F&& f) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (owner_ != nullptr)
      f(*owner_);
  }

  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    owner_ = nullptr;
  }

 private:
  std::mutex mutex_;  // guards owner_; held while a callback runs
  Owner* owner_;
};

// Subscribes the event E that `event(*proxy)` returns and hands each sample, inside the gate, to
// deliver(owner, sample). The handler holds the proxy weakly (the proxy owns the handler).
// Logs and returns the middleware's error when the subscription cannot be made.
template <typename E, typename Owner, typename Proxy, typename Event, typename Deliver>
platform::middleware::Result<void> subscribeThroughGate(
    const std::shared_ptr<CallbackGate<Owner>>& gate, const std::shared_ptr<Proxy>& proxy,
    Event event, Deliver deliver, std::size_t cacheSize, const char* tag) {
  std::weak_ptr<Proxy> weak = proxy;
  event(*proxy).SetReceiveHandler([gate, weak, event, deliver, tag] {
    gate->enter([&](Owner& owner) {
      std::shared_ptr<Proxy> current = weak.lock();
      if (!current)
        return;
      event(*current).GetNewSamples(
          [&](platform::middleware::SamplePtr<typename E::Sample> sample) {
            if (!sample) {
              MLOG_ERROR(tag, "Empty event item!");
              return;
            }
            deliver(owner, *sample);
          });
    });
  });
  auto subscribed = event(*proxy).Subscribe(cacheSize);
  if (!subscribed)
    MLOG_ERROR(tag, "cannot subscribe ", E::kName, ": ",
               platform::middleware::toString(subscribed.error()), " ", subscribed.errorMessage());
  return subscribed;
}

}  // namespace orv

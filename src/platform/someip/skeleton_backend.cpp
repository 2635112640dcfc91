// The skeleton backend: the method handlers, notifications and offer of one OfferedService.
// Threading: any thread; the service's mutex guards its handlers; destruction waits for the
// requests queued on "someip-srv" unless it runs there.
#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"
#include "platform/someip/serializer.h"

namespace platform::someip {

namespace {

// One skeleton's handlers and notifications. Threading: any thread (see above).
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

std::unique_ptr<mw::SkeletonBackend> makeSkeletonBackend(RuntimeImpl& rt,
                                                         std::shared_ptr<OfferedService> service) {
  return std::make_unique<SomeipSkeletonBackend>(rt, std::move(service));
}

}  // namespace platform::someip

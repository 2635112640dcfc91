#include <atomic>

#include "minfw/clock.h"
#include "platform/middleware/binding.h"
#include "platform/middleware/future.h"
#include "platform/middleware/proxy.h"
#include "platform/middleware/result.h"
#include "platform/middleware/skeleton.h"

namespace platform::middleware {

namespace minfw = kel::vxp3::minfw;

std::string toString(ErrorCode code) {
  switch (code) {
    case ErrorCode::kOk:
      return "ok";
    case ErrorCode::kTimeout:
      return "timeout";
    case ErrorCode::kServiceNotAvailable:
      return "service not available";
    case ErrorCode::kNetworkError:
      return "network error";
    case ErrorCode::kMalformedMessage:
      return "malformed message";
    case ErrorCode::kUnknownService:
      return "unknown service";
    case ErrorCode::kUnknownMethod:
      return "unknown method";
    case ErrorCode::kRemoteError:
      return "remote error";
    case ErrorCode::kBrokenPromise:
      return "broken promise";
    case ErrorCode::kNotConfigured:
      return "not configured";
    case ErrorCode::kWrongState:
      return "wrong state";
  }
  return "error " + std::to_string(static_cast<int>(code));
}

namespace detail {

bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
             const std::function<bool()>& ready, std::chrono::milliseconds timeout) {
  minfw::Clock& clock = minfw::clock();
  if (&clock == &minfw::systemClock())
    return cv.wait_for(lock, timeout, ready);
  // A test clock cannot wake a condition variable; look at virtual time once per real
  // millisecond while waiting for the answer.
  const auto deadline = clock.now() + timeout;
  while (!ready()) {
    if (clock.now() >= deadline)
      return false;
    cv.wait_for(lock, std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace detail

namespace {
std::atomic<Binding*> gDefaultBinding{nullptr};

Binding* pick(Binding* binding) {
  return binding ? binding : gDefaultBinding.load(std::memory_order_acquire);
}
}  // namespace

void setDefaultBinding(Binding* binding) {
  gDefaultBinding.store(binding, std::memory_order_release);
}

Binding* defaultBinding() {
  return gDefaultBinding.load(std::memory_order_acquire);
}

Result<FindServiceHandle> Proxy::StartFindService(FindServiceHandler handler,
                                                  const std::string& interface,
                                                  const InstanceSpecifier& instance,
                                                  Binding* binding) {
  Binding* b = pick(binding);
  if (!b) {
    MLOG_ERROR("mw", "no middleware binding; cannot look for ", interface);
    return Result<FindServiceHandle>::fromError(ErrorCode::kWrongState, "no binding");
  }
  return b->startFindService(interface, instance, std::move(handler));
}

void Proxy::StopFindService(FindServiceHandle handle, Binding* binding) {
  if (Binding* b = pick(binding))
    b->stopFindService(handle);
}

Future<void> Proxy::Preconstruct(const ServiceHandle& handle, Binding* binding) {
  Binding* b = pick(binding);
  if (!b)
    return Future<void>::ready(Result<void>::fromError(ErrorCode::kWrongState, "no binding"));
  return b->confirm(handle);
}

Result<std::unique_ptr<Proxy>> Proxy::Create(const ServiceHandle& handle, Binding* binding) {
  Binding* b = pick(binding);
  if (!b)
    return Result<std::unique_ptr<Proxy>>::fromError(ErrorCode::kWrongState, "no binding");
  auto backend = b->createProxy(handle);
  if (!backend)
    return Result<std::unique_ptr<Proxy>>::fromError(backend.error(), backend.errorMessage());
  return Result<std::unique_ptr<Proxy>>(
      std::make_unique<Proxy>(handle, std::move(backend).value()));
}

Proxy::~Proxy() = default;

Result<std::unique_ptr<Skeleton>> Skeleton::Create(const std::string& interface,
                                                   const InstanceSpecifier& instance,
                                                   Binding* binding) {
  Binding* b = pick(binding);
  if (!b)
    return Result<std::unique_ptr<Skeleton>>::fromError(ErrorCode::kWrongState, "no binding");
  auto backend = b->createSkeleton(interface, instance);
  if (!backend)
    return Result<std::unique_ptr<Skeleton>>::fromError(backend.error(), backend.errorMessage());
  return Result<std::unique_ptr<Skeleton>>(std::make_unique<Skeleton>(std::move(backend).value()));
}

Skeleton::~Skeleton() {
  backend_->stopOffer();
}

}  // namespace platform::middleware

#include "interfaces/diagnosis/nodbox/diagnosis_messwert.h"

#include <chrono>
#include <utility>

#include "interfaces/diagnosis/nodbox/measurements.h"
#include "interfaces/diagnosis/nodbox/vimeasurement_names.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;
namespace events = vimeasurement::events;
using vimeasurement::MeasurementStatus;

namespace {

constexpr const char* kTag = "diag";
// Requests kept between two receive calls; a tester asks one at a time.
constexpr std::size_t kRequestCacheSize = 10;

}  // namespace

DiagnosisMesswert::DiagnosisMesswert(mw::Binding* binding)
    : binding_(binding), gate_(std::make_shared<CallbackGate<DiagnosisMesswert>>(this)) {}

DiagnosisMesswert::~DiagnosisMesswert() {
  gate_->close();
  std::optional<mw::FindServiceHandle> find;
  std::shared_ptr<Proxy> last;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    find = std::exchange(find_, std::nullopt);
    last = std::move(proxy_);
  }
  if (find)
    Proxy::StopFindService(*find, binding_);
}

bool DiagnosisMesswert::connect() {
  MLOG_INFO(kTag, "Init DiagnosisMesswert!");
  std::shared_ptr<CallbackGate<DiagnosisMesswert>> gate = gate_;
  auto find = Proxy::StartFindService(
      [gate](mw::ServiceHandleContainer handles, mw::FindServiceHandle) {
        gate->enter([&](DiagnosisMesswert& self) { self.onFound(handles); });
      },
      mw::InstanceSpecifier(vimeasurement::kServiceName), binding_);
  if (!find) {
    MLOG_ERROR(kTag, "Failed starting the search for the measurement service: ",
               mw::toString(find.error()), " ", find.errorMessage());
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  find_ = find.value();
  return true;
}

void DiagnosisMesswert::onFound(const mw::ServiceHandleContainer& handles) {
  std::shared_ptr<Proxy> gone;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!handles.empty() && proxy_ && proxy_->GetHandle() == handles.front())
      return;
    gone = std::move(proxy_);
  }
  gone.reset();  // outside the mutex: its event unsubscribes through the binding
  if (handles.empty()) {
    MLOG_WARN(kTag, "DiagnosisMesswert: measurement service gone");
    return;
  }
  const mw::ServiceHandle& handle = handles.front();
  auto reachable = mw::Proxy::Preconstruct(handle, binding_);
  if (reachable.wait_for(std::chrono::milliseconds(kReachableMs)) != mw::FutureStatus::kReady ||
      !reachable.get()) {
    MLOG_ERROR(kTag, "DiagnosisMesswert: measurement service not reachable");
    return;
  }
  auto created = Proxy::Create(handle, binding_);
  if (!created) {
    MLOG_ERROR(kTag, "DiagnosisMesswert: proxy not created: ", mw::toString(created.error()), " ",
               created.errorMessage());
    return;
  }
  std::shared_ptr<Proxy> proxy(std::move(created).value());
  auto subscribed = subscribeThroughGate<events::MeasurementRequest>(
      gate_, proxy, [](Proxy & p) -> auto& { return p.measurementRequest; },
      [](DiagnosisMesswert& self, const events::MeasurementRequest::Sample& request) {
        self.onRequest(request);
      },
      kRequestCacheSize, kTag);
  if (!subscribed)
    return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    proxy_ = std::move(proxy);
  }
  MLOG_INFO(kTag, "DiagnosisMesswert connected!");
}

void DiagnosisMesswert::onRequest(const events::MeasurementRequest::Sample& request) {
  MLOG_INFO(kTag, "<~~ measurementRequest [", request.requestId, "] for [0x",
            minfw::hex(request.measurementId), "]");
  const Reply reply = answer(request.requestId, request.measurementId);
  std::shared_ptr<Proxy> current;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    current = proxy_;
  }
  if (!current) {
    MLOG_ERROR(kTag, "measurementReply not sent: no connection to the measurement service");
    return;
  }
  auto sent =
      current->measurementReply(reply.requestId, reply.measurementId, reply.status, reply.data);
  if (!sent)
    MLOG_ERROR(kTag, "measurementReply not sent: ", mw::toString(sent.error()), " ",
               sent.errorMessage());
}

DiagnosisMesswert::Reply DiagnosisMesswert::answer(uint32_t requestId,
                                                   uint16_t measurementId) const {
  Reply reply;
  reply.requestId = requestId;
  reply.measurementId = measurementId;
  reply.status = MeasurementStatus::ok;
  switch (measurementId) {
    case measurement::kUpdateState:
      if (signalDiagnoseUpdateState)
        reply.data = measurement::encode(signalDiagnoseUpdateState());
      else
        reply.status = MeasurementStatus::notAvailable;
      break;
    case measurement::kTimestamps:
      if (signalDiagnoseTimestamps)
        reply.data = measurement::encode(signalDiagnoseTimestamps());
      else
        reply.status = MeasurementStatus::notAvailable;
      break;
    default:
      reply.status = MeasurementStatus::unknownId;
  }
  if (reply.status != MeasurementStatus::ok)
    MLOG_ERROR(kTag, "-> measurementReply [", requestId, "] for [0x", minfw::hex(measurementId),
               "]: ", toString(reply.status));
  else
    MLOG_INFO(kTag, "-> measurementReply [", requestId, "] for [0x", minfw::hex(measurementId),
              "]: ", reply.data.size(), " bytes");
  return reply;
}

bool DiagnosisMesswert::connected() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return proxy_ != nullptr;
}

}  // namespace orv

#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "interfaces/diagnosis/nodbox/viroutine_names.h"
#include "interfaces/hmi/medium_path_relay.h"
#include "minfw/clock.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;
namespace events = viroutine::events;

namespace {

constexpr const char* kTag = "diag";
// Samples kept per event between two receive calls; a tester sends a few per routine.
constexpr std::size_t kEventCacheSize = 10;
// Step of the reconnect pause: how soon destruction or a returning service is noticed.
constexpr int64_t kPauseStepMs = 100;

std::string updateEndpointFromEnvironment() {
  const char* text = std::getenv("ORVANE_UPDATE_ENDPOINT");
  return text != nullptr && *text != '\0' ? text : DiagnosisViRoutineClient::kDefaultUpdateEndpoint;
}

std::string errorText(mw::ErrorCode code, const std::string& message) {
  return minfw::cat(mw::toString(code), message.empty() ? "" : " ", message);
}

}  // namespace

DiagnosisViRoutineClient::DiagnosisViRoutineClient(mw::Binding* binding)
    : binding_(binding),
      endpoint_(updateEndpointFromEnvironment()),
      gate_(std::make_shared<CallbackGate<DiagnosisViRoutineClient>>(this)),
      worker_(std::make_unique<minfw::ThreadPool>(1, "vir-routine")) {}

DiagnosisViRoutineClient::~DiagnosisViRoutineClient() {
  MLOG_INFO(kTag, "Terminate DiagnosticViRoutineClient!");
  gate_->close();
  // A running event task finishes (a start's pause included); queued ones are dropped.
  worker_.reset();
  std::optional<mw::FindServiceHandle> find;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    find = std::exchange(find_, std::nullopt);
  }
  changed_.notify_all();
  if (reconnect_.joinable())
    reconnect_.join();
  if (find)
    Proxy::StopFindService(*find, binding_);
  std::shared_ptr<Proxy> last;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    last = std::move(proxy_);
  }
}

bool DiagnosisViRoutineClient::connect() {
  MLOG_INFO(kTag, "Init DiagnosisViRoutineClient!");
  std::shared_ptr<CallbackGate<DiagnosisViRoutineClient>> gate = gate_;
  auto find = Proxy::StartFindService(
      [gate](mw::ServiceHandleContainer handles, mw::FindServiceHandle) {
        gate->enter([&](DiagnosisViRoutineClient& self) { self.onFound(handles); });
      },
      mw::InstanceSpecifier(viroutine::kServiceName), binding_);
  if (!find) {
    MLOG_ERROR(kTag, "Failed creating DiagnosticViRoutineProxy: ",
               errorText(find.error(), find.errorMessage()));
    return false;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  find_ = find.value();
  // A tester that is already up answers the search within a few SD rounds.
  if (!changed_.wait_for(lock, std::chrono::milliseconds(kFirstOfferMs),
                         [this] { return proxy_ != nullptr; })) {
    MLOG_ERROR(kTag, "Failed connecting DiagnosticViRoutineProxy: ", "service not offered within ",
               kFirstOfferMs, " ms; connecting when it appears");
    return false;
  }
  return true;
}

void DiagnosisViRoutineClient::onFound(const mw::ServiceHandleContainer& handles) {
  std::shared_ptr<Proxy> gone;
  bool lost = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (handles.empty()) {
      offered_.reset();
      lost = true;
    } else {
      offered_ = handles.front();
      // The same appearance of the service as the one connected: nothing to do.
      if (proxy_ && proxy_->GetHandle() == handles.front())
        return;
    }
    // A new appearance (another token) replaces the old connection, too.
    gone = std::move(proxy_);
  }
  changed_.notify_all();
  gone.reset();  // outside the mutex: its events unsubscribe through the binding
  if (lost) {
    dead();
  } else {
    alive();
  }
}

void DiagnosisViRoutineClient::alive() {
  MLOG_INFO(kTag, "DiagnosisViRoutineClient is alive!");
  scheduleConnect();
}

void DiagnosisViRoutineClient::dead() {
  MLOG_WARN(kTag, "DiagnosisViRoutineClient is dead!");
  scheduleConnect();
  MLOG_INFO(kTag, "DiagnosisViRoutineClient: Re-connect scheduled");
}

void DiagnosisViRoutineClient::scheduleConnect() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (reconnecting_ || stopping_)
      return;
    reconnecting_ = true;
  }
  // The previous loop has ended (reconnecting_ was false): this join only reaps it.
  if (reconnect_.joinable())
    reconnect_.join();
  reconnect_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "vir-reconnect");
    reconnectLoop();
  });
}

void DiagnosisViRoutineClient::reconnectLoop() {
  for (int attempt = 1;; ++attempt) {
    std::optional<mw::ServiceHandle> tried;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_ || proxy_) {
        reconnecting_ = false;
        return;
      }
      tried = offered_;
    }
    if (tried && connectProxy(*tried)) {
      std::lock_guard<std::mutex> lock(mutex_);
      reconnecting_ = false;
      return;
    }
    MLOG_WARN(kTag, "DiagnosisViRoutineClient: Re-connect attempt ", attempt, " of ",
              kReconnectAttempts, tried ? " failed" : ": service not offered");
    if (attempt >= kReconnectAttempts) {
      std::lock_guard<std::mutex> lock(mutex_);
      // Decided under the mutex, so that an appearance from now on starts a new loop.
      if (offered_ == tried) {
        MLOG_ERROR(kTag, "DiagnosisViRoutineClient: Re-connect given up after ", kReconnectAttempts,
                   " attempts; waiting for the service's next offer");
        reconnecting_ = false;
        return;
      }
      attempt = 0;  // a new appearance gets a full set of attempts
      continue;
    }
    pause(kReconnectDelayMs, tried);
  }
}

void DiagnosisViRoutineClient::pause(int64_t ms, const std::optional<mw::ServiceHandle>& tried) {
  for (int64_t waited = 0; waited < ms; waited += kPauseStepMs) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_ || !(offered_ == tried))
        return;
    }
    minfw::clock().sleepFor(std::chrono::milliseconds(kPauseStepMs));
  }
}

bool DiagnosisViRoutineClient::connectProxy(const mw::ServiceHandle& handle) {
  auto reachable = mw::Proxy::Preconstruct(handle, binding_);
  if (reachable.wait_for(std::chrono::milliseconds(kReachableMs)) != mw::FutureStatus::kReady) {
    MLOG_ERROR(kTag, "Failed connecting DiagnosticViRoutineProxy: not reachable within ",
               kReachableMs, " ms");
    return false;
  }
  if (auto result = reachable.get(); !result) {
    MLOG_ERROR(kTag, "Failed connecting DiagnosticViRoutineProxy: ",
               errorText(result.error(), result.errorMessage()));
    return false;
  }
  auto created = Proxy::Create(handle, binding_);
  if (!created) {
    MLOG_ERROR(kTag, "Failed creating DiagnosticViRoutineProxy: ",
               errorText(created.error(), created.errorMessage()));
    return false;
  }
  std::shared_ptr<Proxy> proxy(std::move(created).value());
  using Self = DiagnosisViRoutineClient;
  const bool subscribed =
      subscribe<events::RoutineRequest>(
          proxy, [](Proxy & p) -> auto& { return p.routineRequest; },
          [](Self& self, const events::RoutineRequest::Sample& s) { self.routineRequest(s); }) &&
      subscribe<events::StartRoutine>(
          proxy, [](Proxy & p) -> auto& { return p.startRoutine; },
          [](Self& self, const events::StartRoutine::Sample& s) {
            self.responseOnStartRoutine(s.routineId);
          }) &&
      subscribe<events::StopRoutine>(
          proxy, [](Proxy & p) -> auto& { return p.stopRoutine; },
          [](Self& self, const events::StopRoutine::Sample& s) {
            self.responseOnStopRoutine(s.routineId);
          }) &&
      subscribe<events::UnwantedRoutine>(
          proxy, [](Proxy & p) -> auto& { return p.unwantedRoutine; },
          [](Self& self, const events::UnwantedRoutine::Sample& s) {
            self.responseOnUnwantedRoutine(s.routineId);
          });
  if (!subscribed)
    return false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
      return false;
    proxy_ = std::move(proxy);
  }
  changed_.notify_all();
  MLOG_INFO(kTag, "DiagnosticViRoutineProxy connected!");
  return true;
}

template <typename E, typename Event, typename Dispatch>
bool DiagnosisViRoutineClient::subscribe(const std::shared_ptr<Proxy>& proxy, Event event,
                                         Dispatch dispatch) {
  auto subscribed = subscribeThroughGate<E>(
      gate_, proxy, event,
      [dispatch](DiagnosisViRoutineClient& self, const typename E::Sample& sample) {
        self.worker_->enqueue([&self, dispatch, sample] { dispatch(self, sample); });
      },
      kEventCacheSize, kTag);
  if (!subscribed) {
    MLOG_ERROR(kTag, "Failed connecting DiagnosticViRoutineProxy: ",
               errorText(subscribed.error(), subscribed.errorMessage()));
    return false;
  }
  return true;
}

std::shared_ptr<DiagnosisViRoutineClient::Proxy> DiagnosisViRoutineClient::proxy() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return proxy_;
}

bool DiagnosisViRoutineClient::connected() const {
  return proxy() != nullptr;
}

std::string DiagnosisViRoutineClient::updateOrder() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return updateOrder_;
}

bool DiagnosisViRoutineClient::overrideFlag() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return override_;
}

// ---------------------------------------------------------------------------------------------
// The reply side's operations

bool DiagnosisViRoutineClient::routineRequest(const RoutineRequest& request) {
  MLOG_INFO(kTag, "routineRequest received!");
  const std::vector<uint8_t>& data = request.parameter;
  if (data.size() == kParameterSize) {
    // The text ends at the first zero byte; the tester pads it with "0" characters.
    std::string text;
    for (uint8_t byte : data) {
      if (byte == 0)
        break;
      text.push_back(static_cast<char>(byte));
    }
    while (!text.empty() && text.back() == '0')
      text.pop_back();
    MLOG_INFO(kTag, "Converted update order string is: [", text, "]");
    {
      std::lock_guard<std::mutex> lock(mutex_);
      updateOrder_ = text;
      override_ = text.empty();
    }
    if (text.empty())
      MLOG_INFO(kTag,
                "Received empty parameter (ignoring trailing 0x30 bytes and bytes after first "
                "null terminator). Override substring test.");
  } else {
    MLOG_ERROR(kTag, "Received data size is [", data.size(), "] and not equal to [", kParameterSize,
               "]");
  }
  MLOG_INFO(kTag,
            "Response update state: send ROUTINE_STARTED and then immediately send "
            "ROUTINE_FINISHED!");
  responseUpdateState(request.routineId, RoutineState::ROUTINE_STARTED);
  return responseUpdateState(request.routineId, RoutineState::ROUTINE_FINISHED);
}

void DiagnosisViRoutineClient::responseOnStartRoutine(uint32_t routineId) {
  MLOG_INFO(kTag, "DiagnosisViRoutineClient::responseOnStartRoutine, routineID is [", routineId,
            "]");
  // Another routine is not ours to answer: the tester's own time-out handles it.
  if (routineId != DIAGNOSTIC_VI_ROUTINE_HANDLE) {
    MLOG_ERROR(kTag, "routineId=0x", minfw::hex(routineId),
               " does not equal DIAGNOSTIC_VI_ROUTINE_HANDLE=0x",
               minfw::hex(DIAGNOSTIC_VI_ROUTINE_HANDLE));
    return;
  }
  MLOG_INFO(kTag, "Run usb inserted method.");
  MediumPathRelay::instance().send(endpoint_);
  // Gives the USB channel time to take the medium before the diagnostic start arrives.
  minfw::clock().sleepFor(std::chrono::milliseconds(kStartPauseMs));
  if (!signalLogicDiagnoseStartUpdate) {
    MLOG_ERROR(kTag, "No signalLogicDiagnoseStartUpdate bound!");
    answer(routineId, false);
    return;
  }
  MLOG_INFO(kTag, "Run DiagnosticService runUSB and start");
  std::string order;
  bool override = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    order = updateOrder_;
    override = override_;
  }
  const bool started = signalLogicDiagnoseStartUpdate(order, override ? 1 : 0);
  if (started) {
    MLOG_INFO(kTag,
              "Response update state: send ROUTINE_STARTED and then immediately send "
              "ROUTINE_FINISHED!");
  } else {
    MLOG_ERROR(kTag, "Response update state: ROUTINE_START_ERROR!");
  }
  answer(routineId, started);
}

void DiagnosisViRoutineClient::answer(uint32_t routineId, bool started) {
  if (started) {
    responseUpdateState(routineId, RoutineState::ROUTINE_STARTED);
    responseUpdateState(routineId, RoutineState::ROUTINE_FINISHED);
  } else {
    responseUpdateState(routineId, RoutineState::ROUTINE_START_ERROR);
  }
}

void DiagnosisViRoutineClient::responseOnStopRoutine(uint32_t routineId) {
  (void)routineId;
  MLOG_WARN(kTag, "<- stopRoutine is not allowed!");
}

void DiagnosisViRoutineClient::responseOnUnwantedRoutine(uint32_t routineId) {
  MLOG_WARN(kTag, "<- routineId:", routineId, "is not allowed, unwanted routine!");
}

bool DiagnosisViRoutineClient::responseUpdateState(uint32_t routineId, RoutineState state) {
  MLOG_INFO(kTag, "-> startRoutineReply( rr.routineId=", routineId,
            ", rr.routineState=", static_cast<unsigned>(state));
  std::shared_ptr<Proxy> current = proxy();
  if (!current) {
    MLOG_ERROR(kTag, "Routine response Error: no connection to the routine service");
    return false;
  }
  auto future = current->startRoutineReply(routineId, state);
  if (future.wait_for(std::chrono::milliseconds(kReplyAnswerMs)) != mw::FutureStatus::kReady) {
    MLOG_ERROR(kTag, "Routine response Error: no answer within ", kReplyAnswerMs, " ms");
    return false;
  }
  auto answer = future.get();
  if (!answer) {
    MLOG_ERROR(kTag, "Routine response Error: ", errorText(answer.error(), answer.errorMessage()));
    return false;
  }
  if (answer.value().returnStatus != viroutine::ReturnStatus::ok) {
    MLOG_ERROR(kTag, "Routine response Error: the tester answered ",
               toString(answer.value().returnStatus));
    return false;
  }
  return true;
}

}  // namespace orv

#pragma once
// DiagnosisViRoutineClient: lets a workshop tester start a local update through the diagnostic
// routine. It follows the tester's routine-control service (vi_routine.idl) through discovery,
// takes the update-order parameter of routine requests, and on the start of routine 0x4C9 points
// the USB channel at the local update-file endpoint (through the process-wide medium-path relay)
// and asks the Multiplexer to start a diagnostic update. Every routine is answered with routine
// states through startRoutineReply. Log tag: "diag".
//
// Connection: connect() starts discovery and waits up to kFirstOfferMs for the service. Each
// appearance of the service ("alive") and each loss ("dead") hands the (re)connection to the
// reconnect thread "vir-reconnect", which tries up to kReconnectAttempts times, kReconnectDelayMs
// apart (clock seam), and then waits for the service's next appearance; discovery stays active
// all the time.
//
// Threading: thread-safe. mutex_ guards the connection state, the stored update order and the
// reconnect bookkeeping. Events arrive on a middleware thread and are handed to the single
// worker "vir-routine", so that their handling (the 2-second pause of a start among it) runs in
// order and never holds up the middleware's callback thread. The slot is bound on the main
// thread before connect(). Discovery and event callbacks enter through a CallbackGate that the
// destructor closes first.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "interfaces/diagnosis/nodbox/callback_gate.h"
#include "interfaces/diagnosis/nodbox/diagnosis_interfaces.h"
#include "interfaces/diagnosis/nodbox/viroutine_proxy.h"
#include "minfw/thread_pool.h"
#include "platform/middleware/binding.h"

namespace orv {

class DiagnosisViRoutineClient : public IRoutine {
 public:
  using RoutineRequest = viroutine::events::RoutineRequest::Sample;
  using RoutineState = viroutine::RoutineState;

  // The only routine that starts an update.
  static constexpr uint32_t DIAGNOSTIC_VI_ROUTINE_HANDLE = 0x4C9;
  // Length of the update routine's parameter.
  static constexpr std::size_t kParameterSize = 116;
  // The update-file endpoint on the target; ORVANE_UPDATE_ENDPOINT overrides it on a host.
  static constexpr const char* kDefaultUpdateEndpoint = "http://[fd6f:7276:616e::1]:29214/medium";

  static constexpr int64_t kFirstOfferMs = 1000;
  static constexpr int kReconnectAttempts = 10;
  static constexpr int64_t kReconnectDelayMs = 3000;
  static constexpr int64_t kStartPauseMs = 2000;
  // Longest waits for the middleware: an instance to become reachable, a reply to be answered.
  static constexpr int64_t kReachableMs = 5000;
  static constexpr int64_t kReplyAnswerMs = 5000;

  // `binding` null: the process's default middleware binding. Reads ORVANE_UPDATE_ENDPOINT.
  explicit DiagnosisViRoutineClient(platform::middleware::Binding* binding = nullptr);
  ~DiagnosisViRoutineClient() override;
  DiagnosisViRoutineClient(const DiagnosisViRoutineClient&) = delete;
  DiagnosisViRoutineClient& operator=(const DiagnosisViRoutineClient&) = delete;

  // Starts discovery; true when the service was found and connected within kFirstOfferMs.
  // Without it the client connects whenever the service appears. Call once.
  bool connect() override;

  // The reply side's operations, called with the tester's events.
  virtual bool routineRequest(const RoutineRequest& request);
  virtual void responseOnStartRoutine(uint32_t routineId);
  virtual void responseOnStopRoutine(uint32_t routineId);
  virtual void responseOnUnwantedRoutine(uint32_t routineId);
  // Sends startRoutineReply; false (with its log line) when it cannot or the tester refuses.
  virtual bool responseUpdateState(uint32_t routineId, RoutineState state);

  // The service appeared / went away (from discovery).
  virtual void alive();
  virtual void dead();

  bool connected() const;
  // The update order of the last valid routine request, and whether it is empty (override).
  std::string updateOrder() const;
  bool overrideFlag() const;
  const std::string& updateEndpoint() const { return endpoint_; }

 private:
  using Proxy = viroutine::proxy::ViRoutineProxy;

  void onFound(const platform::middleware::ServiceHandleContainer& handles);
  // Starts the reconnect thread unless it runs.
  void scheduleConnect();
  void reconnectLoop();
  // Waits `ms` through the clock seam in short steps; ends early when destruction begins or the
  // offered instance is no longer `tried`.
  void pause(int64_t ms, const std::optional<platform::middleware::ServiceHandle>& tried);
  bool connectProxy(const platform::middleware::ServiceHandle& handle);
  // Subscribes the event that `event(proxy)` returns; its samples go to `dispatch` on the worker.
  template <typename E, typename Event, typename Dispatch>
  bool subscribe(const std::shared_ptr<Proxy>& proxy, Event event, Dispatch dispatch);
  std::shared_ptr<Proxy> proxy() const;
  void answer(uint32_t routineId, bool started);

  platform::middleware::Binding* const binding_;
  const std::string endpoint_;
  std::shared_ptr<CallbackGate<DiagnosisViRoutineClient>> gate_;

  mutable std::mutex mutex_;  // guards everything below except reconnect_ and worker_
  std::condition_variable changed_;
  std::shared_ptr<Proxy> proxy_;
  std::optional<platform::middleware::ServiceHandle> offered_;  // the latest found instance
  std::optional<platform::middleware::FindServiceHandle> find_;
  bool reconnecting_ = false;
  bool stopping_ = false;
  std::string updateOrder_;
  bool override_ = false;

  std::thread reconnect_;  // started and joined by discovery callbacks and the destructor
  std::unique_ptr<kel::vxp3::minfw::ThreadPool> worker_;
};

}  // namespace orv

#pragma once
// DiagnosisMesswert: answers a workshop tester's measurement requests (vi_measurement.idl) with
// the update state and the timestamps of the update record, read through the Multiplexer's two
// read-out slots and encoded as measurements.h defines. Log tag: "diag".
//
// connect() only starts discovery of the tester's measurement service: the tester may come and
// go at any time, and a search that runs is all this client needs to serve it when it appears.
// Each appearance makes a proxy and subscribes to measurementRequest; a loss drops the proxy.
//
// Threading: thread-safe. mutex_ guards the proxy and the search handle. Discovery and requests
// arrive on middleware threads through a CallbackGate that the destructor closes first. The
// slots are bound on the main thread before connect() and only read afterwards.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "interfaces/diagnosis/nodbox/callback_gate.h"
#include "interfaces/diagnosis/nodbox/diagnosis_interfaces.h"
#include "interfaces/diagnosis/nodbox/vimeasurement_proxy.h"
#include "platform/middleware/binding.h"

namespace orv {

class DiagnosisMesswert : public IMesswert {
 public:
  using Reply = vimeasurement::methods::MeasurementReply::Input;

  // Longest wait for a found instance to become reachable.
  static constexpr int64_t kReachableMs = 5000;

  // `binding` null: the process's default middleware binding.
  explicit DiagnosisMesswert(platform::middleware::Binding* binding = nullptr);
  ~DiagnosisMesswert() override;
  DiagnosisMesswert(const DiagnosisMesswert&) = delete;
  DiagnosisMesswert& operator=(const DiagnosisMesswert&) = delete;

  // Starts discovery of the measurement service; true when the search runs. Call once.
  bool connect() override;

  // The reply to one request: the encoded value, or an empty one with status unknownId (no such
  // measurement) or notAvailable (its read-out slot is not bound).
  Reply answer(uint32_t requestId, uint16_t measurementId) const;

  bool connected() const;

 private:
  using Proxy = vimeasurement::proxy::ViMeasurementProxy;

  void onFound(const platform::middleware::ServiceHandleContainer& handles);
  void onRequest(const vimeasurement::events::MeasurementRequest::Sample& request);

  platform::middleware::Binding* const binding_;
  std::shared_ptr<CallbackGate<DiagnosisMesswert>> gate_;

  mutable std::mutex mutex_;  // guards proxy_ and find_
  std::shared_ptr<Proxy> proxy_;
  std::optional<platform::middleware::FindServiceHandle> find_;
};

}  // namespace orv

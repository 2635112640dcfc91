#pragma once
// What the Multiplexer needs of the two diagnosis clients: the routine-control client hands a
// tester's start of a diagnostic update on, the measurement client answers read-outs of the
// update record. Both expose their slots here, so that the Multiplexer binds them without
// knowing the platform services behind the clients.
//
// Threading: the slots are bound once on the main thread before connect() and only read
// afterwards; the clients call them on their platform threads.

#include <cstdint>
#include <functional>
#include <string>

#include "interfaces/lum/control_types.h"

namespace orv {

// Timestamps and error of the current or last update.
struct diagTimestampType {
  uint32_t dtType = ORV_USB_UPDATETYPE_NONE;
  std::string dtStartDate;
  std::string dtStartTime;
  std::string dtEndDate;
  std::string dtEndTime;
  int32_t dtErr = 0;
  std::string dtErrTxt;
};

// State of the current or last update.
struct diagNewStatusType {
  uint32_t updateType = ORV_USB_UPDATETYPE_NONE;
  uint32_t channel = ACTIVE_NONE;
  uint32_t stateHmi = 10;  // eINVALID, the resting state
  uint32_t stateLum = 0;   // "Idle"
  uint32_t progress = 0;
  int32_t errorCode = 0;
};

// The routine-control client (DiagnosisViRoutineClient).
class IRoutine {
 public:
  virtual ~IRoutine() = default;
  // Connects to the platform's routine-control service; false when it cannot.
  virtual bool connect() = 0;

  // Start of a diagnostic update: the update-order text and the override flag.
  std::function<bool(const std::string& updateOrder, int override)> signalLogicDiagnoseStartUpdate;
};

// The measurement client (DiagnosisMesswert).
class IMesswert {
 public:
  virtual ~IMesswert() = default;
  // Connects to the platform's measurement service; false when it cannot.
  virtual bool connect() = 0;

  std::function<diagNewStatusType()> signalDiagnoseUpdateState;
  std::function<diagTimestampType()> signalDiagnoseTimestamps;
};

}  // namespace orv

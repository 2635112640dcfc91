#pragma once
// Values shared by the control arbitration and the two channels that compete for the LUM:
// which channel holds control and what kind of update runs. The channel value is the channel's
// index in the Multiplexer's list, so the order of the constants is fixed.
//
// Threading: constants and pure functions over constant tables; thread-safe.

#include <cstdint>

namespace orv {

// Control channel: who holds exclusive control of the LUM.
inline constexpr uint32_t ACTIVE_DM = 0;    // the diagnostic master (v12 service)
inline constexpr uint32_t ACTIVE_USB = 1;   // the USB channel (Logic)
inline constexpr uint32_t ACTIVE_NONE = 2;  // nobody
inline constexpr uint32_t kChannelCount = 2;

// Update type of the current update, as kept in the record ("updatetype").
inline constexpr uint32_t ORV_USB_UPDATETYPE_NONE = 0;
inline constexpr uint32_t ORV_USB_UPDATETYPE_DIAG = 1;  // started by a diagnostic tester
inline constexpr uint32_t ORV_USB_UPDATETYPE_USB = 4;   // confirmed by the driver on the HMI

inline constexpr const char* kUndefinedName = "!!UNDEFINED!!";

// "ACTIVE_DM", "ACTIVE_USB", "ACTIVE_NONE"; "!!UNDEFINED!!" for any other value.
inline const char* channelName(uint32_t channel) {
  static constexpr const char* kNames[] = {"ACTIVE_DM", "ACTIVE_USB", "ACTIVE_NONE"};
  return channel < sizeof(kNames) / sizeof(kNames[0]) ? kNames[channel] : kUndefinedName;
}

// The update type's table is the HMI mode's: 0 "eHEADLESS", 1 "eINTERACTIVE", else
// "!!UNDEFINED!!" (the USB type 4 therefore prints as undefined; log lines show the number too).
inline const char* updateTypeName(uint32_t type) {
  static constexpr const char* kNames[] = {"eHEADLESS", "eINTERACTIVE"};
  return type < sizeof(kNames) / sizeof(kNames[0]) ? kNames[type] : kUndefinedName;
}

}  // namespace orv

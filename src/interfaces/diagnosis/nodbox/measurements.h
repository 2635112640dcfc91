#pragma once
// The measurements that a workshop tester reads through the measurement service
// (vi_measurement.idl): their ids and the byte encoding of each value. orvane encodes, the tester
// decodes, both with this header, so the two cannot drift apart.
//
// Encoding: integers big-endian and of fixed width; a text is a 16-bit big-endian byte count
// followed by that many bytes (UTF-8, no terminator; a longer text is cut to 65535 bytes). The
// fields follow each other in the order listed below, with nothing between or after them.
//
// Threading: pure functions; thread-safe.

#include <cstdint>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_interfaces.h"

namespace orv::measurement {

// The update state (diagNewStatusType), 24 bytes: updateType u32, channel u32, stateHmi u32,
// stateLum u32, progress u32, errorCode i32.
inline constexpr uint16_t kUpdateState = 0x0001;
// The timestamps (diagTimestampType): dtType u32, dtStartDate text, dtStartTime text, dtEndDate
// text, dtEndTime text, dtErr i32, dtErrTxt text.
inline constexpr uint16_t kTimestamps = 0x0002;

std::vector<uint8_t> encode(const diagNewStatusType& state);
std::vector<uint8_t> encode(const diagTimestampType& stamps);

// False when `data` is shorter or longer than the encoding; `out` is then unspecified.
bool decode(const std::vector<uint8_t>& data, diagNewStatusType& out);
bool decode(const std::vector<uint8_t>& data, diagTimestampType& out);

}  // namespace orv::measurement

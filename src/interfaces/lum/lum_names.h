#pragma once
// The texts under which the LUM's values appear in log lines. The tables of the interface's
// enumerations are generated from their descriptions (lum11_names.h, lum12_names.h: toString()
// per enumeration, processingStateName() and the other raw-value tables); here is what is not
// mechanical. A value outside its table prints as "UNKNOWN" (the LUM may send values that we
// do not know, and they are logged, never rejected).
//
// The LUM's return status has two tables: returnStatusName() is the interface's (0..3), which
// the multiplexer and the diagnostic-master service print; sequenceReturnStatusName() adds
// 4 "busy", the status on which the update sequences retry. There is deliberately no
// toString() for the return status, so that every caller picks one of the two.
//
// Threading: pure functions over constant tables; thread-safe.

#include <cstdint>
#include <type_traits>

#include "interfaces/lum/lum11_names.h"
#include "interfaces/lum/lum12_names.h"

namespace orv::lum {

inline constexpr const char* kUnknownName = "UNKNOWN";

const char* returnStatusName(uint32_t value);  // 0 "ok" .. 3 "invalidParameters"
const char* sessionStepName(uint32_t value);   // stateLUM: 0 "Idle" .. 7 "CancelUpdate"

// The return status of any operation of either version.
template <typename E, typename = std::enable_if_t<std::is_enum_v<E>>>
const char* returnStatusName(E value) {
  return returnStatusName(static_cast<uint32_t>(value));
}
template <typename E, typename = std::enable_if_t<std::is_enum_v<E>>>
const char* sequenceReturnStatusName(E value) {
  return sequenceReturnStatusName(static_cast<uint32_t>(value));
}

}  // namespace orv::lum

#include "interfaces/lum/lum_names.h"

#include <iterator>

namespace orv::lum {

namespace {

constexpr const char* kSessionStep[] = {
    "Idle",         "CreateSession", "StartCreateDownload", "CreateDownload", "StartCreateUpdate",
    "CreateUpdate", "CloseUpdate",   "CancelUpdate"};

}  // namespace

// The interface's table ends before busy, which only the update sequences know.
const char* returnStatusName(uint32_t value) {
  return value == static_cast<uint32_t>(lum11::CM_ReturnStatus::busy)
             ? kUnknownName
             : sequenceReturnStatusName(value);
}

const char* sessionStepName(uint32_t value) {
  return value < std::size(kSessionStep) ? kSessionStep[value] : kUnknownName;
}

}  // namespace orv::lum

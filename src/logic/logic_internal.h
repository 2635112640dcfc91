#pragma once
// What the logic*.cpp files of Logic share and nobody else may use (each takes it in with
// `using namespace logic_internal`): the log tag, the facade's message types, the reading of
// the LUM's return status and the pause.
// Constants and stateless functions only, safe on any thread.

#include <cstdint>

#include "interfaces/lum/diag_lum_control_client.h"
#include "minfw/clock.h"

namespace orv::logic_internal {

using Client = DiagLUMControlClient::Client;
using kel::vxp3::minfw::sleepMs;

constexpr const char* kTag = "GLOBAL";
constexpr uint32_t kReturnOk = 0;
constexpr uint32_t kReturnBusy = 4;

inline uint32_t status(lum11::CM_ReturnStatus value) {
  return static_cast<uint32_t>(value);
}

}  // namespace orv::logic_internal

#pragma once
// What the files of DiagLocalUpdateManagerControlService share: the short names of the types
// they use, the log tag, and the cast between the two interface versions' enumerations. Private
// to src/interfaces/lum.
//
// Threading: declarations and a pure function only.

#include <type_traits>

#include "interfaces/lum/diag_local_update_manager_control_service.h"
#include "interfaces/lum/diag_lum_control_client.h"

namespace orv::dm_service_internal {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;

using Service = DiagLocalUpdateManagerControlService;
using Client = DiagLUMControlClient::Client;
using RS = lum12::CM_ReturnStatus_state;
using PS = lum11::CM_CurrentProcessingState;
using FieldState =
    lum12::CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState;
using SessionState = lum12::DT_domainUpdateSessionState_struct;

constexpr const char* kTag = "DM";

// The enumerations of both versions carry the same values; only their types differ.
template <typename To, typename From>
To recast(From value) {
  return static_cast<To>(static_cast<std::underlying_type_t<From>>(value));
}

}  // namespace orv::dm_service_internal

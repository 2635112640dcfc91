#pragma once
// Both versions of the LUM control interface as bindings know them: their names and their ids,
// generated from src/interfaces/idl/lum_v11.idl and lum_v12.idl.
//
// Threading: constants and pure functions over constant data; thread-safe.

#include <vector>

#include "interfaces/lum/lum11_ids.h"
#include "interfaces/lum/lum12_ids.h"

namespace orv::lum {

inline constexpr const char* kInterfaceV11 = lum11::kInterfaceName;
inline constexpr const char* kInterfaceV12 = lum12::kInterfaceName;

// The descriptions of both versions, for loading the host configuration.
inline std::vector<platform::middleware::InterfaceIds> interfaces() {
  return {lum11::interfaceIds(), lum12::interfaceIds()};
}

}  // namespace orv::lum

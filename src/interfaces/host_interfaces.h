#pragma once
// Every service interface of the host constellation as bindings know them (the LUM interface in
// both versions, the tester's routine-control and measurement services), for loading the host
// configuration: it names each of them, so whoever loads it must know them all.
//
// Threading: pure function over constant data; thread-safe.

#include <vector>

#include "interfaces/diagnosis/nodbox/vimeasurement_ids.h"
#include "interfaces/diagnosis/nodbox/viroutine_ids.h"
#include "interfaces/lum/lum_catalog.h"

namespace orv {

inline std::vector<platform::middleware::InterfaceIds> hostInterfaces() {
  std::vector<platform::middleware::InterfaceIds> all = lum::interfaces();
  all.push_back(viroutine::interfaceIds());
  all.push_back(vimeasurement::interfaceIds());
  return all;
}

}  // namespace orv

#pragma once
// The ids of one service interface as its description fixes them: the service id and version,
// and per member the id it travels under. Interface code provides one per interface (generated
// from src/interfaces/idl/); a binding joins them with the deployment of the host configuration
// (instance, server process, port), so ids reach the binding in one way only.
//
// Threading: plain values.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform::middleware {

struct MethodIds {
  std::string name;
  uint16_t id = 0;
};

struct EventIds {
  std::string name;
  uint16_t id = 0;
  uint16_t eventgroup = 0;
};

struct FieldIds {
  std::string name;
  uint16_t notifier = 0;
  uint16_t getter = 0;
  std::optional<uint16_t> setter;
  uint16_t eventgroup = 0;
};

struct InterfaceIds {
  std::string name;
  uint16_t serviceId = 0;
  uint8_t majorVersion = 0;
  uint32_t minorVersion = 0;
  std::vector<MethodIds> methods;
  std::vector<EventIds> events;
  std::vector<FieldIds> fields;
};

}  // namespace platform::middleware

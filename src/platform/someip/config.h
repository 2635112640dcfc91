#pragma once
// The host configuration: one JSON file that describes the deployment of the whole constellation
// (SD timing, each process's unicast address, and per interface its instance, server and TCP
// port), joined with the ids that each interface's description fixes (service, version, method,
// event and field ids; see platform/middleware/interface_ids.h). Default file config/host.json;
// ORVANE_MIDDLEWARE_CONFIG overrides the path.
//
// Threading: loadHostConfig() shares no state; a HostConfig is read-only once loaded and may be
// read from any thread.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/middleware/interface_ids.h"

namespace platform::someip {

struct SdConfig {
  uint32_t multicast = 0;  // IPv4, host byte order
  uint16_t port = 0;
  uint32_t initialDelayMinMs = 0;
  uint32_t initialDelayMaxMs = 0;
  uint32_t repetitionBaseDelayMs = 0;
  uint32_t repetitionsMax = 0;
  uint32_t cyclicOfferDelayMs = 0;
  uint32_t ttlSeconds = 0;
};

// The ids of one event or field, as its interface's description gives them.
using EventConfig = middleware::EventIds;
using FieldConfig = middleware::FieldIds;

struct InterfaceConfig {
  std::string name;
  uint16_t serviceId = 0;
  uint16_t instanceId = 0;
  uint8_t majorVersion = 0;
  uint32_t minorVersion = 0;
  std::string server;  // the process that offers it
  uint16_t tcpPort = 0;
  std::map<std::string, uint16_t> methods;
  std::map<std::string, EventConfig> events;
  std::map<std::string, FieldConfig> fields;
};

struct HostConfig {
  SdConfig sd;
  std::map<std::string, uint32_t> processes;  // name -> unicast IPv4, host byte order
  std::map<std::string, InterfaceConfig> interfaces;

  // nullptr when there is no interface of that name.
  const InterfaceConfig* findInterface(const std::string& name) const;
};

// Loads and validates the deployment in `path` and joins each interface entry with its
// description among `known` (the interfaces this process may use; their ids are checked where
// they are generated). Checked: JSON syntax; every key known and every required key present;
// instance 1..65534; unicast addresses inside 127.0.0.0/8 and the multicast group inside
// 224.0.0.0/4; ports 1..65535; the SD initial delay min <= max; each server names a known
// process; each interface entry names a known description; no service instance twice. A known
// description without an entry is left out: the binding names it when it is used.
// On failure returns false, leaves `out` unchanged, and `error` names the file and the key path,
// e.g. "config/host.json: interfaces.X.tcpPort: expected an integer 1..65535".
bool loadHostConfig(const std::string& path, const std::vector<middleware::InterfaceIds>& known,
                    HostConfig& out, std::string& error);

// ORVANE_MIDDLEWARE_CONFIG when set and not empty, else the default config/host.json of the
// build.
std::string hostConfigPath();

// Parses dotted-quad IPv4 ("127.0.0.2") to host byte order; false for anything else.
bool parseIpv4(const std::string& text, uint32_t& out);

}  // namespace platform::someip

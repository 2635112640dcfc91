#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

middleware::InterfaceIds testInterfaceIds() {
  return {
      kTestInterface,
      4660,
      1,
      0,
      {{Echo::kName, 1}, {Slow::kName, 2}, {Emit::kName, 3}, {Ghost::kName, 4}, {Note::kName, 5}},
      {{Tick::kName, 0x8001, 1}},
      {{Level::kName, 0x8002, 6, std::nullopt, 1}}};
}

std::string testConfigJson() {
  return R"({
  "sd": { "multicast": "224.244.224.245", "port": 30490,
          "initialDelayMinMs": 0, "initialDelayMaxMs": 10, "repetitionBaseDelayMs": 10,
          "repetitionsMax": 3, "cyclicOfferDelayMs": 100, "ttlSeconds": 1 },
  "processes": { "client": { "unicast": "127.0.0.1" }, "server": { "unicast": "127.0.0.2" } },
  "interfaces": {
    "TestService": { "instanceId": 1, "server": "server", "tcpPort": 30501 }
  }
}
)";
}

}  // namespace platform::someip::testing

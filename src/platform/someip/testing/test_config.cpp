#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

std::string testConfigJson() {
  return R"({
  "sd": { "multicast": "224.244.224.245", "port": 30490,
          "initialDelayMinMs": 0, "initialDelayMaxMs": 10, "repetitionBaseDelayMs": 10,
          "repetitionsMax": 3, "cyclicOfferDelayMs": 100, "ttlSeconds": 1 },
  "processes": { "client": { "unicast": "127.0.0.1" }, "server": { "unicast": "127.0.0.2" } },
  "interfaces": {
    "TestService": {
      "serviceId": 4660, "instanceId": 1, "majorVersion": 1, "minorVersion": 0,
      "server": "server", "tcpPort": 30501,
      "methods": { "echo": 1, "slow": 2, "emit": 3, "ghost": 4, "note": 5 },
      "events": { "tick": { "id": 32769, "eventgroup": 1 } },
      "fields": { "level": { "notifier": 32770, "getter": 6, "eventgroup": 1 } }
    }
  }
}
)";
}

}  // namespace platform::someip::testing

#pragma once
// A small service interface for the binding's own tests and benchmark, described the way
// interface code describes its members (see platform/middleware/proxy.h) and its ids (see
// platform/middleware/interface_ids.h); written by hand, as platform code has no generator.
#include <cstdint>
#include <string>

#include "platform/middleware/interface_ids.h"
#include "platform/middleware/marshal.h"

namespace platform::someip::testing {

using middleware::FieldVisitor;

constexpr const char* kTestInterface = "TestService";

struct Echo {
  static constexpr const char* kName = "echo";
  struct Input {
    std::string text;
    uint32_t n = 0;
  };
  using Output = Input;
};
inline void marshal(FieldVisitor& v, Echo::Input& x) {
  middleware::marshalAll(v, x.text, x.n);
}

// Answered late, in batches (see the tests), with the square of the input.
struct Slow {
  static constexpr const char* kName = "slow";
  using Input = uint32_t;
  using Output = uint32_t;
};

// Makes the server send n tick events numbered 1..n before it answers with n.
struct Emit {
  static constexpr const char* kName = "emit";
  using Input = uint32_t;
  using Output = uint32_t;
};

// Configured, but no server implements it.
struct Ghost {
  static constexpr const char* kName = "ghost";
  using Input = uint32_t;
  using Output = uint32_t;
};

// Fire and forget: the server records the value.
struct Note {
  static constexpr const char* kName = "note";
  using Input = uint32_t;
};

struct Tick {
  static constexpr const char* kName = "tick";
  struct Sample {
    uint32_t seq = 0;
    std::string text;
  };
};
inline void marshal(FieldVisitor& v, Tick::Sample& x) {
  middleware::marshalAll(v, x.seq, x.text);
}

struct Level {
  static constexpr const char* kName = "level";
  using Value = uint32_t;
};

// The ids of TestService: service 4660 version 1.0; echo, slow, emit, ghost, note 1..5; tick
// 0x8001 and the level field (notifier 0x8002, getter 6), both in eventgroup 1.
inline middleware::InterfaceIds testInterfaceIds() {
  return {
      kTestInterface,
      4660,
      1,
      0,
      {{Echo::kName, 1}, {Slow::kName, 2}, {Emit::kName, 3}, {Ghost::kName, 4}, {Note::kName, 5}},
      {{Tick::kName, 0x8001, 1}},
      {{Level::kName, 0x8002, 6, std::nullopt, 1}}};
}

// Host configuration of the tests: "client" at 127.0.0.1, "server" at 127.0.0.2, a second client
// "other" at 127.0.0.4, fast SD
// timing, a TTL of 1 s; TestService instance 1 offered by "server". Loaded with
// testInterfaceIds().
inline std::string testConfigJson() {
  return R"({
  "sd": { "multicast": "224.244.224.245", "port": 30490,
          "initialDelayMinMs": 0, "initialDelayMaxMs": 10, "repetitionBaseDelayMs": 10,
          "repetitionsMax": 3, "cyclicOfferDelayMs": 100, "ttlSeconds": 1 },
  "processes": { "client": { "unicast": "127.0.0.1" }, "server": { "unicast": "127.0.0.2" },
                 "other": { "unicast": "127.0.0.4" } },
  "interfaces": {
    "TestService": { "instanceId": 1, "server": "server", "tcpPort": 30501 }
  }
}
)";
}

}  // namespace platform::someip::testing

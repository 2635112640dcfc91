#pragma once
// The SOME/IP-SD payload (what follows the 16-byte header of an SD message).
//
// An SD message is a Message with serviceId kSdServiceId, methodId kSdMethodId, clientId 0,
// protocol version 1, interface version 1, type kNotification, return code E_OK; building and
// sending it is the runtime's business. The payload is: flags byte, 3 reserved bytes, a 32-bit
// byte length of the entries array, 16-byte entries, a 32-bit byte length of the options array,
// the options (16-bit length counting from the reserved byte after the type, type, reserved,
// data).
//
// Threading: free functions without shared state; safe from any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform::someip {

constexpr uint16_t kSdServiceId = 0xFFFF;
constexpr uint16_t kSdMethodId = 0x8100;
constexpr uint16_t kSdPort = 30490;

enum class SdEntryType : uint8_t {
  kFindService = 0x00,
  kOfferService = 0x01,            // TTL 0 = StopOffer
  kSubscribeEventgroup = 0x06,     // TTL 0 = StopSubscribe
  kSubscribeEventgroupAck = 0x07,  // TTL 0 = Nack
};

constexpr uint32_t kTtlInfinite = 0xFFFFFF;
constexpr uint16_t kAnyInstance = 0xFFFF;
constexpr uint8_t kAnyMajor = 0xFF;
constexpr uint32_t kAnyMinor = 0xFFFFFFFF;

constexpr uint8_t kSdOptionIpv4Endpoint = 0x04;
constexpr uint8_t kSdProtocolTcp = 0x06;
constexpr uint8_t kSdProtocolUdp = 0x11;

struct SdEntry {
  // Decoding keeps entries of other types with their raw type value (types 0..3 in the service
  // layout, 4 and above in the eventgroup layout); callers ignore what they do not know.
  SdEntryType type = SdEntryType::kFindService;
  uint8_t index1 = 0;       // first option of the 1st run
  uint8_t index2 = 0;       // first option of the 2nd run
  uint8_t numOptions1 = 0;  // 4 bits on the wire
  uint8_t numOptions2 = 0;  // 4 bits on the wire
  uint16_t serviceId = 0;
  uint16_t instanceId = 0;
  uint8_t majorVersion = 0;
  uint32_t ttl = 0;  // seconds, 24 bits on the wire

  uint32_t minorVersion = 0;  // service entries (types 0..3)

  uint8_t counter = 0;  // eventgroup entries (types 4..): low 4 bits of the flag/counter byte
  uint16_t eventgroupId = 0;

  bool isServiceEntry() const { return static_cast<uint8_t>(type) < 0x04; }
};

struct SdIpv4Endpoint {
  uint32_t address = 0;               // host byte order, 127.0.0.1 = 0x7F000001
  uint8_t protocol = kSdProtocolTcp;  // 0x06 TCP, 0x11 UDP
  uint16_t port = 0;
};

struct SdOption {
  uint8_t type = kSdOptionIpv4Endpoint;
  SdIpv4Endpoint endpoint;   // type 0x04
  std::vector<uint8_t> raw;  // other types: the bytes after the reserved byte, kept as they are
};

struct SdMessage {
  uint8_t flags = 0;
  static constexpr uint8_t kRebootFlag = 0x80;
  static constexpr uint8_t kUnicastFlag = 0x40;
  std::vector<SdEntry> entries;
  std::vector<SdOption> options;
};

// The payload only (after the 16-byte header). Counts and TTL are masked to their wire widths.
std::vector<uint8_t> encodeSd(const SdMessage& message);

// Decodes a payload. False with a reason in `error` when a length, count or option reference
// does not fit: entries length not a multiple of 16 or beyond the payload, options length beyond
// the payload, an option crossing the end of the options array, an IPv4 endpoint option whose
// length is not 9, or an entry's option run beyond the options. Bytes after the options array
// are ignored.
bool decodeSd(const uint8_t* data, std::size_t size, SdMessage& out, std::string& error);

// The IPv4 endpoints that an entry references (both runs, in order; options of other types are
// skipped), replacing the contents of `out`. False when a run lies beyond the options.
bool endpointsOf(const SdMessage& message, const SdEntry& entry, std::vector<SdIpv4Endpoint>& out);

}  // namespace platform::someip

#pragma once
// The 16-byte SOME/IP header and the framing of messages in a TCP stream or a UDP datagram.
//
// All fields are big-endian on the wire. A message is the header followed by `length - 8` payload
// bytes. One datagram or one TCP read may hold several messages back to back, or only part of
// one: call parseMessage() on the front of the buffer, drop `consumed` bytes, and repeat.
//
// Threading: free functions without shared state; safe from any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform::someip {

enum class MessageType : uint8_t {
  kRequest = 0x00,
  kRequestNoReturn = 0x01,
  kNotification = 0x02,
  kResponse = 0x80,
  kError = 0x81,
};

// Set in the message type of a segmented (SOME/IP-TP) message, which this binding rejects.
constexpr uint8_t kTpFlag = 0x20;

enum class ReturnCode : uint8_t {
  kOk = 0x00,
  kNotOk = 0x01,
  kUnknownService = 0x02,
  kUnknownMethod = 0x03,
  kNotReady = 0x04,
  kNotReachable = 0x05,
  kTimeout = 0x06,
  kWrongProtocolVersion = 0x07,
  kWrongInterfaceVersion = 0x08,
  kMalformedMessage = 0x09,
  kWrongMessageType = 0x0A,
};

constexpr std::size_t kHeaderSize = 16;
constexpr uint8_t kProtocolVersion = 1;

// Largest whole message (header included) that parseMessage() accepts; a length field that
// announces more is treated as a broken stream, so a peer cannot make us buffer without bound.
constexpr std::size_t kMaxMessageSize = 1024 * 1024;

// Method ids with bit 15 set are events.
constexpr uint16_t kEventIdFlag = 0x8000;

struct Header {
  uint16_t serviceId = 0;
  uint16_t methodId = 0;  // bit 15 set = event
  uint32_t length = 0;    // 8 + payload size (filled by encodeMessage)
  uint16_t clientId = 0;
  uint16_t sessionId = 0;
  uint8_t protocolVersion = kProtocolVersion;
  uint8_t interfaceVersion = 0;
  MessageType messageType = MessageType::kRequest;
  ReturnCode returnCode = ReturnCode::kOk;
};

struct Message {
  Header header;
  std::vector<uint8_t> payload;
};

// Writes the 16 header bytes as they stand (length included) to `out`.
void encodeHeader(const Header& header, uint8_t* out);
// Reads 16 header bytes without any check.
Header decodeHeader(const uint8_t* in);

// Header + payload as one buffer; sets length = 8 + payload.size().
std::vector<uint8_t> encodeMessage(const Header& header, const std::vector<uint8_t>& payload);

struct ParseResult {
  enum class Status { kOk, kNeedMore, kMalformed } status = Status::kNeedMore;
  // kOk: size of the message taken from the front. kMalformed: bytes to skip to reach the next
  // message, or 0 when the length field itself is unusable and the stream cannot be
  // resynchronised (close the connection / drop the rest of the datagram). Never above `size`.
  std::size_t consumed = 0;
  std::string error;  // kMalformed: what was wrong, for the log line
};

// Parses one message from the front of `data`.
// - kNeedMore: fewer bytes than a whole message (TCP: read more; UDP: the datagram is truncated).
// - kMalformed: a length field < 8 or announcing more than kMaxMessageSize (consumed 0, reported
//   as soon as the length field is in the buffer); a wrong protocol version, an unknown message
//   type or the TP flag (reported once the whole message is in the buffer, consumed = its size,
//   and `out.header` holds the decoded header so that the caller can answer with an error).
// - kOk: `out` holds the header and the payload.
ParseResult parseMessage(const uint8_t* data, std::size_t size, Message& out);

// For log lines: "REQUEST", "NOTIFICATION", "E_OK", ...; unknown values as "0x..".
std::string toString(MessageType type);
std::string toString(ReturnCode code);

}  // namespace platform::someip

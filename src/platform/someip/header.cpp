#include "platform/someip/header.h"

#include <algorithm>

#include "minfw/str.h"
#include "platform/someip/endian.h"

namespace platform::someip {

using kel::vxp3::minfw::cat;

namespace {

// "0x2a": always two digits, as Wireshark prints the field.
std::string hexByte(uint8_t v) {
  static const char kDigits[] = "0123456789abcdef";
  return {'0', 'x', kDigits[v >> 4], kDigits[v & 0x0F]};
}

bool knownMessageType(uint8_t type) {
  switch (static_cast<MessageType>(type)) {
    case MessageType::kRequest:
    case MessageType::kRequestNoReturn:
    case MessageType::kNotification:
    case MessageType::kResponse:
    case MessageType::kError:
      return true;
  }
  return false;
}

ParseResult malformed(std::size_t skip, std::string error) {
  ParseResult r;
  r.status = ParseResult::Status::kMalformed;
  r.consumed = skip;
  r.error = std::move(error);
  return r;
}

}  // namespace

void encodeHeader(const Header& h, uint8_t* out) {
  be::store16(out, h.serviceId);
  be::store16(out + 2, h.methodId);
  be::store32(out + 4, h.length);
  be::store16(out + 8, h.clientId);
  be::store16(out + 10, h.sessionId);
  out[12] = h.protocolVersion;
  out[13] = h.interfaceVersion;
  out[14] = static_cast<uint8_t>(h.messageType);
  out[15] = static_cast<uint8_t>(h.returnCode);
}

Header decodeHeader(const uint8_t* in) {
  Header h;
  h.serviceId = be::load16(in);
  h.methodId = be::load16(in + 2);
  h.length = be::load32(in + 4);
  h.clientId = be::load16(in + 8);
  h.sessionId = be::load16(in + 10);
  h.protocolVersion = in[12];
  h.interfaceVersion = in[13];
  h.messageType = static_cast<MessageType>(in[14]);
  h.returnCode = static_cast<ReturnCode>(in[15]);
  return h;
}

std::vector<uint8_t> encodeMessage(const Header& header, const std::vector<uint8_t>& payload) {
  Header h = header;
  h.length = static_cast<uint32_t>(8 + payload.size());
  std::vector<uint8_t> out(kHeaderSize + payload.size());
  encodeHeader(h, out.data());
  std::copy(payload.begin(), payload.end(), out.begin() + kHeaderSize);
  return out;
}

ParseResult parseMessage(const uint8_t* data, std::size_t size, Message& out) {
  ParseResult result;
  // The length field alone decides whether the stream can be framed; judge it as soon as it
  // has arrived so that a TCP reader does not wait for bytes that will never make sense.
  if (size < 8)
    return result;
  const uint32_t length = be::load32(data + 4);
  if (length < 8)
    return malformed(0, cat("length field ", length, " is below the minimum of 8"));
  if (length > kMaxMessageSize - 8)
    return malformed(0, cat("length field ", length, " exceeds the maximum message size of ",
                            kMaxMessageSize, " bytes"));
  const std::size_t total = 8 + std::size_t{length};
  if (size < total)
    return result;

  out.header = decodeHeader(data);
  const uint8_t type = data[14];
  if (out.header.protocolVersion != kProtocolVersion)
    return malformed(total, cat("protocol version ", out.header.protocolVersion,
                                " is not supported (expected ", kProtocolVersion, ")"));
  if (type & kTpFlag)
    return malformed(total, cat("message type ", hexByte(type),
                                " has the TP flag set; segmented messages are not supported"));
  if (!knownMessageType(type))
    return malformed(total, cat("unknown message type ", hexByte(type)));

  out.payload.assign(data + kHeaderSize, data + total);
  result.status = ParseResult::Status::kOk;
  result.consumed = total;
  return result;
}

std::string toString(MessageType type) {
  switch (type) {
    case MessageType::kRequest:
      return "REQUEST";
    case MessageType::kRequestNoReturn:
      return "REQUEST_NO_RETURN";
    case MessageType::kNotification:
      return "NOTIFICATION";
    case MessageType::kResponse:
      return "RESPONSE";
    case MessageType::kError:
      return "ERROR";
  }
  return hexByte(static_cast<uint8_t>(type));
}

std::string toString(ReturnCode code) {
  static const char* const kNames[] = {
      "E_OK",
      "E_NOT_OK",
      "E_UNKNOWN_SERVICE",
      "E_UNKNOWN_METHOD",
      "E_NOT_READY",
      "E_NOT_REACHABLE",
      "E_TIMEOUT",
      "E_WRONG_PROTOCOL_VERSION",
      "E_WRONG_INTERFACE_VERSION",
      "E_MALFORMED_MESSAGE",
      "E_WRONG_MESSAGE_TYPE",
  };
  const auto index = static_cast<uint8_t>(code);
  if (index < sizeof(kNames) / sizeof(kNames[0]))
    return kNames[index];
  return hexByte(index);
}

}  // namespace platform::someip

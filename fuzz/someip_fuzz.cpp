// The SOME/IP framing and SD. The input is a stream: messages are cut from its front as a
// connection does, and each payload is read as SD. The whole input is read as an SD payload too.
// Property: a decoded SD message encodes to bytes that decode and encode to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/someip/header.h"
#include "platform/someip/sd.h"

namespace {

using namespace platform::someip;

void readSd(const uint8_t* data, std::size_t size) {
  SdMessage message;
  std::string error;
  if (!decodeSd(data, size, message, error))
    return;
  std::vector<SdIpv4Endpoint> endpoints;
  for (const SdEntry& entry : message.entries)
    endpointsOf(message, entry, endpoints);
  const std::vector<uint8_t> encoded = encodeSd(message);
  SdMessage again;
  FUZZ_CHECK(decodeSd(encoded.data(), encoded.size(), again, error));
  FUZZ_CHECK(encodeSd(again) == encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  std::size_t at = 0;
  while (at < size) {
    Message message;
    const ParseResult result = parseMessage(data + at, size - at, message);
    FUZZ_CHECK(result.consumed <= size - at);
    if (result.status == ParseResult::Status::kOk) {
      FUZZ_CHECK(message.payload.size() + 8 == message.header.length);
      FUZZ_CHECK(encodeMessage(message.header, message.payload) ==
                 std::vector<uint8_t>(data + at, data + at + result.consumed));
      readSd(message.payload.data(), message.payload.size());
    }
    if (result.status == ParseResult::Status::kNeedMore || result.consumed == 0)
      break;
    at += result.consumed;
  }
  readSd(data, size);
  return 0;
}

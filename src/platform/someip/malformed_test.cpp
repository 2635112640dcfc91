// Bad input at every layer of the wire: hand-made malformed frames, every truncation and every
// single-byte corruption of valid frames. Buffers are heap copies of exactly the input size, so
// AddressSanitizer reports any read past the end.

#include <gtest/gtest.h>

#include <memory>

#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/serializer.h"
#include "platform/someip/test_support.h"

namespace platform::someip {
namespace {

using testing::fromHex;
using testing::Record;
using Status = ParseResult::Status;

// An exact-size heap copy.
struct Exact {
  explicit Exact(const std::vector<uint8_t>& bytes, std::size_t size)
      : data(std::make_unique<uint8_t[]>(size)), size(size) {
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size), data.get());
  }
  explicit Exact(const std::vector<uint8_t>& bytes) : Exact(bytes, bytes.size()) {}
  std::unique_ptr<uint8_t[]> data;
  std::size_t size;
};

enum class Layer { kFrame, kString, kU16Array, kStringArray, kBool, kRecord, kSd };

struct Outcome {
  bool ok = false;
  Status status = Status::kOk;  // kFrame only
  std::string error;
};

template <typename T>
Outcome decodeAs(const Exact& in) {
  T value{};
  Deserializer d(in.data.get(), in.size);
  middleware::marshalAll(d, value);
  return {d.ok(), Status::kOk, d.error()};
}

Outcome decode(Layer layer, const Exact& in) {
  switch (layer) {
    case Layer::kFrame: {
      Message m;
      const ParseResult r = parseMessage(in.data.get(), in.size, m);
      EXPECT_LE(r.consumed, in.size);
      return {r.status == Status::kOk, r.status, r.error};
    }
    case Layer::kString:
      return decodeAs<std::string>(in);
    case Layer::kU16Array:
      return decodeAs<std::vector<uint16_t>>(in);
    case Layer::kStringArray:
      return decodeAs<std::vector<std::string>>(in);
    case Layer::kBool:
      return decodeAs<bool>(in);
    case Layer::kRecord:
      return decodeAs<Record>(in);
    case Layer::kSd: {
      SdMessage m;
      Outcome o;
      o.ok = decodeSd(in.data.get(), in.size, m, o.error);
      return o;
    }
  }
  return {};
}

TEST(Malformed, EachFrameGivesItsDefinedError) {
  struct Row {
    const char* proves;
    Layer layer;
    const char* hex;
    Status status;      // kFrame only
    const char* error;  // exact text; "" for kNeedMore
  };
  const Row rows[] = {
      // Frames: header and length field.
      {"15 bytes are not a header yet", Layer::kFrame, "1234 0421 0000000b 0010 0001 01 0b 00",
       Status::kNeedMore, ""},
      {"a length beyond the buffer waits for more (UDP: truncated datagram)", Layer::kFrame,
       "1234 0421 00000012 0010 0001 01 0b 00 00 | aabbccdd", Status::kNeedMore, ""},
      {"length < 8 cannot frame a stream", Layer::kFrame,
       "1234 0421 00000007 0010 0001 01 0b 00 00", Status::kMalformed,
       "length field 7 is below the minimum of 8"},
      {"a huge length is refused before any buffering", Layer::kFrame, "1234 0421 ffffffff",
       Status::kMalformed,
       "length field 4294967295 exceeds the maximum message size of 1048576 bytes"},
      {"wrong protocol version", Layer::kFrame, "1234 0421 00000008 0010 0001 02 0b 00 00",
       Status::kMalformed, "protocol version 2 is not supported (expected 1)"},
      {"unknown message type", Layer::kFrame, "1234 0421 00000008 0010 0001 01 0b 03 00",
       Status::kMalformed, "unknown message type 0x03"},
      {"acknowledgement types are unknown too", Layer::kFrame,
       "1234 0421 00000008 0010 0001 01 0b 40 00", Status::kMalformed, "unknown message type 0x40"},
      {"TP flag: segmentation is not supported", Layer::kFrame,
       "1234 0421 00000008 0010 0001 01 0b 22 00", Status::kMalformed,
       "message type 0x22 has the TP flag set; segmented messages are not supported"},

      // Payload: strings.
      {"string without NUL", Layer::kString, "00000006 efbbbf 4869 21", Status::kOk,
       "string at offset 0 is not terminated by NUL"},
      {"string without BOM", Layer::kString, "00000006 efbbbe 4869 00", Status::kOk,
       "string at offset 0 does not start with the UTF-8 BOM"},
      {"string length beyond the payload", Layer::kString, "00000010 efbbbf 00", Status::kOk,
       "string length 16 at offset 0 exceeds the 4 bytes that remain"},
      {"string length < 4 cannot hold BOM and NUL", Layer::kString, "00000003 efbbbf", Status::kOk,
       "string length 3 at offset 0 cannot hold the BOM and the terminating NUL"},
      {"string length field cut short", Layer::kString, "000000", Status::kOk,
       "truncated string length field at offset 0: needs 4 bytes, 3 remain"},

      // Payload: arrays.
      {"array length beyond the payload", Layer::kU16Array, "00000008 0001", Status::kOk,
       "array length 8 at offset 0 exceeds the 2 bytes that remain"},
      {"array length ending inside an element", Layer::kU16Array, "00000003 0001 02 03",
       Status::kOk, "truncated uint16 at offset 6: needs 2 bytes, 1 remain in the enclosing array"},
      {"a string may not cross the end of its array", Layer::kStringArray,
       "00000006 | 00000006 efbbbf 4869 00", Status::kOk,
       "string length 6 at offset 4 exceeds the 2 bytes that remain"},
      {"array length field cut short", Layer::kU16Array, "0000", Status::kOk,
       "truncated array length field at offset 0: needs 4 bytes, 2 remain"},

      // Payload: scalars and records.
      {"bool value 2", Layer::kBool, "02", Status::kOk,
       "bool value 2 at offset 0 (only 0 or 1 allowed)"},
      {"record cut inside the uuid", Layer::kRecord,
       "00000004 efbbbf 00 | 00000000 | 0001020304050607", Status::kOk,
       "truncated uint8 at offset 20: needs 1 bytes, 0 remain"},

      // Service discovery payloads.
      {"SD payload shorter than flags and entries length", Layer::kSd, "c0 000000 0000",
       Status::kOk, "SD payload of 6 bytes is shorter than flags and entries length (8)"},
      {"truncated SD entry", Layer::kSd, "c0 000000 | 00000010 | 01 00 00 10 1234 0001 0b",
       Status::kOk, "SD entries length 16 exceeds the 9 bytes that remain"},
      {"entries length not a multiple of 16", Layer::kSd,
       "c0 000000 | 0000000c | 01 00 00 00 1234 0001 0b 000003 | 00000000", Status::kOk,
       "SD entries length 12 is not a multiple of 16"},
      {"options length field missing", Layer::kSd,
       "c0 000000 | 00000010 | 01 00 00 00 1234 0001 0b 000003 00000000", Status::kOk,
       "SD payload ends at offset 24 without the options length"},
      {"options length beyond the payload", Layer::kSd,
       "c0 000000 | 00000000 | 00000010 | 0009 04 00 7f000002 00 06 7725", Status::kOk,
       "SD options length 16 exceeds the 12 bytes that remain"},
      {"option length beyond the options array", Layer::kSd,
       "c0 000000 | 00000000 | 0000000c | 0020 04 00 7f000002 00 06 7725", Status::kOk,
       "SD option at offset 12 of length 32 exceeds the 9 bytes left in the options array"},
      {"option header cut by the options array", Layer::kSd,
       "c0 000000 | 00000000 | 00000002 | 0009", Status::kOk,
       "SD option at offset 12 is truncated: 2 bytes left in the options array"},
      {"option of length 0 has no reserved byte", Layer::kSd,
       "c0 000000 | 00000000 | 00000004 | 0000 04 00", Status::kOk,
       "SD option at offset 12 has length 0 (at least the reserved byte)"},
      {"truncated IPv4 option (length 7)", Layer::kSd,
       "c0 000000 | 00000000 | 0000000a | 0007 04 00 7f000002 00 06", Status::kOk,
       "SD IPv4 endpoint option at offset 12 has length 7 (expected 9)"},
      {"IPv4 option cut by the options array", Layer::kSd,
       "c0 000000 | 00000000 | 0000000a | 0009 04 00 7f000002 00 06", Status::kOk,
       "SD option at offset 12 of length 9 exceeds the 7 bytes left in the options array"},
      {"option index beyond the options", Layer::kSd,
       "c0 000000 | 00000010 | 01 01 00 10 1234 0001 0b 000003 00000000 |"
       "0000000c | 0009 04 00 7f000002 00 06 7725",
       Status::kOk, "SD entry 0 references options 1+1 and 0+0 but only 1 exist"},
      {"option count beyond the options (2nd run)", Layer::kSd,
       "c0 000000 | 00000010 | 01 00 00 12 1234 0001 0b 000003 00000000 |"
       "0000000c | 0009 04 00 7f000002 00 06 7725",
       Status::kOk, "SD entry 0 references options 0+1 and 0+2 but only 1 exist"},
  };
  for (const Row& row : rows) {
    const Exact in(fromHex(row.hex));
    const Outcome out = decode(row.layer, in);
    EXPECT_FALSE(out.ok) << row.proves;
    if (row.layer == Layer::kFrame) {
      EXPECT_EQ(out.status, row.status) << row.proves;
    }
    EXPECT_EQ(out.error, row.error) << row.proves;
  }
}

struct ValidFrame {
  const char* name;
  Layer layer;
  std::vector<uint8_t> bytes;
};

std::vector<ValidFrame> validFrames() {
  Record record = testing::sampleRecord();
  std::vector<std::string> strings = {"one", "", "three"};
  Header h;
  h.serviceId = 0x1234;
  h.methodId = 0x8001;
  h.messageType = MessageType::kNotification;
  h.interfaceVersion = 11;

  SdMessage sd;
  sd.flags = SdMessage::kRebootFlag;
  SdEntry offer;
  offer.type = SdEntryType::kOfferService;
  offer.serviceId = 0x1234;
  offer.instanceId = 1;
  offer.numOptions1 = 1;
  offer.index2 = 1;
  offer.numOptions2 = 1;
  SdEntry subscribe;
  subscribe.type = SdEntryType::kSubscribeEventgroup;
  subscribe.eventgroupId = 2;
  subscribe.numOptions1 = 1;
  sd.entries = {offer, subscribe};
  SdOption tcp;
  tcp.endpoint = {0x7F000002, kSdProtocolTcp, 30501};
  SdOption other;
  other.type = 0x14;
  other.raw = {1, 2, 3, 4, 5, 6, 7, 8};
  sd.options = {tcp, other};

  return {
      {"record", Layer::kRecord, serialize(record)},
      {"string array", Layer::kStringArray, serialize(strings)},
      {"message", Layer::kFrame, encodeMessage(h, serialize(record))},
      {"sd", Layer::kSd, encodeSd(sd)},
  };
}

TEST(Malformed, EveryTruncationIsIncompleteOrAnError) {
  for (const ValidFrame& frame : validFrames()) {
    ASSERT_TRUE(decode(frame.layer, Exact(frame.bytes)).ok) << frame.name;
    for (std::size_t size = 0; size < frame.bytes.size(); ++size) {
      const Outcome out = decode(frame.layer, Exact(frame.bytes, size));
      EXPECT_FALSE(out.ok) << frame.name << " cut to " << size;
      if (frame.layer == Layer::kFrame) {
        EXPECT_EQ(out.status, Status::kNeedMore) << "cut to " << size;
      } else {
        EXPECT_FALSE(out.error.empty()) << frame.name << " cut to " << size;
      }
    }
  }
}

TEST(Malformed, EverySingleByteCorruptionIsDecodedSafely) {
  // Whatever the outcome, decoding stays inside the buffer (ASan) and terminates; an accepted
  // record re-encodes to exactly the bytes it was read from (the encoding is canonical).
  const uint8_t replacements[] = {0x00, 0x01, 0x02, 0x7F, 0x80, 0xFF};
  for (const ValidFrame& frame : validFrames()) {
    for (std::size_t at = 0; at < frame.bytes.size(); ++at) {
      for (uint8_t replacement : replacements) {
        std::vector<uint8_t> bytes = frame.bytes;
        bytes[at] = replacement;
        const Exact in(bytes);
        const Outcome out = decode(frame.layer, in);
        if (!out.ok && frame.layer != Layer::kFrame) {
          EXPECT_FALSE(out.error.empty()) << frame.name << " byte " << at;
        }
        if (out.ok && frame.layer == Layer::kRecord) {
          Record back;
          Deserializer d(in.data.get(), in.size);
          marshal(d, back);
          std::vector<uint8_t> consumed(bytes.begin(),
                                        bytes.end() - static_cast<std::ptrdiff_t>(d.remaining()));
          EXPECT_EQ(serialize(back), consumed) << "byte " << at << " = " << int{replacement};
        }
      }
    }
  }
}

}  // namespace
}  // namespace platform::someip

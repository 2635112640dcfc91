// The wire codecs (message header, payload serializer, SD payload) against hand-checked images,
// and bad input at every layer: hand-made malformed images and every truncation of the valid
// ones. Codecs read exact-size heap copies, so AddressSanitizer reports any read past the end.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <memory>
#include <tuple>

#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/serializer.h"
#include "platform/someip/test_support.h"

namespace platform::someip {
namespace {

using testing::fromHex;
using Status = ParseResult::Status;

enum class Phase : uint8_t { kIdle = 0, kDone = 7 };
struct Part {
  uint16_t id = 0;
  std::string name;
};
void marshal(middleware::FieldVisitor& v, Part& p) {
  v.beginStruct();
  middleware::marshalAll(v, p.id, p.name);
  v.endStruct();
}

// An element type that occupies no bytes on the wire.
struct Nothing {};
void marshal(middleware::FieldVisitor&, Nothing&) {}

// What a codec made of some bytes: kMalformed with a reason, kNeedMore (frames only), or kOk
// with the bytes read and what was read encoded anew.
struct Decoded {
  Status status = Status::kOk;
  std::string error;
  std::size_t consumed = 0;
  std::vector<uint8_t> again;
};
using Codec = Decoded (*)(const uint8_t*, std::size_t);

Decoded frame(const uint8_t* data, std::size_t size) {
  Message m;
  const ParseResult r = parseMessage(data, size, m);
  EXPECT_LE(r.consumed, size);
  const bool ok = r.status == Status::kOk;
  return {r.status, r.error, r.consumed,
          ok ? encodeMessage(m.header, m.payload) : std::vector<uint8_t>{}};
}

Decoded sd(const uint8_t* data, std::size_t size) {
  SdMessage m;
  Decoded d;
  if (!decodeSd(data, size, m, d.error))
    return {Status::kMalformed, d.error, 0, {}};
  return {Status::kOk, "", size, encodeSd(m)};
}

template <typename... T>
Decoded payload(const uint8_t* data, std::size_t size) {
  std::tuple<T...> values;
  Deserializer in(data, size);
  std::apply([&](auto&... v) { middleware::marshalAll(in, v...); }, values);
  if (!in.ok())
    return {Status::kMalformed, in.error(), 0, {}};
  return {Status::kOk, "", size - in.remaining(),
          std::apply([](auto&... v) { return serialize(v...); }, values)};
}

// Decodes the first `size` bytes from an exact-size heap copy.
Decoded decode(Codec codec, const std::vector<uint8_t>& bytes, std::size_t size) {
  auto exact = std::make_unique<uint8_t[]>(size);
  std::copy_n(bytes.begin(), size, exact.get());
  return codec(exact.get(), size);
}

// A record: a string, an array of structs, a fixed-size array, an enum.
const Codec kRecord = payload<std::string, std::vector<Part>, std::array<uint8_t, 16>, Phase>;

struct Image {
  const char* proves;
  Codec codec;
  std::vector<uint8_t> encoded;  // the encoder's output for the value; empty: decode only
  const char* hex;
};

// The encoder's output for values passed by copy (serialize() visits lvalues).
template <typename... T>
std::vector<uint8_t> image(T... values) {
  return serialize(values...);
}

std::vector<Image> images() {
  // Entry fields: type, index1, index2, numOptions1, numOptions2, service, instance, major, ttl,
  // minor, counter, eventgroup.
  const SdEntry offer{SdEntryType::kOfferService, 0, 0, 1, 0, 0x1234, 1, 11, 3, 0, 0, 0};
  const SdEntry subscribe{SdEntryType::kSubscribeEventgroup, 0, 0, 1, 0, 0x1234, 1, 11, 3, 0, 5, 1};
  SdEntry find = offer;  // but with no options and every wildcard
  std::tie(find.type, find.numOptions1, find.instanceId, find.majorVersion, find.ttl,
           find.minorVersion) = std::make_tuple(SdEntryType::kFindService, 0, kAnyInstance,
                                                kAnyMajor, kTtlInfinite, kAnyMinor);
  const SdEntry twoRuns{SdEntryType::kOfferService, 0, 2, 2, 1, 0, 0, 0, 0, 0, 0, 0};
  const SdOption unknown{0x77, {}, {0xDE, 0xAD}};
  const SdOption tcp{kSdOptionIpv4Endpoint, {0x7F000002, kSdProtocolTcp, 1}, {}};
  const SdOption udp{kSdOptionIpv4Endpoint, {0x7F000002, kSdProtocolUdp, 2}, {}};
  constexpr uint8_t rebootUnicast = SdMessage::kRebootFlag | SdMessage::kUnicastFlag;
  return {
      {"header: every field has bytes of its own, so a swapped or misplaced one shows", frame,
       encodeMessage(
           {0x1234, 0x0421, 0, 0x0010, 0x0001, 1, 11, MessageType::kError, ReturnCode::kNotReady},
           {0xAA, 0xBB, 0xCC}),
       "1234 0421 0000000b 0010 0001 01 0b 81 04 | aabbcc"},
      {"scalars are big-endian",
       payload<bool, uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int16_t, int32_t, int64_t,
               float, double>,
       image(true, uint8_t{0xAB}, uint16_t{0x1234}, uint32_t{0x01020304},
             uint64_t{0x0102030405060708}, int8_t{-1}, int16_t{-2}, int32_t{-3},
             std::numeric_limits<int64_t>::min(), 1.5f, -2.0),
       "01 ab 1234 01020304 0102030405060708 ff fffe fffffffd 8000000000000000 3fc00000 "
       "c000000000000000"},
      {"NaN and infinity keep their bit patterns", payload<double, float>,
       image(std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<float>::infinity()),
       "7ff8000000000000 7f800000"},
      {"non-ASCII and an embedded NUL survive; only the last NUL ends the string",
       payload<std::string>, image(std::string("gr\xC3\xBC\xC3\x9F") + '\0' + "x"),
       "0000000c efbbbf 6772c3bcc39f 00 78 00"},
      {"array of scalars", payload<std::vector<uint16_t>>, image(std::vector<uint16_t>{1, 0x0203}),
       "00000004 0001 0203"},
      {"array length counts bytes, not elements", payload<std::vector<std::string>>,
       image(std::vector<std::string>{"a", ""}),
       "00000011 | 00000005 efbbbf 61 00 | 00000004 efbbbf 00"},
      {"nested and empty arrays", payload<std::vector<std::vector<uint8_t>>>,
       image(std::vector<std::vector<uint8_t>>{{}, {1, 2, 3}, {}}),
       "0000000f 00000000 00000003 010203 00000000"},
      {"record: string, array of structs, fixed array, enum", kRecord,
       image(std::string("ab"), std::vector<Part>{{0x0102, "x"}},
             std::array<uint8_t, 16>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
             Phase::kDone),
       "00000006 efbbbf 6162 00 | 0000000b | 0102 00000005 efbbbf 78 00 |"
       "00010203 04050607 08090a0b 0c0d0e0f | 07"},
      {"an enumerator we do not know arrives as its raw value", payload<Phase>, {}, "2a"},
      {"SD offer with an IPv4 TCP endpoint", sd,
       encodeSd(SdMessage{rebootUnicast,
                          {offer},
                          {{kSdOptionIpv4Endpoint, {0x7F000002, kSdProtocolTcp, 30501}, {}}}}),
       "c0 000000 | 00000010 | 01 00 00 10 | 1234 0001 | 0b 000003 | 00000000 |"
       "0000000c | 0009 04 00 7f000002 00 06 7725"},
      {"SD subscribe with counter and UDP endpoint", sd,
       encodeSd(SdMessage{rebootUnicast,
                          {subscribe},
                          {{kSdOptionIpv4Endpoint, {0x7F000001, kSdProtocolUdp, 40000}, {}}}}),
       "c0 000000 | 00000010 | 06 00 00 10 | 1234 0001 | 0b 000003 | 00 05 0001 |"
       "0000000c | 0009 04 00 7f000001 00 11 9c40"},
      {"SD find with wildcards", sd, encodeSd(SdMessage{0, {find}, {}}),
       "00 000000 00000010 00 00 00 00 1234 ffff ff ffffff ffffffff 00000000"},
      {"SD option of unknown type kept raw; two option runs", sd,
       encodeSd(SdMessage{0, {twoRuns}, {unknown, tcp, udp}}),
       "00 000000 | 00000010 | 01 00 02 21 | 0000 0000 | 00 000000 | 00000000 | 0000001e |"
       "0003 77 00 dead | 0009 04 00 7f000002 00 06 0001 | 0009 04 00 7f000002 00 11 0002"},
  };
}

TEST(Codec, HandCheckedImagesEncodeAndReadBack) {
  for (const Image& image : images()) {
    SCOPED_TRACE(image.proves);
    const auto bytes = fromHex(image.hex);
    if (!image.encoded.empty()) {
      EXPECT_EQ(image.encoded, bytes);
    }
    const Decoded back = decode(image.codec, bytes, bytes.size());
    ASSERT_EQ(back.status, Status::kOk) << back.error;
    EXPECT_EQ(back.consumed, bytes.size());
    EXPECT_EQ(back.again, bytes);
  }
}

TEST(Codec, EveryTruncationIsIncompleteOrAnError) {
  for (const Image& image : images()) {
    const auto bytes = fromHex(image.hex);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      const Decoded out = decode(image.codec, bytes, size);
      if (image.codec == frame) {
        EXPECT_EQ(out.status, Status::kNeedMore) << image.proves << " cut to " << size;
      } else {
        EXPECT_EQ(out.status, Status::kMalformed) << image.proves << " cut to " << size;
        EXPECT_FALSE(out.error.empty()) << image.proves << " cut to " << size;
      }
    }
  }
}

TEST(Codec, EachMalformedImageGivesItsDefinedError) {
  struct Row {
    const char* proves;
    Codec codec;
    const char* hex;
    const char* error;  // exact text; "" when the frame is only incomplete
  };
  const Codec string = payload<std::string>;
  const Codec shorts = payload<std::vector<uint16_t>>;
  const Row rows[] = {
      // Frames: header and length field.
      {"15 bytes are not a header yet", frame, "1234 0421 0000000b 0010 0001 01 0b 00", ""},
      {"a length beyond the buffer waits for more (UDP: truncated datagram)", frame,
       "1234 0421 00000012 0010 0001 01 0b 00 00 | aabbccdd", ""},
      {"length < 8 cannot frame a stream", frame, "1234 0421 00000007 0010 0001 01 0b 00 00",
       "length field 7 is below the minimum of 8"},
      {"a huge length is refused before any buffering", frame, "1234 0421 ffffffff",
       "length field 4294967295 exceeds the maximum message size of 1048576 bytes"},
      {"wrong protocol version", frame, "1234 0421 00000008 0010 0001 02 0b 00 00",
       "protocol version 2 is not supported (expected 1)"},
      {"unknown message type: acknowledgements are not supported", frame,
       "1234 0421 00000008 0010 0001 01 0b 40 00", "unknown message type 0x40"},
      {"TP flag: segmentation is not supported", frame, "1234 0421 00000008 0010 0001 01 0b 22 00",
       "message type 0x22 has the TP flag set; segmented messages are not supported"},
      // Payload: strings.
      {"string without NUL", string, "00000006 efbbbf 4869 21",
       "string at offset 0 is not terminated by NUL"},
      {"string without BOM", string, "00000006 efbbbe 4869 00",
       "string at offset 0 does not start with the UTF-8 BOM"},
      {"string length beyond the payload", string, "00000010 efbbbf 00",
       "string length 16 at offset 0 exceeds the 4 bytes that remain"},
      {"string length < 4 cannot hold BOM and NUL", string, "00000003 efbbbf",
       "string length 3 at offset 0 cannot hold the BOM and the terminating NUL"},
      {"string length field cut short", string, "000000",
       "truncated string length field at offset 0: needs 4 bytes, 3 remain"},
      // Payload: arrays.
      {"array length beyond the payload", shorts, "00000008 0001",
       "array length 8 at offset 0 exceeds the 2 bytes that remain"},
      {"array length ending inside an element", shorts, "00000003 0001 02 03",
       "truncated uint16 at offset 6: needs 2 bytes, 1 remain in the enclosing array"},
      {"a string may not cross the end of its array", payload<std::vector<std::string>>,
       "00000006 | 00000006 efbbbf 4869 00",
       "string length 6 at offset 4 exceeds the 2 bytes that remain"},
      {"array length field cut short", shorts, "0000",
       "truncated array length field at offset 0: needs 4 bytes, 2 remain"},
      {"an array of elements that hold no bytes cannot loop forever", payload<std::vector<Nothing>>,
       "00000004 00000000", "array element at offset 4 holds no bytes"},
      // Payload: scalars and records.
      {"bool value 2", payload<bool>, "02", "bool value 2 at offset 0 (only 0 or 1 allowed)"},
      {"record cut inside the uuid", kRecord, "00000004 efbbbf 00 | 00000000 | 0001020304050607",
       "truncated uint8 at offset 20: needs 1 bytes, 0 remain"},
      // Service discovery payloads.
      {"SD payload shorter than flags and entries length", sd, "c0 000000 0000",
       "SD payload of 6 bytes is shorter than flags and entries length (8)"},
      {"SD payload of flags and entries length only", sd, "c0 000000 | 00000000",
       "SD payload ends at offset 8 without the options length"},
      {"truncated SD entry", sd, "c0 000000 | 00000010 | 01 00 00 10 1234 0001 0b",
       "SD entries length 16 exceeds the 9 bytes that remain"},
      {"entries length not a multiple of 16", sd,
       "c0 000000 | 0000000c | 01 00 00 00 1234 0001 0b 000003 | 00000000",
       "SD entries length 12 is not a multiple of 16"},
      {"options length field missing", sd,
       "c0 000000 | 00000010 | 01 00 00 00 1234 0001 0b 000003 00000000",
       "SD payload ends at offset 24 without the options length"},
      {"options length beyond the payload", sd,
       "c0 000000 | 00000000 | 00000010 | 0009 04 00 7f000002 00 06 7725",
       "SD options length 16 exceeds the 12 bytes that remain"},
      {"option length beyond the options array", sd,
       "c0 000000 | 00000000 | 0000000c | 0020 04 00 7f000002 00 06 7725",
       "SD option at offset 12 of length 32 exceeds the 9 bytes left in the options array"},
      {"option header cut by the options array", sd, "c0 000000 | 00000000 | 00000002 | 0009",
       "SD option at offset 12 is truncated: 2 bytes left in the options array"},
      {"option of length 0 has no reserved byte", sd,
       "c0 000000 | 00000000 | 00000004 | 0000 04 00",
       "SD option at offset 12 has length 0 (at least the reserved byte)"},
      {"truncated IPv4 option (length 7)", sd,
       "c0 000000 | 00000000 | 0000000a | 0007 04 00 7f000002 00 06",
       "SD IPv4 endpoint option at offset 12 has length 7 (expected 9)"},
      {"IPv4 option cut by the options array", sd,
       "c0 000000 | 00000000 | 0000000a | 0009 04 00 7f000002 00 06",
       "SD option at offset 12 of length 9 exceeds the 7 bytes left in the options array"},
      {"option index beyond the options", sd,
       "c0 000000 | 00000010 | 01 01 00 10 1234 0001 0b 000003 00000000 |"
       "0000000c | 0009 04 00 7f000002 00 06 7725",
       "SD entry 0 references options 1+1 and 0+0 but only 1 exist"},
      {"option count beyond the options (2nd run)", sd,
       "c0 000000 | 00000010 | 01 00 00 12 1234 0001 0b 000003 00000000 |"
       "0000000c | 0009 04 00 7f000002 00 06 7725",
       "SD entry 0 references options 0+1 and 0+2 but only 1 exist"},
  };
  for (const Row& row : rows) {
    const auto bytes = fromHex(row.hex);
    const Decoded out = decode(row.codec, bytes, bytes.size());
    EXPECT_EQ(out.status, *row.error ? Status::kMalformed : Status::kNeedMore) << row.proves;
    EXPECT_EQ(out.error, row.error) << row.proves;
  }
}

TEST(Codec, DeserializerEdges) {
  // Trailing bytes are allowed for newer minor versions; arrays are replaced, not appended to.
  std::string text;
  std::vector<uint16_t> shorts = {9, 9, 9};
  std::string error;
  EXPECT_TRUE(deserialize(fromHex("00000006 efbbbf 4869 00 | 0102"), &error, text)) << error;
  EXPECT_EQ(text, "Hi");
  EXPECT_TRUE(deserialize(fromHex("00000002 0001"), &error, shorts)) << error;
  EXPECT_EQ(shorts, std::vector<uint16_t>{1});
  // An error is sticky: the uint16 after the bad bool is not read though its bytes are there.
  bool flag = true;
  uint16_t after = 7;
  EXPECT_FALSE(deserialize(fromHex("02 1234"), &error, flag, after));
  EXPECT_TRUE(flag);
  EXPECT_EQ(after, 7);
  // 65 nested arrays, each claiming everything that follows: the depth is bounded, and the
  // error stays while the arrays are closed.
  std::vector<uint8_t> image;
  const std::size_t levels = kMaxSequenceDepth + 1;
  for (std::size_t i = 0; i < levels; ++i) {
    const auto rest = 4 * (levels - 1 - i);
    image.insert(image.end(), {0, 0, static_cast<uint8_t>(rest >> 8), static_cast<uint8_t>(rest)});
  }
  Deserializer deep(image);
  Deserializer fine(image);
  Serializer out;
  for (std::size_t i = 0; i < levels; ++i) {
    deep.beginSequence();
    out.beginSequence();
    if (i < kMaxSequenceDepth)
      fine.beginSequence();
  }
  EXPECT_TRUE(fine.ok()) << fine.error();
  EXPECT_FALSE(out.ok());
  for (std::size_t i = 0; i < levels; ++i)
    deep.endSequence();
  EXPECT_EQ(deep.error(), "arrays nested deeper than 64 at offset 256");
  Serializer s;
  s.endSequence();
  EXPECT_EQ(s.error(), "endSequence without beginSequence");
  Deserializer d(nullptr, 0);
  d.endSequence();
  EXPECT_EQ(d.error(), "endSequence without beginSequence");
}

TEST(Codec, SdOptionRunsAndToleratedOddities) {
  const auto image = fromHex(images().back().hex);  // an unknown option, then TCP; then UDP
  SdMessage m;
  std::string error;
  ASSERT_TRUE(decodeSd(image.data(), image.size(), m, error)) << error;
  std::vector<SdIpv4Endpoint> endpoints = {SdIpv4Endpoint{}};  // replaced, not appended to
  ASSERT_TRUE(endpointsOf(m, m.entries[0], endpoints));
  ASSERT_EQ(endpoints.size(), 2u);
  EXPECT_EQ(std::tie(endpoints[0].port, endpoints[0].protocol, endpoints[1].port),
            std::make_tuple(1, kSdProtocolTcp, 2));
  SdEntry beyond = m.entries[0];
  beyond.index2 = 3;
  EXPECT_FALSE(endpointsOf(m, beyond, endpoints));
  // The counter byte with the "initial data requested" bit set; an entry of unknown type 0x05 in
  // the eventgroup layout; no options at all, so entries may carry any index.
  const auto odd = fromHex(
      "00 000000 | 00000020 |"
      "06 09 00 00 | 1234 0001 | 0b ffffff | 00 83 0002 |"
      "05 00 00 00 | 1234 0001 | 0b 000000 | 00 00 0003 |"
      "00000000");
  ASSERT_TRUE(decodeSd(odd.data(), odd.size(), m, error)) << error;
  ASSERT_EQ(m.entries.size(), 2u);
  EXPECT_EQ(std::tie(m.entries[0].counter, m.entries[0].ttl, m.entries[0].eventgroupId),
            std::make_tuple(3, kTtlInfinite, 2));
  EXPECT_FALSE(m.entries[1].isServiceEntry());
  EXPECT_EQ(static_cast<uint8_t>(m.entries[1].type), 0x05);
  EXPECT_TRUE(m.options.empty());
}

}  // namespace
}  // namespace platform::someip

#include "platform/someip/sd.h"

#include <gtest/gtest.h>

#include "platform/someip/test_support.h"

namespace platform::someip {
namespace {

using testing::fromHex;

SdMessage sampleOffer() {
  SdMessage m;
  m.flags = SdMessage::kRebootFlag | SdMessage::kUnicastFlag;
  SdEntry e;
  e.type = SdEntryType::kOfferService;
  e.numOptions1 = 1;
  e.serviceId = 0x1234;
  e.instanceId = 1;
  e.majorVersion = 11;
  e.ttl = 3;
  e.minorVersion = 0;
  m.entries.push_back(e);
  SdOption o;
  o.endpoint = {0x7F000002, kSdProtocolTcp, 30501};
  m.options.push_back(o);
  return m;
}

const char* kOfferImage =
    "c0 000000 | 00000010 |"
    "01 00 00 10 | 1234 0001 | 0b 000003 | 00000000 |"  // offer, 1 option in run 1, minor 0
    "0000000c | 0009 04 00 7f000002 00 06 7725";        // 127.0.0.2 TCP 30501

SdMessage sampleSubscribe() {
  SdMessage m;
  m.flags = SdMessage::kRebootFlag | SdMessage::kUnicastFlag;
  SdEntry e;
  e.type = SdEntryType::kSubscribeEventgroup;
  e.numOptions1 = 1;
  e.serviceId = 0x1234;
  e.instanceId = 1;
  e.majorVersion = 11;
  e.ttl = 3;
  e.counter = 5;
  e.eventgroupId = 1;
  m.entries.push_back(e);
  SdOption o;
  o.endpoint = {0x7F000001, kSdProtocolUdp, 40000};
  m.options.push_back(o);
  return m;
}

const char* kSubscribeImage =
    "c0 000000 | 00000010 |"
    "06 00 00 10 | 1234 0001 | 0b 000003 | 00 05 0001 |"  // reserved, counter 5, eventgroup 1
    "0000000c | 0009 04 00 7f000001 00 11 9c40";          // 127.0.0.1 UDP 40000

void expectSameEntry(const SdEntry& a, const SdEntry& b) {
  EXPECT_EQ(a.type, b.type);
  EXPECT_EQ(a.index1, b.index1);
  EXPECT_EQ(a.index2, b.index2);
  EXPECT_EQ(a.numOptions1, b.numOptions1);
  EXPECT_EQ(a.numOptions2, b.numOptions2);
  EXPECT_EQ(a.serviceId, b.serviceId);
  EXPECT_EQ(a.instanceId, b.instanceId);
  EXPECT_EQ(a.majorVersion, b.majorVersion);
  EXPECT_EQ(a.ttl, b.ttl);
  EXPECT_EQ(a.minorVersion, b.minorVersion);
  EXPECT_EQ(a.counter, b.counter);
  EXPECT_EQ(a.eventgroupId, b.eventgroupId);
}

TEST(Sd, HandCheckedImagesAndRoundTrips) {
  struct Row {
    const char* proves;
    SdMessage message;
    const char* image;
  };
  const Row rows[] = {
      {"offer with an IPv4 TCP endpoint", sampleOffer(), kOfferImage},
      {"subscribe with counter and UDP endpoint", sampleSubscribe(), kSubscribeImage},
  };
  for (const Row& row : rows) {
    const auto image = fromHex(row.image);
    EXPECT_EQ(encodeSd(row.message), image) << row.proves;

    SdMessage back;
    std::string error;
    ASSERT_TRUE(decodeSd(image.data(), image.size(), back, error)) << row.proves << ": " << error;
    EXPECT_EQ(back.flags, row.message.flags);
    ASSERT_EQ(back.entries.size(), 1u);
    expectSameEntry(back.entries[0], row.message.entries[0]);
    ASSERT_EQ(back.options.size(), 1u);
    EXPECT_EQ(back.options[0].type, kSdOptionIpv4Endpoint);
    EXPECT_EQ(back.options[0].endpoint.address, row.message.options[0].endpoint.address);
    EXPECT_EQ(back.options[0].endpoint.protocol, row.message.options[0].endpoint.protocol);
    EXPECT_EQ(back.options[0].endpoint.port, row.message.options[0].endpoint.port);

    std::vector<SdIpv4Endpoint> endpoints;
    ASSERT_TRUE(endpointsOf(back, back.entries[0], endpoints)) << row.proves;
    ASSERT_EQ(endpoints.size(), 1u);
    EXPECT_EQ(endpoints[0].port, row.message.options[0].endpoint.port);
  }
}

TEST(Sd, UnknownOptionsAreKeptRawAndSkippedAsEndpoints) {
  // Run 1: an unknown option (type 0x77) and a TCP endpoint; run 2: a UDP endpoint.
  SdMessage m;
  SdEntry e;
  e.type = SdEntryType::kOfferService;
  e.index1 = 0;
  e.numOptions1 = 2;
  e.index2 = 2;
  e.numOptions2 = 1;
  m.entries.push_back(e);
  SdOption unknown;
  unknown.type = 0x77;
  unknown.raw = {0xDE, 0xAD};
  SdOption tcp;
  tcp.endpoint = {0x7F000002, kSdProtocolTcp, 1};
  SdOption udp;
  udp.endpoint = {0x7F000002, kSdProtocolUdp, 2};
  m.options = {unknown, tcp, udp};

  const auto image = encodeSd(m);
  // The unknown option: length 3 (reserved byte + 2 data bytes), type, reserved, data.
  const auto unknownImage = fromHex("0003 77 00 dead");
  ASSERT_GE(image.size(), 8 + 16 + 4 + unknownImage.size());
  EXPECT_TRUE(std::equal(unknownImage.begin(), unknownImage.end(), image.begin() + 28));

  SdMessage back;
  std::string error;
  ASSERT_TRUE(decodeSd(image.data(), image.size(), back, error)) << error;
  ASSERT_EQ(back.options.size(), 3u);
  EXPECT_EQ(back.options[0].type, 0x77);
  EXPECT_EQ(back.options[0].raw, unknown.raw);
  EXPECT_EQ(encodeSd(back), image);

  std::vector<SdIpv4Endpoint> endpoints = {SdIpv4Endpoint{}};  // replaced, not appended to
  ASSERT_TRUE(endpointsOf(back, back.entries[0], endpoints));
  ASSERT_EQ(endpoints.size(), 2u);
  EXPECT_EQ(endpoints[0].port, 1);
  EXPECT_EQ(endpoints[1].port, 2);

  SdEntry beyond = back.entries[0];
  beyond.index2 = 3;
  EXPECT_FALSE(endpointsOf(back, beyond, endpoints));
}

TEST(Sd, ReservedBitsAndUnknownEntryTypesAreTolerated) {
  // Counter byte with the "initial data requested" bit set; an entry of unknown type 0x05 in the
  // eventgroup layout; no options at all; entries with zero options may carry any index.
  const auto image = fromHex(
      "00 000000 | 00000020 |"
      "06 09 00 00 | 1234 0001 | 0b ffffff | 00 83 0002 |"
      "05 00 00 00 | 1234 0001 | 0b 000000 | 00 00 0003 |"
      "00000000");
  SdMessage m;
  std::string error;
  ASSERT_TRUE(decodeSd(image.data(), image.size(), m, error)) << error;
  ASSERT_EQ(m.entries.size(), 2u);
  EXPECT_EQ(m.entries[0].counter, 3);
  EXPECT_EQ(m.entries[0].ttl, kTtlInfinite);
  EXPECT_EQ(m.entries[0].eventgroupId, 2);
  EXPECT_FALSE(m.entries[1].isServiceEntry());
  EXPECT_EQ(static_cast<uint8_t>(m.entries[1].type), 0x05);
  EXPECT_TRUE(m.options.empty());
}

TEST(Sd, FindWithWildcardsRoundTrips) {
  SdMessage m;
  SdEntry e;
  e.type = SdEntryType::kFindService;
  e.serviceId = 0x1234;
  e.instanceId = kAnyInstance;
  e.majorVersion = kAnyMajor;
  e.minorVersion = kAnyMinor;
  e.ttl = kTtlInfinite;
  m.entries.push_back(e);
  const auto image = encodeSd(m);
  EXPECT_EQ(image, fromHex("00 000000 00000010 00 00 00 00 1234 ffff ff ffffff ffffffff 00000000"));
  SdMessage back;
  std::string error;
  ASSERT_TRUE(decodeSd(image.data(), image.size(), back, error)) << error;
  expectSameEntry(back.entries[0], e);
}

}  // namespace
}  // namespace platform::someip

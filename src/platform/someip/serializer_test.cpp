#include "platform/someip/serializer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/someip/test_support.h"

namespace platform::someip {
namespace {

using testing::fromHex;
using testing::Phase;
using testing::Record;

TEST(Serializer, HandCheckedImagesAndRoundTrips) {
  std::string hi = "Hi";
  std::vector<uint16_t> shorts = {1, 0x0203};
  std::vector<std::string> strings = {"a", ""};
  Record record = testing::sampleRecord();

  const std::vector<uint8_t> hiImage = fromHex("00000006 efbbbf 4869 00");
  const std::vector<uint8_t> shortsImage = fromHex("00000004 0001 0203");
  // 9 + 8 bytes of elements; the length counts bytes, not the two elements.
  const std::vector<uint8_t> stringsImage =
      fromHex("00000011 | 00000005 efbbbf 61 00 | 00000004 efbbbf 00");
  const std::vector<uint8_t> recordImage = fromHex(testing::kSampleRecordImage);

  EXPECT_EQ(serialize(hi), hiImage);
  EXPECT_EQ(serialize(shorts), shortsImage);
  EXPECT_EQ(serialize(strings), stringsImage);
  EXPECT_EQ(serialize(record), recordImage);

  std::string error;
  std::string hiBack;
  std::vector<uint16_t> shortsBack = {9, 9, 9};  // replaced, not appended to
  std::vector<std::string> stringsBack;
  Record recordBack;
  EXPECT_TRUE(deserialize(hiImage, &error, hiBack)) << error;
  EXPECT_TRUE(deserialize(shortsImage, &error, shortsBack)) << error;
  EXPECT_TRUE(deserialize(stringsImage, &error, stringsBack)) << error;
  EXPECT_TRUE(deserialize(recordImage, &error, recordBack)) << error;
  EXPECT_EQ(hiBack, hi);
  EXPECT_EQ(shortsBack, shorts);
  EXPECT_EQ(stringsBack, strings);
  EXPECT_EQ(recordBack, record);
}

TEST(Serializer, ScalarsAreBigEndianAndRoundTrip) {
  bool b = true;
  uint8_t u8 = 0xAB;
  uint16_t u16 = 0x1234;
  uint32_t u32 = 0x01020304;
  uint64_t u64 = 0x0102030405060708;
  int8_t i8 = -1;
  int16_t i16 = -2;
  int32_t i32 = -3;
  int64_t i64 = std::numeric_limits<int64_t>::min();
  float f = 1.5f;
  double d = -2.0;
  const auto image = fromHex(
      "01 ab 1234 01020304 0102030405060708 ff fffe fffffffd 8000000000000000 3fc00000 "
      "c000000000000000");
  EXPECT_EQ(serialize(b, u8, u16, u32, u64, i8, i16, i32, i64, f, d), image);

  bool b2 = false;
  uint8_t u8b = 0;
  uint16_t u16b = 0;
  uint32_t u32b = 0;
  uint64_t u64b = 0;
  int8_t i8b = 0;
  int16_t i16b = 0;
  int32_t i32b = 0;
  int64_t i64b = 0;
  float fb = 0;
  double db = 0;
  std::string error;
  ASSERT_TRUE(deserialize(image, &error, b2, u8b, u16b, u32b, u64b, i8b, i16b, i32b, i64b, fb, db))
      << error;
  EXPECT_EQ(b2, b);
  EXPECT_EQ(u8b, u8);
  EXPECT_EQ(u16b, u16);
  EXPECT_EQ(u32b, u32);
  EXPECT_EQ(u64b, u64);
  EXPECT_EQ(i8b, i8);
  EXPECT_EQ(i16b, i16);
  EXPECT_EQ(i32b, i32);
  EXPECT_EQ(i64b, i64);
  EXPECT_EQ(fb, f);
  EXPECT_EQ(db, d);

  // NaN and infinity keep their bit patterns.
  double nan = std::numeric_limits<double>::quiet_NaN();
  float inf = std::numeric_limits<float>::infinity();
  double nanBack = 0;
  float infBack = 0;
  ASSERT_TRUE(deserialize(serialize(nan, inf), &error, nanBack, infBack));
  EXPECT_TRUE(std::isnan(nanBack));
  EXPECT_EQ(infBack, inf);
}

TEST(Serializer, StringsKeepEveryByteBetweenBomAndNul) {
  // Non-ASCII UTF-8 and an embedded NUL survive; only the final NUL is the terminator.
  std::string text = std::string("gr\xC3\xBC\xC3\x9F") + '\0' + "x";
  std::string back;
  std::string error;
  const auto image = serialize(text);
  EXPECT_EQ(image.size(), 4 + 3 + text.size() + 1);
  ASSERT_TRUE(deserialize(image, &error, back)) << error;
  EXPECT_EQ(back, text);
}

TEST(Serializer, NestedEmptyAndDeepArraysRoundTrip) {
  std::vector<std::vector<uint8_t>> nested = {{}, {1, 2, 3}, {}};
  EXPECT_EQ(serialize(nested), fromHex("0000000f 00000000 00000003 010203 00000000"));
  std::vector<std::vector<uint8_t>> back;
  std::string error;
  ASSERT_TRUE(deserialize(serialize(nested), &error, back)) << error;
  EXPECT_EQ(back, nested);

  Record empty;
  Record emptyBack = testing::sampleRecord();
  ASSERT_TRUE(deserialize(serialize(empty), &error, emptyBack)) << error;
  EXPECT_EQ(emptyBack, empty);
}

TEST(Serializer, TrailingBytesAreAllowedForNewerMinorVersions) {
  auto image = fromHex("00000006 efbbbf 4869 00 | 0102");
  std::string text;
  std::string error;
  EXPECT_TRUE(deserialize(image, &error, text)) << error;
  EXPECT_EQ(text, "Hi");
  Deserializer d(image);
  marshal(d, text);
  EXPECT_EQ(d.remaining(), 2u);
}

TEST(Serializer, ErrorIsStickyAndLeavesLaterFieldsUntouched) {
  // bool 2 is malformed; the uint16 after it must not be read even though bytes remain.
  const auto image = fromHex("02 1234");
  bool flag = true;
  uint16_t after = 7;
  std::string error;
  EXPECT_FALSE(deserialize(image, &error, flag, after));
  EXPECT_EQ(error, "bool value 2 at offset 0 (only 0 or 1 allowed)");
  EXPECT_TRUE(flag);
  EXPECT_EQ(after, 7);
}

TEST(Serializer, EnumKeepsUnknownValuesAsTheirUnderlyingType) {
  // A newer peer may send an enumerator we do not know; it arrives as its raw value.
  Phase phase = Phase::kIdle;
  std::string error;
  ASSERT_TRUE(deserialize(fromHex("2a"), &error, phase));
  EXPECT_EQ(static_cast<uint8_t>(phase), 0x2A);
}

// An element type that occupies no bytes on the wire.
struct Nothing {};
void marshal(middleware::FieldVisitor&, Nothing&) {}

TEST(Serializer, ZeroSizedElementsCannotLoopForever) {
  // A crafted length for an array of empty records would otherwise never be used up.
  std::vector<Nothing> items;
  std::string error;
  EXPECT_FALSE(deserialize(fromHex("00000004 00000000"), &error, items));
  EXPECT_EQ(error, "array element at offset 4 holds no bytes");
  EXPECT_TRUE(deserialize(fromHex("00000000"), &error, items));
}

TEST(Serializer, NestingDepthIsBounded) {
  // 65 nested arrays, each claiming everything that follows.
  std::vector<uint8_t> image;
  const std::size_t levels = kMaxSequenceDepth + 1;
  for (std::size_t i = 0; i < levels; ++i) {
    const auto rest = static_cast<uint32_t>(4 * (levels - 1 - i));
    image.insert(image.end(), {static_cast<uint8_t>(rest >> 24), static_cast<uint8_t>(rest >> 16),
                               static_cast<uint8_t>(rest >> 8), static_cast<uint8_t>(rest)});
  }
  Deserializer d(image);
  for (std::size_t i = 0; i < levels; ++i)
    d.beginSequence();
  EXPECT_FALSE(d.ok());
  EXPECT_EQ(d.error(), "arrays nested deeper than 64 at offset 256");
  for (std::size_t i = 0; i < levels; ++i)
    d.endSequence();
  EXPECT_EQ(d.error(), "arrays nested deeper than 64 at offset 256");

  Deserializer fine(image);
  for (std::size_t i = 0; i < kMaxSequenceDepth; ++i)
    fine.beginSequence();
  EXPECT_TRUE(fine.ok()) << fine.error();

  Serializer s;
  for (std::size_t i = 0; i < levels; ++i)
    s.beginSequence();
  EXPECT_FALSE(s.ok());
}

TEST(Serializer, UnbalancedEndSequenceIsReported) {
  Serializer s;
  s.endSequence();
  EXPECT_EQ(s.error(), "endSequence without beginSequence");
  Deserializer d(nullptr, 0);
  d.endSequence();
  EXPECT_EQ(d.error(), "endSequence without beginSequence");
}

}  // namespace
}  // namespace platform::someip

#include "logic/base64.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace orv {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

TEST(Base64Test, EncodersMatchKnownVectorsAndPaddingChoice) {
  struct Row {
    std::string plain;
    std::string standard;  // padded
    std::string url;       // never padded
  };
  const Row rows[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {"\xfb\xff", "+/8=", "-_8"},  // the alphabets differ in their last two characters
  };
  for (const Row& row : rows) {
    EXPECT_EQ(base64Encode(row.plain), row.standard) << row.plain;
    EXPECT_EQ(base64UrlEncode(bytesOf(row.plain)), row.url) << row.plain;
  }
}

TEST(Base64Test, RoundTripsEveryByteValueAtEveryLength) {
  // Every byte value in every position of a group, with all three remainders.
  for (std::size_t length = 0; length <= 258; ++length) {
    Bytes data(length);
    for (std::size_t i = 0; i < length; ++i)
      data[i] = static_cast<unsigned char>(i * 7 + length);
    ASSERT_EQ(base64Decode(base64Encode(data)), data) << length;
    ASSERT_EQ(base64UrlDecode(base64UrlEncode(data)), data) << length;
  }
}

TEST(Base64Test, DecodersStopAtTheFirstCharacterOutsideTheirAlphabetAndStayInBounds) {
  struct Row {
    const char* why;
    std::string text;
    std::string url;       // base64UrlDecode result
    std::string standard;  // base64Decode result
  };
  const Row rows[] = {
      {"unpadded", "Zm9vYg", "foob", "foob"},
      {"padded reads like unpadded", "Zm9vYg==", "foob", "foob"},
      {"one character holds no byte", "Z", "", ""},
      {"invalid first character", "=Zm9v", "", ""},
      {"blank ends decoding", "Zm9v Zm9v", "foo", "foo"},
      {"partial group before the stop", "Zm9vYm!Fy", "foob", "foob"},
      {"url characters stop the standard decoder", "-_8", "\xfb\xff", ""},
      {"standard characters stop the url decoder", "+/8=", "", "\xfb\xff"},
      {"high-bit character", "Zm9v\xc3\xa4", "foo", "foo"},
      {"NUL", std::string("Zm9v\0Zm9v", 9), "foo", "foo"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(base64UrlDecode(row.text), bytesOf(row.url)) << row.why;
    EXPECT_EQ(base64Decode(row.text), bytesOf(row.standard)) << row.why;
  }
  // Characters above 0x7f are negative as char; a table lookup with them must stay in bounds
  // (ASan watches).
  for (int c = 0; c < 256; ++c) {
    const std::string text = std::string("A") + static_cast<char>(c) + "BC";
    EXPECT_LE(base64UrlDecode(text).size() + base64Decode(text).size(), 6u);
  }
}

}  // namespace
}  // namespace orv

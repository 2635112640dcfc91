#include "minfw/str.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kel::vxp3::minfw {
namespace {

enum class Small : uint8_t { kHundred = 100 };

TEST(CatTest, EveryKindOfPieceAppendsAsLogLinesNeedIt) {
  const std::string s = "str";
  // A one-byte number must print as a number, not as a raw byte (processing states are uint8_t).
  EXPECT_EQ(cat(uint8_t{7}), "7");
  EXPECT_EQ(cat(int8_t{-3}), "-3");
  EXPECT_EQ(cat('x'), "x");
  EXPECT_EQ(cat(Small::kHundred), "100");
  EXPECT_EQ(cat(true, "/", false), "true/false");
  EXPECT_EQ(cat(1.5), "1.500000");
  EXPECT_EQ(cat(uint64_t{18446744073709551615u}), "18446744073709551615");
  EXPECT_EQ(cat(int64_t{-9223372036854775807 - 1}), "-9223372036854775808");
  EXPECT_EQ(cat("a", s, std::string_view("b"), 12, ']'), "astrb12]");
  EXPECT_EQ(cat(static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(cat(), "");
}

TEST(CatTest, HexIsLowerCaseWithoutPrefix) {
  EXPECT_EQ(hex(0), "0");
  EXPECT_EQ(hex(0x4C9), "4c9");
  EXPECT_EQ(hex(0xFFFFFFFFFFFFFFFFu), "ffffffffffffffff");
}

}  // namespace
}  // namespace kel::vxp3::minfw

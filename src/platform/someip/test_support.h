#pragma once
// Hex images for the wire tests.
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace platform::someip::testing {

// "0000 0006 efbbbf" -> bytes; blanks and '|' are separators for readability.
inline std::vector<uint8_t> fromHex(const std::string& text) {
  std::vector<uint8_t> out;
  int high = -1;
  for (char c : text) {
    if (c == ' ' || c == '|' || c == '\n')
      continue;
    const int nibble = std::isdigit(static_cast<unsigned char>(c))
                           ? c - '0'
                           : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    if (high < 0) {
      high = nibble;
    } else {
      out.push_back(static_cast<uint8_t>(high << 4 | nibble));
      high = -1;
    }
  }
  return out;
}

}  // namespace platform::someip::testing

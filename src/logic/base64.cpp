#include "logic/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace orv {
namespace {

constexpr char kStandard[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrl[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr uint8_t kInvalid = 0xff;

using Table = std::array<uint8_t, 256>;

// Character -> 6-bit value; every character outside the alphabet maps to kInvalid.
constexpr Table makeTable(const char* alphabet) {
  Table table{};
  for (auto& entry : table)
    entry = kInvalid;
  for (uint8_t i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(alphabet[i])] = i;
  return table;
}

constexpr Table kStandardTable = makeTable(kStandard);
constexpr Table kUrlTable = makeTable(kUrl);

std::string encode(const unsigned char* data, std::size_t size, const char* alphabet, bool pad) {
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t group = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out.push_back(alphabet[(group >> 18) & 0x3f]);
    out.push_back(alphabet[(group >> 12) & 0x3f]);
    out.push_back(alphabet[(group >> 6) & 0x3f]);
    out.push_back(alphabet[group & 0x3f]);
  }
  const std::size_t rest = size - i;
  if (rest == 0)
    return out;
  const uint32_t group = (uint32_t{data[i]} << 16) | (rest == 2 ? uint32_t{data[i + 1]} << 8 : 0);
  out.push_back(alphabet[(group >> 18) & 0x3f]);
  out.push_back(alphabet[(group >> 12) & 0x3f]);
  if (rest == 2)
    out.push_back(alphabet[(group >> 6) & 0x3f]);
  if (pad)
    out.append(rest == 2 ? "=" : "==");
  return out;
}

// Six bits per character, a byte out whenever eight are pending. A text shorter than two
// characters or with an invalid first character therefore decodes to nothing, and a final
// partial group of two or three characters gives one or two bytes.
std::vector<unsigned char> decode(const std::string& text, const Table& table) {
  std::vector<unsigned char> out;
  out.reserve(text.size() / 4 * 3 + 2);
  uint32_t pending = 0;
  int bits = 0;
  for (const char c : text) {
    const uint8_t value = table[static_cast<unsigned char>(c)];
    if (value == kInvalid)
      break;
    pending = ((pending << 6) | value) & 0x3fff;  // never more than 14 bits are live
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<unsigned char>((pending >> bits) & 0xff));
    }
  }
  return out;
}

const unsigned char* bytes(const std::string& data) {
  return reinterpret_cast<const unsigned char*>(data.data());
}

}  // namespace

std::string base64Encode(const std::vector<unsigned char>& data) {
  return encode(data.data(), data.size(), kStandard, true);
}

std::string base64Encode(const std::string& data) {
  return encode(bytes(data), data.size(), kStandard, true);
}

std::vector<unsigned char> base64Decode(const std::string& text) {
  return decode(text, kStandardTable);
}

std::string base64UrlEncode(const std::vector<unsigned char>& data) {
  return encode(data.data(), data.size(), kUrl, false);
}

std::string base64UrlEncode(const std::string& data) {
  return encode(bytes(data), data.size(), kUrl, false);
}

std::vector<unsigned char> base64UrlDecode(const std::string& text) {
  return decode(text, kUrlTable);
}

}  // namespace orv

#pragma once
// Helpers shared by the tests of this folder: hex images and a small nested record.

#include <array>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/middleware/marshal.h"

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

enum class Phase : uint8_t { kIdle = 0, kRunning = 1, kDone = 7 };

struct Part {
  uint16_t id = 0;
  std::string name;
  bool operator==(const Part& o) const { return id == o.id && name == o.name; }
};

struct Record {
  std::string title;
  std::vector<Part> parts;
  std::array<uint8_t, 16> uuid{};
  Phase phase = Phase::kIdle;
  bool operator==(const Record& o) const {
    return title == o.title && parts == o.parts && uuid == o.uuid && phase == o.phase;
  }
};

inline void marshal(middleware::FieldVisitor& v, Part& p) {
  v.beginStruct();
  marshal(v, p.id);
  marshal(v, p.name);
  v.endStruct();
}

inline void marshal(middleware::FieldVisitor& v, Record& r) {
  v.beginStruct();
  marshal(v, r.title);
  marshal(v, r.parts);
  marshal(v, r.uuid);
  marshal(v, r.phase);
  v.endStruct();
}

// {"ab", [{0x0102, "x"}], uuid 00..0f, kDone} and its image.
inline Record sampleRecord() {
  Record r;
  r.title = "ab";
  r.parts = {{0x0102, "x"}};
  for (uint8_t i = 0; i < 16; ++i)
    r.uuid[i] = i;
  r.phase = Phase::kDone;
  return r;
}
inline const char* kSampleRecordImage =
    "00000006 efbbbf 6162 00 |"                  // title
    "0000000b | 0102 00000005 efbbbf 78 00 |"    // parts: 11 bytes
    "00010203 04050607 08090a0b 0c0d0e0f | 07";  // uuid, phase

}  // namespace platform::someip::testing

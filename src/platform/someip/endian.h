#pragma once
// Big-endian loads and stores for the codecs of this folder. The caller has checked the bounds.

#include <cstdint>

namespace platform::someip::be {

inline uint16_t load16(const uint8_t* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint32_t load24(const uint8_t* p) {
  return (uint32_t{p[0]} << 16) | (uint32_t{p[1]} << 8) | uint32_t{p[2]};
}
inline uint32_t load32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
inline uint64_t load64(const uint8_t* p) {
  return (uint64_t{load32(p)} << 32) | load32(p + 4);
}

inline void store16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void store24(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 16);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v);
}
inline void store32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}
inline void store64(uint8_t* p, uint64_t v) {
  store32(p, static_cast<uint32_t>(v >> 32));
  store32(p + 4, static_cast<uint32_t>(v));
}

}  // namespace platform::someip::be

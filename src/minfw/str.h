#pragma once
// cat(): builds a log message or text from pieces without iostreams.
//
// Strings and characters are appended as they are; every integer type (uint8_t included) is
// appended as a decimal number, floating point values as "%f", bool as "true"/"false".

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace kel::vxp3::minfw {

namespace str_detail {

inline void append(std::string& out, std::string_view piece) {
  out.append(piece);
}
inline void append(std::string& out, const char* piece) {
  out.append(piece ? piece : "(null)");
}
inline void append(std::string& out, const std::string& piece) {
  out.append(piece);
}
inline void append(std::string& out, char c) {
  out.push_back(c);
}
inline void append(std::string& out, bool b) {
  out.append(b ? "true" : "false");
}

template <typename T>
std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>>
append(std::string& out, T value) {
  if constexpr (std::is_signed_v<T>) {
    out.append(std::to_string(static_cast<long long>(value)));
  } else {
    out.append(std::to_string(static_cast<unsigned long long>(value)));
  }
}

template <typename T>
std::enable_if_t<std::is_floating_point_v<T>> append(std::string& out, T value) {
  out.append(std::to_string(static_cast<double>(value)));
}

template <typename T>
std::enable_if_t<std::is_enum_v<T>> append(std::string& out, T value) {
  append(out, static_cast<std::underlying_type_t<T>>(value));
}

}  // namespace str_detail

template <typename... Args>
std::string cat(const Args&... args) {
  std::string out;
  (str_detail::append(out, args), ...);
  return out;
}

// Lower-case hexadecimal of an unsigned value, no prefix ("1f").
std::string hex(uint64_t value);

// A whole decimal (or 0x hexadecimal) integer within [minimum, maximum]; false for anything
// else, `value` then unchanged.
bool parseInteger(const char* text, int64_t minimum, int64_t maximum, int64_t* value);

}  // namespace kel::vxp3::minfw

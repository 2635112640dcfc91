#pragma once
// Base64 in its two alphabets: standard ("+/") and base64url ("-_"), the latter being the
// encoding of the key-manifest container parts.
//
// Encoders: the standard encoder pads its output with "=" to a multiple of four characters; the
// base64url encoder never pads.
// Decoders: both stop at the first character outside their alphabet (padding "=" included) and
// return the bytes decoded up to there; they report no error, so padded and unpadded input decode
// alike and garbage yields a shorter or empty result. Bits left over after the last whole byte
// are dropped.
//
// Threading: pure functions, reentrant.

#include <string>
#include <vector>

namespace orv {

std::string base64Encode(const std::vector<unsigned char>& data);
std::string base64Encode(const std::string& data);
std::vector<unsigned char> base64Decode(const std::string& text);

std::string base64UrlEncode(const std::vector<unsigned char>& data);
std::string base64UrlEncode(const std::string& data);
std::vector<unsigned char> base64UrlDecode(const std::string& text);

}  // namespace orv

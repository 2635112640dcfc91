#include "platform/someip/serializer.h"

#include <cstring>
#include <iterator>
#include <limits>

#include "minfw/str.h"
#include "platform/someip/endian.h"

namespace platform::someip {

using kel::vxp3::minfw::cat;

namespace {

constexpr uint8_t kBom[] = {0xEF, 0xBB, 0xBF};
// BOM and terminating NUL: the least a string's length field can hold.
constexpr std::size_t kStringOverhead = sizeof(kBom) + 1;

}  // namespace

// ---- Serializer ----

void Serializer::put(uint64_t v, std::size_t bytes) {
  for (std::size_t i = bytes; i-- > 0;)
    out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void Serializer::value(bool& v) {
  put(v ? 1 : 0, 1);
}
void Serializer::value(uint8_t& v) {
  put(v, 1);
}
void Serializer::value(uint16_t& v) {
  put(v, 2);
}
void Serializer::value(uint32_t& v) {
  put(v, 4);
}
void Serializer::value(uint64_t& v) {
  put(v, 8);
}
void Serializer::value(int8_t& v) {
  put(static_cast<uint8_t>(v), 1);
}
void Serializer::value(int16_t& v) {
  put(static_cast<uint16_t>(v), 2);
}
void Serializer::value(int32_t& v) {
  put(static_cast<uint32_t>(v), 4);
}
void Serializer::value(int64_t& v) {
  put(static_cast<uint64_t>(v), 8);
}
void Serializer::value(float& v) {
  uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  put(bits, 4);
}
void Serializer::value(double& v) {
  uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  put(bits, 8);
}

void Serializer::value(std::string& v) {
  put(v.size() + kStringOverhead, 4);
  out_.insert(out_.end(), std::begin(kBom), std::end(kBom));
  out_.insert(out_.end(), v.begin(), v.end());
  out_.push_back(0);
}

void Serializer::beginSequence() {
  if (lengthFields_.size() >= kMaxSequenceDepth && ok())
    error_ = cat("arrays nested deeper than ", kMaxSequenceDepth);
  lengthFields_.push_back(out_.size());
  put(0, 4);
}

void Serializer::endSequence() {
  if (lengthFields_.empty()) {
    if (ok())
      error_ = "endSequence without beginSequence";
    return;
  }
  const std::size_t at = lengthFields_.back();
  lengthFields_.pop_back();
  const std::size_t bytes = out_.size() - at - 4;
  if (bytes > std::numeric_limits<uint32_t>::max() && ok())
    error_ = cat("array of ", bytes, " bytes does not fit its 32-bit length field");
  be::store32(out_.data() + at, static_cast<uint32_t>(bytes));
}

// ---- Deserializer ----

Deserializer::Deserializer(const uint8_t* data, std::size_t size) : data_(data), size_(size) {
  if (data_ == nullptr)
    size_ = 0;
}

Deserializer::Deserializer(const std::vector<uint8_t>& data)
    : Deserializer(data.data(), data.size()) {}

void Deserializer::fail(std::string text) {
  if (error_.empty())
    error_ = std::move(text);
}

bool Deserializer::need(std::size_t bytes, const char* what) {
  if (!ok())
    return false;
  const std::size_t left = limit() - pos_;
  if (bytes <= left)
    return true;
  fail(cat("truncated ", what, " at offset ", pos_, ": needs ", bytes, " bytes, ", left,
           open_.empty() ? " remain" : " remain in the enclosing array"));
  return false;
}

uint64_t Deserializer::get(std::size_t bytes) {
  uint64_t v = 0;
  for (std::size_t i = 0; i < bytes; ++i)
    v = (v << 8) | data_[pos_++];
  return v;
}

void Deserializer::value(bool& v) {
  if (!need(1, "bool"))
    return;
  const uint8_t raw = data_[pos_];
  if (raw > 1) {
    fail(cat("bool value ", raw, " at offset ", pos_, " (only 0 or 1 allowed)"));
    return;
  }
  ++pos_;
  v = raw == 1;
}
void Deserializer::value(uint8_t& v) {
  if (need(1, "uint8"))
    v = static_cast<uint8_t>(get(1));
}
void Deserializer::value(uint16_t& v) {
  if (need(2, "uint16"))
    v = static_cast<uint16_t>(get(2));
}
void Deserializer::value(uint32_t& v) {
  if (need(4, "uint32"))
    v = static_cast<uint32_t>(get(4));
}
void Deserializer::value(uint64_t& v) {
  if (need(8, "uint64"))
    v = get(8);
}
void Deserializer::value(int8_t& v) {
  if (need(1, "int8"))
    v = static_cast<int8_t>(get(1));
}
void Deserializer::value(int16_t& v) {
  if (need(2, "int16"))
    v = static_cast<int16_t>(get(2));
}
void Deserializer::value(int32_t& v) {
  if (need(4, "int32"))
    v = static_cast<int32_t>(get(4));
}
void Deserializer::value(int64_t& v) {
  if (need(8, "int64"))
    v = static_cast<int64_t>(get(8));
}
void Deserializer::value(float& v) {
  if (!need(4, "float32"))
    return;
  const auto bits = static_cast<uint32_t>(get(4));
  std::memcpy(&v, &bits, sizeof v);
}
void Deserializer::value(double& v) {
  if (!need(8, "float64"))
    return;
  const uint64_t bits = get(8);
  std::memcpy(&v, &bits, sizeof v);
}

void Deserializer::value(std::string& v) {
  if (!need(4, "string length field"))
    return;
  const std::size_t start = pos_;
  const uint32_t length = be::load32(data_ + pos_);
  const std::size_t left = limit() - pos_ - 4;
  if (length > left) {
    fail(cat("string length ", length, " at offset ", start, " exceeds the ", left,
             " bytes that remain"));
    return;
  }
  if (length < kStringOverhead) {
    fail(cat("string length ", length, " at offset ", start,
             " cannot hold the BOM and the terminating NUL"));
    return;
  }
  const uint8_t* body = data_ + pos_ + 4;
  if (std::memcmp(body, kBom, sizeof kBom) != 0) {
    fail(cat("string at offset ", start, " does not start with the UTF-8 BOM"));
    return;
  }
  if (body[length - 1] != 0) {
    fail(cat("string at offset ", start, " is not terminated by NUL"));
    return;
  }
  v.assign(reinterpret_cast<const char*>(body + sizeof kBom), length - kStringOverhead);
  pos_ += 4 + length;
}

void Deserializer::beginSequence() {
  // Stay balanced with endSequence() even after an error: marshal() always calls both.
  const std::size_t start = pos_;
  if (open_.size() >= kMaxSequenceDepth) {
    fail(cat("arrays nested deeper than ", kMaxSequenceDepth, " at offset ", start));
  } else if (need(4, "array length field")) {
    const uint32_t length = be::load32(data_ + pos_);
    const std::size_t left = limit() - pos_ - 4;
    if (length > left) {
      fail(cat("array length ", length, " at offset ", start, " exceeds the ", left,
               " bytes that remain"));
    } else {
      pos_ += 4;
      open_.push_back({pos_ + length, std::numeric_limits<std::size_t>::max()});
      return;
    }
  }
  open_.push_back({pos_, std::numeric_limits<std::size_t>::max()});
}

bool Deserializer::moreElements() {
  if (!ok() || open_.empty() || pos_ >= open_.back().end)
    return false;
  Open& open = open_.back();
  if (open.lastElement == pos_) {
    fail(cat("array element at offset ", pos_, " holds no bytes"));
    return false;
  }
  open.lastElement = pos_;
  return true;
}

void Deserializer::endSequence() {
  if (open_.empty()) {
    fail("endSequence without beginSequence");
    return;
  }
  const Open open = open_.back();
  open_.pop_back();
  // After an error the position no longer matters; otherwise the loop stopped exactly at the
  // end, because no read crosses it.
  if (ok())
    pos_ = open.end;
}

}  // namespace platform::someip

#pragma once
// The SOME/IP payload format behind the binding-neutral FieldVisitor.
//
// Wire rules: big-endian; bool one byte (0 or 1); integers of 8/16/32/64 bits; float and double
// as IEEE 754; records as their fields in order, without length field; enums as their underlying
// type. A string is a 4-byte length (bytes that follow, BOM and NUL included), the UTF-8 BOM
// EF BB BF, the characters and a terminating NUL: "Hi" -> 00000006 EFBBBF 48 69 00. A dynamic
// array is a 4-byte length holding the BYTE count of its elements, then the elements.
//
// Threading: each visitor is owned by one thread at a time.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/middleware/marshal.h"

namespace platform::someip {

// Deepest nesting of dynamic arrays that either side accepts; deeper input is malformed.
constexpr std::size_t kMaxSequenceDepth = 64;

// Writes values in wire format. Never fails except for nesting beyond kMaxSequenceDepth or an
// unbalanced endSequence(), which are programming errors reported through ok()/error().
class Serializer final : public middleware::FieldVisitor {
 public:
  const std::vector<uint8_t>& bytes() const { return out_; }
  std::vector<uint8_t> take() { return std::move(out_); }

  bool writing() const override { return true; }
  void value(bool& v) override;
  void value(uint8_t& v) override;
  void value(uint16_t& v) override;
  void value(uint32_t& v) override;
  void value(uint64_t& v) override;
  void value(int8_t& v) override;
  void value(int16_t& v) override;
  void value(int32_t& v) override;
  void value(int64_t& v) override;
  void value(float& v) override;
  void value(double& v) override;
  void value(std::string& v) override;
  // Reserves the length field; endSequence() patches in the byte count.
  void beginSequence() override;
  bool moreElements() override { return false; }
  void endSequence() override;
  bool ok() const override { return error_.empty(); }
  std::string error() const override { return error_; }

 private:
  void put(uint64_t v, std::size_t bytes);

  std::vector<uint8_t> out_;
  std::vector<std::size_t> lengthFields_;  // offsets of the open sequences' length fields
  std::string error_;
};

// Reads values in wire format from a buffer it does not own (which must outlive it). Every
// length is checked against the bytes that remain in the innermost open array (or the buffer);
// the first problem sets a sticky error naming the offset, after which nothing more is read and
// the remaining fields keep their values. Never reads outside the buffer.
class Deserializer final : public middleware::FieldVisitor {
 public:
  Deserializer(const uint8_t* data, std::size_t size);
  explicit Deserializer(const std::vector<uint8_t>& data);

  // Bytes not read yet.
  std::size_t remaining() const { return size_ - pos_; }

  bool writing() const override { return false; }
  void value(bool& v) override;
  void value(uint8_t& v) override;
  void value(uint16_t& v) override;
  void value(uint32_t& v) override;
  void value(uint64_t& v) override;
  void value(int8_t& v) override;
  void value(int16_t& v) override;
  void value(int32_t& v) override;
  void value(int64_t& v) override;
  void value(float& v) override;
  void value(double& v) override;
  void value(std::string& v) override;
  void beginSequence() override;
  // True while the innermost array has bytes left. An element that consumes no bytes is an
  // error (else a crafted length would loop forever).
  bool moreElements() override;
  void endSequence() override;
  bool ok() const override { return error_.empty(); }
  std::string error() const override { return error_; }

 private:
  struct Open {
    std::size_t end;          // offset just past the array
    std::size_t lastElement;  // offset at the previous moreElements() == true
  };
  bool need(std::size_t bytes, const char* what);
  uint64_t get(std::size_t bytes);
  std::size_t limit() const { return open_.empty() ? size_ : open_.back().end; }
  void fail(std::string text);

  const uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
  std::vector<Open> open_;
  std::string error_;
};

// Marshals the values, in order, into one payload.
template <typename... Ts>
std::vector<uint8_t> serialize(Ts&... values) {
  Serializer s;
  middleware::marshalAll(s, values...);
  return s.take();
}

// Reads the values, in order, from `bytes`. False on malformed input, with the reason in *error
// when error is not null. Trailing bytes are allowed: a newer minor version may append fields.
template <typename... Ts>
bool deserialize(const std::vector<uint8_t>& bytes, std::string* error, Ts&... values) {
  Deserializer d(bytes);
  middleware::marshalAll(d, values...);
  if (d.ok())
    return true;
  if (error)
    *error = d.error();
  return false;
}

}  // namespace platform::someip

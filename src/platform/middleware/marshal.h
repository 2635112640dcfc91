#pragma once
// Binding-neutral marshalling.
//
// A data type of an interface lists its fields, in declaration order, in a free function
// `void marshal(FieldVisitor&, T&)` found by argument-dependent lookup. The binding supplies the
// FieldVisitor: the SOME/IP binding's serializer writes each visited field in its wire format,
// its deserializer reads it back into the same field. So the interface code states only which
// fields exist and in which order, and no code outside the binding knows a byte of the wire.
//
// Reading is failure-tolerant: a visitor that meets malformed input stops reading, reports
// ok() == false with an error text, and leaves every later field as it was; callers check ok()
// once at the end.
//
// Threading: a visitor is used by one thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace platform::middleware {

class FieldVisitor {
 public:
  virtual ~FieldVisitor() = default;

  // True for a serializer, false for a deserializer.
  virtual bool writing() const = 0;

  virtual void value(bool& v) = 0;
  virtual void value(uint8_t& v) = 0;
  virtual void value(uint16_t& v) = 0;
  virtual void value(uint32_t& v) = 0;
  virtual void value(uint64_t& v) = 0;
  virtual void value(int8_t& v) = 0;
  virtual void value(int16_t& v) = 0;
  virtual void value(int32_t& v) = 0;
  virtual void value(int64_t& v) = 0;
  virtual void value(float& v) = 0;
  virtual void value(double& v) = 0;
  virtual void value(std::string& v) = 0;

  // A dynamic array. Writing: beginSequence(), every element, endSequence(). Reading:
  // beginSequence(), then while moreElements() one element, then endSequence().
  virtual void beginSequence() = 0;
  virtual bool moreElements() = 0;
  virtual void endSequence() = 0;

  // A record; bindings that carry no record framing ignore these.
  virtual void beginStruct() {}
  virtual void endStruct() {}

  virtual bool ok() const = 0;
  virtual std::string error() const = 0;
};

// Scalars.
template <typename T>
std::enable_if_t<std::is_arithmetic_v<T>> marshal(FieldVisitor& v, T& x) {
  v.value(x);
}

inline void marshal(FieldVisitor& v, std::string& x) {
  v.value(x);
}

// Enumerations travel as their underlying type (one byte for the LUM interface's enums).
template <typename E>
std::enable_if_t<std::is_enum_v<E>> marshal(FieldVisitor& v, E& x) {
  auto raw = static_cast<std::underlying_type_t<E>>(x);
  v.value(raw);
  if (!v.writing())
    x = static_cast<E>(raw);
}

// Fixed-size arrays (a 16-byte uuid): the elements, without length field.
template <typename T, std::size_t N>
void marshal(FieldVisitor& v, std::array<T, N>& x) {
  for (auto& e : x)
    marshal(v, e);
}

// Dynamic arrays.
template <typename T>
void marshal(FieldVisitor& v, std::vector<T>& x) {
  v.beginSequence();
  if (v.writing()) {
    for (auto& e : x)
      marshal(v, e);
  } else {
    x.clear();
    while (v.ok() && v.moreElements()) {
      T e{};
      marshal(v, e);
      if (!v.ok())
        break;
      x.push_back(std::move(e));
    }
  }
  v.endSequence();
}

// Several values in order (the inputs or outputs of a method).
template <typename... Ts>
void marshalAll(FieldVisitor& v, Ts&... xs) {
  (marshal(v, xs), ...);
}

}  // namespace platform::middleware

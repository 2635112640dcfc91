#pragma once
// Filler puts a distinct non-default value into every field marshal() visits, with a chosen
// number of elements per sequence. Recorder writes the visited values down ("{ 7 \"x\" [ 1 ] }")
// and checks the fields of one object rise in address (sequence elements and enum copies live
// elsewhere, so only in-object fields count). One thread per visitor.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/middleware/marshal.h"

namespace orv::lum::testing {

class Filler final : public platform::middleware::FieldVisitor {
 public:
  explicit Filler(int elementsPerSequence) : elements_(elementsPerSequence) {}
  bool writing() const override { return false; }
  void value(bool& v) override { v = true; }
  void value(uint8_t& v) override { v = static_cast<uint8_t>(next()); }
  void value(uint16_t& v) override { v = static_cast<uint16_t>(next() * 0x0101); }
  void value(uint32_t& v) override { v = next() * 0x01010101u; }
  void value(uint64_t& v) override { v = next() * 0x0101010101010101ull; }
  void value(int8_t& v) override { v = static_cast<int8_t>(-static_cast<int>(next() % 100)); }
  void value(int16_t& v) override { v = static_cast<int16_t>(-static_cast<int>(next()) * 257); }
  void value(int32_t& v) override { v = -static_cast<int32_t>(next()) * 0x01010101; }
  void value(int64_t& v) override { v = -static_cast<int64_t>(next()) * 0x0101010101010101ll; }
  void value(float& v) override { v = static_cast<float>(next()) + 0.5f; }
  void value(double& v) override { v = static_cast<double>(next()) + 0.25; }
  void value(std::string& v) override { v = "value-" + std::to_string(next()); }
  void beginSequence() override { remaining_.push_back(elements_); }
  bool moreElements() override { return remaining_.back()-- > 0; }
  void endSequence() override { remaining_.pop_back(); }
  bool ok() const override { return true; }
  std::string error() const override { return {}; }

 private:
  // 1..126: never zero (the default) and small enough for any width.
  uint32_t next() { return counter_++ % 126 + 1; }
  int elements_;
  uint32_t counter_ = 0;
  std::vector<int> remaining_;
};

class Recorder final : public platform::middleware::FieldVisitor {
 public:
  Recorder() = default;
  // Also checks the field order of `object`.
  template <typename T>
  explicit Recorder(const T& object)
      : begin_(reinterpret_cast<const char*>(&object)), end_(begin_ + sizeof(T)) {}
  const std::string& text() const { return text_; }
  // Empty when every field of the object was visited after the one declared before it.
  const std::string& orderError() const { return orderError_; }
  bool writing() const override { return true; }
  void value(bool& v) override { add(v ? "true" : "false", &v); }
  void value(uint8_t& v) override { add(std::to_string(v), &v); }
  void value(uint16_t& v) override { add(std::to_string(v), &v); }
  void value(uint32_t& v) override { add(std::to_string(v), &v); }
  void value(uint64_t& v) override { add(std::to_string(v), &v); }
  void value(int8_t& v) override { add(std::to_string(v), &v); }
  void value(int16_t& v) override { add(std::to_string(v), &v); }
  void value(int32_t& v) override { add(std::to_string(v), &v); }
  void value(int64_t& v) override { add(std::to_string(v), &v); }
  void value(float& v) override { add(std::to_string(v), &v); }
  void value(double& v) override { add(std::to_string(v), &v); }
  void value(std::string& v) override { add("\"" + v + "\"", &v); }
  void beginSequence() override { token("["); }
  bool moreElements() override { return false; }
  void endSequence() override { token("]"); }
  void beginStruct() override { token("{"); }
  void endStruct() override { token("}"); }
  bool ok() const override { return true; }
  std::string error() const override { return {}; }

 private:
  void token(const std::string& t) { text_ += text_.empty() ? t : " " + t; }
  void add(const std::string& value, const void* address) {
    token(value);
    ++count_;
    auto* at = static_cast<const char*>(address);
    if (at < begin_ || at >= end_)
      return;
    if (last_ && at <= last_ && orderError_.empty())
      orderError_ = "value " + std::to_string(count_) + " is visited out of order";
    last_ = at;
  }
  const char* begin_ = nullptr;
  const char* end_ = nullptr;
  const char* last_ = nullptr;
  std::string text_;
  std::string orderError_;
  int count_ = 0;
};

// Every visited value of `x` as text, in order, with sequence and record brackets.
template <typename T>
std::string dump(const T& x) {
  using platform::middleware::marshal;
  Recorder recorder;
  marshal(recorder, const_cast<T&>(x));  // a writing visitor changes nothing
  return recorder.text();
}

}  // namespace orv::lum::testing

#include "interfaces/diagnosis/nodbox/measurements.h"

#include <string>

namespace orv::measurement {

namespace {

constexpr std::size_t kMaxText = 0xFFFF;

class Writer {
 public:
  void u32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes_.push_back(static_cast<uint8_t>(v >> shift));
  }
  void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
  void text(const std::string& t) {
    const std::size_t size = t.size() < kMaxText ? t.size() : kMaxText;
    bytes_.push_back(static_cast<uint8_t>(size >> 8));
    bytes_.push_back(static_cast<uint8_t>(size));
    bytes_.insert(bytes_.end(), t.begin(), t.begin() + static_cast<std::ptrdiff_t>(size));
  }
  std::vector<uint8_t> take() { return std::move(bytes_); }

 private:
  std::vector<uint8_t> bytes_;
};

// Reads fields in order; once a read runs past the end every later read fails too.
class Reader {
 public:
  explicit Reader(const std::vector<uint8_t>& bytes) : bytes_(bytes) {}
  bool u32(uint32_t& v) {
    if (!has(4))
      return false;
    v = 0;
    for (int i = 0; i < 4; ++i)
      v = (v << 8) | bytes_[pos_++];
    return true;
  }
  bool i32(int32_t& v) {
    uint32_t raw = 0;
    if (!u32(raw))
      return false;
    v = static_cast<int32_t>(raw);
    return true;
  }
  bool text(std::string& t) {
    if (!has(2))
      return false;
    const std::size_t size = (std::size_t{bytes_[pos_]} << 8) | bytes_[pos_ + 1];
    pos_ += 2;
    if (!has(size))
      return false;
    t.assign(bytes_.begin() + static_cast<std::ptrdiff_t>(pos_),
             bytes_.begin() + static_cast<std::ptrdiff_t>(pos_ + size));
    pos_ += size;
    return true;
  }
  bool atEnd() const { return ok_ && pos_ == bytes_.size(); }

 private:
  bool has(std::size_t n) {
    ok_ = ok_ && bytes_.size() - pos_ >= n;
    return ok_;
  }
  const std::vector<uint8_t>& bytes_;
  std::size_t pos_ = 0;
  bool ok_ = true;
};

}  // namespace

std::vector<uint8_t> encode(const diagNewStatusType& state) {
  Writer w;
  w.u32(state.updateType);
  w.u32(state.channel);
  w.u32(state.stateHmi);
  w.u32(state.stateLum);
  w.u32(state.progress);
  w.i32(state.errorCode);
  return w.take();
}

std::vector<uint8_t> encode(const diagTimestampType& stamps) {
  Writer w;
  w.u32(stamps.dtType);
  w.text(stamps.dtStartDate);
  w.text(stamps.dtStartTime);
  w.text(stamps.dtEndDate);
  w.text(stamps.dtEndTime);
  w.i32(stamps.dtErr);
  w.text(stamps.dtErrTxt);
  return w.take();
}

bool decode(const std::vector<uint8_t>& data, diagNewStatusType& out) {
  Reader r(data);
  return r.u32(out.updateType) && r.u32(out.channel) && r.u32(out.stateHmi) &&
         r.u32(out.stateLum) && r.u32(out.progress) && r.i32(out.errorCode) && r.atEnd();
}

bool decode(const std::vector<uint8_t>& data, diagTimestampType& out) {
  Reader r(data);
  return r.u32(out.dtType) && r.text(out.dtStartDate) && r.text(out.dtStartTime) &&
         r.text(out.dtEndDate) && r.text(out.dtEndTime) && r.i32(out.dtErr) &&
         r.text(out.dtErrTxt) && r.atEnd();
}

}  // namespace orv::measurement

// Deserialisation of every record of the generated interfaces (LUM v11 and v12, routine control,
// measurement): each operation's inputs and outputs, each event's sample, each field's value.
// The first byte picks the record, the rest is its payload. Property: a record that was read
// serialises to bytes that read back and serialise to the same bytes.
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <vector>

#include "fuzz_support.h"
#include "interfaces/diagnosis/nodbox/vimeasurement_interface.h"
#include "interfaces/diagnosis/nodbox/viroutine_interface.h"
#include "interfaces/lum/lum11_interface.h"
#include "interfaces/lum/lum12_interface.h"
#include "platform/someip/serializer.h"

namespace {

using platform::someip::deserialize;
using platform::someip::serialize;
using Reader = void (*)(const std::vector<uint8_t>&);

template <typename T>
void roundTrip(const std::vector<uint8_t>& bytes) {
  T value{};
  if (!deserialize(bytes, nullptr, value))
    return;
  std::vector<uint8_t> once = serialize(value);
  T again{};
  FUZZ_CHECK(deserialize(once, nullptr, again));
  FUZZ_CHECK(serialize(again) == once);
}

template <typename... M>
void methods(std::vector<Reader>& out, std::tuple<M...>*) {
  (out.push_back(&roundTrip<typename M::Input>), ...);
  (out.push_back(&roundTrip<typename M::Output>), ...);
}
template <typename... E>
void events(std::vector<Reader>& out, std::tuple<E...>*) {
  (out.push_back(&roundTrip<typename E::Sample>), ...);
}
template <typename... F>
void fields(std::vector<Reader>& out, std::tuple<F...>*) {
  (out.push_back(&roundTrip<typename F::Value>), ...);
}
template <typename Tuple>
constexpr Tuple* all = nullptr;

const std::vector<Reader>& readers() {
  static const std::vector<Reader> list = [] {
    std::vector<Reader> out;
    methods(out, all<lum11::methods::All>);
    events(out, all<lum11::events::All>);
    methods(out, all<lum12::methods::All>);
    fields(out, all<lum12::fields::All>);
    methods(out, all<viroutine::methods::All>);
    events(out, all<viroutine::events::All>);
    methods(out, all<vimeasurement::methods::All>);
    events(out, all<vimeasurement::events::All>);
    return out;
  }();
  return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  if (size == 0)
    return 0;
  const std::vector<Reader>& list = readers();
  list[data[0] % list.size()](std::vector<uint8_t>(data + 1, data + size));
  return 0;
}

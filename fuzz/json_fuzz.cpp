// JSON load and dump. Property: a dumped document loads back to the same dump, for every
// document whose dump the format can read back: not for negative integers (printed as unsigned)
// nor for keys holding a quote or a backslash (keys are written without escaping).
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "minfw/json.h"

namespace {

using kel::vxp3::minfw::json::JSON;

bool readsBack(const JSON& value) {
  switch (value.JSONType()) {
    case JSON::Class::Integral:
      return value.ToInt() >= 0;
    case JSON::Class::Array:
      for (const JSON& item : value.ArrayRange())
        if (!readsBack(item))
          return false;
      return true;
    case JSON::Class::Object:
      for (const auto& [key, member] : value.ObjectRange())
        if (key.find_first_of("\"\\") != std::string::npos || !readsBack(member))
          return false;
      return true;
    default:
      return true;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  const JSON value = JSON::Load(std::string(reinterpret_cast<const char*>(data), size));
  const std::string dumped = value.dump();
  if (readsBack(value))
    FUZZ_CHECK(JSON::Load(dumped).dump() == dumped);
  return 0;
}

// The update-medium description (NodboxUpdateMedium.json) as it arrives over HTTP.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "logic/update_medium.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  orv::UpdateMedium medium;
  const bool ok = medium.ParseText(std::string(reinterpret_cast<const char*>(data), size),
                                   "http://127.0.0.1:29214/medium/NodboxUpdateMedium.json");
  if (ok) {
    FUZZ_CHECK(!medium.updateManifests().empty());
    FUZZ_CHECK(medium.diagAddresses().size() > 0);
    FUZZ_CHECK(medium.updateBaseUrl() == "http://127.0.0.1:29214/medium");
  }
  return 0;
}

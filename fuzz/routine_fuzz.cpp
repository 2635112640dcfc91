// The parameter bytes of a routine request from the workshop tester. Property: a parameter of
// the right size leaves an update order without a zero byte or a trailing "0".
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "interfaces/diagnosis/nodbox/diagnosis_vi_routine_client.h"

namespace {

// Answers without a tester.
class Routine final : public orv::DiagnosisViRoutineClient {
 public:
  bool responseUpdateState(uint32_t, RoutineState) override { return true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  static Routine client;
  const bool rightSize = size == Routine::kParameterSize;
  client.routineRequest(
      {Routine::DIAGNOSTIC_VI_ROUTINE_HANDLE, std::vector<uint8_t>(data, data + size)});
  if (rightSize) {
    const std::string order = client.updateOrder();
    FUZZ_CHECK(order.find('\0') == std::string::npos);
    FUZZ_CHECK(order.empty() ? client.overrideFlag() : order.back() != '0');
  }
  return 0;
}

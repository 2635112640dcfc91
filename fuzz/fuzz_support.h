#pragma once
// What every harness shares. Records are composed at every level, since formatting hostile text
// is part of what is fuzzed, and then dropped, so that runs stay fast and quiet. FUZZ_CHECK
// aborts on a broken property, which libFuzzer and the replay programs report as a crash.
//
// Threading: quietLogs() is safe from any thread (a function-local static).

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "minfw/log.h"

namespace orv::fuzz {

class DiscardSink final : public kel::vxp3::minfw::Sink {
 public:
  void write(const std::string&, const std::string&, const std::string&, const std::string&,
             const std::string&, uint8_t) override {}
};

inline void quietLogs() {
  static const bool done = [] {
    auto& logger = kel::vxp3::minfw::Logger::instance();
    logger.setMinLevel(kel::vxp3::minfw::kTrace);
    logger.install<DiscardSink>();
    return true;
  }();
  (void)done;
}

}  // namespace orv::fuzz

#define FUZZ_CHECK(condition)                                                               \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (0)

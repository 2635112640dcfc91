#include "platform/framework/framework.h"

#include <gtest/gtest.h>

#include <string>

namespace platform::framework {
namespace {

TEST(FrameworkTest, InitialisationOrderResults) {
  struct Row {
    const char* proves;
    const char* steps;    // R: initializeRuntime, F: initializeFramework
    const char* results;  // per step "ok" or the error text, joined by "|"
  };
  const Row rows[] = {
      {"runtime then framework: both succeed", "RF", "ok|ok"},
      {"a second runtime initialisation is refused", "RR", "ok|ara already initialized "},
      {"the framework first reports the missing runtime, the runtime then the wrong order", "FR",
       "ara not yet initialized |kelfw initialized before ara"},
      {"a second framework initialisation is refused", "RFF", "ok|ok|kelfw already initialized "},
      {"after the wrong order the runtime counts as initialised", "FRR",
       "ara not yet initialized |kelfw initialized before ara|ara already initialized "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    resetForTesting();
    std::string results;
    for (const char* step = row.steps; *step != '\0'; ++step) {
      const Result r = *step == 'R' ? initializeRuntime() : initializeFramework("orvane");
      EXPECT_EQ(r.ok, r.error.empty());
      results += (results.empty() ? "" : "|") + (r.ok ? std::string("ok") : r.error);
    }
    EXPECT_EQ(results, row.results);
  }
  EXPECT_EQ(processName(), "orvane");
  resetForTesting();
}

}  // namespace
}  // namespace platform::framework

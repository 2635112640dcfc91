#include "platform/framework/framework.h"

#include <gtest/gtest.h>

#include <vector>

namespace platform::framework {
namespace {

enum class Step { kRuntime, kFramework };

struct Expected {
  bool ok;
  const char* error;
};

struct Row {
  const char* proves;
  std::vector<Step> steps;
  std::vector<Expected> results;
};

TEST(FrameworkTest, InitialisationOrderResults) {
  const Row rows[] = {
      {"runtime then framework: both succeed",
       {Step::kRuntime, Step::kFramework},
       {{true, ""}, {true, ""}}},
      {"a second runtime initialisation is refused",
       {Step::kRuntime, Step::kRuntime},
       {{true, ""}, {false, "ara already initialized "}}},
      {"the framework first reports the missing runtime, the runtime then the wrong order",
       {Step::kFramework, Step::kRuntime},
       {{false, "ara not yet initialized "}, {false, "kelfw initialized before ara"}}},
      {"a second framework initialisation is refused",
       {Step::kRuntime, Step::kFramework, Step::kFramework},
       {{true, ""}, {true, ""}, {false, "kelfw already initialized "}}},
      {"after the wrong order the runtime counts as initialised",
       {Step::kFramework, Step::kRuntime, Step::kRuntime},
       {{false, "ara not yet initialized "},
        {false, "kelfw initialized before ara"},
        {false, "ara already initialized "}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    resetForTesting();
    for (std::size_t i = 0; i < row.steps.size(); ++i) {
      const Result r =
          row.steps[i] == Step::kRuntime ? initializeRuntime() : initializeFramework("orvane");
      EXPECT_EQ(r.ok, row.results[i].ok) << "step " << i;
      EXPECT_EQ(r.error, row.results[i].error) << "step " << i;
    }
  }
  EXPECT_EQ(processName(), "orvane");
  resetForTesting();
}

}  // namespace
}  // namespace platform::framework

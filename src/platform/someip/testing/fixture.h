#pragma once
// Helpers shared by the binding's socket tests: the test host configuration on disk and a queue
// of discovery reports.
//
// Threading: ReportQueue is thread-safe (its mutex guards its reports).

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "minfw/testing/inbox.h"
#include "minfw/testing/temp_dir.h"
#include "platform/middleware/binding.h"
#include "platform/someip/config.h"

namespace platform::someip::testing {

// Upper bound for anything the tests wait for; only a hang guard, never a speed check.
constexpr std::chrono::seconds kPatience{20};

using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::TempDir;

// Writes the test configuration into `dir` and loads it; fails the calling test when it cannot.
HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut = nullptr);

// Discovery reports, in order.
class ReportQueue {
 public:
  middleware::FindServiceHandler handler();
  // Skips reports until one satisfies `pred`; nothing when none comes within kPatience.
  std::optional<middleware::ServiceHandleContainer> until(
      const std::function<bool(const middleware::ServiceHandleContainer&)>& pred);

 private:
  std::mutex mutex_;  // guards reports_
  std::condition_variable cv_;
  std::deque<middleware::ServiceHandleContainer> reports_;
};

}  // namespace platform::someip::testing

#pragma once
// Helpers shared by the binding's socket tests: the test host configuration on disk, a queue of
// discovery reports, and two runtimes in one process (one namespace): "server" offering
// TestService and "client" with a proxy of it; each test sets the server's handlers.
//
// Threading: ReportQueue is thread-safe (its mutex guards its reports); a RuntimePair is owned
// by the test thread, the objects it holds are thread-safe.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "minfw/testing/inbox.h"
#include "minfw/testing/temp_dir.h"
#include "platform/middleware/binding.h"
#include "platform/middleware/proxy.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

// Upper bound for anything the tests wait for; only a hang guard, never a speed check.
constexpr std::chrono::seconds kPatience{20};

using kel::vxp3::minfw::testing::Inbox;
using kel::vxp3::minfw::testing::TempDir;

// Writes `json` (the test configuration unless given) into `dir` and loads it; fails the calling
// test when it cannot.
HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut = nullptr,
                          const std::string& json = testConfigJson());

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

// A proxy of TestService instance 1 in `client`, once the find that feeds `reports` has found it
// and it is reachable; null (with a test failure) otherwise.
std::unique_ptr<middleware::Proxy> proxyOnceFound(Runtime& client, ReportQueue& reports);

struct RuntimePair {
  // Destroyed in reverse order: the runtimes before the queue their threads report to.
  TempDir dir;
  HostConfig config;
  ReportQueue reports;
  std::unique_ptr<Runtime> server;
  std::unique_ptr<Runtime> client;
  std::unique_ptr<middleware::Skeleton> skeleton;
  std::unique_ptr<middleware::Proxy> proxy;
  // Starts both runtimes and makes the skeleton; false (with a test failure) when one is missing.
  bool start();
  // Starts looking for the service, runs `beforeOffer`, offers it, and makes the proxy once
  // it is found.
  bool connect(const std::function<void()>& beforeOffer = nullptr);
};

}  // namespace platform::someip::testing

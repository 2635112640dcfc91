#include "platform/someip/testing/fixture.h"

#include <gtest/gtest.h>

#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut) {
  HostConfig config;
  const std::string path = dir.file("host.json");
  kel::vxp3::minfw::testing::writeFile(path, testConfigJson());
  std::string error;
  EXPECT_TRUE(loadHostConfig(path, {testInterfaceIds()}, config, error)) << error;
  if (pathOut)
    *pathOut = path;
  return config;
}

middleware::FindServiceHandler ReportQueue::handler() {
  return [this](middleware::ServiceHandleContainer handles, middleware::FindServiceHandle) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      reports_.push_back(std::move(handles));
    }
    cv_.notify_all();
  };
}

std::optional<middleware::ServiceHandleContainer> ReportQueue::until(
    const std::function<bool(const middleware::ServiceHandleContainer&)>& pred) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (!cv_.wait_for(lock, kPatience, [this] { return !reports_.empty(); }))
      return std::nullopt;
    auto r = std::move(reports_.front());
    reports_.pop_front();
    if (pred(r))
      return r;
  }
}

}  // namespace platform::someip::testing

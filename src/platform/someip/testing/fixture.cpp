#include "platform/someip/testing/fixture.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

TempDir::TempDir() {
  char dir[] = "/tmp/someip-test-XXXXXX";
  if (mkdtemp(dir))
    path_ = dir;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty())
    std::filesystem::remove_all(path_, ignored);
}

HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut) {
  HostConfig config;
  std::string path = dir.path() + "/host.json";
  std::ofstream(path) << testConfigJson();
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

std::optional<middleware::ServiceHandleContainer> ReportQueue::next() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!cv_.wait_for(lock, kPatience, [this] { return !reports_.empty(); }))
    return std::nullopt;
  auto r = std::move(reports_.front());
  reports_.pop_front();
  return r;
}

std::optional<middleware::ServiceHandleContainer> ReportQueue::until(
    const std::function<bool(const middleware::ServiceHandleContainer&)>& pred) {
  for (;;) {
    auto r = next();
    if (!r || pred(*r))
      return r;
  }
}

void Signal::bump() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
  }
  cv_.notify_all();
}

bool Signal::waitFor(std::size_t n) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, kPatience, [&] { return count_ >= n; });
}

std::size_t Signal::count() {
  std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

}  // namespace platform::someip::testing

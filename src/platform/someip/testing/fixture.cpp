#include "platform/someip/testing/fixture.h"

#include <gtest/gtest.h>

#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

HostConfig loadTestConfig(const TempDir& dir, std::string* pathOut, const std::string& json) {
  HostConfig config;
  const std::string path = dir.file("host.json");
  kel::vxp3::minfw::testing::writeFile(path, json);
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

namespace mw = platform::middleware;

bool RuntimePair::start() {
  config = loadTestConfig(dir);
  std::string error;
  server = Runtime::start(config, "server", error);
  EXPECT_TRUE(server) << error;
  client = Runtime::start(config, "client", error);
  EXPECT_TRUE(client) << error;
  if (!server || !client)
    return false;
  auto s = mw::Skeleton::Create(kTestInterface, mw::InstanceSpecifier("1"), server.get());
  EXPECT_TRUE(s);
  if (!s)
    return false;
  skeleton = std::move(s).value();
  return true;
}

std::unique_ptr<mw::Proxy> proxyOnceFound(Runtime& client, ReportQueue& reports) {
  auto found = reports.until([](const mw::ServiceHandleContainer& c) { return !c.empty(); });
  EXPECT_TRUE(found) << "service not found";
  if (!found)
    return nullptr;
  EXPECT_TRUE(mw::Proxy::Preconstruct((*found)[0], &client).get());
  auto p = mw::Proxy::Create((*found)[0], &client);
  EXPECT_TRUE(p);
  return p ? std::move(p).value() : nullptr;
}

bool RuntimePair::connect(const std::function<void()>& beforeOffer) {
  auto find = mw::Proxy::StartFindService(reports.handler(), kTestInterface,
                                          mw::InstanceSpecifier("1"), client.get());
  EXPECT_TRUE(find);
  if (beforeOffer)
    beforeOffer();
  EXPECT_TRUE(skeleton->OfferService());
  proxy = proxyOnceFound(*client, reports);
  return proxy != nullptr;
}

}  // namespace platform::someip::testing

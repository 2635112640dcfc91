#include "platform/someip/testing/pair.h"

#include <gtest/gtest.h>

#include "platform/someip/testing/test_interface.h"

namespace platform::someip::testing {

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

bool RuntimePair::connect(const std::function<void()>& beforeOffer) {
  auto find = mw::Proxy::StartFindService(reports.handler(), kTestInterface,
                                          mw::InstanceSpecifier("1"), client.get());
  EXPECT_TRUE(find);
  if (beforeOffer)
    beforeOffer();
  EXPECT_TRUE(skeleton->OfferService());
  auto found = reports.until([](const mw::ServiceHandleContainer& c) { return !c.empty(); });
  EXPECT_TRUE(found) << "service not found";
  if (!found)
    return false;
  EXPECT_TRUE(mw::Proxy::Preconstruct((*found)[0], client.get()).get());
  auto p = mw::Proxy::Create((*found)[0], client.get());
  EXPECT_TRUE(p);
  if (!p)
    return false;
  proxy = std::move(p).value();
  return true;
}

}  // namespace platform::someip::testing

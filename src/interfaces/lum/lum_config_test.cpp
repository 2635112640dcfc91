// The host configuration gives both LUM interface versions the ids of their descriptions.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "interfaces/lum/lum_catalog.h"
#include "platform/someip/config.h"

namespace {

using platform::someip::HostConfig;
using platform::someip::InterfaceConfig;

TEST(LumHostConfig, BothVersionsCarryTheIdsOfTheirDescriptions) {
  HostConfig config;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(LUM_TEST_HOST_CONFIG, config, error)) << error;
  for (const auto& ids : orv::lum::interfaces()) {
    SCOPED_TRACE(ids.name);
    const InterfaceConfig* c = config.findInterface(ids.name);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->serviceId, ids.serviceId);
    EXPECT_EQ(c->majorVersion, ids.majorVersion);
    EXPECT_EQ(c->minorVersion, ids.minorVersion);
    std::map<std::string, uint16_t> methods;
    for (const auto& m : ids.methods)
      methods[m.name] = m.id;
    EXPECT_EQ(c->methods, methods);
    EXPECT_EQ(c->events.size(), ids.events.size());
    for (const auto& e : ids.events)
      EXPECT_EQ(c->events.at(e.name).id, e.id) << e.name;
    EXPECT_EQ(c->fields.size(), ids.fields.size());
    for (const auto& f : ids.fields)
      EXPECT_EQ(c->fields.at(f.name).getter, f.getter) << f.name;
  }
}

}  // namespace

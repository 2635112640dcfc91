// The host configuration names every method, event and field descriptor of both LUM interface
// versions, numbered in interface order, and nothing else; a descriptor added without its
// configuration entry (or the reverse) fails here rather than at run time.

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "interfaces/lum/lum_catalog.h"
#include "platform/someip/config.h"

namespace {

using orv::lum::MemberNames;
using platform::someip::HostConfig;
using platform::someip::InterfaceConfig;

constexpr uint16_t kFirstEventId = 0x8001;

// Every mismatch between an interface's configuration and its descriptors, one text each.
std::vector<std::string> problems(const InterfaceConfig& config, const MemberNames& names) {
  std::vector<std::string> out;
  std::set<uint16_t> methodIds;
  std::set<uint16_t> eventIds;
  auto unique = [&](std::set<uint16_t>& ids, uint16_t id, const std::string& what) {
    if (!ids.insert(id).second)
      out.push_back(what + ": id " + std::to_string(id) + " used twice");
  };

  for (std::size_t i = 0; i < names.methods.size(); ++i) {
    const auto it = config.methods.find(names.methods[i]);
    if (it == config.methods.end()) {
      out.push_back("method " + names.methods[i] + " missing");
      continue;
    }
    if (it->second != i + 1)
      out.push_back("method " + names.methods[i] + " has id " + std::to_string(it->second));
    unique(methodIds, it->second, "method " + names.methods[i]);
  }
  for (std::size_t i = 0; i < names.events.size(); ++i) {
    const auto it = config.events.find(names.events[i]);
    if (it == config.events.end()) {
      out.push_back("event " + names.events[i] + " missing");
      continue;
    }
    if (it->second.id != kFirstEventId + i)
      out.push_back("event " + names.events[i] + " has id " + std::to_string(it->second.id));
    if (it->second.eventgroup == 0)
      out.push_back("event " + names.events[i] + " has no eventgroup");
    unique(eventIds, it->second.id, "event " + names.events[i]);
  }
  for (std::size_t i = 0; i < names.fields.size(); ++i) {
    const auto it = config.fields.find(names.fields[i]);
    if (it == config.fields.end()) {
      out.push_back("field " + names.fields[i] + " missing");
      continue;
    }
    if (it->second.notifier != kFirstEventId + i)
      out.push_back("field " + names.fields[i] + " has notifier " +
                    std::to_string(it->second.notifier));
    if (it->second.eventgroup == 0)
      out.push_back("field " + names.fields[i] + " has no eventgroup");
    unique(eventIds, it->second.notifier, "field " + names.fields[i] + " notifier");
    unique(methodIds, it->second.getter, "field " + names.fields[i] + " getter");
  }

  const std::set<std::string> methods(names.methods.begin(), names.methods.end());
  const std::set<std::string> events(names.events.begin(), names.events.end());
  const std::set<std::string> fields(names.fields.begin(), names.fields.end());
  for (const auto& entry : config.methods)
    if (!methods.count(entry.first))
      out.push_back("method " + entry.first + " has no descriptor");
  for (const auto& entry : config.events)
    if (!events.count(entry.first))
      out.push_back("event " + entry.first + " has no descriptor");
  for (const auto& entry : config.fields)
    if (!fields.count(entry.first))
      out.push_back("field " + entry.first + " has no descriptor");
  return out;
}

class LumHostConfig : public ::testing::Test {
 protected:
  // The file of this source tree, whatever ORVANE_MIDDLEWARE_CONFIG says.
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(platform::someip::loadHostConfig(LUM_TEST_HOST_CONFIG, config_, error)) << error;
  }
  HostConfig config_;
};

TEST_F(LumHostConfig, BothVersionsAreConfiguredWithEveryDescriptorInOrder) {
  const InterfaceConfig* v11 = config_.findInterface(orv::lum::kInterfaceV11);
  const InterfaceConfig* v12 = config_.findInterface(orv::lum::kInterfaceV12);
  ASSERT_NE(v11, nullptr);
  ASSERT_NE(v12, nullptr);

  EXPECT_EQ(v11->server, "lum-sim");
  EXPECT_EQ(v11->majorVersion, 11);
  EXPECT_EQ(v11->minorVersion, 0u);
  EXPECT_EQ(v12->server, "orvane");
  EXPECT_EQ(v12->majorVersion, 12);
  EXPECT_EQ(v12->minorVersion, 0u);
  EXPECT_NE(v11->serviceId, v12->serviceId);
  EXPECT_EQ(config_.processes.count(v11->server), 1u);
  EXPECT_EQ(config_.processes.count(v12->server), 1u);

  const MemberNames names11 = orv::lum::v11MemberNames();
  const MemberNames names12 = orv::lum::v12MemberNames();
  EXPECT_EQ(names11.methods.size(), 18u);
  EXPECT_EQ(names11.events.size(), 7u);
  EXPECT_EQ(names12.methods.size(), 15u);
  EXPECT_EQ(names12.fields.size(), 5u);
  EXPECT_EQ(problems(*v11, names11), std::vector<std::string>{});
  EXPECT_EQ(problems(*v12, names12), std::vector<std::string>{});
}

// The check above would catch each of these faults.
TEST_F(LumHostConfig, MismatchesBetweenConfigurationAndDescriptorsAreFound) {
  const InterfaceConfig& v11 = *config_.findInterface(orv::lum::kInterfaceV11);
  const InterfaceConfig& v12 = *config_.findInterface(orv::lum::kInterfaceV12);
  struct Row {
    const char* proves;
    const InterfaceConfig& base;
    MemberNames names;
    std::function<void(InterfaceConfig&, MemberNames&)> breakIt;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"a descriptor without configuration", v11, orv::lum::v11MemberNames(),
       [](InterfaceConfig&, MemberNames& n) { n.methods.push_back("newOperation"); },
       "method newOperation missing"},
      {"a configured method without descriptor", v11, orv::lum::v11MemberNames(),
       [](InterfaceConfig& c, MemberNames&) { c.methods["oldOperation"] = 40; },
       "method oldOperation has no descriptor"},
      {"a method out of interface order", v11, orv::lum::v11MemberNames(),
       [](InterfaceConfig& c, MemberNames&) { c.methods["startDomainUpdate"] = 30; },
       "method startDomainUpdate has id 30"},
      {"an event without configuration", v11, orv::lum::v11MemberNames(),
       [](InterfaceConfig& c, MemberNames&) { c.events.erase("domainErrorNotification"); },
       "event domainErrorNotification missing"},
      {"a field whose getter reuses a method id", v12, orv::lum::v12MemberNames(),
       [](InterfaceConfig& c, MemberNames&) { c.fields["domainErrorNotification"].getter = 2; },
       "field domainErrorNotification getter: id 2 used twice"},
      {"a field without configuration", v12, orv::lum::v12MemberNames(),
       [](InterfaceConfig& c, MemberNames&) { c.fields.erase("domainUpdateSessionState"); },
       "field domainUpdateSessionState missing"},
  };
  for (const auto& row : rows) {
    InterfaceConfig config = row.base;
    MemberNames names = row.names;
    row.breakIt(config, names);
    EXPECT_EQ(problems(config, names), std::vector<std::string>{row.expected}) << row.proves;
  }
}

}  // namespace

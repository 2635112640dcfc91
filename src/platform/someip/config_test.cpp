#include "platform/someip/config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <tuple>
#include <vector>

#include "minfw/testing/temp_dir.h"

namespace platform::someip {
namespace {

using kel::vxp3::minfw::testing::readFile;
using middleware::InterfaceIds;

// The descriptions that the test file deploys, and one that it leaves out.
std::vector<InterfaceIds> known() {
  InterfaceIds sample{
      "Sample_v1", 0x1234, 11, 0, {{"start", 1}, {"stop", 2}}, {{"progress", 0x8001, 1}}, {}};
  sample.fields = {{"state", 32774, 40, std::nullopt, 2}, {"mode", 32775, 41, 42, 2}};
  return {sample,
          {"Other_v2", 4661, 2, 7, {{"ping", 1}}, {}, {}},
          {"Unused_v1", 4662, 1, 0, {}, {}, {}}};
}

constexpr const char* kValidFile = WIRE_TESTDATA_DIR "/host.json";

// The valid file with the first occurrence of `from` replaced by `to`.
std::string edited(const std::string& from, const std::string& to) {
  std::string text = readFile(kValidFile);
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos)
    text.replace(at, from.size(), to);
  return text;
}

TEST(HostConfig, ValidFileLoads) {
  HostConfig config;
  std::string error;
  ASSERT_TRUE(loadHostConfig(kValidFile, known(), config, error)) << error;
  const auto& sd = config.sd;
  EXPECT_EQ(
      std::tie(sd.multicast, sd.port, sd.initialDelayMinMs, sd.initialDelayMaxMs,
               sd.repetitionBaseDelayMs, sd.repetitionsMax, sd.cyclicOfferDelayMs, sd.ttlSeconds),
      std::make_tuple(0xE0F4E0F5u, 30490, 10u, 50u, 30u, 3u, 1000u, 3u));
  EXPECT_EQ(config.processes.at("lum-sim"), 0x7F000002u);
  EXPECT_EQ(config.processes.size(), 3u);
  const InterfaceConfig* sample = config.findInterface("Sample_v1");
  ASSERT_NE(sample, nullptr);
  EXPECT_EQ(std::tie(sample->name, sample->serviceId, sample->instanceId, sample->majorVersion,
                     sample->server, sample->tcpPort),
            std::make_tuple("Sample_v1", 0x1234, 1, 11, "lum-sim", 30501));
  const auto& progress = sample->events.at("progress");
  const auto &state = sample->fields.at("state"), &mode = sample->fields.at("mode");
  EXPECT_EQ(std::tie(sample->methods.at("stop"), progress.id, progress.eventgroup, state.getter,
                     mode.setter, mode.notifier),
            std::make_tuple(2, 0x8001, 1, 40, 42, 32775));
  EXPECT_FALSE(state.setter.has_value());
  const InterfaceConfig* other = config.findInterface("Other_v2");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->minorVersion, 7u);
  EXPECT_TRUE(other->events.empty());
  EXPECT_EQ(config.findInterface("Missing"), nullptr);
  EXPECT_EQ(config.findInterface("Unused_v1"), nullptr) << "described, but not deployed";
}

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(HostConfig, BadFilesNameFileAndKey) {
  struct Row {
    const char* proves;
    std::string text;
    const char* error;  // after "<path>: "
    std::vector<InterfaceIds> descriptions = known();
  };
  std::vector<InterfaceIds> sameService = known();
  sameService[1].serviceId = 0x1234;
  const Row rows[] = {
      {"syntax error with line and column", edited("\"port\": 30490,", "\"port\": 30490,,"),
       "line 4 column 19: expected a key in double quotes"},
      {"document is not an object", "[1, 2]", "(document): expected an object"},
      {"cut after a key", "{\"sd\":", "line 1 column 7: unexpected end of file"},
      {"missing section", "{\"processes\": {}, \"interfaces\": {}}", "sd: missing"},
      {"unknown top-level key", edited("\"sd\":", "\"extra\": 1, \"sd\":"), "extra: unknown key"},
      {"arrays nested 64 deep are read",
       edited("\"sd\":", "\"extra\": " + nested(64) + ", \"sd\":"), "extra: unknown key"},
      {"65 deep are not", edited("\"sd\":", "\"extra\": " + nested(65) + ", \"sd\":"),
       "line 2 column 76: nested deeper than 64"},
      {"port out of range", edited("30490", "70000"), "sd.port: expected an integer 1..65535"},
      {"port as text", edited("30490", "\"30490\""), "sd.port: expected an integer 1..65535"},
      {"negative port", edited("30490", "-1"), "sd.port: expected an integer 1..65535"},
      {"unknown key in sd", edited("\"port\":", "\"x\": 1, \"port\":"), "sd.x: unknown key"},
      {"multicast outside 224/4", edited("224.244.224.245", "10.0.0.1"),
       "sd.multicast: expected an IPv4 address in 224.0.0.0/4"},
      {"initial delay min above max",
       edited("\"initialDelayMinMs\": 10", "\"initialDelayMinMs\": 60"),
       "sd.initialDelayMinMs: must not exceed sd.initialDelayMaxMs"},
      {"ttl of 0 would withdraw every offer", edited("\"ttlSeconds\": 3", "\"ttlSeconds\": 0"),
       "sd.ttlSeconds: expected an integer 1..16777215"},
      {"unicast outside loopback", edited("127.0.0.2", "192.168.1.2"),
       "processes.lum-sim.unicast: expected an IPv4 address in 127.0.0.0/8"},
      {"two processes on one address", edited("127.0.0.3", "127.0.0.1"),
       "processes.orvane.unicast: 127.0.0.1 is already the address of processes.diag-tester"},
      {"server names no process", edited("\"server\": \"lum-sim\"", "\"server\": \"lum\""),
       "interfaces.Sample_v1.server: expected the name of a process in processes"},
      {"instance id 0", edited("\"instanceId\": 1,", "\"instanceId\": 0,"),
       "interfaces.Sample_v1.instanceId: expected an integer 1..65534"},
      {"ids belong to the description, not to the file",
       edited("\"instanceId\": 1,", "\"serviceId\": 4660, \"instanceId\": 1,"),
       "interfaces.Sample_v1.serviceId: unknown key"},
      {"missing port", edited(",\n      \"tcpPort\": 30501", ""),
       "interfaces.Sample_v1.tcpPort: missing"},
      {"an entry without description",
       readFile(kValidFile),
       "interfaces.Other_v2: no interface of that name is described (known: Sample_v1)",
       {known()[0]}},
      {"one service instance twice", readFile(kValidFile),
       "interfaces.Sample_v1.instanceId: service 4660 instance 1 is already used by "
       "interfaces.Other_v2",
       sameService},
  };
  kel::vxp3::minfw::testing::TempDir dir;
  const std::string path = dir.file("host.json");
  for (const Row& row : rows) {
    kel::vxp3::minfw::testing::writeFile(path, row.text);
    HostConfig config;
    config.processes["untouched"] = 1;
    std::string error;
    EXPECT_FALSE(loadHostConfig(path, row.descriptions, config, error)) << row.proves;
    EXPECT_EQ(error, path + ": " + row.error) << row.proves;
    EXPECT_EQ(config.processes.count("untouched"), 1u) << row.proves << ": out was changed";
  }
  HostConfig config;
  std::string error;
  EXPECT_FALSE(loadHostConfig("/nonexistent/host.json", known(), config, error));
  EXPECT_EQ(error, "/nonexistent/host.json: cannot open the file");
}

TEST(HostConfig, EnvironmentOverridesThePath) {
  ::unsetenv("ORVANE_MIDDLEWARE_CONFIG");
  const std::string fallback = hostConfigPath();
  EXPECT_NE(fallback.find("config/host.json"), std::string::npos);
  ::setenv("ORVANE_MIDDLEWARE_CONFIG", "/tmp/other.json", 1);
  EXPECT_EQ(hostConfigPath(), "/tmp/other.json");
  ::setenv("ORVANE_MIDDLEWARE_CONFIG", "", 1);
  EXPECT_EQ(hostConfigPath(), fallback);
  ::unsetenv("ORVANE_MIDDLEWARE_CONFIG");
}

TEST(HostConfig, Ipv4Parsing) {
  const std::pair<const char*, std::optional<uint32_t>> rows[] = {
      {"127.0.0.1", 0x7F000001},
      {"255.255.255.255", 0xFFFFFFFF},
      {"0.0.0.0", 0},
      {"127.0.0", {}},
      {"127.0.0.1.", {}},
      {"127.0.0.01", {}},  // leading zero: octal elsewhere
      {"127.0.0.1000", {}},
      {"127x0.0.1", {}},
      {"1.2.3.-4", {}},
      {"", {}},
      {" 127.0.0.1", {}},
  };
  for (const auto& [text, expected] : rows) {
    uint32_t value = 0;
    EXPECT_EQ(parseIpv4(text, value), expected.has_value()) << text;
    if (expected) {
      EXPECT_EQ(value, *expected) << text;
    }
  }
}

}  // namespace
}  // namespace platform::someip

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "logic/key_manifest.h"
#include "minfw/json.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/temp_dir.h"
#include "process.h"

namespace {

using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

struct ToolRun {
  int status = -1;  // exit status, 128 + signal; -1 if the tool did not end
  std::string out;
  std::string err;
};

ToolRun runTool(const std::vector<std::string>& args) {
  orvane::testing::ChildProcess tool;
  if (!tool.start(ORVANE_MEDIUM_PATH, args))
    return {};
  const int status = tool.wait(std::chrono::seconds(60)).value_or(-1);
  return {status, tool.output(), tool.errorOutput()};
}

bool isHex(const std::string& text) {
  return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

class OrvaneMediumTest : public ::testing::Test {
 protected:
  std::string medium() const { return dir_.file("medium"); }
  JSON description() const { return JSON::Load(readFile(medium() + "/NodboxUpdateMedium.json")); }
  // The payload of the medium's key manifest; Null if it does not extract.
  JSON keyManifestPayload(const std::string& name) const {
    ScopedLogCapture quiet;
    std::string raw = readFile(medium() + "/" + name);
    orv::KeyManifest manifest;
    return manifest.Extract(raw) ? manifest.payload() : JSON();
  }
  TempDir dir_;
};

TEST_F(OrvaneMediumTest, WritesAFolderThatParses) {
  writeFile(dir_.file("source.bin"), std::string("update\0manifest\xff", 16));
  const ToolRun run =
      runTool({"--out", medium(), "--train", "T-2026", "--order", "ORD1", "--manifest",
               "a.bin=" + dir_.file("source.bin"), "--manifest", "b.json", "--diag-address", "10",
               "--diag-address", "0x1234", "--diag-address", "65535"});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const char* name : {"NodboxUpdateMedium.json", "KeyManifest.mose", "a.bin", "b.json"})
    EXPECT_NE(run.out.find(name), std::string::npos) << run.out;
  const char* expected = R"({"train":"T-2026","order":"ORD1","keyManifest":"KeyManifest.mose",)"
                         R"("manifests":["a.bin","b.json"],"diagAddresses":["10","4660","65535"]})";
  EXPECT_EQ(description().dump(), JSON::Load(expected).dump());
  // A source is copied byte for byte; a name alone gets a placeholder naming train and file.
  EXPECT_EQ(readFile(medium() + "/a.bin"), std::string("update\0manifest\xff", 16));
  EXPECT_EQ(JSON::Load(readFile(medium() + "/b.json")).dump(),
            JSON::Load(R"({"file":"b.json","train":"T-2026"})").dump());
  const JSON payload = keyManifestPayload("KeyManifest.mose");
  const JSON* files = payload.find("EncryptedFiles");
  ASSERT_NE(files, nullptr);
  ASSERT_EQ(files->size(), 2u);
  EXPECT_EQ(files->ArrayRange()[0].find("File")->ToString(), "/a.bin");
  EXPECT_EQ(files->ArrayRange()[1].find("File")->ToString(), "/b.json");
  for (const JSON& entry : files->ArrayRange()) {
    const JSON* parameters = entry.find("CryptoParameters");
    ASSERT_NE(parameters, nullptr);
    ASSERT_EQ(parameters->size(), 3u);
    const std::string key = parameters->ArrayRange()[0].find("Value")->ToString();
    const std::string iv = parameters->ArrayRange()[1].find("Value")->ToString();
    EXPECT_TRUE(key.size() == 64 && isHex(key)) << key;
    EXPECT_TRUE(iv.size() == 24 && isHex(iv)) << iv;
    EXPECT_EQ(parameters->ArrayRange()[2].find("Value")->ToString(), "AES-256-GCM");
  }
}

TEST_F(OrvaneMediumTest, BadArgumentsExitTwoAndWriteNothing) {
  writeFile(dir_.file("array.json"), "[1,2]");
  const std::vector<std::string> base{"--out", medium(), "--train", "T"};
  const std::vector<std::string> ok{"--manifest", "m", "--diag-address", "1"};
  auto with = [&](std::vector<std::string> extra, bool addOk = true) {
    std::vector<std::string> args = base;
    if (addOk)
      args.insert(args.end(), ok.begin(), ok.end());
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  };
  struct Row {
    const char* why;
    std::vector<std::string> args;
    std::string message;
  };
  const Row rows[] = {
      {"nothing given", {}, "--out DIR is required"},
      {"no train", {"--out", medium(), "--manifest", "m", "--diag-address", "1"}, "--train"},
      {"no manifest", with({"--diag-address", "1"}, false), "at least one --manifest"},
      {"no address", with({"--manifest", "m"}, false), "at least one --diag-address"},
      {"address above 16 bits", with({"--diag-address", "65536"}), "[65536]"},
      {"trailing blank", with({"--diag-address", "1 "}), "[1 ]"},
      {"unknown option", with({"--colour", "red"}), "unknown argument --colour"},
      {"value missing", with({"--order"}), "missing value after --order"},
      {"manifest outside the folder", with({"--manifest", "../x"}), "plain file name"},
      {"manifest twice", with({"--manifest", "m"}), "names a file twice"},
      {"manifest over the description", with({"--manifest", "NodboxUpdateMedium.json"}),
       "names a file twice"},
      {"payload without key manifest",
       with({"--no-key-manifest", "--payload", dir_.file("array.json")}), "exclude each other"},
      {"source missing", with({"--manifest", "x=" + dir_.file("none")}), "cannot read manifest"},
      {"payload not an object", with({"--payload", dir_.file("array.json")}),
       "does not hold a JSON object"},
  };
  for (const Row& row : rows) {
    const ToolRun run = runTool(row.args);
    EXPECT_EQ(run.status, 2) << row.why;
    EXPECT_NE(run.err.find(row.message), std::string::npos) << row.why << ": " << run.err;
    EXPECT_FALSE(std::filesystem::exists(medium())) << row.why;
  }
}

}  // namespace

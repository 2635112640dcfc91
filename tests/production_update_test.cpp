// Whole updates of the production build with real processes (orvane, lum-sim, medium server,
// the workshop-laptop start): the key manifest decides. A sound one updates; a tampered one and
// a DEBUG one end in the failure path with 613 and control released.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "update_run.h"

namespace orvane::testing {
namespace {

const std::string kVectors = ORVANE_SOURCE_KEYS;

// The first jwcrypto vector (RSA-OAEP-256, A256GCM) with the tag's first byte changed when
// `tamper`.
std::string rsaManifest(bool tamper) {
  const JSON vectors = JSON::Load(readFile(kVectors + "/vectors.json"));
  std::string text = vectors.ArrayRange()[0].find("compact")->ToString();
  if (tamper) {
    char& first = text[text.rfind('.') + 1];
    first = first == 'A' ? 'B' : 'A';
  }
  return text;
}

TEST(ProductionUpdateTest, ThreadedKeyManifestDecidesTheUpdate) {
  TempDir keys;
  const std::string key = keys.path() + "/enc-rsa.pem";
  std::filesystem::copy_file(kVectors + "/store/enc-rsa.pem", key);
  ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
  struct Row {
    const char* proves;
    std::string manifest;  // empty: UpdateRun's DEBUG manifest
    int64_t errorCode;
    const char* logged;
  };
  const Row rows[] = {
      {"a sound manifest updates", rsaManifest(false), 0, "Payload decrypted ok!"},
      {"a tampered tag", rsaManifest(true), 613, "Authentication tag check failed"},
      {"DEBUG", "", 613, "DEBUG key manifests are refused by the production build!"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    UpdateRun run(R"({"sessions": [{"analyseMs": 300, "downloadMs": 500, "installMs": 500}]})");
    if (!row.manifest.empty())
      writeFile(run.mediumDir() + "/KeyManifest.mose", row.manifest);
    run.startOrvane({{"ORVANE_KEY_DIR", keys.path()}});
    run.handOver();
    const JSON record = run.waitForRest();
    EXPECT_EQ(member(record, "errorcode"), row.errorCode);
    EXPECT_EQ(member(record, "channel"), 2);
    EXPECT_NE(run.orvane().output().find(row.logged), std::string::npos) << run.orvane().output();
    if (row.errorCode != 0) {
      EXPECT_NE(run.orvane().output().find("Error decrypting keyManifest from ["),
                std::string::npos);
    }
  }
}

}  // namespace
}  // namespace orvane::testing

#include "logic/key_manifest.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "logic/base64.h"
#include "logic/mose.h"
#include "minfw/testing/capture_sink.h"

namespace orv {
namespace {

using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::LogRecord;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using Bytes = std::vector<unsigned char>;

const std::string kPayload =
    R"({"EncryptedFiles":[{"File":"/a.json","CryptoParameters":[{"Value":"k"},{"Value":"i"},)"
    R"({"Value":"AES-256-GCM"}]}]})";

Bytes bytesOf(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

// A 5-part container: header and cipher text as given, the other parts fixed.
std::string container(const std::string& header, const std::string& cipherText) {
  return base64UrlEncode(header) + "." + base64UrlEncode(std::string("key")) + "." +
         base64UrlEncode(std::string("iv")) + "." + base64UrlEncode(cipherText) + "." +
         base64UrlEncode(std::string("tag"));
}

// n parts of "QQ" ("A") joined by dots.
std::string parts(std::size_t n) {
  std::string text = "QQ";
  for (std::size_t i = 1; i < n; ++i)
    text += ".QQ";
  return text;
}

// True when `expected` occur in `messages` in this order, each as a prefix of a record.
bool inOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected) {
  std::size_t next = 0;
  for (const std::string& message : messages) {
    if (next < expected.size() && message.rfind(expected[next], 0) == 0)
      ++next;
  }
  return next == expected.size();
}

TEST(MoseTest, PartCountDecidesBothLayouts) {
  for (std::size_t n = 1; n <= 7; ++n) {
    ScopedLogCapture log;
    std::string input = parts(n);
    std::string header;
    Bytes a, b, c, d;
    EXPECT_EQ(Mose::ExtractEncrypted(input, header, a, b, c, d), n == 5) << n;
    EXPECT_EQ(Mose::ExtractSigned(input, header, a, b), n == 3) << n;
    // Each layout refuses every other count with its own expected count, and the signed
    // layout's record carries the encrypted layout's function name.
    for (const char* expected : {"5", "3"}) {
      const std::string text = "Not a valid MOSE container: nr elements [" + std::to_string(n) +
                               "], expected " + expected + "!";
      LogRecord record;
      const bool refused = std::to_string(n) != expected;
      ASSERT_EQ(log->find(text, &record), refused) << text;
      if (refused) {
        EXPECT_EQ(record.level, 4);
        EXPECT_EQ(record.tag, "GLOBAL");
        EXPECT_NE(record.location.find("::ExtractEncrypted("), std::string::npos)
            << record.location;
      }
    }
  }
}

TEST(MoseTest, SignedPartsDecodeAndUndecodablePartsComeBackEmpty) {
  std::string sign = base64UrlEncode(std::string("h")) + "..!!";
  std::string header;
  Bytes payload{1}, signature{2};
  ASSERT_TRUE(Mose::ExtractSigned(sign, header, payload, signature));
  EXPECT_EQ(header, "h");
  EXPECT_TRUE(payload.empty());
  EXPECT_TRUE(signature.empty());
}

TEST(KeyManifestTest, ExtractOutcomes) {
  const std::string debugHeader = R"({"alg":"DEBUG","enc":"A256GCM"})";
  struct Row {
    const char* why;
    std::string raw;
    bool ok;
    std::vector<std::string> logs;  // in this order, each a prefix of a record
  };
  const Row rows[] = {
      {"empty text", "", false, {"RawData is empty!"}},
      {"six parts",
       container(debugHeader, kPayload) + ".QQ",
       false,
       {"Not a valid MOSE container: nr elements [6], expected 5!",
        "Error extracting MOSE contents!"}},
      {"header not JSON", container("not json", kPayload), false, {"Error reading json header!"}},
      {"header an array", container("[1]", kPayload), false, {"Error reading json header!"}},
      {"header part undecodable",
       "!!" + container(debugHeader, kPayload),
       false,
       {"Error reading json header!"}},
      {"no alg",
       container(R"({"enc":"x"})", kPayload),
       false,
       {"Json header mandatory field \"alg\" not found!"}},
      {"alg not a string",
       container(R"({"alg":1,"enc":"x"})", kPayload),
       false,
       {"Json header mandatory field \"alg\" not found!"}},
      {"no enc",
       container(R"({"alg":"DEBUG"})", kPayload),
       false,
       {"Json header mandatory field \"enc\" not found!"}},
      {"not DEBUG",
       container(R"({"alg":"RSA-OAEP","enc":"A256GCM"})", kPayload),
       false,
       {"alg_cek: [RSA-OAEP], alg_enc: [A256GCM]", "SIMU BUILD cannot decrypt!",
        "Error decrypting MOSE payload:"}},
      {"algorithm name is case sensitive",
       container(R"({"alg":"debug","enc":"x"})", kPayload),
       false,
       {"SIMU BUILD cannot decrypt!", "Error decrypting MOSE payload:"}},
      {"payload not JSON",
       container(debugHeader, "plain text"),
       false,
       {"Payload decrypted ok!", "Error reading json MOSE payload!"}},
      {"payload an array",
       container(debugHeader, "[]"),
       false,
       {"Error reading json MOSE payload!"}},
      {"good",
       container(debugHeader, kPayload),
       true,
       {"Header: [" + debugHeader + "]", "DEBUG, returning input as output!",
        "Payload decrypted ok!"}},
      {"good with padded parts",
       base64Encode(debugHeader) + ".QQ==." + base64Encode(kPayload) + "." +
           base64Encode(kPayload) + ".QQ=",
       true,
       {"Payload decrypted ok!"}},
      {"good with unused parts corrupt",
       base64UrlEncode(debugHeader) + ".!!.!." + base64UrlEncode(kPayload) + ".=",
       true,
       {"Payload decrypted ok!"}},
  };
  for (const Row& row : rows) {
    ScopedLogCapture log;
    std::string raw = row.raw;
    KeyManifest manifest;
    EXPECT_EQ(manifest.Extract(raw), row.ok) << row.why;
    EXPECT_TRUE(inOrder(log->messages(), row.logs)) << row.why;
    if (!row.ok) {
      // The failure is one error record, and the payload is never half-filled.
      LogRecord last = log->records().back();
      EXPECT_EQ(last.level, 4) << row.why;
      EXPECT_EQ(last.tag, "GLOBAL") << row.why;
      EXPECT_EQ(last.message.rfind(row.logs.back(), 0), 0u) << row.why;
    }
    if (std::string(row.why) == "no enc") {
      EXPECT_FALSE(log->contains("\"alg\" not found")) << row.why;
    }
  }
}

TEST(KeyManifestTest, DebugManifestGivesItsCipherTextAsPayload) {
  std::string raw = container(R"({"alg":"DEBUG","enc":"whatever"})", kPayload);
  KeyManifest manifest;
  ASSERT_TRUE(manifest.Extract(raw));
  EXPECT_EQ(manifest.rawData(), raw);
  EXPECT_EQ(manifest.header().find("enc")->ToString(), "whatever");
  EXPECT_EQ(manifest.payloadText(), kPayload);
  EXPECT_EQ(manifest.encryptedKey(), bytesOf("key"));
  EXPECT_EQ(manifest.iv(), bytesOf("iv"));
  EXPECT_EQ(manifest.tag(), bytesOf("tag"));
  // The parsed payload is the cipher text's JSON.
  EXPECT_EQ(manifest.payload().find("EncryptedFiles")->ArrayRange()[0].find("File")->ToString(),
            "/a.json");

  // A later failing extract leaves nothing of the earlier payload behind.
  std::string bad = container(R"({"alg":"RSA","enc":"x"})", kPayload);
  ScopedLogCapture log;
  EXPECT_FALSE(manifest.Extract(bad));
  EXPECT_TRUE(manifest.payloadText().empty());
  EXPECT_TRUE(manifest.payload().IsNull());
}

}  // namespace
}  // namespace orv

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

// True when the '|'-separated `expected` begin records of `messages`, in this order.
bool inOrder(const std::vector<std::string>& messages, const std::string& expected) {
  std::size_t from = 0;
  for (const std::string& message : messages) {
    const std::string next = expected.substr(from, expected.find('|', from) - from);
    if (message.rfind(next, 0) == 0 && (from += next.size() + 1) > expected.size())
      return true;
  }
  return false;
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
  const std::string debug = R"({"alg":"DEBUG","enc":"A256GCM"})";
  const auto head = [](const std::string& header) { return container(header, kPayload); };
  const char* kNoHeader = "Error reading json header!";
  const char* kNoPayload = "Error reading json MOSE payload!";
  struct Row {
    const char* why;
    std::string raw;
    bool ok;
    std::string logs;  // '|'-separated, in this order, each a prefix of a record
  };
  const Row rows[] = {
      {"empty text", "", false, "RawData is empty!"},
      {"six parts", head(debug) + ".QQ", false,
       "Not a valid MOSE container: nr elements [6], expected 5!|Error extracting MOSE contents!"},
      {"header not JSON", head("not json"), false, kNoHeader},
      {"header an array", head("[1]"), false, kNoHeader},
      {"header part undecodable", "!!" + head(debug), false, kNoHeader},
      {"no alg", head(R"({"enc":"x"})"), false, "Json header mandatory field \"alg\" not found!"},
      {"alg not a string", head(R"({"alg":1,"enc":"x"})"), false,
       "Json header mandatory field \"alg\" not found!"},
      {"no enc", head(R"({"alg":"DEBUG"})"), false,
       "Json header mandatory field \"enc\" not found!"},
      {"not DEBUG", head(R"({"alg":"RSA-OAEP","enc":"A256GCM"})"), false,
       "alg_cek: [RSA-OAEP], alg_enc: [A256GCM]|SIMU BUILD cannot decrypt!|Error decrypting MOSE "
       "payload:"},
      {"algorithm name is case sensitive", head(R"({"alg":"debug","enc":"x"})"), false,
       "SIMU BUILD cannot decrypt!|Error decrypting MOSE payload:"},
      {"payload not JSON", container(debug, "plain text"), false,
       std::string("Payload decrypted ok!|") + kNoPayload},
      {"payload an array", container(debug, "[]"), false, kNoPayload},
      {"good", head(debug), true,
       "Header: [" + debug + "]|DEBUG, returning input as output!|Payload decrypted ok!"},
      {"good with padded parts",
       base64Encode(debug) + ".QQ==." + base64Encode(kPayload) + "." + base64Encode(kPayload) +
           ".QQ=",
       true, "Payload decrypted ok!"},
      {"good with unused parts corrupt",
       base64UrlEncode(debug) + ".!!.!." + base64UrlEncode(kPayload) + ".=", true,
       "Payload decrypted ok!"}};
  for (const Row& row : rows) {
    ScopedLogCapture log;
    std::string raw = row.raw;
    KeyManifest manifest;
    EXPECT_EQ(manifest.Extract(raw), row.ok) << row.why;
    EXPECT_TRUE(inOrder(log->messages(), row.logs)) << row.why;
    if (!row.ok) {
      // The failure is one error record, and the payload is never half-filled.
      LogRecord final = log->records().back();
      EXPECT_EQ(final.level, 4) << row.why;
      EXPECT_EQ(final.tag, "GLOBAL") << row.why;
      EXPECT_EQ(final.message.rfind(row.logs.substr(row.logs.rfind('|') + 1), 0), 0u) << row.why;
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

TEST(Base64Test, EncodersMatchKnownVectorsAndPaddingChoice) {
  struct Row {
    std::string plain, standard, url;  // standard padded, url never
  };
  const Row rows[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {"\xfb\xff", "+/8=", "-_8"}};  // the alphabets differ in their last two characters
  for (const Row& row : rows) {
    EXPECT_EQ(base64Encode(row.plain), row.standard) << row.plain;
    EXPECT_EQ(base64UrlEncode(bytesOf(row.plain)), row.url) << row.plain;
  }
}

TEST(Base64Test, RoundTripsEveryByteValueAtEveryLength) {
  // Every byte value in every position of a group, with all three remainders.
  for (std::size_t length = 0; length <= 258; ++length) {
    Bytes data(length);
    for (std::size_t i = 0; i < length; ++i)
      data[i] = static_cast<unsigned char>(i * 7 + length);
    ASSERT_EQ(base64Decode(base64Encode(data)), data) << length;
    ASSERT_EQ(base64UrlDecode(base64UrlEncode(data)), data) << length;
  }
}

TEST(Base64Test, DecodersStopAtTheFirstCharacterOutsideTheirAlphabetAndStayInBounds) {
  struct Row {
    const char* why;
    std::string text, url, standard;  // what base64UrlDecode and base64Decode give
  };
  const Row rows[] = {{"unpadded", "Zm9vYg", "foob", "foob"},
                      {"padded reads like unpadded", "Zm9vYg==", "foob", "foob"},
                      {"one character holds no byte", "Z", "", ""},
                      {"invalid first character", "=Zm9v", "", ""},
                      {"blank ends decoding", "Zm9v Zm9v", "foo", "foo"},
                      {"partial group before the stop", "Zm9vYm!Fy", "foob", "foob"},
                      {"url characters stop the standard decoder", "-_8", "\xfb\xff", ""},
                      {"standard characters stop the url decoder", "+/8=", "", "\xfb\xff"},
                      {"high-bit character", "Zm9v\xc3\xa4", "foo", "foo"},
                      {"NUL", std::string("Zm9v\0Zm9v", 9), "foo", "foo"}};
  for (const Row& row : rows) {
    EXPECT_EQ(base64UrlDecode(row.text), bytesOf(row.url)) << row.why;
    EXPECT_EQ(base64Decode(row.text), bytesOf(row.standard)) << row.why;
  }
  // Characters above 0x7f are negative as char; a table lookup with them must stay in bounds
  // (ASan watches).
  for (int c = 0; c < 256; ++c) {
    const std::string text = std::string("A") + static_cast<char>(c) + "BC";
    EXPECT_LE(base64UrlDecode(text).size() + base64Decode(text).size(), 6u);
  }
}

}  // namespace
}  // namespace orv

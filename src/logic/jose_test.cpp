// Production key manifests: independent JOSE vectors, tampering, key-store faults, the tool.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <openssl/ec.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

#include "logic/base64.h"
#include "logic/jose.h"
#include "logic/key_manifest.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/temp_dir.h"

namespace orv {
namespace {

using kel::vxp3::minfw::json::JSON;
using kel::vxp3::minfw::testing::readFile;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;
using Parts = std::vector<std::string>;

const std::string kVectors = ORVANE_SOURCE_DIR "/tests/jose_vectors";

Parts split(const std::string& text) {
  Parts parts(1);
  for (const char c : text)
    if (c == '.')
      parts.emplace_back();
    else
      parts.back().push_back(c);
  return parts;
}

std::string join(const Parts& parts) {
  std::string text = parts[0];
  for (std::size_t i = 1; i < parts.size(); ++i)
    text += "." + parts[i];
  return text;
}

// A key store in a private folder: the named files of tests/jose_vectors, mode 0600.
class KeyDir {
 public:
  explicit KeyDir(const std::vector<std::string>& files) {
    for (const std::string& file : files)
      add(file);
    ::setenv("ORVANE_KEY_DIR", dir_.path().c_str(), 1);
  }
  ~KeyDir() { ::unsetenv("ORVANE_KEY_DIR"); }
  void add(const std::string& file) {
    const auto to = path(std::filesystem::path(file).filename().string());
    std::filesystem::copy_file(kVectors + "/" + file, to,
                               std::filesystem::copy_options::overwrite_existing);
    ::chmod(to.c_str(), 0600);
  }
  std::string path(const std::string& name) const { return dir_.path() + "/" + name; }

 private:
  TempDir dir_;
};

const std::vector<std::string> kDecryptKeys = {"store/enc-rsa.pem", "store/enc-ec.pem",
                                               "store/enc-oct256.jwk", "store/enc-oct128.jwk"};
const std::vector<std::string> kAllKeys = {"store/enc-rsa.pem",    "store/enc-ec.pem",
                                           "store/enc-oct256.jwk", "store/enc-oct128.jwk",
                                           "store/sig-ec.pem",     "store/sig-rsa.pem"};

const JSON& vectors() {
  static const JSON all = JSON::Load(readFile(kVectors + "/vectors.json"));
  return all;
}

std::string vector(const std::string& name) {
  for (const JSON& v : vectors().ArrayRange())
    if (v.find("name")->ToString() == name)
      return v.find("compact")->ToString();
  ADD_FAILURE() << "no vector " << name;
  return {};
}

TEST(JoseTest, IndependentVectorsDecryptAndVerify) {
  for (const JSON& v : vectors().ArrayRange()) {
    const std::string name = v.find("name")->ToString();
    SCOPED_TRACE(name);
    const bool isSigned = name.find("ES256") == 0 || name.find("RS256") == 0;
    KeyDir keys(isSigned ? kAllKeys : kDecryptKeys);
    ScopedLogCapture log;
    std::string raw = v.find("compact")->ToString();
    KeyManifest manifest;
    EXPECT_TRUE(manifest.Extract(raw)) << ::testing::PrintToString(log.sink().messages());
    EXPECT_EQ(manifest.payloadText(), v.find("payload")->ToString());
    EXPECT_EQ(log.sink().contains("Signature verified"), isSigned);
  }
}

// The vector with its parts changed by `change`.
std::function<std::string()> edited(const std::string& name, std::function<void(Parts&)> change) {
  return [=] {
    Parts parts = split(vector(name));
    change(parts);
    return join(parts);
  };
}

// Bit 0 of byte `at` of part `index`, flipped in the decoded bytes.
std::function<std::string()> flip(const std::string& name, std::size_t index, std::size_t at) {
  return edited(name, [=](Parts& parts) {
    std::vector<unsigned char> bytes = base64UrlDecode(parts[index]);
    bytes.at(at) ^= 1;
    parts[index] = base64UrlEncode(bytes);
  });
}

// The vector with its header changed by `edit`.
std::function<std::string()> header(const std::string& name, std::function<void(JSON&)> edit) {
  return edited(name, [=](Parts& parts) {
    const auto bytes = base64UrlDecode(parts[0]);
    JSON json = JSON::Load(std::string(bytes.begin(), bytes.end()));
    edit(json);
    parts[0] = base64UrlEncode(json.dump());
  });
}

TEST(JoseTest, TamperedContainersAndKeyStoreFaultsAreRefused) {
  const std::string rsa = "RSA-OAEP-256/A256GCM";
  const std::string ec = "ECDH-ES+A256KW/A256GCM";
  const std::string dir = "dir/A256GCM";
  const std::string es = "ES256 over RSA-OAEP-256/A256GCM";
  const char* kTag = "Authentication tag check failed";
  struct Row {
    const char* proves;
    std::function<std::string()> container;
    const char* logged;
    std::function<void(KeyDir&)> keys = nullptr;
    bool allKeys = false;
  };
  const auto cut = [](const std::string& name, std::size_t index, std::size_t keep) {
    return edited(name, [=](Parts& parts) { parts[index].resize(keep); });
  };
  const auto set = [](const char* key, const char* value) {
    return [=](JSON& h) { h[key] = value; };
  };
  const std::vector<Row> rows = {
      {"tag bit", flip(rsa, 4, 15), kTag},
      {"cipher text bit", flip(ec, 3, 7), kTag},
      {"iv bit", flip(dir, 2, 11), kTag},
      {"RSA encrypted key bit: no padding oracle, the tag check refuses", flip(rsa, 1, 100), kTag},
      {"wrapped key bit", flip(ec, 1, 3), "does not unwrap"},
      {"header member added (AAD)", header(rsa, set("x", "1")), kTag},
      {"header bit", flip(dir, 0, 10), "Unknown key-management algorithm [dis]"},
      {"alg swapped to dir", header(rsa, set("alg", "dir")), "has the wrong type"},
      {"alg swapped to ECDH", header(rsa, set("alg", "ECDH-ES+A256KW")), "needs a P-256 key"},
      {"enc swapped", header(rsa, set("enc", "A128GCM")), kTag},
      {"dir key of the wrong size", header(dir, set("enc", "A128GCM")), "has the wrong type"},
      {"epk swapped for a point off the curve",
       header(ec, [](JSON& h) { h["epk"]["y"] = base64UrlEncode(std::string(32, 'A')); }),
       "\"epk\" is not a P-256 public key"},
      {"dir with an encrypted key part", edited(dir, [](Parts& p) { p[1] = "AAAA"; }),
       "must be empty for \"dir\""},
      {"iv truncated", cut(dir, 2, 10), "Truncated part: iv has 7 bytes"},
      {"tag truncated", cut(rsa, 4, 20), "tag 15 bytes"},
      {"encrypted key truncated", cut(rsa, 1, 300), "Truncated part: encrypted key"},
      {"cipher text truncated", cut(ec, 3, 20), kTag},
      {"a part missing", edited(rsa, [](Parts& parts) { parts.pop_back(); }), "expected 5!"},
      {"wrong RSA key", [=] { return vector(rsa); }, kTag,
       [](KeyDir& k) { k.add("other/enc-rsa.pem"); }},
      {"wrong EC key", [=] { return vector(ec); }, "does not unwrap",
       [](KeyDir& k) { k.add("other/enc-ec.pem"); }},
      {"unknown kid of every allowed character", header(rsa, set("kid", "az-AZ_09.x")),
       "Unknown key id [az-AZ_09.x]"},
      {"kid with a path", header(rsa, set("kid", "../store/enc-rsa")), "not a plain file name"},
      {"kid ..", header(dir, set("kid", "..")), "not a plain file name"},
      {"no kid", header(rsa, [](JSON& h) { h = JSON::Load(R"({"alg":"dir","enc":"A256GCM"})"); }),
       "without \"kid\""},
      {"alg none", header(rsa, set("alg", "none")), "Unknown key-management algorithm [none]"},
      {"alg DEBUG", header(rsa, set("alg", "DEBUG")), "refused by the production build"},
      {"unknown enc", header(rsa, set("enc", "A256CBC-HS512")), "Unknown content-encryption"},
      {"private key readable by others", [=] { return vector(rsa); },
       "open to group or others (mode 644)",
       [](KeyDir& k) { ::chmod(k.path("enc-rsa.pem").c_str(), 0644); }},
      {"an empty \"oct\" key", [=] { return vector(dir); }, "is not an \"oct\" JSON Web Key",
       [](KeyDir& k) { writeFile(k.path("enc-oct256.jwk"), R"({"kty": "oct", "k": ""})"); }},
      {"signature bit", flip(es, 2, 5), "Signature check failed", nullptr, true},
      {"signature truncated", cut(es, 2, 80), "Signature has 60 bytes", nullptr, true},
      {"signed payload changed", flip(es, 1, 40), "Signature check failed", nullptr, true},
      {"signature alg none", header(es, set("alg", "none")), "Unknown signature algorithm [none]",
       nullptr, true},
      {"ES256 signature under RS256", header(es, set("alg", "RS256")), "has the wrong type",
       nullptr, true},
      {"verification with a private key", header(es, set("kid", "enc-ec")), "has the wrong type",
       nullptr, true},
      {"unsigned while the store holds verification keys", [=] { return vector(rsa); },
       "Unsigned key manifest refused", nullptr, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    KeyDir keys(row.allKeys ? kAllKeys : kDecryptKeys);
    if (row.keys)
      row.keys(keys);
    std::string raw = row.container();
    ScopedLogCapture log;
    KeyManifest manifest;
    EXPECT_FALSE(manifest.Extract(raw));
    EXPECT_EQ(manifest.payloadText(), "");
    EXPECT_TRUE(log.sink().contains(row.logged)) << ::testing::PrintToString(log.sink().messages());
    // Refused before anything is decrypted, unless the tag check is the refusal.
    EXPECT_TRUE(std::string(row.logged) == kTag || !log.sink().contains(kTag));
  }
  {  // A failed tag check gives nothing out; the caller must not go on as if it had a plaintext.
    KeyDir keys(kDecryptKeys);
    const Parts p = split(flip(rsa, 4, 15)());
    const auto part = [&](int i) { return base64UrlDecode(p[i]); };
    const auto h = part(0);
    std::string out = "untouched";
    EXPECT_FALSE(jose::decrypt(KeyStore(), p[0], JSON::Load(std::string(h.begin(), h.end())),
                               part(1), part(2), part(3), part(4), out));
    EXPECT_EQ(out, "untouched");
  }
  // Without ORVANE_KEY_DIR, or with it empty, keys come from the built-in directory.
  ::setenv("ORVANE_KEY_DIR", "", 1);
  EXPECT_EQ(KeyStore::defaultDirectory(), KeyStore::kDefaultDirectory);
  ::unsetenv("ORVANE_KEY_DIR");
  EXPECT_EQ(KeyStore::defaultDirectory(), KeyStore::kDefaultDirectory);
}

// Containers written to each kind of recipient, signed by each kind of signer or not, read back;
// a recipient that is neither RSA nor P-256 is refused.
TEST(JoseTest, WrittenContainersReadBack) {
  const std::string payload = R"({"EncryptedFiles": []})";
  for (const std::string to : {"enc-rsa", "enc-ec"}) {
    for (const std::string by : {"", "sig-rsa", "sig-ec"}) {
      SCOPED_TRACE(to + " " + by);
      KeyDir keys(by.empty() ? kDecryptKeys : kAllKeys);  // a public key makes signatures required
      PkeyPtr recipient, signer;
      ASSERT_TRUE(KeyStore::loadPemFile(kVectors + "/store/" + to + ".pem", recipient));
      std::string container;
      ASSERT_TRUE(jose::encrypt({recipient.get(), nullptr, to}, payload, container));
      if (!by.empty()) {
        ASSERT_TRUE(KeyStore::loadPemFile(kVectors + "/signers/" + by + ".pem", signer));
        ASSERT_TRUE(jose::sign(signer.get(), by, container, container));
      }
      ScopedLogCapture log;
      KeyManifest manifest;
      EXPECT_TRUE(manifest.Extract(container));
      EXPECT_EQ(manifest.payloadText(), payload);
      EXPECT_EQ(log.sink().contains("Signature verified with key [" + by + "]"), !by.empty());
    }
  }
  PkeyPtr p384(EVP_EC_gen("P-384"));
  std::string container;
  EXPECT_FALSE(jose::encrypt({p384.get(), nullptr, "p384"}, payload, container));
}

#ifdef ORVANE_MEDIUM_PATH  // the workshop tool is production only in the production tree
struct ToolRun {
  int status;
  std::string out;
};

ToolRun runTool(const TempDir& dir, const std::string& args) {
  const std::string out = dir.path() + "/tool.out";
  const int raw = std::system(
      (std::string("timeout 60 " ORVANE_MEDIUM_PATH " ") + args + " >" + out + " 2>&1").c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(out)};
}

TEST(JoseTest, ToolWritesProductionMediaAndInspectsThem) {
  KeyDir keys(kAllKeys);
  TempDir work;
  const std::string medium = work.path() + "/m";
  const std::string base = "--out " + medium + " --train T --manifest a.json --diag-address 1 ";
  struct Row {
    const char* proves;
    std::string args;
    const char* inspectKeys;  // the key store inspect is given: "" the full one
    int inspected;
    const char* shown;
  };
  const Row rows[] = {
      {"ECDH-ES, signed ES256",
       "--encrypt-to " + kVectors + "/store/enc-ec.pem --sign-with " + kVectors +
           "/signers/sig-ec.pem",
       "", 0, "Signature verified with key [sig-ec] (ES256)"},
      {"RSA-OAEP, signed RS256, named key ids",
       "--encrypt-to " + kVectors + "/other/enc-rsa.pem --kid enc-rsa --sign-with " + kVectors +
           "/signers/sig-rsa.pem --kid sig-rsa",
       "", 1, "Authentication tag check failed"},
      {"unsigned, inspected without the key", "--encrypt-to " + kVectors + "/store/enc-rsa.pem",
       "/nonexistent", 1, "Unknown key id [enc-rsa]"},
      {"DEBUG stays the default and is refused", "", "/nonexistent", 1,
       "refused by the production build"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    std::filesystem::remove_all(medium);
    ToolRun run = runTool(work, base + row.args);
    ASSERT_EQ(run.status, 0) << run.out;
    const std::string keyDir = *row.inspectKeys ? row.inspectKeys : keys.path("");
    run = runTool(work, "inspect --key-dir " + keyDir + " " + medium + "/KeyManifest.mose");
    EXPECT_EQ(run.status, row.inspected) << run.out;
    EXPECT_NE(run.out.find(row.shown), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("/a.json") != std::string::npos, row.inspected == 0) << run.out;
  }
  EXPECT_EQ(runTool(work, base + "--sign-with " + kVectors + "/signers/sig-ec.pem").status, 2);
  EXPECT_EQ(runTool(work, base + "--encrypt-to " + kVectors + "/store/enc-oct256.jwk").status, 2);
}

#endif  // ORVANE_MEDIUM_PATH

}  // namespace
}  // namespace orv

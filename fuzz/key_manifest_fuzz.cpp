// The key manifest: the MOSE container in both layouts, the base64 decoders and the header JSON,
// through the public entry points. Property: both encoders' output decodes to the bytes encoded.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "logic/base64.h"
#include "logic/key_manifest.h"
#include "logic/mose.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  std::string text(reinterpret_cast<const char*>(data), size);

  std::string header;
  std::vector<unsigned char> key, iv, cipher, tag, payload, signature;
  orv::Mose::ExtractEncrypted(text, header, key, iv, cipher, tag);
  orv::Mose::ExtractSigned(text, header, payload, signature);
  orv::KeyManifest manifest;
  manifest.Extract(text);

  const std::vector<unsigned char> bytes(text.begin(), text.end());
  FUZZ_CHECK(orv::base64Decode(orv::base64Encode(bytes)) == bytes);
  FUZZ_CHECK(orv::base64UrlDecode(orv::base64UrlEncode(bytes)) == bytes);
  const std::vector<unsigned char> standard = orv::base64Decode(text);
  const std::vector<unsigned char> url = orv::base64UrlDecode(text);
  FUZZ_CHECK(standard.size() <= size * 3 / 4 && url.size() <= size * 3 / 4);
  return 0;
}

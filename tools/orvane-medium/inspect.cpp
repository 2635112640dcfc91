// orvane-medium inspect: what a key manifest or signed container holds, for a workshop engineer.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "logic/decrypt.h"
#include "logic/key_manifest.h"
#include "logic/mose.h"
#include "medium_writer.h"

namespace orvmedium {

int inspect(const std::vector<std::string>& args) {
  std::string keyDir;
  std::string file;
  bool usable = true;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--key-dir" && i + 1 < args.size())
      keyDir = args[++i];
    else if (file.empty() && args[i].rfind("--", 0) != 0)
      file = args[i];
    else
      usable = false;
  }
  file = usable ? file : "";
  std::ifstream in(file, std::ios::binary);
  if (file.empty() || !in) {
    std::fprintf(stderr, "orvane-medium inspect: %s\n%s",
                 file.empty() ? "one FILE is needed" : ("cannot read " + file).c_str(), kUsage);
    return 2;
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.pop_back();
  // The key store is read where the service reads it; --key-dir points it elsewhere.
  if (!keyDir.empty())
    ::setenv("ORVANE_KEY_DIR", keyDir.c_str(), 1);
  const char* dir = std::getenv("ORVANE_KEY_DIR");
  std::printf("file: %s (%zu bytes)\nbuild: %s, key store: %s\n", file.c_str(), text.size(),
              orv::Decrypt::production() ? "production" : "simu",
              dir != nullptr ? dir : "/etc/orvane/keys");
  std::fflush(stdout);

  std::string header;
  std::vector<unsigned char> payload, signature;
  std::string inner;
  const bool isSigned = std::count(text.begin(), text.end(), '.') == 2 &&
                        orv::Mose::ExtractSigned(text, header, payload, signature);
  if (isSigned) {
    std::printf("signed container, header: %s\n", header.c_str());
    inner.assign(payload.begin(), payload.end());
  }
  orv::KeyManifest manifest;
  if (!isSigned || std::count(inner.begin(), inner.end(), '.') == 4) {
    // A key manifest, signed or not: the service's own reader says whether it is good.
    std::fflush(stdout);
    const bool ok = manifest.Extract(text);
    std::printf("key manifest, header: %s\n", manifest.headerText().c_str());
    std::printf("result: %s\n", ok ? "DECRYPTED" : "NOT DECRYPTED (the lines above say why)");
    if (ok)
      std::printf("payload:\n%s\n", manifest.payload().dump().c_str());
    return ok ? 0 : 1;
  }
  // Another signed content: only the signature.
  std::fflush(stdout);
  const bool ok = orv::Mose::VerifySigned(text, header, payload);
  std::printf("result: %s\npayload:\n%s\n",
              ok ? "VERIFIED" : "NOT VERIFIED (the lines above say why)", inner.c_str());
  return ok ? 0 : 1;
}

}  // namespace orvmedium

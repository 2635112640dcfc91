#include "logic/decrypt.h"

#include "minfw/log.h"
#ifdef ORVANE_CRYPTO_PRODUCTION
#include "logic/jose.h"
#endif

namespace orv {
namespace {

constexpr const char* kTag = "GLOBAL";

}  // namespace

bool Decrypt::production() {
#ifdef ORVANE_CRYPTO_PRODUCTION
  return true;
#else
  return false;
#endif
}

bool Decrypt::Execute(std::vector<unsigned char>& input, std::string& algCek, std::string& algEnc,
                      std::vector<unsigned char>& encryptedKey, std::vector<unsigned char>& iv,
                      std::vector<unsigned char>& tag, const std::string& protectedHeader,
                      const kel::vxp3::minfw::json::JSON& header, std::string& output) {
  MLOG_TRACE(kTag, "alg_cek: [", algCek, "], alg_enc: [", algEnc, "]");
#ifdef ORVANE_CRYPTO_PRODUCTION
  if (algCek == "DEBUG") {
    MLOG_ERROR(kTag, "DEBUG key manifests are refused by the production build!");
    return false;
  }
  return jose::decrypt(KeyStore(), protectedHeader, header, encryptedKey, iv, input, tag, output);
#else
  (void)encryptedKey, (void)iv, (void)tag, (void)protectedHeader, (void)header;
  if (algCek == "DEBUG") {
    MLOG_DEBUG(kTag, "DEBUG, returning input as output!");
    output.assign(input.begin(), input.end());
    return true;
  }
  MLOG_ERROR(kTag, "SIMU BUILD cannot decrypt!");
  return false;
#endif
}

}  // namespace orv

#include "logic/mose.h"
#include "minfw/json.h"
#include "minfw/log.h"
#ifdef ORVANE_CRYPTO_PRODUCTION
#include "logic/jose.h"
#endif

namespace orv {

bool Mose::VerifySigned(std::string& input, std::string& header,
                        std::vector<unsigned char>& payload) {
  std::vector<unsigned char> signature;
  std::vector<unsigned char> body;
  if (!ExtractSigned(input, header, body, signature))
    return false;
#ifdef ORVANE_CRYPTO_PRODUCTION
  using kel::vxp3::minfw::json::JSON;
  const JSON parsed = JSON::Load(header);
  // The signature covers the first two parts as transmitted.
  const std::string signingInput = input.substr(0, input.rfind('.'));
  if (!jose::verify(KeyStore(), signingInput, parsed, signature))
    return false;
  payload = std::move(body);
  return true;
#else
  (void)payload;
  MLOG_ERROR("GLOBAL", "SIMU BUILD cannot verify!");
  return false;
#endif
}

}  // namespace orv

#pragma once
// Decrypt: turns the cipher text of a key-manifest container into the payload text.
//
// Two builds (CMake option ORVANE_CRYPTO):
// - simu (host, demo, tests): the key-encryption algorithm "DEBUG" marks a container whose
//   "cipher text" is the plain payload, which is passed through; every other algorithm is
//   refused ("SIMU BUILD cannot decrypt!"). Key, initialisation vector and tag are not used.
// - production: real decryption (see jose.h) with the keys of the KeyStore; "DEBUG" is refused.
// Every refusal is logged (tag "GLOBAL").
//
// Threading: stateless static functions, reentrant.

#include <string>
#include <vector>

#include "minfw/json.h"

namespace orv {

class Decrypt {
 public:
  // True when this is the production build.
  static bool production();

  // The real decryptor's form: `protectedHeader` is the container's first part as transmitted
  // (the additional authenticated data), `header` its JSON. True and `output` = the payload;
  // false with `output` untouched.
  static bool Execute(std::vector<unsigned char>& input, std::string& algCek, std::string& algEnc,
                      std::vector<unsigned char>& encryptedKey, std::vector<unsigned char>& iv,
                      std::vector<unsigned char>& tag, const std::string& protectedHeader,
                      const kel::vxp3::minfw::json::JSON& header, std::string& output);
};

}  // namespace orv

#pragma once
// Mose: splits a MOSE container (dot-separated base64url parts, laid out like a compact JSON Web
// Encryption / Signature) and decodes its parts.
//
// Encrypted layout, 5 parts: header . encrypted content key . initialisation vector .
// cipher text . authentication tag. Signed layout, 3 parts: header . payload . signature.
// A wrong number of parts is an error (logged, tag "GLOBAL"); an undecodable part is not: it
// yields a shorter or empty result (see base64.h), so a corrupt container fails later, when its
// header or payload is read. ExtractSigned returns the signature unchecked; VerifySigned checks it.
//
// Threading: stateless static functions, reentrant.

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace orv {

class Mose {
 public:
  static bool ExtractEncrypted(std::string& input, std::string& header,
                               std::vector<unsigned char>& encryptedKey,
                               std::vector<unsigned char>& iv,
                               std::vector<unsigned char>& cipherText,
                               std::vector<unsigned char>& tag);

  static bool ExtractSigned(std::string& input, std::string& header,
                            std::vector<unsigned char>& payload,
                            std::vector<unsigned char>& signature);

  // ExtractSigned, then the signature check against the KeyStore's public key that the header's
  // "kid" names (production build: "ES256", "RS256"; the simulation build refuses every
  // signature). True with `header` and `payload` only when the signature holds; every refusal is
  // logged.
  static bool VerifySigned(std::string& input, std::string& header,
                           std::vector<unsigned char>& payload);

 private:
  // The one splitter behind both layouts: `header` from the first part, then `parts` in order. Both
  // layouts share it, so their log records carry the same function name ("ExtractEncrypted")
  // and log filters set up for the encrypted layout see the signed one too.
  static bool ExtractEncrypted(const std::string& input, std::size_t expected, std::string& header,
                               std::initializer_list<std::vector<unsigned char>*> parts);
};

}  // namespace orv

#pragma once
// KeyManifest: the key manifest of an update medium, a 5-part MOSE container (see mose.h) whose
// header names the algorithms and whose decrypted cipher text is a JSON object (the payload:
// "EncryptedFiles" with the crypto parameters of each update file).
//
// Extract() fills every field from scratch; on failure the fields hold what was read up to the
// failing step. The header and the payload count as readable only when they load as a JSON
// *object*: the lenient parser turns bad text into Null or a partial value, and any result other
// than an Object (Null for empty text or garbage, an array, a bare string or number) is refused.
// "alg" and "enc" must be strings; any other value counts as not found. Log records carry the
// tag "GLOBAL".
//
// The production build (decrypt.h) also accepts a signed 3-part container whose payload is the
// encrypted one: it is verified first (Mose::VerifySigned) and refused when the signature does
// not hold. When the key store holds a verification (public) key, unsigned containers are
// refused. rawData() is the text as given; the header and parts are the encrypted container's.
//
// Threading: owned by one thread; no internal locking.

#include <string>
#include <vector>

#include "minfw/json.h"

namespace orv {

class KeyManifest {
 public:
  // True when the container splits, its header holds "alg" and "enc", the cipher text decrypts
  // and the payload loads as a JSON object; every failure is logged at error.
  bool Extract(std::string& rawData);

  const std::string& rawData() const { return rawData_; }
  const std::string& headerText() const { return headerText_; }
  const kel::vxp3::minfw::json::JSON& header() const { return header_; }
  const std::vector<unsigned char>& encryptedKey() const { return encryptedKey_; }
  const std::vector<unsigned char>& iv() const { return iv_; }
  const std::vector<unsigned char>& cipherText() const { return cipherText_; }
  const std::vector<unsigned char>& tag() const { return tag_; }
  const std::string& payloadText() const { return payloadText_; }
  const kel::vxp3::minfw::json::JSON& payload() const { return payload_; }

 private:
  std::string rawData_;
  std::string headerText_;
  kel::vxp3::minfw::json::JSON header_;
  std::vector<unsigned char> encryptedKey_;
  std::vector<unsigned char> iv_;
  std::vector<unsigned char> cipherText_;
  std::vector<unsigned char> tag_;
  std::string payloadText_;
  kel::vxp3::minfw::json::JSON payload_;
};

}  // namespace orv

#pragma once
// Decrypt: turns the cipher text of a key-manifest container into the payload text.
//
// This build decrypts nothing: the key-encryption algorithm "DEBUG" marks a container whose
// "cipher text" is the plain payload, which is passed through; every other algorithm is refused
// (logged, tag "GLOBAL"). Key, initialisation vector and tag are accepted for the interface of a
// real decryptor and not used.
//
// Threading: stateless static function, reentrant.

#include <string>
#include <vector>

namespace orv {

class Decrypt {
 public:
  // True and `output` = the bytes of `input` for algCek "DEBUG"; false otherwise, `output`
  // untouched.
  static bool Execute(std::vector<unsigned char>& input, std::string& algCek, std::string& algEnc,
                      std::vector<unsigned char>& encryptedKey, std::vector<unsigned char>& iv,
                      std::vector<unsigned char>& tag, std::string& output);
};

}  // namespace orv

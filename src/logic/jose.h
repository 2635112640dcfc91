#pragma once
// jose: the production build's cryptography for MOSE containers, on OpenSSL 3.
//
// Decryption (5-part containers): key management "RSA-OAEP-256" (RSA private key),
// "ECDH-ES+A256KW" (P-256 private key; ephemeral key "epk", "apu" and "apv" from the header,
// Concat KDF with SHA-256, AES-256 key unwrap) and "dir" (an "oct" key); content encryption
// "A256GCM" and "A128GCM" with the protected header, as transmitted, as additional authenticated
// data. The header's "kid" names the key in the KeyStore. Every refusal is one log line (tag
// "GLOBAL") naming the cause; no key material is logged; nothing of the plaintext leaves on
// failure. An RSA key that does not unwrap continues with a random content key, so the refusal
// is the tag check's, whatever the cause (no padding oracle); tags are checked by OpenSSL.
//
// Signatures (3-part containers): "ES256" (raw r||s, 64 bytes) and "RS256" (RSA of at least
// 2048 bits) against a public key of the KeyStore.
//
// The writers (encrypt, sign) serve the workshop tool and the benchmarks.
//
// Threading: stateless functions, reentrant.

#include <openssl/evp.h>

#include <string>
#include <vector>

#include "logic/key_store.h"
#include "minfw/json.h"

namespace orv::jose {

using Bytes = std::vector<unsigned char>;

bool decrypt(const KeyStore& store, const std::string& protectedHeader,
             const kel::vxp3::minfw::json::JSON& header, const Bytes& encryptedKey, const Bytes& iv,
             const Bytes& cipherText, const Bytes& tag, std::string& output);

// `signingInput`: the first two parts with their dot, as transmitted.
bool verify(const KeyStore& store, const std::string& signingInput,
            const kel::vxp3::minfw::json::JSON& header, const Bytes& signature);

// The recipient: an RSA or P-256 public (or private) key, or, when `pkey` is null, the "oct" key
// `secret` ("dir").
struct Recipient {
  EVP_PKEY* pkey = nullptr;
  const SecretBytes* secret = nullptr;
  std::string kid;
  std::string enc = "A256GCM";
};

// A 5-part container of `payload`. False with a log line.
bool encrypt(const Recipient& recipient, const std::string& payload, std::string& container);

// A 3-part container of `payload`, "ES256" for a P-256 key, "RS256" for an RSA key.
bool sign(EVP_PKEY* key, const std::string& kid, const std::string& payload,
          std::string& container);

}  // namespace orv::jose

#include "logic/jose.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <climits>
#include <memory>

#include "logic/base64.h"
#include "minfw/log.h"

namespace orv::jose {
namespace {

using kel::vxp3::minfw::json::JSON;

constexpr const char* kTag = "GLOBAL";
constexpr std::size_t kIvSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kP256Size = 32;
constexpr const char* kEcdh = "ECDH-ES+A256KW";

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using ParamBld = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using EcdsaSig = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG, ECDSA_SIG_free>>;
using Bignum = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;

// The member `key` as text; empty when absent or not a string.
std::string text(const JSON& object, const char* key) {
  const JSON* member = object.find(key);
  bool ok = false;
  std::string value = member != nullptr ? member->ToString(ok) : std::string();
  return ok ? value : std::string();
}

// Content-key size of a content-encryption algorithm; 0 for an unknown one.
std::size_t keySizeOf(const std::string& enc) {
  return enc == "A256GCM" ? 32 : enc == "A128GCM" ? 16 : 0;
}

bool isP256(EVP_PKEY* key) {
  char group[32] = {};
  std::size_t length = 0;
  return EVP_PKEY_is_a(key, "EC") &&
         EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                        &length) == 1 &&
         std::string(group, length) == "prime256v1";
}

bool isRsa(EVP_PKEY* key) {
  return EVP_PKEY_is_a(key, "RSA") && EVP_PKEY_get_bits(key) >= 2048;
}

// Key wrap of RFC 3394 with AES-256: `wrap` true wraps, false unwraps (false on a failed
// integrity check).
bool aesKeyWrap(bool wrap, const SecretBytes& kek, const unsigned char* in, std::size_t size,
                SecretBytes& out) {
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || size < 16 || size > 1024)
    return false;
  EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  out.bytes().assign(size + 8, 0);
  int length = 0;
  int last = 0;
  const bool ok =
      EVP_CipherInit_ex(ctx.get(), EVP_aes_256_wrap(), nullptr, kek.data(), nullptr, wrap) == 1 &&
      EVP_CipherUpdate(ctx.get(), out.data(), &length, in, static_cast<int>(size)) > 0 &&
      EVP_CipherFinal_ex(ctx.get(), out.data() + length, &last) == 1;
  out.bytes().resize(ok ? static_cast<std::size_t>(length + last) : 0);
  return ok;
}

void appendLength(Bytes& to, std::size_t size) {
  for (int shift = 24; shift >= 0; shift -= 8)
    to.push_back(static_cast<unsigned char>((size >> shift) & 0xff));
}

// The ECDH-ES shared secret of `own` (private) and `peer` (public), through the Concat KDF of
// RFC 7518 4.6 into a 256-bit key-encryption key.
bool ecdhKek(EVP_PKEY* own, EVP_PKEY* peer, const Bytes& apu, const Bytes& apv, SecretBytes& kek) {
  PkeyCtx ctx(EVP_PKEY_CTX_new(own, nullptr));
  SecretBytes shared(kP256Size);
  std::size_t size = shared.size();
  if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
      EVP_PKEY_derive_set_peer(ctx.get(), peer) != 1 ||
      EVP_PKEY_derive(ctx.get(), shared.data(), &size) != 1 || size != kP256Size)
    return false;
  SecretBytes input;
  Bytes& in = input.bytes();
  const std::string alg = kEcdh;
  in.reserve(4 + shared.size() + 4 + alg.size() + 4 + apu.size() + 4 + apv.size() + 4);
  appendLength(in, 1);  // the round counter: one SHA-256 round gives the 256 bits
  in.insert(in.end(), shared.bytes().begin(), shared.bytes().end());
  appendLength(in, alg.size());
  in.insert(in.end(), alg.begin(), alg.end());
  appendLength(in, apu.size());
  in.insert(in.end(), apu.begin(), apu.end());
  appendLength(in, apv.size());
  in.insert(in.end(), apv.begin(), apv.end());
  appendLength(in, 256);
  kek.bytes().assign(32, 0);
  unsigned int length = 0;
  return EVP_Digest(in.data(), in.size(), kek.data(), &length, EVP_sha256(), nullptr) == 1 &&
         length == 32;
}

// A P-256 public key from a JWK's "x" and "y"; null when it is not a point of the curve.
PkeyPtr ecPublicKey(const JSON& jwk) {
  const Bytes x = base64UrlDecode(text(jwk, "x"));
  const Bytes y = base64UrlDecode(text(jwk, "y"));
  if (text(jwk, "kty") != "EC" || text(jwk, "crv") != "P-256" || x.size() != kP256Size ||
      y.size() != kP256Size)
    return nullptr;
  Bytes point{0x04};
  point.insert(point.end(), x.begin(), x.end());
  point.insert(point.end(), y.begin(), y.end());
  ParamBld build(OSSL_PARAM_BLD_new());
  if (!build ||
      OSSL_PARAM_BLD_push_utf8_string(build.get(), OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0) !=
          1 ||
      OSSL_PARAM_BLD_push_octet_string(build.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                       point.size()) != 1)
    return nullptr;
  Params params(OSSL_PARAM_BLD_to_param(build.get()));
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* raw = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
    return nullptr;
  PkeyPtr key(raw);
  PkeyCtx check(EVP_PKEY_CTX_new(key.get(), nullptr));
  return check && EVP_PKEY_public_check(check.get()) == 1 ? std::move(key) : nullptr;
}

// The public half of a P-256 key as a JWK.
JSON ecJwk(EVP_PKEY* key) {
  unsigned char point[65] = {};
  std::size_t size = 0;
  JSON jwk;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point, sizeof point,
                                      &size) != 1 ||
      size != sizeof point)
    return jwk;
  jwk["kty"] = "EC";
  jwk["crv"] = "P-256";
  jwk["x"] = base64UrlEncode(Bytes(point + 1, point + 33));
  jwk["y"] = base64UrlEncode(Bytes(point + 33, point + 65));
  return jwk;
}

bool rsaOaep(bool encrypt, EVP_PKEY* key, const unsigned char* in, std::size_t size,
             SecretBytes& out) {
  PkeyCtx ctx(EVP_PKEY_CTX_new(key, nullptr));
  if (!ctx ||
      (encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get())) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), EVP_sha256()) != 1 ||
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha256()) != 1)
    return false;
  out.bytes().assign(static_cast<std::size_t>(EVP_PKEY_get_size(key)), 0);
  std::size_t length = out.size();
  const bool ok = encrypt ? EVP_PKEY_encrypt(ctx.get(), out.data(), &length, in, size) == 1
                          : EVP_PKEY_decrypt(ctx.get(), out.data(), &length, in, size) == 1;
  out.bytes().resize(ok ? length : 0);
  return ok;
}

// AES-GCM over `in` with `aad`; `encrypt` false checks `tag` and leaves `out` empty on failure.
bool gcm(bool encrypt, const SecretBytes& cek, const Bytes& iv, const std::string& aad,
         const unsigned char* in, std::size_t size, SecretBytes& out, Bytes& tag) {
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  const EVP_CIPHER* cipher = cek.size() == 32 ? EVP_aes_256_gcm() : EVP_aes_128_gcm();
  if (!ctx || size > INT_MAX || aad.size() > INT_MAX || iv.size() != kIvSize ||
      EVP_CipherInit_ex(ctx.get(), cipher, nullptr, cek.data(), iv.data(), encrypt) != 1)
    return false;
  out.bytes().assign(size, 0);
  int length = 0;
  int last = 0;
  bool ok = EVP_CipherUpdate(ctx.get(), nullptr, &length,
                             reinterpret_cast<const unsigned char*>(aad.data()),
                             static_cast<int>(aad.size())) == 1 &&
            (size == 0 ||
             EVP_CipherUpdate(ctx.get(), out.data(), &length, in, static_cast<int>(size)) == 1);
  if (ok && !encrypt) {
    ok = tag.size() == kTagSize && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG,
                                                       static_cast<int>(kTagSize), tag.data()) == 1;
  }
  ok = ok && EVP_CipherFinal_ex(ctx.get(), out.data() + (size == 0 ? 0 : length), &last) == 1;
  if (ok && encrypt) {
    tag.assign(kTagSize, 0);
    ok = EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagSize),
                             tag.data()) == 1;
  }
  if (!ok)
    out = SecretBytes();
  return ok;
}

// The content key of a container: unwrapped with the key that "kid" names.
bool contentKey(const KeyStore& store, const JSON& header, const std::string& alg,
                std::size_t keySize, const Bytes& encryptedKey, SecretBytes& cek) {
  const std::string kid = text(header, "kid");
  if (kid.empty()) {
    MLOG_ERROR(kTag, "Key manifest header without \"kid\", refused!");
    return false;
  }
  KeyStore::Key key;
  if (alg == "dir") {
    if (!store.load(kid, KeyStore::Use::kSecret, key))
      return false;
    if (key.secret.size() != keySize) {
      MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", key.secret.size() * 8,
                 "-bit key for a ", keySize * 8, "-bit content key!");
      return false;
    }
    if (!encryptedKey.empty()) {
      MLOG_ERROR(kTag, "Encrypted key part must be empty for \"dir\", refused!");
      return false;
    }
    cek = std::move(key.secret);
    return true;
  }
  if (!store.load(kid, KeyStore::Use::kDecrypt, key))
    return false;
  if (alg == "RSA-OAEP-256") {
    if (!isRsa(key.pkey.get())) {
      MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", alg,
                 " needs an RSA key of 2048 bits or more!");
      return false;
    }
    if (encryptedKey.size() != static_cast<std::size_t>(EVP_PKEY_get_size(key.pkey.get()))) {
      MLOG_ERROR(kTag, "Truncated part: encrypted key has ", encryptedKey.size(),
                 " bytes, expected ", EVP_PKEY_get_size(key.pkey.get()), "!");
      return false;
    }
    // A random key stands in for one that does not unwrap: the tag check refuses either, so the
    // outcome tells nothing about the padding.
    cek.bytes().assign(keySize, 0);
    if (RAND_bytes(cek.data(), static_cast<int>(keySize)) != 1)
      return false;
    SecretBytes unwrapped;
    if (rsaOaep(false, key.pkey.get(), encryptedKey.data(), encryptedKey.size(), unwrapped) &&
        unwrapped.size() == keySize)
      cek = std::move(unwrapped);
    return true;
  }
  // ECDH-ES+A256KW
  if (!isP256(key.pkey.get())) {
    MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", alg, " needs a P-256 key!");
    return false;
  }
  const JSON* epk = header.find("epk");
  PkeyPtr peer = epk != nullptr ? ecPublicKey(*epk) : nullptr;
  if (!peer) {
    MLOG_ERROR(kTag, "Header \"epk\" is not a P-256 public key, refused!");
    return false;
  }
  if (encryptedKey.size() != keySize + 8) {
    MLOG_ERROR(kTag, "Truncated part: encrypted key has ", encryptedKey.size(), " bytes, expected ",
               keySize + 8, "!");
    return false;
  }
  SecretBytes kek;
  if (!ecdhKek(key.pkey.get(), peer.get(), base64UrlDecode(text(header, "apu")),
               base64UrlDecode(text(header, "apv")), kek) ||
      !aesKeyWrap(false, kek, encryptedKey.data(), encryptedKey.size(), cek)) {
    MLOG_ERROR(kTag, "Content key does not unwrap with key [", kid,
               "] (wrong key or tampered container), refused!");
    return false;
  }
  return true;
}

}  // namespace

bool decrypt(const KeyStore& store, const std::string& protectedHeader, const JSON& header,
             const Bytes& encryptedKey, const Bytes& iv, const Bytes& cipherText, const Bytes& tag,
             std::string& output) {
  if (header.JSONType() != JSON::Class::Object) {
    MLOG_ERROR(kTag, "No protected header given, refused!");
    return false;
  }
  const std::string alg = text(header, "alg");
  const std::string enc = text(header, "enc");
  const std::size_t keySize = keySizeOf(enc);
  if (alg != "RSA-OAEP-256" && alg != kEcdh && alg != "dir") {
    MLOG_ERROR(kTag, "Unknown key-management algorithm [", alg, "], refused!");
    return false;
  }
  if (keySize == 0) {
    MLOG_ERROR(kTag, "Unknown content-encryption algorithm [", enc, "], refused!");
    return false;
  }
  if (header.find("zip") != nullptr || header.find("crit") != nullptr) {
    MLOG_ERROR(kTag, "Header with \"zip\" or \"crit\" is not supported, refused!");
    return false;
  }
  if (iv.size() != kIvSize || tag.size() != kTagSize) {
    MLOG_ERROR(kTag, "Truncated part: iv has ", iv.size(), " bytes, tag ", tag.size(),
               " bytes, expected ", kIvSize, " and ", kTagSize, "!");
    return false;
  }
  SecretBytes cek;
  if (!contentKey(store, header, alg, keySize, encryptedKey, cek))
    return false;
  SecretBytes plain;
  Bytes checkedTag = tag;
  if (!gcm(false, cek, iv, protectedHeader, cipherText.data(), cipherText.size(), plain,
           checkedTag)) {
    MLOG_ERROR(kTag, "Authentication tag check failed (tampered container or wrong key), refused!");
    return false;
  }
  output.assign(plain.bytes().begin(), plain.bytes().end());
  return true;
}

bool verify(const KeyStore& store, const std::string& signingInput, const JSON& header,
            const Bytes& signature) {
  const std::string alg = text(header, "alg");
  const std::string kid = text(header, "kid");
  if (alg != "ES256" && alg != "RS256") {
    MLOG_ERROR(kTag, "Unknown signature algorithm [", alg, "], refused!");
    return false;
  }
  if (kid.empty()) {
    MLOG_ERROR(kTag, "Signed container header without \"kid\", refused!");
    return false;
  }
  KeyStore::Key key;
  if (!store.load(kid, KeyStore::Use::kVerify, key))
    return false;
  const bool ec = alg == "ES256";
  if (ec ? !isP256(key.pkey.get()) : !isRsa(key.pkey.get())) {
    MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", alg, " needs ",
               ec ? "a P-256 key!" : "an RSA key of 2048 bits or more!");
    return false;
  }
  Bytes der = signature;
  if (ec) {
    // JWS carries r||s; OpenSSL checks the DER form.
    if (signature.size() != 2 * kP256Size) {
      MLOG_ERROR(kTag, "Signature has ", signature.size(), " bytes, expected ", 2 * kP256Size,
                 ", refused!");
      return false;
    }
    EcdsaSig sig(ECDSA_SIG_new());
    Bignum r(BN_bin2bn(signature.data(), static_cast<int>(kP256Size), nullptr));
    Bignum s(BN_bin2bn(signature.data() + kP256Size, static_cast<int>(kP256Size), nullptr));
    if (!sig || !r || !s || ECDSA_SIG_set0(sig.get(), r.get(), s.get()) != 1)
      return false;
    r.release();
    s.release();
    unsigned char* out = nullptr;
    const int size = i2d_ECDSA_SIG(sig.get(), &out);
    der.assign(out, out + (size > 0 ? size : 0));
    OPENSSL_free(out);
  }
  MdCtx ctx(EVP_MD_CTX_new());
  if (!ctx ||
      EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.pkey.get()) != 1 ||
      EVP_DigestVerify(ctx.get(), der.data(), der.size(),
                       reinterpret_cast<const unsigned char*>(signingInput.data()),
                       signingInput.size()) != 1) {
    MLOG_ERROR(kTag, "Signature check failed with key [", kid, "], refused!");
    return false;
  }
  MLOG_INFO(kTag, "Signature verified with key [", kid, "] (", alg, ")");
  return true;
}

bool encrypt(const Recipient& recipient, const std::string& payload, std::string& container) {
  JSON header;
  const std::size_t keySize = keySizeOf(recipient.enc);
  SecretBytes cek(keySize);
  SecretBytes encryptedKey;
  bool ok = keySize != 0 && RAND_bytes(cek.data(), static_cast<int>(keySize)) == 1;
  EVP_PKEY* key = recipient.pkey;
  if (ok && key == nullptr) {
    header["alg"] = "dir";
    ok = recipient.secret != nullptr && recipient.secret->size() == keySize;
    if (ok)
      cek.bytes() = recipient.secret->bytes();
  } else if (ok && isRsa(key)) {
    header["alg"] = "RSA-OAEP-256";
    ok = rsaOaep(true, key, cek.data(), cek.size(), encryptedKey);
  } else if (ok && isP256(key)) {
    header["alg"] = kEcdh;
    PkeyPtr ephemeral(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    SecretBytes kek;
    ok = ephemeral && ecdhKek(ephemeral.get(), key, {}, {}, kek) &&
         aesKeyWrap(true, kek, cek.data(), cek.size(), encryptedKey);
    if (ok)
      header["epk"] = ecJwk(ephemeral.get());
  } else {
    ok = false;
  }
  if (!ok) {
    MLOG_ERROR(kTag,
               "Cannot encrypt: the key must be RSA (2048 bits or more), P-256 or an \"oct\" "
               "key of the content key's size");
    return false;
  }
  header["enc"] = recipient.enc;
  header["kid"] = recipient.kid;
  const std::string protectedHeader = base64UrlEncode(header.dump());
  Bytes iv(kIvSize);
  Bytes tag;
  SecretBytes cipherText;
  if (RAND_bytes(iv.data(), static_cast<int>(iv.size())) != 1 ||
      !gcm(true, cek, iv, protectedHeader, reinterpret_cast<const unsigned char*>(payload.data()),
           payload.size(), cipherText, tag)) {
    MLOG_ERROR(kTag, "Cannot encrypt: AES-GCM failed");
    return false;
  }
  container = protectedHeader + "." + base64UrlEncode(encryptedKey.bytes()) + "." +
              base64UrlEncode(iv) + "." + base64UrlEncode(cipherText.bytes()) + "." +
              base64UrlEncode(tag);
  return true;
}

bool sign(EVP_PKEY* key, const std::string& kid, const std::string& payload,
          std::string& container) {
  const bool ec = isP256(key);
  JSON header;
  header["alg"] = ec ? "ES256" : "RS256";
  header["kid"] = kid;
  const std::string input = base64UrlEncode(header.dump()) + "." + base64UrlEncode(payload);
  MdCtx ctx(EVP_MD_CTX_new());
  std::size_t size = 0;
  Bytes der;
  bool ok = (ec || isRsa(key)) && ctx &&
            EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
            EVP_DigestSign(ctx.get(), nullptr, &size,
                           reinterpret_cast<const unsigned char*>(input.data()), input.size()) == 1;
  if (ok) {
    der.resize(size);
    ok = EVP_DigestSign(ctx.get(), der.data(), &size,
                        reinterpret_cast<const unsigned char*>(input.data()), input.size()) == 1;
    der.resize(size);
  }
  if (ok && ec) {
    const unsigned char* in = der.data();
    EcdsaSig sig(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(der.size())));
    Bytes raw(2 * kP256Size);
    ok = sig && BN_bn2binpad(ECDSA_SIG_get0_r(sig.get()), raw.data(), kP256Size) > 0 &&
         BN_bn2binpad(ECDSA_SIG_get0_s(sig.get()), raw.data() + kP256Size, kP256Size) > 0;
    der = std::move(raw);
  }
  if (!ok) {
    MLOG_ERROR(kTag, "Cannot sign: the key must be a P-256 or RSA (2048 bits or more) private key");
    return false;
  }
  container = input + "." + base64UrlEncode(der);
  return true;
}

}  // namespace orv::jose

#pragma once
// KeyStore: the keys of the production build, one file per key in one directory, named after the
// key id ("kid") that a container's header carries:
//   <kid>.pem  a PKCS#8 private key (decryption) or an SPKI public key (signature checks);
//   <kid>.jwk  a JSON Web Key, for symmetric "oct" keys ("dir" key management).
// The directory is /etc/orvane/keys; the environment variable ORVANE_KEY_DIR overrides it (host
// runs, tests, the workshop tool).
//
// Refused, each with a log line (tag "GLOBAL") that names the cause and never key material: a kid
// that is not a plain file name (only letters, digits, '.', '_', '-'; no leading '.'), a missing
// file, a file that is not a regular file (symbolic links included), a secret (private key or
// JWK) open to group or others (any of mode 077), a file of the wrong kind for the use.
//
// Threading: a KeyStore is immutable after construction; load() reads the file system and may be
// called from any thread.

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

namespace orv {

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

// Bytes that are wiped when they go (key material, plaintext). Threading: a value with one
// owner; no internal locking.
class SecretBytes {
 public:
  SecretBytes() = default;
  explicit SecretBytes(std::size_t size) : bytes_(size) {}
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  SecretBytes(SecretBytes&& other) noexcept : bytes_(std::move(other.bytes_)) {}
  SecretBytes& operator=(SecretBytes&& other) noexcept;
  ~SecretBytes();

  std::vector<unsigned char>& bytes() { return bytes_; }
  const std::vector<unsigned char>& bytes() const { return bytes_; }
  unsigned char* data() { return bytes_.data(); }
  const unsigned char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  void wipe();
  std::vector<unsigned char> bytes_;
};

class KeyStore {
 public:
  enum class Use { kDecrypt, kVerify, kSecret };

  struct Key {
    PkeyPtr pkey;        // kDecrypt: a private key; kVerify: a public key
    SecretBytes secret;  // kSecret: the "oct" key's bytes
  };

  static constexpr const char* kDefaultDirectory = "/etc/orvane/keys";

  // ORVANE_KEY_DIR when set and not empty, else kDefaultDirectory.
  static std::string defaultDirectory();

  explicit KeyStore(std::string directory = defaultDirectory());

  const std::string& directory() const { return directory_; }

  // The key `kid` for `use`: <kid>.jwk for kSecret, <kid>.pem otherwise. False with a log line.
  bool load(const std::string& kid, Use use, Key& key) const;

  // True when the directory holds a public key (<name>.pem with an SPKI key): then only signed
  // key manifests are accepted.
  bool holdsVerificationKeys() const;

  // A PEM file outside the store (the workshop tool's --encrypt-to / --sign-with): a public or a
  // private key, whichever it holds. False with a log line.
  static bool loadPemFile(const std::string& path, PkeyPtr& key);

  // A plain file name: [A-Za-z0-9._-]+, no leading '.', at most 128 characters.
  static bool plainKid(const std::string& kid);

 private:
  std::string directory_;
};

}  // namespace orv

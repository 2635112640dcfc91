#include "logic/key_store.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "logic/base64.h"
#include "minfw/json.h"
#include "minfw/log.h"

namespace orv {
namespace {

using kel::vxp3::minfw::json::JSON;

constexpr const char* kTag = "GLOBAL";
constexpr std::size_t kMaxKeyFile = 64 * 1024;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

// The whole file, refused when it is not a regular file (no symbolic links) or too big; `mode`
// is taken from the open descriptor, so the file that was checked is the file that was read.
bool readKeyFile(const std::string& path, SecretBytes& content, mode_t& mode) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    MLOG_ERROR(kTag, "Key file [", path, "] cannot be opened!");
    return false;
  }
  struct stat info {};
  bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
            static_cast<std::size_t>(info.st_size) <= kMaxKeyFile;
  if (!ok) {
    MLOG_ERROR(kTag, "Key file [", path, "] is not a regular file of at most ", kMaxKeyFile,
               " bytes!");
  } else {
    mode = info.st_mode;
    content.bytes().resize(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (ok && done < content.size()) {
      const ssize_t n = ::read(fd, content.data() + done, content.size() - done);
      ok = n > 0;
      done += ok ? static_cast<std::size_t>(n) : 0;
    }
    if (!ok)
      MLOG_ERROR(kTag, "Key file [", path, "] cannot be read!");
  }
  ::close(fd);
  return ok;
}

// A secret that others can read is compromised, one they can write may be swapped: refuse
// any access of group or others, as ssh does.
bool exposed(const std::string& path, mode_t mode) {
  if ((mode & (S_IRWXG | S_IRWXO)) == 0)
    return false;
  char octal[8] = {};
  std::snprintf(octal, sizeof octal, "%03o", static_cast<unsigned>(mode & 0777));
  MLOG_ERROR(kTag, "Key file [", path, "] is open to group or others (mode ", octal, "), refused!");
  return true;
}

bool isPrivatePem(const SecretBytes& pem) {
  const std::string_view text(reinterpret_cast<const char*>(pem.data()), pem.size());
  return text.find("PRIVATE KEY-----") != std::string_view::npos;
}

PkeyPtr parsePem(const SecretBytes& pem, bool isPrivate) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio)
    return nullptr;
  return PkeyPtr(isPrivate ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                           : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
}

}  // namespace

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept {
  if (this != &other) {
    wipe();
    bytes_ = std::move(other.bytes_);
  }
  return *this;
}

SecretBytes::~SecretBytes() {
  wipe();
}

void SecretBytes::wipe() {
  if (!bytes_.empty())
    OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

std::string KeyStore::defaultDirectory() {
  const char* dir = std::getenv("ORVANE_KEY_DIR");
  return dir != nullptr && *dir != '\0' ? dir : kDefaultDirectory;
}

KeyStore::KeyStore(std::string directory) : directory_(std::move(directory)) {}

bool KeyStore::plainKid(const std::string& kid) {
  if (kid.empty() || kid.size() > 128 || kid[0] == '.')
    return false;
  for (const char c : kid) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!allowed)
      return false;
  }
  return true;
}

bool KeyStore::load(const std::string& kid, Use use, Key& key) const {
  if (!plainKid(kid)) {
    MLOG_ERROR(kTag, "Key id is not a plain file name, refused! (", kid.size(), " characters)");
    return false;
  }
  const bool wantJwk = use == Use::kSecret;
  const std::string base = directory_ + "/" + kid;
  const std::string path = base + (wantJwk ? ".jwk" : ".pem");
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
    if (std::filesystem::exists(
            std::filesystem::symlink_status(base + (wantJwk ? ".pem" : ".jwk"), ec)))
      MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", wantJwk ? ".pem" : ".jwk",
                 " file where a ", wantJwk ? ".jwk" : ".pem", " key is needed!");
    else
      MLOG_ERROR(kTag, "Unknown key id [", kid, "]: no key file in [", directory_, "]!");
    return false;
  }
  SecretBytes content;
  if (wantJwk) {
    mode_t mode = 0;
    if (!readKeyFile(path, content, mode) || exposed(path, mode))
      return false;
    const JSON jwk = JSON::Load(std::string(content.bytes().begin(), content.bytes().end()));
    const JSON* kty = jwk.find("kty");
    const JSON* k = jwk.find("k");
    bool ok = false;
    if (kty != nullptr && kty->ToString(ok) == "oct" && ok && k != nullptr) {
      std::string text = k->ToString(ok);
      std::vector<unsigned char> decoded = base64UrlDecode(text);
      key.secret.bytes() = std::move(decoded);
      OPENSSL_cleanse(text.data(), text.size());
    }
    if (!ok || key.secret.size() == 0) {
      MLOG_ERROR(kTag, "Key [", kid, "] in [", path, "] is not an \"oct\" JSON Web Key!");
      return false;
    }
    return true;
  }
  mode_t mode = 0;
  if (!readKeyFile(path, content, mode))
    return false;
  const bool isPrivate = isPrivatePem(content);
  if (isPrivate && exposed(path, mode))
    return false;
  if (isPrivate != (use == Use::kDecrypt)) {
    MLOG_ERROR(kTag, "Key [", kid, "] has the wrong type: ", isPrivate ? "a private" : "a public",
               " key where ", isPrivate ? "a public" : "a private", " key is needed!");
    return false;
  }
  key.pkey = parsePem(content, isPrivate);
  if (!key.pkey) {
    MLOG_ERROR(kTag, "Key [", kid, "] in [", path, "] is not a readable PEM key!");
    return false;
  }
  return true;
}

bool KeyStore::holdsVerificationKeys() const {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(directory_, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().extension() != ".pem" || !it->is_regular_file(ec))
      continue;
    // A public key is no secret; mode and size are checked when the key is loaded for use.
    std::unique_ptr<BIO, BioFree> bio(BIO_new_file(it->path().c_str(), "r"));
    char line[64] = {};
    if (bio && BIO_gets(bio.get(), line, sizeof line) > 0 &&
        std::string_view(line).rfind("-----BEGIN PUBLIC KEY-----", 0) == 0)
      return true;
  }
  return false;
}

bool KeyStore::loadPemFile(const std::string& path, PkeyPtr& key) {
  SecretBytes content;
  mode_t mode = 0;
  if (!readKeyFile(path, content, mode))
    return false;
  key = parsePem(content, isPrivatePem(content));
  if (!key)
    MLOG_ERROR(kTag, "Key file [", path, "] is not a readable PEM key!");
  return key != nullptr;
}

}  // namespace orv

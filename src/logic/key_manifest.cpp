#include "logic/key_manifest.h"

#include <algorithm>

#include "logic/decrypt.h"
#include "logic/mose.h"
#include "minfw/log.h"
#ifdef ORVANE_CRYPTO_PRODUCTION
#include "logic/key_store.h"
#endif

namespace orv {
namespace {

using kel::vxp3::minfw::json::JSON;

constexpr const char* kTag = "GLOBAL";

// The member `key` when it is a string.
bool readText(const JSON& object, const std::string& key, std::string& value) {
  const JSON* member = object.find(key);
  if (member == nullptr)
    return false;
  bool ok = false;
  value = member->ToString(ok);
  return ok;
}

bool signatureRequired() {
#ifdef ORVANE_CRYPTO_PRODUCTION
  return KeyStore().holdsVerificationKeys();
#else
  return false;
#endif
}

}  // namespace

bool KeyManifest::Extract(std::string& rawData) {
  *this = KeyManifest();
  rawData_ = rawData;
  if (rawData.empty()) {
    MLOG_ERROR(kTag, "RawData is empty!");
    return false;
  }
  // The production build also takes a signed container (3 parts) whose payload is the
  // encrypted one; once the key store holds verification keys, it takes nothing else.
  const bool isSigned =
      Decrypt::production() && std::count(rawData.begin(), rawData.end(), '.') == 2;
  std::string signedPayload;
  if (isSigned) {
    std::string signedHeader;
    std::vector<unsigned char> inner;
    if (!Mose::VerifySigned(rawData_, signedHeader, inner)) {
      MLOG_ERROR(kTag, "Error verifying signed key manifest!");
      return false;
    }
    signedPayload.assign(inner.begin(), inner.end());
  } else if (Decrypt::production() && signatureRequired()) {
    MLOG_ERROR(kTag, "Unsigned key manifest refused: the key store holds verification keys!");
    return false;
  }
  std::string& container = isSigned ? signedPayload : rawData_;
  if (!Mose::ExtractEncrypted(container, headerText_, encryptedKey_, iv_, cipherText_, tag_)) {
    MLOG_ERROR(kTag, "Error extracting MOSE contents!");
    return false;
  }
  MLOG_DEBUG(kTag, "Header: [", headerText_, "]");
  header_ = JSON::Load(headerText_);
  if (header_.JSONType() != JSON::Class::Object) {
    MLOG_ERROR(kTag, "Error reading json header!");
    return false;
  }
  std::string alg;
  if (!readText(header_, "alg", alg)) {
    MLOG_ERROR(kTag, "Json header mandatory field \"alg\" not found!");
    return false;
  }
  std::string enc;
  if (!readText(header_, "enc", enc)) {
    MLOG_ERROR(kTag, "Json header mandatory field \"enc\" not found!");
    return false;
  }
  // The header as transmitted is the additional authenticated data.
  const std::string protectedHeader = container.substr(0, container.find('.'));
  if (!Decrypt::Execute(cipherText_, alg, enc, encryptedKey_, iv_, tag_, protectedHeader, header_,
                        payloadText_)) {
    MLOG_ERROR(kTag, "Error decrypting MOSE payload: alg=[", alg, "], enc=[", enc, "]");
    return false;
  }
  MLOG_INFO(kTag, "Payload decrypted ok!");
  payload_ = JSON::Load(payloadText_);
  if (payload_.JSONType() != JSON::Class::Object) {
    MLOG_ERROR(kTag, "Error reading json MOSE payload!");
    return false;
  }
  return true;
}

}  // namespace orv

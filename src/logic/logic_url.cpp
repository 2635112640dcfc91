// The key manifest and the URL resolution: the manifest is read from the medium and decrypted,
// then every file the LUM asks for is answered with its URL and crypto parameters.
// Threading: pool worker only.
#include "logic/logic.h"

#include "logic/http.h"
#include "logic/key_manifest.h"
#include "logic/logic_internal.h"
#include "minfw/json.h"
#include "minfw/log.h"

namespace orv {

using namespace logic_internal;

namespace {

using Json = kel::vxp3::minfw::json::JSON;

// The update-medium description is fetched with this many tries.
constexpr unsigned kHttpTries = 3;

// The update-medium description and key manifest lie on the same HTTP location.
std::string joinUrl(const std::string& base, const std::string& name) {
  if (base.empty() || base.back() == '/') {
    return base + name;
  }
  return base + "/" + name;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Key manifest and URL resolution

bool Logic::ReadKeyManifest() {
  const uint32_t fault = loadKeyManifest();
  if (fault != 0) {
    failKeyManifest(fault);
  }
  return fault == 0;
}

void Logic::failKeyManifest(uint32_t code) {
  if (code == kErrKeyManifestSize) {
    enqueue([this] { seqInstallationFailed(kErrKeyManifestSize); });
  } else {
    seqInstallationFailed(static_cast<int>(code));
  }
}

uint32_t Logic::loadKeyManifest() {
  restoreMedium();
  const Medium taken = medium();
  const std::string url = joinUrl(taken.usbPath, taken.keyManifestFileAddr);
  uint64_t size = 0;
  if (taken.keyManifestFileAddr.empty() || !Http::_Size(url, size, kHttpTries)) {
    MLOG_ERROR(kTag, "Error reading keyManifest at [", url, "]");
    return kErrKeyManifestRead;
  }
  if (size > kKeyManifestMaxSize) {
    MLOG_ERROR(kTag, "Error keyManifest [", url, "] too big! size=[", size, "], max=[",
               kKeyManifestMaxSize, "]");
    return kErrKeyManifestSize;
  }
  // No more than announced: the GET stops receiving there.
  std::string text;
  bool tooBig = false;
  if (!Http::_Get(url, text, kHttpTries, size, tooBig)) {
    if (tooBig) {
      MLOG_ERROR(kTag, "Error keyManifest [", url, "] too big! size=[more than ", size, "], max=[",
                 kKeyManifestMaxSize, "]");
      return kErrKeyManifestSize;
    }
    MLOG_ERROR(kTag, "Error reading keyManifest at [", url, "]");
    return kErrKeyManifestRead;
  }
  KeyManifest manifest;
  if (!manifest.Extract(text)) {
    MLOG_ERROR(kTag, "Error decrypting keyManifest from [", url, "]");
    return kErrKeyManifestDecrypt;
  }
  setKeyManifest(manifest.payloadText());
  return 0;
}

void Logic::seqResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) {
  if (keyManifest().empty()) {
    MLOG_INFO(kTag, "No keyManifest loaded!");
    if (const uint32_t fault = loadKeyManifest()) {
      // The LUM waits for an answer: it learns that nothing resolves before the update ends
      // (which gives up control, and with it the way to answer).
      lum11::UpdateUrlResponseStruct response;
      response.updateURLRequestID = request.updateURLRequestID;
      response.error = lum11::CM_UrlError::internalError;
      response.urlInfo.assign(request.fileNames.size(), "");
      sendUrlResponse(response);
      failKeyManifest(fault);
      return;
    }
  } else {
    MLOG_INFO(kTag, "Key manifest loaded!");
  }
  restoreMedium();
  const Medium taken = medium();
  const std::string& address = taken.keyManifestFileAddr;
  const size_t slash = address.rfind('/');
  const std::string base = slash == std::string::npos ? "" : address.substr(0, slash);
  MLOG_INFO(kTag, "FileNames.size()=", request.fileNames.size(), ", Base from keyManifest [", base,
            "]");

  const Json payload = Json::Load(keyManifest());
  const Json* files = payload.find("EncryptedFiles");
  lum11::UpdateUrlResponseStruct response;
  response.updateURLRequestID = request.updateURLRequestID;
  response.error = lum11::CM_UrlError::noError;
  for (const std::string& name : request.fileNames) {
    MLOG_INFO(kTag, "FileName [", name, "]");
    bool found = false;
    size_t index = 0;
    if (files != nullptr && !name.empty()) {
      for (const Json& entry : files->ArrayRange()) {
        const Json* file = entry.find("File");
        const std::string path = file != nullptr ? file->ToString() : "";
        if (path.find("/" + name) != std::string::npos) {
          found = true;
          break;
        }
        ++index;
      }
    }
    if (!found) {
      MLOG_ERROR(kTag, "Cannot find file [", name, "] in keyManifest at [", address, "]");
      response.error = lum11::CM_UrlError::fileNotFound;
      response.urlInfo.push_back("");
      continue;
    }
    const Json& entry = files->ArrayRange()[index];
    const Json* parameters = entry.find("CryptoParameters");
    const size_t count = parameters != nullptr ? parameters->ArrayRange().size() : 0;
    if (count != 3) {
      MLOG_ERROR(kTag, "Insufficient CryptoParameters at index [", index, "], File [", name,
                 "], CryptoParameters.size()=", count);
      response.error = lum11::CM_UrlError::internalError;
      response.urlInfo.push_back("");
      continue;
    }
    MLOG_INFO(kTag, "found at index [", index, "], File [", name,
              "], CryptoParameters.size()=", count);
    // One compact JSON object per requested file, in request order: the file's URL on the
    // medium and its three crypto parameters as (name, value) pairs.
    std::string info = "{\"fileName\":" + Json(name).dump() +
                       ",\"url\":" + Json(taken.updateBaseUrl + name).dump() +
                       ",\"cryptoParameters\":[";
    bool first = true;
    for (const Json& parameter : parameters->ArrayRange()) {
      const Json* key = parameter.find("Name");
      const Json* value = parameter.find("Value");
      info += first ? "" : ",";
      info += "{\"name\":" + Json(key != nullptr ? key->ToString() : "").dump() +
              ",\"value\":" + Json(value != nullptr ? value->ToString() : "").dump() + "}";
      first = false;
    }
    info += "]}";
    response.urlInfo.push_back(info);
  }
  sendUrlResponse(response);
}

void Logic::sendUrlResponse(const lum11::UpdateUrlResponseStruct& response) {
  std::shared_ptr<DiagLUMControlClient> lum =
      signalRequestInterface ? signalRequestInterface(ACTIVE_USB) : nullptr;
  if (!lum) {
    MLOG_ERROR(kTag, "Unable to retrieve LUM interface!");
    return;
  }
  lum->updateURLResponse(response, true);
}

}  // namespace orv

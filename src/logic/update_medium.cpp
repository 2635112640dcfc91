#include "logic/update_medium.h"

#include <algorithm>

#include "logic/http.h"
#include "minfw/json.h"
#include "minfw/log.h"

namespace orv {

namespace {

using Json = kel::vxp3::minfw::json::JSON;

constexpr const char* kTag = "GLOBAL";

// An optional string member: absent is "", another type is a fault. The fault's text closes
// its quote only for "train", as the texts always were.
bool readString(const Json& doc, const char* key, std::string& value) {
  const Json* member = doc.find(key);
  if (member == nullptr) {
    value.clear();
    return true;
  }
  bool ok = false;
  value = member->ToString(ok);
  if (!ok) {
    MLOG_ERROR(kTag, "Invalid data for \"", key, std::string(key) == "train" ? "\"" : "");
  }
  return ok;
}

// A non-empty array of non-empty strings; the texts of the faults name `what`.
bool readStrings(const Json& doc, const char* key, const std::string& file, const char* empty,
                 std::vector<std::string>& values) {
  const Json* member = doc.find(key);
  if (member == nullptr || member->JSONType() != Json::Class::Array) {
    MLOG_ERROR(kTag, "No \"", key, "\" array in [", file, "]");
    return false;
  }
  if (member->size() == 0) {
    MLOG_ERROR(kTag, "Illegal size for \"", key, "\" array in [", file, "]");
    return false;
  }
  values.clear();
  size_t index = 0;
  for (const Json& element : member->ArrayRange()) {
    bool ok = false;
    std::string text = element.ToString(ok);
    if (!ok) {
      MLOG_ERROR(kTag, "Invalid data for \"", key, "\", index [", index, "]");
      return false;
    }
    if (text.empty()) {
      MLOG_ERROR(kTag, empty, file, "]");
      return false;
    }
    values.push_back(std::move(text));
    ++index;
  }
  return true;
}

}  // namespace

bool UpdateMedium::toAddress(const std::string& text, uint16_t& address) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  std::string digits = hex ? text.substr(2) : text;
  const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
  if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) {
    return false;
  }
  // Leading zeros say nothing (and never mean octal); what remains must fit 16 bits, which also
  // keeps stoul clear of its out-of-range exception.
  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
  if (digits.size() > (hex ? 4u : 5u)) {
    return false;
  }
  const unsigned long value = std::stoul(digits, nullptr, hex ? 16 : 10);
  if (value > 0xFFFF) {
    return false;
  }
  address = static_cast<uint16_t>(value);
  return true;
}

bool UpdateMedium::Parse(std::string location) {
  if (!location.empty() && location.back() != '/') {
    location += "/";
  }
  const std::string url = location + kFileName;

  uint64_t size = 0;
  if (!Http::_Size(url, size, kTries)) {
    return false;
  }
  if (size > kMaxSize) {
    MLOG_ERROR(kTag, "Remote file too big: size=[", size, "], max=[", kMaxSize, "]");
    return false;
  }
  // The HEAD may lie: the GET takes no more than it announced, and stops receiving there.
  std::string text;
  bool tooBig = false;
  if (!Http::_Get(url, text, kTries, size, tooBig)) {
    if (tooBig) {
      MLOG_ERROR(kTag, "Remote file too big: more than the announced size=[", size, "], max=[",
                 kMaxSize, "]");
    }
    return false;
  }
  return ParseText(text, url);
}

bool UpdateMedium::ParseText(const std::string& text, const std::string& url) {
  // Parse's GET never takes more than the limit; a description given as text is held to it too.
  if (text.size() > kMaxSize) {
    MLOG_ERROR(kTag, "Remote file too big: size=[", text.size(), "], max=[", kMaxSize, "]");
    return false;
  }
  const Json doc = text.empty() ? Json() : Json::Load(text);
  if (doc.JSONType() != Json::Class::Object) {
    MLOG_ERROR(kTag, "No JSON content in [", url, "]");
    return false;
  }

  std::string order;
  if (!readString(doc, "order", order)) {
    return false;
  }
  std::vector<std::string> manifests;
  if (!readStrings(doc, "manifests", url, "Empty manifest file in [", manifests)) {
    return false;
  }
  std::vector<std::string> addressTexts;
  if (!readStrings(doc, "diagAddresses", url, "Empty diagnosis address in [", addressTexts)) {
    return false;
  }
  std::vector<uint16_t> addresses;
  for (size_t index = 0; index < addressTexts.size(); ++index) {
    uint16_t address = 0;
    if (!toAddress(addressTexts[index], address)) {
      MLOG_ERROR(kTag, "Unable to convert diagAddresses index=[", index, "], value=[",
                 addressTexts[index], "] to uint16_t!");
      return false;
    }
    addresses.push_back(address);
  }
  if (doc.find("train") == nullptr) {
    MLOG_ERROR(kTag, "No \"", "train", "\" key in [", url, "]");
    return false;
  }
  std::string train;
  if (!readString(doc, "train", train)) {
    return false;
  }
  std::string keyManifest;
  if (!readString(doc, "keyManifest", keyManifest)) {
    return false;
  }
  const size_t slash = url.rfind('/');
  if (slash == std::string::npos) {
    MLOG_ERROR(kTag, "Weird URL: [", url, "]");
    return false;
  }

  trainName_ = train;
  updateOrder_ = order;
  updateManifests_ = manifests;
  diagAddresses_ = addresses;
  keyManifestFileAddr_ = keyManifest;
  updateBaseUrl_ = url.substr(0, slash);
  return true;
}

}  // namespace orv

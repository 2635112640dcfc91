#include "logic/persistence.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "minfw/file_system.h"
#include "minfw/file_with_backup.h"
#include "minfw/json.h"
#include "minfw/log.h"

namespace orv {

namespace {

using kel::vxp3::minfw::FileWithBackup;
using kel::vxp3::minfw::json::JSON;

constexpr const char* kTag = "pers";
constexpr uint32_t kFileMode = 0644;

constexpr const char* kChannel = "channel";
constexpr const char* kUpdateType = "updatetype";
constexpr const char* kRepairInstructionId = "repairinstructionid";
constexpr const char* kStateHmi = "statehmi";
constexpr const char* kStateLum = "statelum";
constexpr const char* kErrorCode = "errorcode";
constexpr const char* kProgress = "progress";
constexpr const char* kTrainName = "trainname";
// Where the medium of the current update is served, so that a restarted update can read it again.
constexpr const char* kUsbPath = "usbpath";
constexpr const char* kKeyManifest = "keyManifest";
// A laptop's hand-over, kept from its acknowledgement until the update holds the LUM session.
constexpr const char* kHandOver = "handover";
// Counts restarts that resumed the same step, so that a resume that crashes again is given up.
constexpr const char* kResumeAttempts = "resumeattempts";
constexpr const char* kTimestamps = "timestamps";
constexpr const char* kStartDate = "start-date";
constexpr const char* kStartTime = "start-time";
constexpr const char* kEndDate = "end-date";
constexpr const char* kEndTime = "end-time";
constexpr const char* kNoDate = "--.--.----";
constexpr const char* kNoTime = "--:--:--";

constexpr int64_t kUint32Max = std::numeric_limits<uint32_t>::max();
constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();

std::string lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The member named `key` without regard to case; the exact spelling wins over variants.
const JSON* findKey(const JSON& object, const std::string& key) {
  if (const JSON* exact = object.find(key))
    return exact;
  const std::string wanted = lower(key);
  for (const auto& [name, value] : object.ObjectRange()) {
    if (lower(name) == wanted)
      return &value;
  }
  return nullptr;
}

// The member under the documented spelling `key`, after removing every other-case variant.
// When only a variant existed, its value moves to `key` (so "Timestamps" keeps its members).
JSON& canonicalMember(JSON& object, const std::string& key) {
  const std::string wanted = lower(key);
  std::vector<std::string> variants;
  for (const auto& [name, value] : object.ObjectRange()) {
    if (name != key && lower(name) == wanted)
      variants.push_back(name);
  }
  std::optional<JSON> moved;
  if (!object.hasKey(key) && !variants.empty())
    moved = *object.find(variants.front());
  for (const std::string& name : variants)
    object.erase(name);
  JSON& member = object[key];
  if (moved)
    member = std::move(*moved);
  return member;
}

}  // namespace

Persistence::Persistence(const std::string& directory, const std::string& fileName)
    : path_(directory + (!directory.empty() && directory.back() == '/' ? "" : "/") + fileName) {
  struct stat status {};
  if (kel::vxp3::minfw::fileSystem().stat(directory.c_str(), &status) != 0 ||
      !S_ISDIR(status.st_mode)) {
    throw std::runtime_error("Persistence directory does not exist [" + directory + "]!");
  }
}

namespace {

// The record as it is on disk; Null when there is none or it cannot be read. Caller holds the
// record's mutex.
JSON load(const std::string& path) {
  std::string text;
  if (!FileWithBackup::Read(path, text))
    return JSON();
  return JSON::Load(text);
}

// The document type prints integers as unsigned 64-bit values, so a negative integer (written
// by someone else) would come back as a number that cannot be read, and the whole record would
// be lost on the next load. Such values are kept as floating point instead. Returns how many.
std::size_t keepNegativesReadable(JSON& value) {
  std::size_t changed = 0;
  switch (value.JSONType()) {
    case JSON::Class::Integral:
      if (value.ToInt() < 0) {
        value = JSON(static_cast<double>(value.ToInt()));
        changed = 1;
      }
      break;
    case JSON::Class::Object: {
      std::vector<std::string> names;
      for (const auto& member : value.ObjectRange())
        names.push_back(member.first);
      for (const std::string& name : names)
        changed += keepNegativesReadable(value[name]);
      break;
    }
    case JSON::Class::Array:
      for (std::size_t i = 0; i < value.size(); ++i)
        changed += keepNegativesReadable(value[i]);
      break;
    default:
      break;
  }
  return changed;
}

// The record, ready to be changed: a root that is not an object starts a new record.
JSON loadForChange(const std::string& path) {
  JSON root = load(path);
  if (root.JSONType() != JSON::Class::Object) {
    if (!root.IsNull())
      MLOG_WARN(kTag, "Record [", path, "] holds no JSON object; starting a new one.");
    return JSON::Make(JSON::Class::Object);
  }
  if (const std::size_t changed = keepNegativesReadable(root); changed > 0)
    MLOG_WARN(kTag, "Record [", path, "]: ", changed,
              " negative integer(s) kept as floating point.");
  return root;
}

bool save(const std::string& path, const JSON& root) {
  // A failure was logged by FileWithBackup; the next read returns what is on disk.
  return FileWithBackup::Write(path, root.dump(1, "  "), static_cast<uint32_t>(getuid()),
                               static_cast<uint32_t>(getgid()), kFileMode);
}

}  // namespace

bool Persistence::readNumber(const char* key, int64_t minimum, int64_t maximum, int64_t* value) {
  std::lock_guard<std::mutex> lock(mutex_);
  const JSON root = load(path_);
  const JSON* member = findKey(root, key);
  if (member == nullptr)
    return false;
  bool ok = false;
  int64_t number = member->ToInt(ok);
  if (!ok) {
    // A whole number written as floating point ("3.000000") is still that number.
    const double floating = member->ToFloat(ok);
    ok = ok && std::isfinite(floating) && std::trunc(floating) == floating &&
         floating >= static_cast<double>(minimum) && floating <= static_cast<double>(maximum);
    if (ok)
      number = static_cast<int64_t>(floating);
  }
  if (!ok) {
    MLOG_WARN(kTag, "Key [", key, "] in [", path_, "] holds no number; using the default.");
    return false;
  }
  if (number < minimum || number > maximum) {
    MLOG_WARN(kTag, "Key [", key, "] in [", path_, "] is out of range [", number,
              "]; using the default.");
    return false;
  }
  *value = number;
  return true;
}

std::string Persistence::readString(const char* key) {
  std::lock_guard<std::mutex> lock(mutex_);
  const JSON root = load(path_);
  const JSON* member = findKey(root, key);
  if (member == nullptr)
    return "";
  bool ok = false;
  std::string text = member->ToString(ok);
  if (!ok)
    MLOG_WARN(kTag, "Key [", key, "] in [", path_, "] holds no string; using the default.");
  return ok ? text : "";
}

std::string Persistence::readTimestamp(const char* member, const char* placeholder) {
  std::lock_guard<std::mutex> lock(mutex_);
  const JSON root = load(path_);
  const JSON* timestamps = findKey(root, kTimestamps);
  const JSON* value = timestamps == nullptr ? nullptr : findKey(*timestamps, member);
  if (value == nullptr)
    return placeholder;
  bool ok = false;
  std::string text = value->ToString(ok);
  return ok ? text : placeholder;
}

void Persistence::writeNumber(const char* key, int64_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON root = loadForChange(path_);
  canonicalMember(root, key) = JSON(value);
  save(path_, root);
}

bool Persistence::writeString(const char* key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON root = loadForChange(path_);
  canonicalMember(root, key) = JSON(value);
  return save(path_, root);
}

void Persistence::writeTimestamp(const char* member, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON root = loadForChange(path_);
  JSON& timestamps = canonicalMember(root, kTimestamps);
  if (timestamps.JSONType() != JSON::Class::Object)
    timestamps = JSON::Make(JSON::Class::Object);
  canonicalMember(timestamps, member) = JSON(value);
  save(path_, root);
}

// Unsigned keys accept 0 .. 2^32-1.
#define ORV_UNSIGNED_KEY(Name, key)                        \
  uint32_t Persistence::get##Name(uint32_t defaultValue) { \
    int64_t value = 0;                                     \
    if (!readNumber(key, 0, kUint32Max, &value))           \
      return defaultValue;                                 \
    return static_cast<uint32_t>(value);                   \
  }                                                        \
  void Persistence::set##Name(uint32_t value) {            \
    writeNumber(key, static_cast<int64_t>(value));         \
  }

ORV_UNSIGNED_KEY(Channel, kChannel)
ORV_UNSIGNED_KEY(UpdateType, kUpdateType)
ORV_UNSIGNED_KEY(RepairInstructionId, kRepairInstructionId)
ORV_UNSIGNED_KEY(StateHmi, kStateHmi)
ORV_UNSIGNED_KEY(StateLum, kStateLum)
ORV_UNSIGNED_KEY(Progress, kProgress)
ORV_UNSIGNED_KEY(ResumeAttempts, kResumeAttempts)
#undef ORV_UNSIGNED_KEY

// The error code is stored as its unsigned 32-bit pattern, which the document type prints and
// reads back unchanged (see keepNegativesReadable); LUM codes are unsigned anyway. A negative
// value written by someone else is accepted too.
int32_t Persistence::getErrorCode(int32_t defaultValue) {
  int64_t value = 0;
  if (!readNumber(kErrorCode, kInt32Min, kUint32Max, &value))
    return defaultValue;
  return value < 0 ? static_cast<int32_t>(value)
                   : static_cast<int32_t>(static_cast<uint32_t>(value));
}

void Persistence::setErrorCode(int32_t value) {
  writeNumber(kErrorCode, static_cast<int64_t>(static_cast<uint32_t>(value)));
}

std::string Persistence::getTrainName() {
  return readString(kTrainName);
}
std::string Persistence::getKeyManifest() {
  return readString(kKeyManifest);
}
std::string Persistence::getUsbPath() {
  return readString(kUsbPath);
}

void Persistence::setUsbPath(const std::string& value) {
  writeString(kUsbPath, value);
}

std::string Persistence::getHandOver() {
  return readString(kHandOver);
}

bool Persistence::setHandOver(const std::string& value) {
  return writeString(kHandOver, value);
}

void Persistence::replaceHandOver(const std::string& expected, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON root = loadForChange(path_);
  const JSON* member = findKey(root, kHandOver);
  bool ok = false;
  if (member != nullptr && member->ToString(ok) == expected && ok && expected != value) {
    canonicalMember(root, kHandOver) = JSON(value);
    save(path_, root);
  }
}

void Persistence::setTrainName(const std::string& value) {
  writeString(kTrainName, value);
}
void Persistence::setKeyManifest(const std::string& value) {
  writeString(kKeyManifest, value);
}

std::string Persistence::getStartDate() {
  return readTimestamp(kStartDate, kNoDate);
}
std::string Persistence::getStartTime() {
  return readTimestamp(kStartTime, kNoTime);
}
std::string Persistence::getEndDate() {
  return readTimestamp(kEndDate, kNoDate);
}
std::string Persistence::getEndTime() {
  return readTimestamp(kEndTime, kNoTime);
}
void Persistence::setStartDate(const std::string& value) {
  writeTimestamp(kStartDate, value);
}
void Persistence::setStartTime(const std::string& value) {
  writeTimestamp(kStartTime, value);
}
void Persistence::setEndDate(const std::string& value) {
  writeTimestamp(kEndDate, value);
}
void Persistence::setEndTime(const std::string& value) {
  writeTimestamp(kEndTime, value);
}

}  // namespace orv

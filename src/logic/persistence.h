#pragma once
// Persistence: the record of the current or last local update, one JSON object in one file.
//
// There is no in-memory copy: every getter loads the file, every setter loads it, changes one
// key and writes the whole document back through FileWithBackup (crash-safe, owner = this
// process, mode 0644). A missing, unreadable or corrupt file reads as defaults; the next
// setter starts a fresh object. Keys are matched without regard to case; a setter stores the
// documented spelling and drops other-case variants of the same key. Messages carry the tag
// "pers".
//
// Threading: thread-safe. mutex_ serialises every load and every load-change-save of the file,
// so concurrent setters of different keys never lose each other's change. No other process
// writes the file.

#include <cstdint>
#include <mutex>
#include <string>

namespace orv {

class Persistence {
 public:
  // Throws std::runtime_error when `directory` does not exist. Reads and creates nothing.
  Persistence(const std::string& directory, const std::string& fileName);

  Persistence(const Persistence&) = delete;
  Persistence& operator=(const Persistence&) = delete;

  const std::string& path() const { return path_; }

  uint32_t getChannel(uint32_t defaultValue);
  uint32_t getUpdateType(uint32_t defaultValue);
  uint32_t getRepairInstructionId(uint32_t defaultValue);
  uint32_t getStateHmi(uint32_t defaultValue);
  uint32_t getStateLum(uint32_t defaultValue);
  int32_t getErrorCode(int32_t defaultValue);
  uint32_t getProgress(uint32_t defaultValue);
  // Restarts that resumed the interrupted update at the same step ("resumeattempts").
  uint32_t getResumeAttempts(uint32_t defaultValue);

  void setChannel(uint32_t value);
  void setUpdateType(uint32_t value);
  void setRepairInstructionId(uint32_t value);
  void setStateHmi(uint32_t value);
  void setStateLum(uint32_t value);
  void setErrorCode(int32_t value);
  void setProgress(uint32_t value);
  void setResumeAttempts(uint32_t value);

  // "" when absent.
  std::string getTrainName();
  std::string getKeyManifest();
  void setTrainName(const std::string& value);
  // The location of the current update's medium ("usbpath").
  std::string getUsbPath();
  void setUsbPath(const std::string& value);
  void setKeyManifest(const std::string& value);
  // A medium location that the workshop laptop handed over and that no update has taken up to
  // the LUM yet ("handover", "" when none). The setter reports whether the record holds it now;
  // replaceHandOver changes it only while it still is `expected`, so a newer one is left alone.
  std::string getHandOver();
  bool setHandOver(const std::string& value);
  void replaceHandOver(const std::string& expected, const std::string& value);

  // "--.--.----" / "--:--:--" when absent.
  std::string getStartDate();
  std::string getStartTime();
  std::string getEndDate();
  std::string getEndTime();
  void setStartDate(const std::string& value);
  void setStartTime(const std::string& value);
  void setEndDate(const std::string& value);
  void setEndTime(const std::string& value);

 private:
  // The whole number under `key` when it lies in [minimum, maximum]; false otherwise (the
  // caller's default applies). Each holds mutex_ for its whole load or load-change-save.
  bool readNumber(const char* key, int64_t minimum, int64_t maximum, int64_t* value);
  std::string readString(const char* key);
  std::string readTimestamp(const char* member, const char* placeholder);
  void writeNumber(const char* key, int64_t value);
  bool writeString(const char* key, const std::string& value);
  void writeTimestamp(const char* member, const std::string& value);

  const std::string path_;
  std::mutex mutex_;  // guards every access to the file at path_
};

}  // namespace orv

#pragma once
// UpdateMedium: the description of an update medium, "NodboxUpdateMedium.json" in the medium's
// root, fetched over HTTP from the medium's location and checked key by key. A fault is logged
// at error (tag "GLOBAL") and makes Parse return false; nothing is cached between parses.
//
// Diagnostic addresses are texts of 16-bit numbers, decimal ("6657") or hexadecimal with "0x"
// ("0x1A01"); the whole text must be digits, no sign or blanks, and a leading zero does not make
// a number octal ("010" is ten).
//
// The description may be at most kMaxSize bytes: the HEAD's size is checked before the GET, and
// the GET stops receiving once the body grows past the announced size, since the HEAD may lie. A
// body longer than announced is refused as too big; a shorter one is taken.
//
// Threading: owned by one thread.

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

class UpdateMedium {
 public:
  static constexpr const char* kFileName = "NodboxUpdateMedium.json";
  static constexpr uint64_t kMaxSize = 512000;
  static constexpr unsigned kTries = 3;

  // `location`: the URL of the medium's root, with or without a final "/".
  bool Parse(std::string location);
  // The checks of Parse on a description already fetched from `url` (the description's own URL).
  bool ParseText(const std::string& text, const std::string& url);

  const std::string& trainName() const { return trainName_; }
  const std::string& updateOrder() const { return updateOrder_; }
  const std::vector<std::string>& updateManifests() const { return updateManifests_; }
  const std::vector<uint16_t>& diagAddresses() const { return diagAddresses_; }
  const std::string& keyManifestFileAddr() const { return keyManifestFileAddr_; }
  // The description's URL up to, not including, its last "/".
  const std::string& updateBaseUrl() const { return updateBaseUrl_; }

  // The value of a diagnostic-address text; false unless it is a whole number in 0..65535.
  static bool toAddress(const std::string& text, uint16_t& address);

 private:
  std::string trainName_;
  std::string updateOrder_;
  std::vector<std::string> updateManifests_;
  std::vector<uint16_t> diagAddresses_;
  std::string keyManifestFileAddr_;
  std::string updateBaseUrl_;
};

}  // namespace orv

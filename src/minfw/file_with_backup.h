#pragma once
// FileWithBackup: whole-file writes that survive a power cut at any moment.
//
// Write() puts the data into the sibling path + ".new", fsyncs it, sets mode and owner, renames
// it over the target and fsyncs the directory. At every moment the old target, the new target
// or a complete ".new" sibling is on disk; Read() falls back to the sibling when the target is
// missing. Messages carry the tag "pers".
//
// Threading: stateless; safe to call from any thread, but callers serialise access to one
// path (two concurrent writers of the same path would share the ".new" sibling).

#include <cstdint>
#include <string>

namespace kel::vxp3::minfw {

class FileWithBackup {
 public:
  // True when `path` holds `data` (owner and mode failures are logged and tolerated).
  static bool Write(std::string path, const std::string& data, uint32_t owner, uint32_t group,
                    uint32_t mode);

  // The whole content of `path`, or of its ".new" sibling when `path` is missing. An empty
  // sibling counts as missing: it is what a write cut short before its fsync leaves behind.
  static bool Read(const std::string& path, std::string& data);
};

}  // namespace kel::vxp3::minfw

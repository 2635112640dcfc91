#pragma once
// MediumPathRelay: the process-wide hand-over of an update medium's address from the diagnostic
// routine client to the HMI service, which are created in different places and never see each
// other. The HMI service binds the receiving end; the routine client sends.
//
// Threading: thread-safe. mutex_ guards the slot and is held while the slot runs, so once
// unbind() has returned the unbound receiver is never called again.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace orv {

class MediumPathRelay {
 public:
  static MediumPathRelay& instance();

  MediumPathRelay(const MediumPathRelay&) = delete;
  MediumPathRelay& operator=(const MediumPathRelay&) = delete;

  // Replaces the receiver; the number identifies this binding for unbind().
  uint64_t bind(std::function<void(const std::string& path)> receiver);
  // Clears the receiver if it is still the one of `binding` (a later bind is left alone).
  void unbind(uint64_t binding);
  // Hands `path` to the receiver; false with "MediumPathRelay not bound!" when there is none.
  bool send(const std::string& path);

 private:
  MediumPathRelay() = default;

  std::mutex mutex_;  // guards receiver_ and binding_
  std::function<void(const std::string&)> receiver_;
  uint64_t binding_ = 0;
};

}  // namespace orv

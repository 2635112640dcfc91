#include "interfaces/hmi/medium_path_relay.h"

#include "minfw/log.h"

namespace orv {

MediumPathRelay& MediumPathRelay::instance() {
  static MediumPathRelay relay;
  return relay;
}

uint64_t MediumPathRelay::bind(std::function<void(const std::string& path)> receiver) {
  std::lock_guard<std::mutex> lock(mutex_);
  receiver_ = std::move(receiver);
  return ++binding_;
}

void MediumPathRelay::unbind(uint64_t binding) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (binding == binding_) {
    receiver_ = nullptr;
  }
}

bool MediumPathRelay::send(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!receiver_) {
    MLOG_ERROR("hmi", "MediumPathRelay not bound!");
    return false;
  }
  receiver_(path);
  return true;
}

}  // namespace orv

#include "minfw/keltrace_sink.h"

#include <new>
#include <utility>

namespace kel::vxp3::minfw {

namespace {
constexpr int16_t kDefaultLevel = 7;
constexpr int32_t kChannelOption = 2;
}  // namespace

KelTrace::KelTrace() = default;

KelTrace::~KelTrace() {
  enabled_.store(0);
  std::lock_guard<std::mutex> lock(mutex_);
  channels_.clear();
}

void KelTrace::write(const std::string& traceApp, const std::string& name, const std::string& tag,
                     const std::string& location, const std::string& message, uint8_t level) {
  // Checked before the lock too, so that a writer arriving after destruction never touches
  // the mutex.
  if (enabled_.load() == 0)
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (enabled_.load() == 0)
    return;
  const std::string channelName = traceApp + "_" + name + "_" + tag;
  auto it = channels_.find(channelName);
  if (it == channels_.end()) {
    std::unique_ptr<tracing::Channel> channel;
    try {
      channel = std::make_unique<tracing::Channel>(channelName, kDefaultLevel, kChannelOption);
    } catch (const std::bad_alloc&) {
      return;  // dropped: nowhere better to report a failing logger
    }
    channel->setFilterLevel(0);
    channel->enable();
    it = channels_.emplace(channelName, std::move(channel)).first;
  }
  it->second->log(static_cast<int16_t>(level), location + ": " + message);
}

}  // namespace kel::vxp3::minfw

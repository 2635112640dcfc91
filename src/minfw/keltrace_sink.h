#pragma once
// KelTrace: records to the platform trace, one trace channel per channel name
// "<traceApp>_<name>_<tag>" ("LUM_Orvane_GLOBAL"). A channel is created on the first record of
// its name (default level 7, option 2, then filter level 0 and enabled) and reused after that.
// The text is "<location>: <message>", the level the logger's, unchanged.
//
// Threading: thread-safe. `mutex_` guards the channel map; `enabled_` is atomic so that the
// destructor, which may run at exit while late writers still log, makes them drop their records
// before it takes the map apart.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "minfw/log.h"
#include "platform/tracing/channel.h"

namespace kel::vxp3::minfw {

class KelTrace : public Sink {
 public:
  KelTrace();
  ~KelTrace() override;
  KelTrace(const KelTrace&) = delete;
  KelTrace& operator=(const KelTrace&) = delete;

  void write(const std::string& traceApp, const std::string& name, const std::string& tag,
             const std::string& location, const std::string& message, uint8_t level) override;

  // False once destruction has begun.
  bool enabled() const { return enabled_.load() != 0; }

 private:
  std::atomic<int> enabled_{1};
  std::mutex mutex_;  // guards channels_
  std::map<std::string, std::unique_ptr<tracing::Channel>> channels_;
};

}  // namespace kel::vxp3::minfw

#pragma once
// Fakes of what the Multiplexer wires: a LUM channel that records each event and diagnostic start
// as text ("error(5,77)"), thread-safe (its flags are set while nothing runs), and diagnosis
// clients that connect as told.

#include <mutex>
#include <string>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_interfaces.h"
#include "interfaces/lum/lum_channel.h"
#include "minfw/str.h"

namespace orv::testing {

class FakeChannel : public ILumChannel {
 public:
  bool init() override { return true; }
  bool diagTriggerStartUpdate(const std::string& ctrlOptions, int override) override {
    record("diagTriggerStartUpdate(", ctrlOptions, ",", override, ")");
    return acceptDiagStart;
  }
  void eventDomainUpdateFinishedNotification(uint16_t riid) override {
    record("finished(", riid, ")");
  }
  void eventDomainReadyForDownloadNotification(uint16_t riid,
                                               const lum11::ReadyForDownloadInfo&) override {
    record("readyForDownload(", riid, ")");
  }
  void eventDomainReadyForUpdateNotification(uint16_t riid,
                                             const lum11::ReadyForUpdateInfo&) override {
    record("readyForUpdate(", riid, ")");
  }
  void eventDomainOffTimeNotification(uint16_t riid, uint16_t timeout) override {
    record("offTime(", riid, ",", timeout, ")");
  }
  void eventDomainErrorNotification(uint16_t riid, uint32_t errorCode) override {
    record("error(", riid, ",", errorCode, ")");
  }
  void eventDebugMessageNotification(uint16_t riid, const std::string& id,
                                     const std::string& message) override {
    record("debug(", riid, ",", id, ",", message, ")");
  }
  void eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) override {
    record("resolve(", request.fileNames.size(), ",", request.updateURLRequestID[15], ")");
  }
  void eventConnection(bool connected) override { record("connection(", connected, ")"); }
  void eventInternal(int value) override { record("internal(", value, ")"); }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  bool acceptDiagStart = true;

 private:
  template <typename... Parts>
  void record(const Parts&... parts) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(kel::vxp3::minfw::cat(parts...));
  }
  std::mutex mutex_;  // guards calls_
  std::vector<std::string> calls_;
};

struct FakeRoutine : IRoutine {
  bool connect() override { return connects; }
  bool connects = false;
};

struct FakeMesswert : IMesswert {
  bool connect() override { return connects; }
  bool connects = true;
};

}  // namespace orv::testing

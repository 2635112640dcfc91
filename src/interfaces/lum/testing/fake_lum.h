#pragma once
// FakeLum: logs every call by name and answers from `script`, per operation a queue of statuses
// (kNoAnswer: none), then ok. Download/update infos carry installation times 11 and 22. `onCall`
// runs outside the lock, so it may hold the caller; `deferred` operations wait for
// answerDeferred(). Calls are thread-safe; public members are set while no call runs.
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "interfaces/lum/diag_lum_control_client.h"

namespace orv::lum::testing {

class FakeLum : public DiagLUMControlClient {
 public:
  using Client = DiagLUMControlClient::Client;
  using PS = lum11::CM_CurrentProcessingState;
  static constexpr uint32_t kNoAnswer = 0xFF;
  FakeLum() : DiagLUMControlClient(std::make_unique<Client>()) {}
  std::map<std::string, std::deque<uint32_t>> script;
  PS state = PS::verifying;
  uint32_t resultCode = 0;  // of getDomainUpdateResult
  std::string configuration;
  std::vector<lum11::UpdateUrlResponseStruct> urlResponses;
  std::function<void(const std::string& op)> onCall;
  std::set<std::string> deferred;
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  size_t count(const std::string& op) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const std::string& call : calls_)
      n += call == op ? 1 : 0;
    return n;
  }
  void answerDeferred() {
    std::vector<std::function<void()>> answers;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      answers.swap(deferred_);
    }
    for (auto& answer : answers)
      answer();
  }
  void _internal(int value) override { log("_internal:" + std::to_string(value)); }
  void updateURLResponse(const lum11::UpdateUrlResponseStruct& response, bool) override {
    log("updateURLResponse");
    std::lock_guard<std::mutex> lock(mutex_);
    urlResponses.push_back(response);
  }
  bool createDomainUpdateSession(const std::string&, uint16_t vehicleRepairInstructionID,
                                 const std::string&,
                                 const lum11::createDomainUpdateSession_manifestInformation&,
                                 const lum11::createDomainUpdateSession_cryptoParameters&,
                                 const lum11::DownloadSource&,
                                 const lum11::createDomainUpdateSession_diagnosticAddress&,
                                 lum11::CM_SessionType,
                                 Client::CreateDomainUpdateSessionOutput& out, bool) override {
    out.domainRepairInstructionID = vehicleRepairInstructionID;
    return answer("createDomainUpdateSession", out);
  }
  // The operations that take only the session; `fill` sets the output's other fields.
#define FAKE_LUM_OPERATION(op, Output, fill)                                  \
  bool op(const std::string&, uint16_t, Client::Output& out, bool) override { \
    fill;                                                                     \
    return answer(#op, out);                                                  \
  }                                                                           \
  static_assert(true)
  FAKE_LUM_OPERATION(getDomainUpdateSessionState, GetDomainUpdateSessionStateOutput,
                     out.currentProcessingState = state);
  FAKE_LUM_OPERATION(startDomainUpdateDownload, StartDomainUpdateDownloadOutput, );
  FAKE_LUM_OPERATION(getDomainUpdateDownloadProgress, GetDomainUpdateDownloadProgressOutput,
                     (out.processedBytes = 50, out.totalBytes = 100));
  FAKE_LUM_OPERATION(startDomainUpdate, StartDomainUpdateOutput, );
  FAKE_LUM_OPERATION(getDomainUpdateProgress, GetDomainUpdateProgressOutput,
                     (out.processedBytes = 50, out.totalBytes = 100));
  FAKE_LUM_OPERATION(cancelDomainUpdate, CancelDomainUpdateOutput, );
  FAKE_LUM_OPERATION(getDomainDownloadInfo, GetDomainDownloadInfoOutput,
                     (out.readyForDownloadInfo = {11, 1000}));
  FAKE_LUM_OPERATION(getDomainUpdateInfo, GetDomainUpdateInfoOutput,
                     (out.readyForUpdateInfo = {22, 2000}));
  FAKE_LUM_OPERATION(getDomainUpdateResult, getDomainUpdateResultOutput,
                     out.domainResult.resultCode = resultCode);
  FAKE_LUM_OPERATION(closeDomainUpdateSession, CloseDomainUpdateSessionOutput, );
  FAKE_LUM_OPERATION(checkProgrammingPreconditions, CheckProgrammingPreconditionsOutput, );
#undef FAKE_LUM_OPERATION
  void startDomainUpdate(const std::string&, uint16_t,
                         Done<Client::StartDomainUpdateOutput> done) override {
    later("startDomainUpdate", Client::StartDomainUpdateOutput{}, std::move(done));
  }
  void getDomainConfiguration(const std::string&, uint16_t,
                              Done<Client::GetDomainConfigurationOutput> done) override {
    Client::GetDomainConfigurationOutput out;
    out.configurationInformation = configuration;
    later("getDomainConfiguration", out, std::move(done));
  }
  void getServiceDescription(Done<Client::GetServiceDescriptionOutput> done) override {
    later("getServiceDescription", Client::GetServiceDescriptionOutput{}, std::move(done));
  }

 private:
  void log(const std::string& op) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(op);
  }
  template <typename Output>
  bool answer(const std::string& op, Output& out) {
    log(op);
    if (onCall)
      onCall(op);
    uint32_t value = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::deque<uint32_t>& queue = script[op];
      if (!queue.empty()) {
        value = queue.front();
        queue.pop_front();
      }
    }
    if (value == kNoAnswer)
      return false;
    out.returnStatus = static_cast<lum11::CM_ReturnStatus>(value);
    return true;
  }
  template <typename Output>
  void later(const std::string& op, Output out, Done<Output> done) {
    const bool answered = answer(op, out);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (deferred.count(op)) {
        deferred_.push_back([done, answered, out] { done(answered, out); });
        return;
      }
    }
    done(answered, out);
  }
  mutable std::mutex mutex_;  // guards calls_, deferred_, and the script in calls
  std::vector<std::string> calls_;
  std::vector<std::function<void()>> deferred_;
};

}  // namespace orv::lum::testing

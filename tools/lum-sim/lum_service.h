#pragma once
// LumService: puts a LumSimulator on the middleware as the version-11 LUM service. Every call
// is written to the log and, when a call log is given, as one line to that file (flushed per
// line, so a test can read the sequence while the process runs). Answers that the scenario
// makes late are kept as promises and answered by the pump thread when due; the same thread
// lets simulated time run (poll) and carries out stop-offer, re-offer and crash.
//
// Threading: operations run on the binding's thread; the pump thread ("lum-sim-pump") runs from
// start() until the destructor. callLogMutex_ guards the call-log file; lateMutex_ guards the
// late answers. The simulator guards itself.

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/lum/lum11_skeleton.h"
#include "minfw/clock.h"
#include "simulator.h"

namespace lumsim {

namespace mw = platform::middleware;
namespace lum11skel = lum11::skeleton;

class LumService : public lum11skel::DiagLocalUpdateManagerControlSkeleton {
 public:
  // `callLogPath` empty: no call log. False from start() when the file cannot be opened or the
  // service cannot be offered; `error` says why.
  LumService(const mw::InstanceSpecifier& instance, mw::Binding* binding, Scenario scenario,
             std::string callLogPath);
  ~LumService() override;

  bool start(std::string& error);

  void updateURLResponse(const lum11::UpdateUrlResponseStruct& updateUrlResponse) override;
  mw::Future<methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
      const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const lum11::DownloadSource& downloadSource,
      const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      lum11::CM_SessionType sessionType) override;
  mw::Future<methods::GetDomainUpdateSessionState::Output> getDomainUpdateSessionState(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::StartDomainUpdateDownload::Output> startDomainUpdateDownload(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetDomainUpdateDownloadProgress::Output> getDomainUpdateDownloadProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::StartDomainUpdate::Output> startDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetDomainUpdateProgress::Output> getDomainUpdateProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::CancelDomainUpdate::Output> cancelDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::SetDebugInstruction::Output> setDebugInstruction(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& debugInstructionID, const std::string& debugInstruction) override;
  mw::Future<methods::GetDomainConfiguration::Output> getDomainConfiguration(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetDomainDownloadInfo::Output> getDomainDownloadInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetDomainUpdateInfo::Output> getDomainUpdateInfo(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetDomainUpdateResult::Output> getDomainUpdateResult(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::CloseDomainUpdateSession::Output> closeDomainUpdateSession(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::AckDomainOffTimeNotification::Output> ackDomainOffTimeNotification(
      uint16_t domainRepairInstructionID, uint32_t timeout) override;
  mw::Future<methods::CheckProgrammingPreconditions::Output> checkProgrammingPreconditions(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  mw::Future<methods::GetServiceDescription::Output> getServiceDescription() override;
  mw::Future<methods::UpdateClientDownloadFinished::Output> updateClientDownloadFinished(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& downloadPath) override;

 private:
  using TimePoint = kel::vxp3::minfw::Clock::TimePoint;

  struct LateAnswer {
    TimePoint due;
    std::function<void()> answer;
  };

  SimulatorOutputs outputs();
  void logCall(const std::string& line);
  template <typename Output>
  mw::Future<Output> answer(const char* op, Reply<Output> reply);
  void pump();
  void answerDue(bool all);

  const std::string callLogPath_;
  std::mutex callLogMutex_;  // guards callLog_
  std::FILE* callLog_ = nullptr;

  std::mutex lateMutex_;  // guards late_
  std::vector<LateAnswer> late_;

  std::atomic<bool> stopping_{false};
  std::thread pump_;
  LumSimulator sim_;  // last: its outputs use the members above
};

}  // namespace lumsim

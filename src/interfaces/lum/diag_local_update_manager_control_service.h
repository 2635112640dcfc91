#pragma once
// DiagLocalUpdateManagerControlService: the diagnostic-master channel (ACTIVE_DM). It offers the
// version-12 LUM control interface to a workshop tester and forwards each request to the LUM
// through the facade that the Multiplexer hands to the holder of control. A create takes
// exclusive control and starts the poll worker, which keeps the domainUpdateSessionState field
// current while this channel holds control; the LUM's events, relayed while this channel holds
// control, become updates of the version-12 fields. A successful close ends the session: the
// worker stops and control goes back.
//
// Threading: the operations run on the middleware's method thread, the events on its callback
// thread, the poll worker ("dm-poll") on its own thread. lumMutex_ serialises every LUM call of
// this service, the worker's included. The operations that only relay the LUM's answer do not
// wait for it: their call holds lumMutex_ until the answer arrives, and the middleware thread
// that receives it unlocks lumMutex_ and sends the v12 answer (those that take or give back
// control, or have an answer limit, wait on the method thread). The destructor waits for a call
// in flight. pollMutex_ serialises startPoll and stopPoll and guards
// worker_; fieldMutex_ guards the session, the active path and the field values and is held
// while a field is published, so subscribers see the values in the order they were stored.
// workersMutex_ guards the count of running workers, which the destructor waits to reach zero.
// No lock is held while another is taken, except lumMutex_ then the facade's own mutex and
// fieldMutex_ then the middleware's. The slots are bound on the main thread before init().

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/lum/lum12_skeleton.h"
#include "interfaces/lum/lum_channel.h"
#include "minfw/handover_mutex.h"

namespace orv {

class DiagLocalUpdateManagerControlService
    : public ILumChannel,
      public zor::services::diaglocalupdatemanagercontrol::skeleton::DiagLocalUpdateManagerControl {
 public:
  template <typename T>
  using Future = platform::middleware::Future<T>;
  using Skeleton =
      zor::services::diaglocalupdatemanagercontrol::skeleton::DiagLocalUpdateManagerControl;

  // The session that the poll worker asks the LUM about.
  static constexpr const char* kPollClientId = "NODBOX-USB";
  static constexpr uint16_t kPollDomainId = 0;
  // The poll period, slept in steps after each of which a stop is noticed.
  static constexpr int64_t kPollPeriodMs = 3000;
  static constexpr int64_t kPollStepMs = 100;
  // How long startPoll waits for a worker that it stops: steps of kStopWaitStepMs.
  static constexpr int kStopWaitSteps = 240;
  static constexpr int64_t kStopWaitStepMs = 50;
  // Entries a field keeps at most (one per session, the oldest session goes first).
  static constexpr std::size_t kFieldEntries = 8;
  // The active path while the USB channel holds the LUM.
  static constexpr const char* kUsbPath = "USB update in progress";

  // `binding` null: the process's default binding.
  explicit DiagLocalUpdateManagerControlService(const std::string& instance,
                                                platform::middleware::Binding* binding = nullptr);
  // Stops offering, stops the worker and waits for every worker that is still running.
  ~DiagLocalUpdateManagerControlService() override;

  DiagLocalUpdateManagerControlService(const DiagLocalUpdateManagerControlService&) = delete;
  DiagLocalUpdateManagerControlService& operator=(const DiagLocalUpdateManagerControlService&) =
      delete;

  // Offers the service; after the slots are bound.
  bool init() override;

  // The version-12 operations.
  void updateUrlResponse(const lum12::UpdateUrlResponseStruct& updateUrlResponse) override;
  Future<lum12::methods::CreateDomainUpdateSession::Output> createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const lum12::createDomainUpdateSession_manifestInformation& manifestInformation,
      const lum12::createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const lum12::DT_DownloadSource& downloadSource,
      const lum12::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      lum12::CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType sessionType)
      override;
  Future<lum12::methods::StartDomainUpdateDownload::Output> startDomainUpdateDownload(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::GetDomainUpdateDownloadProgress::Output> getDomainUpdateDownloadProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::StartDomainUpdate::Output> startDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::GetDomainUpdateProgress::Output> getDomainUpdateProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::CancelDomainUpdate::Output> cancelDomainUpdate(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::SetDebugInstruction::Output> setDebugInstruction(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& debugInstructionID, const std::string& debugInstruction) override;
  Future<lum12::methods::GetDomainConfiguration::Output> getDomainConfiguration(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::GetDomainUpdateResult::Output> getDomainUpdateResult(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::CloseDomainUpdateSession::Output> closeDomainUpdateSession(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::AckDomainOffTimeNotification::Output> ackDomainOffTimeNotification(
      uint16_t domainRepairInstructionID, uint32_t timeout) override;
  Future<lum12::methods::CheckProgrammingPreconditions::Output> checkProgrammingPreconditions(
      const std::string& accessID, uint16_t domainRepairInstructionID) override;
  Future<lum12::methods::GetServiceDescription::Output> getServiceDescription() override;
  Future<lum12::methods::UpdateClientDownloadFinished::Output> updateClientDownloadFinished(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      const std::string& downloadPath) override;

  // LUM events, relayed by the Multiplexer while this channel holds control.
  void eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) override;
  void eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                               const lum11::ReadyForDownloadInfo& info) override;
  void eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                             const lum11::ReadyForUpdateInfo& info) override;
  void eventDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                      uint16_t timeout) override;
  void eventDomainErrorNotification(uint16_t domainRepairInstructionID,
                                    uint32_t errorCode) override;
  void eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                     const std::string& debugMessageID,
                                     const std::string& debugMessage) override;
  void eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) override;
  // Connected while this channel holds control: the worker starts; disconnected: it stops.
  void eventConnection(bool connected) override;
  void eventInternal(int value) override;
  // Stores one session's state entry and publishes the field when it changed.
  void eventDomainUpdateSessionState(const lum12::DT_domainUpdateSessionState_struct& entry);

  // Starts the poll worker, after stopping one that is still registered.
  void startPoll();
  // Stops the registered worker and waits for it.
  void stopPoll();
  bool polling() const;

  // What the fields hold now, and the active path that getServiceDescription reports.
  std::vector<lum12::DT_domainUpdateSessionState_struct> sessionStates() const;
  std::vector<lum12::DT_domainErrorNotification_struct> errorNotifications() const;
  std::vector<lum12::DT_resolveUpdateURLRequest_struct> urlRequests() const;
  std::string activePath() const;

 private:
  struct PollWorker {
    std::atomic<bool> stop{false};
    std::atomic<bool> finished{false};
    std::thread thread;
  };

  enum class PollAnswer { kNone, kRefused, kAnswered };

  void pollWorker(PollWorker& self);
  // One poll cycle's steps 4 to 6: the state from the LUM into the field.
  PollAnswer pollSessionState();
  bool signalsBound() const;
  // Gives control back; logs when the slot is unbound.
  void relinquish();
  // A created session: its id keys the field entries, its client id is the active path. What
  // the fields kept under that id before is dropped.
  void beginSession(uint16_t domainRepairInstructionID, const std::string& accessID);
  void endSession();
  uint16_t sessionId() const;
  // The session's state entry as stored, or a fresh one.
  lum12::DT_domainUpdateSessionState_struct storedState(uint16_t domainRepairInstructionID) const;
  // Stores an event's entry and publishes its field.
  template <typename Field, typename Entry>
  void store(Field& field, std::vector<Entry>& entries, const Entry& entry);
  // The facade for a forwarded call; null (logged) when the slots are unbound or the LUM is not
  // handed out, with the status of that failure in `answer`.
  template <typename Answer>
  std::shared_ptr<DiagLUMControlClient> lumFor(Answer& answer);
  // Forwards one call under lumMutex_: `call(facade, out)` is the facade's operation, `copy`
  // takes its output over into `answer`. True when the LUM answered; a failed check or call
  // leaves `answer` with the status it sets for that failure.
  template <typename Output, typename Answer, typename Call, typename Copy>
  bool forward(Answer& answer, Call&& call, Copy&& copy);
  // forward() without waiting: `call(facade, done)` issues the facade's operation, and the
  // thread of its answer copies the output into `answer` and answers with it.
  template <typename Output, typename Answer, typename Call, typename Copy>
  Future<Answer> forwardAsync(Answer answer, Call&& call, Copy copy);
  // Locks lumMutex_ and has `issue(done)` call the LUM; the thread that gets the LUM's answer
  // unlocks it and answers with `finish(answered, out)`.
  template <typename Answer, typename Output, typename Issue, typename Finish>
  Future<Answer> callLum(Issue&& issue, Finish finish);
  // forward() for the calls that take control when it is free (and give it back after).
  template <typename Output, typename Answer, typename Call, typename Copy>
  bool forwardTakingFreeControl(Answer& answer, Call&& call, Copy&& copy);

  const std::string instance_;
  // Held for every LUM call of this service, until its answer; unlocked by the answer's thread.
  kel::vxp3::minfw::HandoverMutex lumMutex_;

  mutable std::mutex pollMutex_;  // guards worker_
  std::shared_ptr<PollWorker> worker_;

  std::mutex workersMutex_;  // guards runningWorkers_
  std::condition_variable workersGone_;
  int runningWorkers_ = 0;

  mutable std::mutex fieldMutex_;  // guards everything below
  uint16_t sessionId_ = 0;
  // Set when the LUM (re)appears while channel 0 holds control: the next answered poll tells
  // whether the LUM still has a session for it.
  std::atomic<bool> confirmSession_{false};
  std::string activePath_;
  std::vector<lum12::DT_domainUpdateSessionState_struct> sessionStates_;
  std::vector<lum12::DT_domainErrorNotification_struct> errors_;
  std::vector<lum12::DT_domainOffTimeNotification_struct> offTimes_;
  std::vector<lum12::DT_debugMessageNotification_struct> debugMessages_;
  std::vector<lum12::DT_resolveUpdateURLRequest_struct> urlRequests_;
};

}  // namespace orv

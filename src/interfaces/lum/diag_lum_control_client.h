#pragma once
// DiagLUMControlClient: the one handle through which the rest of orvane calls the LUM.
//
// It owns one DiagLocalUpdateManagerControlClient and offers its operations with a trailing
// `retry`: a call that gets no answer is repeated, 5 seconds apart, up to 5 attempts in all
// (one attempt without `retry`). The Boolean result says only that an answer arrived. The
// operations without an answer limit are also offered without waiting: one attempt whose
// answer goes to a callback.
//
// Threading: thread-safe. m_mutex serialises every operation for its whole length, retry pauses
// included, so one caller's retries are never interleaved with another caller's call; a call
// without waiting holds it until its answer has been handed over, on the middleware thread that
// received it, which unlocks it. The destructor waits for such a call. The client's slots
// (client()) and signalEventInternal are bound at start-up, before init().

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "minfw/handover_mutex.h"

namespace orv {

class DiagLUMControlClient {
 public:
  using Client = DiagLocalUpdateManagerControlClient;
  template <typename Output>
  using Done = Client::Done<Output>;

  // Attempts of a call with `retry`, and the pause between two of them.
  static constexpr int kRetryAttempts = 5;
  static constexpr int64_t kRetryPauseMs = 5000;

  explicit DiagLUMControlClient(std::unique_ptr<Client> client);
  virtual ~DiagLUMControlClient();
  DiagLUMControlClient(const DiagLUMControlClient&) = delete;
  DiagLUMControlClient& operator=(const DiagLUMControlClient&) = delete;

  // The owned client, for binding its event slots.
  Client& client() { return *m_client; }

  virtual bool init(const std::string& instance);
  bool connected() const { return m_client->connected(); }

  // Calls signalEventInternal with `value`.
  virtual void _internal(int value);
  std::function<void(int)> signalEventInternal;

  virtual void updateURLResponse(const lum11::UpdateUrlResponseStruct& response, bool retry);
  virtual bool createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
      const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const lum11::DownloadSource& downloadSource,
      const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      lum11::CM_SessionType sessionType, Client::CreateDomainUpdateSessionOutput& out, bool retry);
  virtual bool getDomainUpdateSessionState(const std::string& accessID,
                                           uint16_t domainRepairInstructionID,
                                           Client::GetDomainUpdateSessionStateOutput& out,
                                           bool retry);
  virtual bool startDomainUpdateDownload(const std::string& accessID,
                                         uint16_t domainRepairInstructionID,
                                         Client::StartDomainUpdateDownloadOutput& out, bool retry);
  virtual bool getDomainUpdateDownloadProgress(const std::string& accessID,
                                               uint16_t domainRepairInstructionID,
                                               Client::GetDomainUpdateDownloadProgressOutput& out,
                                               bool retry);
  virtual bool startDomainUpdate(const std::string& accessID, uint16_t domainRepairInstructionID,
                                 Client::StartDomainUpdateOutput& out, bool retry);
  virtual bool getDomainUpdateProgress(const std::string& accessID,
                                       uint16_t domainRepairInstructionID,
                                       Client::GetDomainUpdateProgressOutput& out, bool retry);
  virtual bool cancelDomainUpdate(const std::string& accessID, uint16_t domainRepairInstructionID,
                                  Client::CancelDomainUpdateOutput& out, bool retry);
  virtual bool setDebugInstruction(const std::string& accessID, uint16_t domainRepairInstructionID,
                                   const std::string& debugInstructionID,
                                   const std::string& debugInstruction,
                                   Client::SetDebugInstructionOutput& out, bool retry);
  virtual bool getDomainConfiguration(const std::string& accessID,
                                      uint16_t domainRepairInstructionID,
                                      Client::GetDomainConfigurationOutput& out, bool retry);
  virtual bool getDomainDownloadInfo(const std::string& accessID,
                                     uint16_t domainRepairInstructionID,
                                     Client::GetDomainDownloadInfoOutput& out, bool retry);
  virtual bool getDomainUpdateInfo(const std::string& accessID, uint16_t domainRepairInstructionID,
                                   Client::GetDomainUpdateInfoOutput& out, bool retry);
  virtual bool getDomainUpdateResult(const std::string& accessID,
                                     uint16_t domainRepairInstructionID,
                                     Client::getDomainUpdateResultOutput& out, bool retry);
  virtual bool closeDomainUpdateSession(const std::string& accessID,
                                        uint16_t domainRepairInstructionID,
                                        Client::CloseDomainUpdateSessionOutput& out, bool retry);
  virtual bool ackDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint32_t timeout,
                                            Client::AckDomainOffTimeNotificationOutput& out,
                                            bool retry);
  virtual bool checkProgrammingPreconditions(const std::string& accessID,
                                             uint16_t domainRepairInstructionID,
                                             Client::CheckProgrammingPreconditionsOutput& out,
                                             bool retry);
  virtual bool getServiceDescription(Client::GetServiceDescriptionOutput& out, bool retry);
  virtual bool updateClientDownloadFinished(const std::string& accessID,
                                            uint16_t domainRepairInstructionID,
                                            const std::string& downloadPath,
                                            Client::UpdateClientDownloadFinishedOutput& out,
                                            bool retry);

  // Without waiting: one attempt in the facade's turn; `done` runs once, on the middleware thread
  // that receives the answer (or at once on this one when no call can be made), and the next
  // call begins after it.
  virtual void getDomainUpdateDownloadProgress(
      const std::string& accessID, uint16_t domainRepairInstructionID,
      Done<Client::GetDomainUpdateDownloadProgressOutput> done);
  virtual void startDomainUpdate(const std::string& accessID, uint16_t domainRepairInstructionID,
                                 Done<Client::StartDomainUpdateOutput> done);
  virtual void getDomainUpdateProgress(const std::string& accessID,
                                       uint16_t domainRepairInstructionID,
                                       Done<Client::GetDomainUpdateProgressOutput> done);
  virtual void setDebugInstruction(const std::string& accessID, uint16_t domainRepairInstructionID,
                                   const std::string& debugInstructionID,
                                   const std::string& debugInstruction,
                                   Done<Client::SetDebugInstructionOutput> done);
  virtual void getDomainConfiguration(const std::string& accessID,
                                      uint16_t domainRepairInstructionID,
                                      Done<Client::GetDomainConfigurationOutput> done);
  virtual void ackDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint32_t timeout,
                                            Done<Client::AckDomainOffTimeNotificationOutput> done);
  virtual void getServiceDescription(Done<Client::GetServiceDescriptionOutput> done);
  virtual void updateClientDownloadFinished(const std::string& accessID,
                                            uint16_t domainRepairInstructionID,
                                            const std::string& downloadPath,
                                            Done<Client::UpdateClientDownloadFinishedOutput> done);

 private:
  // Runs `attempt` under m_mutex until it returns true or the attempts are used up.
  template <typename Attempt>
  bool withRetry(bool retry, Attempt&& attempt);
  // Issues M in the facade's turn, which the answer's thread gives back before `done` runs.
  template <typename M>
  void request(const typename M::Input& input, Done<typename M::Output> done);

  std::unique_ptr<Client> m_client;
  // Held for the whole of every operation, retries included, and by a call without waiting
  // until its answer.
  kel::vxp3::minfw::HandoverMutex m_mutex;
};

}  // namespace orv

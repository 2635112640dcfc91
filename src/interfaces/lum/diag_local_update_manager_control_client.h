#pragma once
// DiagLocalUpdateManagerControlClient: orvane's link to the Local Update Manager (LUM) over the
// version-11 control interface.
//
// It finds the LUM service, keeps a proxy of it, relays the seven LUM events and the connection
// state to bound handler slots, and turns each operation into a blocking call that returns true
// when an answer arrived (the output record's returnStatus says whether the LUM accepted).
// request() issues an operation without waiting, for callers that complete their work from the
// answer. Log tag: "LUM".
//
// Slots: bind them before init(); they are called on middleware threads.
//
// Threading: thread-safe. m_proxyMutex guards m_proxy and m_findHandle; operations take a copy
// of m_proxy and call through it without the mutex, so calls from several threads may overlap
// (the facade DiagLUMControlClient serialises them). The answer of request() is handed over on
// the middleware thread that receives it; the client may be gone by then. Discovery and event
// callbacks enter the client through m_gate, whose mutex the destructor takes to shut them out
// before the client goes away. init() is called once, from one thread.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "interfaces/lum/lum11_interface.h"
#include "interfaces/lum/lum11_types.h"
#include "minfw/log.h"
#include "platform/middleware/binding.h"
#include "platform/middleware/future.h"
#include "platform/middleware/proxy.h"

namespace orv {

class DiagLocalUpdateManagerControlClient {
 public:
  using Proxy = platform::middleware::Proxy;

  // One output record per operation.
  using CreateDomainUpdateSessionOutput = lum11::methods::CreateDomainUpdateSession::Output;
  using GetDomainUpdateSessionStateOutput = lum11::methods::GetDomainUpdateSessionState::Output;
  using StartDomainUpdateDownloadOutput = lum11::methods::StartDomainUpdateDownload::Output;
  using GetDomainUpdateDownloadProgressOutput =
      lum11::methods::GetDomainUpdateDownloadProgress::Output;
  using StartDomainUpdateOutput = lum11::methods::StartDomainUpdate::Output;
  using GetDomainUpdateProgressOutput = lum11::methods::GetDomainUpdateProgress::Output;
  using CancelDomainUpdateOutput = lum11::methods::CancelDomainUpdate::Output;
  using SetDebugInstructionOutput = lum11::methods::SetDebugInstruction::Output;
  using GetDomainConfigurationOutput = lum11::methods::GetDomainConfiguration::Output;
  using GetDomainDownloadInfoOutput = lum11::methods::GetDomainDownloadInfo::Output;
  using GetDomainUpdateInfoOutput = lum11::methods::GetDomainUpdateInfo::Output;
  using getDomainUpdateResultOutput = lum11::methods::GetDomainUpdateResult::Output;
  using CloseDomainUpdateSessionOutput = lum11::methods::CloseDomainUpdateSession::Output;
  using AckDomainOffTimeNotificationOutput = lum11::methods::AckDomainOffTimeNotification::Output;
  using CheckProgrammingPreconditionsOutput = lum11::methods::CheckProgrammingPreconditions::Output;
  using GetServiceDescriptionOutput = lum11::methods::GetServiceDescription::Output;
  using UpdateClientDownloadFinishedOutput = lum11::methods::UpdateClientDownloadFinished::Output;

  // The answer of an operation issued without waiting: `answered` as the blocking operations'
  // result, and then the output record.
  template <typename Output>
  using Done = std::function<void(bool answered, const Output& out)>;

  // The longest waits for an answer; 0 waits without limit.
  static constexpr uint32_t kStartDownloadAnswerMs = 1000;
  static constexpr uint32_t kPreconditionsAnswerMs = 60000;

  // `binding` null: the process's default middleware binding.
  explicit DiagLocalUpdateManagerControlClient(platform::middleware::Binding* binding = nullptr);
  virtual ~DiagLocalUpdateManagerControlClient();
  DiagLocalUpdateManagerControlClient(const DiagLocalUpdateManagerControlClient&) = delete;
  DiagLocalUpdateManagerControlClient& operator=(const DiagLocalUpdateManagerControlClient&) =
      delete;

  // Starts discovery of `instance` on the start-up worker thread. Call once.
  virtual bool init(const std::string& instance);
  // Called by the middleware with every change of the set of matching instances.
  virtual void findServiceCallback(platform::middleware::ServiceHandleContainer handles,
                                   platform::middleware::FindServiceHandle findHandle);

  // Whether the LUM service is currently reported present.
  bool connected() const { return m_connected.load(); }

  virtual bool updateURLResponse(const lum11::UpdateUrlResponseStruct& updateUrlResponse);
  virtual bool createDomainUpdateSession(
      const std::string& accessID, uint16_t vehicleRepairInstructionID,
      const std::string& updateOrderLink,
      const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
      const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
      const lum11::DownloadSource& downloadSource,
      const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
      lum11::CM_SessionType sessionType, CreateDomainUpdateSessionOutput& out);
  virtual bool getDomainUpdateSessionState(const std::string& accessID,
                                           uint16_t domainRepairInstructionID,
                                           GetDomainUpdateSessionStateOutput& out);
  virtual bool startDomainUpdateDownload(const std::string& accessID,
                                         uint16_t domainRepairInstructionID,
                                         StartDomainUpdateDownloadOutput& out);
  virtual bool getDomainUpdateDownloadProgress(const std::string& accessID,
                                               uint16_t domainRepairInstructionID,
                                               GetDomainUpdateDownloadProgressOutput& out);
  virtual bool startDomainUpdate(const std::string& accessID, uint16_t domainRepairInstructionID,
                                 StartDomainUpdateOutput& out);
  virtual bool getDomainUpdateProgress(const std::string& accessID,
                                       uint16_t domainRepairInstructionID,
                                       GetDomainUpdateProgressOutput& out);
  virtual bool cancelDomainUpdate(const std::string& accessID, uint16_t domainRepairInstructionID,
                                  CancelDomainUpdateOutput& out);
  virtual bool setDebugInstruction(const std::string& accessID, uint16_t domainRepairInstructionID,
                                   const std::string& debugInstructionID,
                                   const std::string& debugInstruction,
                                   SetDebugInstructionOutput& out);
  virtual bool getDomainConfiguration(const std::string& accessID,
                                      uint16_t domainRepairInstructionID,
                                      GetDomainConfigurationOutput& out);
  virtual bool getDomainDownloadInfo(const std::string& accessID,
                                     uint16_t domainRepairInstructionID,
                                     GetDomainDownloadInfoOutput& out);
  virtual bool getDomainUpdateInfo(const std::string& accessID, uint16_t domainRepairInstructionID,
                                   GetDomainUpdateInfoOutput& out);
  virtual bool getDomainUpdateResult(const std::string& accessID,
                                     uint16_t domainRepairInstructionID,
                                     getDomainUpdateResultOutput& out);
  virtual bool closeDomainUpdateSession(const std::string& accessID,
                                        uint16_t domainRepairInstructionID,
                                        CloseDomainUpdateSessionOutput& out);
  virtual bool ackDomainOffTimeNotification(uint16_t domainRepairInstructionID, uint32_t timeout,
                                            AckDomainOffTimeNotificationOutput& out);
  virtual bool checkProgrammingPreconditions(const std::string& accessID,
                                             uint16_t domainRepairInstructionID,
                                             CheckProgrammingPreconditionsOutput& out);
  virtual bool getServiceDescription(GetServiceDescriptionOutput& out);
  virtual bool updateClientDownloadFinished(const std::string& accessID,
                                            uint16_t domainRepairInstructionID,
                                            const std::string& downloadPath,
                                            UpdateClientDownloadFinishedOutput& out);

  // Issues M as the blocking operations do, with their log lines, but without waiting and without
  // an answer limit: `done` runs once, on the middleware thread that receives the answer, or at
  // once on this thread when no call can be made.
  template <typename M>
  void request(const typename M::Input& input, Done<typename M::Output> done);

  // Handler slots, bound by the owner before init().
  std::function<void(bool)> signalEventConnection;
  std::function<void(uint16_t, const lum11::ReadyForDownloadInfo&)>
      signalEventDomainReadyForDownloadNotification;
  std::function<void(uint16_t, const lum11::ReadyForUpdateInfo&)>
      signalEventDomainReadyForUpdateNotification;
  std::function<void(uint16_t)> signalEventDomainUpdateFinishedNotification;
  std::function<void(uint16_t, uint16_t)> signalEventDomainOffTimeNotification;
  std::function<void(uint16_t, const std::string&, const std::string&)>
      signalEventDebugMessageNotification;
  std::function<void(const lum11::resolveUpdateURLRequest_fileNames&, lum11::CM_FileType,
                     const lum11::DT_uuid&)>
      signalEventResolveUpdateURLRequest;
  std::function<void(uint16_t, uint32_t)> signalEventDomainErrorNotification;

 protected:
  // Subscribes to the seven events of the current proxy and installs their receive handlers.
  void subscribeEvents();

  // Waits for `future`: at most `milliseconds`, or without limit when 0. False on time-out or
  // when the answer is an error.
  template <typename T>
  bool awaitAnswer(platform::middleware::Future<T>& future, uint32_t milliseconds);

 private:
  // The callbacks' way into the client; closed (owner null) by the destructor.
  struct Gate {
    std::mutex mutex;  // held while a callback runs inside the client
    DiagLocalUpdateManagerControlClient* owner = nullptr;
  };

  std::shared_ptr<Proxy> proxy() const;
  // Issues M and waits for its answer; copies the outputs into `out`.
  template <typename M>
  bool invoke(const typename M::Input& input, typename M::Output& out, uint32_t milliseconds);
  // Installs the receive handler of E; `relay` hands one sample to its slot and returns false
  // when the slot is not bound.
  template <typename E, typename Relay>
  void subscribe(Proxy& proxy, const char* slotName, const char* noProxyText, Relay relay);
  void startDiscovery(const std::string& instance);

  platform::middleware::Binding* const m_binding;
  mutable std::mutex m_proxyMutex;  // guards m_proxy, m_findHandle, m_finding
  std::shared_ptr<Proxy> m_proxy;
  platform::middleware::FindServiceHandle m_findHandle;
  bool m_finding = false;
  std::thread m_startupWorker;
  std::atomic<bool> m_connected{false};
  std::shared_ptr<Gate> m_gate;
};

template <typename M>
void DiagLocalUpdateManagerControlClient::request(const typename M::Input& input,
                                                  Done<typename M::Output> done) {
  MLOG_INFO("LUM", "==>");
  auto current = proxy();
  if (!current) {
    MLOG_ERROR("LUM", "m_proxy is invalid!");
    done(false, {});
    return;
  }
  // Only `done` is captured: the answer may come after the client has gone.
  current->call<M>(input).then(
      [done = std::move(done)](const platform::middleware::Result<typename M::Output>& answer) {
        if (!answer) {
          MLOG_ERROR("LUM", "no answer!");
          done(false, {});
          return;
        }
        MLOG_INFO("LUM", "<==");
        done(true, answer.value());
      });
}

}  // namespace orv

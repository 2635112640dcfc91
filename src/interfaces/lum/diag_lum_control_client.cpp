#include "interfaces/lum/diag_lum_control_client.h"

#include <utility>

#include "minfw/clock.h"
#include "minfw/log.h"

namespace orv {

namespace minfw = kel::vxp3::minfw;
namespace methods = lum11::methods;

namespace {
constexpr const char* kTag = "LUM";
}  // namespace

DiagLUMControlClient::DiagLUMControlClient(std::unique_ptr<Client> client)
    : m_client(std::move(client)) {}

DiagLUMControlClient::~DiagLUMControlClient() {
  // A call without waiting unlocks from the answer's thread; this object must outlive that.
  std::lock_guard<minfw::HandoverMutex> drained(m_mutex);
}

bool DiagLUMControlClient::init(const std::string& instance) {
  return m_client->init(instance);
}

void DiagLUMControlClient::_internal(int value) {
  if (signalEventInternal)
    signalEventInternal(value);
  else
    MLOG_ERROR(kTag, "signalEventInternal not bound!");
}

template <typename Attempt>
bool DiagLUMControlClient::withRetry(bool retry, Attempt&& attempt) {
  std::lock_guard<minfw::HandoverMutex> lock(m_mutex);
  const int limit = retry ? kRetryAttempts : 1;
  for (int counter = 2;; ++counter) {
    if (attempt())
      return true;
    if (counter == limit + 1)
      return false;
    minfw::sleepMs(kRetryPauseMs);
    MLOG_WARN(kTag, "Retry ", counter, "/", limit);
  }
}

template <typename M>
void DiagLUMControlClient::request(const typename M::Input& input, Done<typename M::Output> done) {
  m_mutex.lock();
  m_client->request<M>(
      input, [this, done = std::move(done)](bool answered, const typename M::Output& out) {
        m_mutex.unlock();  // from here on this object may be gone
        done(answered, out);
      });
}

void DiagLUMControlClient::updateURLResponse(const lum11::UpdateUrlResponseStruct& response,
                                             bool retry) {
  withRetry(retry, [&] { return m_client->updateURLResponse(response); });
}

bool DiagLUMControlClient::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
    const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const lum11::DownloadSource& downloadSource,
    const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    lum11::CM_SessionType sessionType, Client::CreateDomainUpdateSessionOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->createDomainUpdateSession(
        accessID, vehicleRepairInstructionID, updateOrderLink, manifestInformation,
        cryptoParameters, downloadSource, diagnosticAddress, sessionType, out);
  });
}

bool DiagLUMControlClient::getDomainUpdateSessionState(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    Client::GetDomainUpdateSessionStateOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainUpdateSessionState(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::startDomainUpdateDownload(const std::string& accessID,
                                                     uint16_t domainRepairInstructionID,
                                                     Client::StartDomainUpdateDownloadOutput& out,
                                                     bool retry) {
  return withRetry(retry, [&] {
    return m_client->startDomainUpdateDownload(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::getDomainUpdateDownloadProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    Client::GetDomainUpdateDownloadProgressOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainUpdateDownloadProgress(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::startDomainUpdate(const std::string& accessID,
                                             uint16_t domainRepairInstructionID,
                                             Client::StartDomainUpdateOutput& out, bool retry) {
  return withRetry(
      retry, [&] { return m_client->startDomainUpdate(accessID, domainRepairInstructionID, out); });
}

bool DiagLUMControlClient::getDomainUpdateProgress(const std::string& accessID,
                                                   uint16_t domainRepairInstructionID,
                                                   Client::GetDomainUpdateProgressOutput& out,
                                                   bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainUpdateProgress(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::cancelDomainUpdate(const std::string& accessID,
                                              uint16_t domainRepairInstructionID,
                                              Client::CancelDomainUpdateOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->cancelDomainUpdate(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::setDebugInstruction(const std::string& accessID,
                                               uint16_t domainRepairInstructionID,
                                               const std::string& debugInstructionID,
                                               const std::string& debugInstruction,
                                               Client::SetDebugInstructionOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->setDebugInstruction(accessID, domainRepairInstructionID, debugInstructionID,
                                         debugInstruction, out);
  });
}

bool DiagLUMControlClient::getDomainConfiguration(const std::string& accessID,
                                                  uint16_t domainRepairInstructionID,
                                                  Client::GetDomainConfigurationOutput& out,
                                                  bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainConfiguration(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::getDomainDownloadInfo(const std::string& accessID,
                                                 uint16_t domainRepairInstructionID,
                                                 Client::GetDomainDownloadInfoOutput& out,
                                                 bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainDownloadInfo(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::getDomainUpdateInfo(const std::string& accessID,
                                               uint16_t domainRepairInstructionID,
                                               Client::GetDomainUpdateInfoOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainUpdateInfo(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::getDomainUpdateResult(const std::string& accessID,
                                                 uint16_t domainRepairInstructionID,
                                                 Client::getDomainUpdateResultOutput& out,
                                                 bool retry) {
  return withRetry(retry, [&] {
    return m_client->getDomainUpdateResult(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::closeDomainUpdateSession(const std::string& accessID,
                                                    uint16_t domainRepairInstructionID,
                                                    Client::CloseDomainUpdateSessionOutput& out,
                                                    bool retry) {
  return withRetry(retry, [&] {
    return m_client->closeDomainUpdateSession(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::ackDomainOffTimeNotification(
    uint16_t domainRepairInstructionID, uint32_t timeout,
    Client::AckDomainOffTimeNotificationOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->ackDomainOffTimeNotification(domainRepairInstructionID, timeout, out);
  });
}

bool DiagLUMControlClient::checkProgrammingPreconditions(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    Client::CheckProgrammingPreconditionsOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->checkProgrammingPreconditions(accessID, domainRepairInstructionID, out);
  });
}

bool DiagLUMControlClient::getServiceDescription(Client::GetServiceDescriptionOutput& out,
                                                 bool retry) {
  return withRetry(retry, [&] { return m_client->getServiceDescription(out); });
}

bool DiagLUMControlClient::updateClientDownloadFinished(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& downloadPath, Client::UpdateClientDownloadFinishedOutput& out, bool retry) {
  return withRetry(retry, [&] {
    return m_client->updateClientDownloadFinished(accessID, domainRepairInstructionID, downloadPath,
                                                  out);
  });
}

// ---------------------------------------------------------------------------------------------
// Without waiting

void DiagLUMControlClient::getDomainUpdateDownloadProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    Done<Client::GetDomainUpdateDownloadProgressOutput> done) {
  request<methods::GetDomainUpdateDownloadProgress>({accessID, domainRepairInstructionID},
                                                    std::move(done));
}

void DiagLUMControlClient::startDomainUpdate(const std::string& accessID,
                                             uint16_t domainRepairInstructionID,
                                             Done<Client::StartDomainUpdateOutput> done) {
  request<methods::StartDomainUpdate>({accessID, domainRepairInstructionID}, std::move(done));
}

void DiagLUMControlClient::getDomainUpdateProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    Done<Client::GetDomainUpdateProgressOutput> done) {
  request<methods::GetDomainUpdateProgress>({accessID, domainRepairInstructionID}, std::move(done));
}

void DiagLUMControlClient::setDebugInstruction(const std::string& accessID,
                                               uint16_t domainRepairInstructionID,
                                               const std::string& debugInstructionID,
                                               const std::string& debugInstruction,
                                               Done<Client::SetDebugInstructionOutput> done) {
  request<methods::SetDebugInstruction>(
      {accessID, domainRepairInstructionID, debugInstructionID, debugInstruction}, std::move(done));
}

void DiagLUMControlClient::getDomainConfiguration(const std::string& accessID,
                                                  uint16_t domainRepairInstructionID,
                                                  Done<Client::GetDomainConfigurationOutput> done) {
  request<methods::GetDomainConfiguration>({accessID, domainRepairInstructionID}, std::move(done));
}

void DiagLUMControlClient::ackDomainOffTimeNotification(
    uint16_t domainRepairInstructionID, uint32_t timeout,
    Done<Client::AckDomainOffTimeNotificationOutput> done) {
  request<methods::AckDomainOffTimeNotification>({domainRepairInstructionID, timeout},
                                                 std::move(done));
}

void DiagLUMControlClient::getServiceDescription(Done<Client::GetServiceDescriptionOutput> done) {
  request<methods::GetServiceDescription>({}, std::move(done));
}

void DiagLUMControlClient::updateClientDownloadFinished(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& downloadPath, Done<Client::UpdateClientDownloadFinishedOutput> done) {
  request<methods::UpdateClientDownloadFinished>(
      {accessID, domainRepairInstructionID, downloadPath}, std::move(done));
}

}  // namespace orv

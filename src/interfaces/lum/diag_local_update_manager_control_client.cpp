#include "interfaces/lum/diag_local_update_manager_control_client.h"

#include <pthread.h>

#include <utility>

#include "interfaces/lum/lum_catalog.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace orv {

namespace mw = platform::middleware;
namespace minfw = kel::vxp3::minfw;
namespace methods = lum11::methods;
namespace events = lum11::events;

namespace {

constexpr const char* kTag = "LUM";
// Samples kept per event between two receive calls; the LUM sends few events per session.
constexpr std::size_t kEventCacheSize = 10;

methods::SessionInput session(const std::string& accessID, uint16_t domainRepairInstructionID) {
  return methods::SessionInput{accessID, domainRepairInstructionID};
}

}  // namespace

DiagLocalUpdateManagerControlClient::DiagLocalUpdateManagerControlClient(mw::Binding* binding)
    : m_binding(binding), m_gate(std::make_shared<Gate>()) {
  m_gate->owner = this;
}

DiagLocalUpdateManagerControlClient::~DiagLocalUpdateManagerControlClient() {
  if (m_startupWorker.joinable())
    m_startupWorker.join();
  {
    // Waits for a running callback, then keeps later ones out.
    std::lock_guard<std::mutex> lock(m_gate->mutex);
    m_gate->owner = nullptr;
  }
  std::shared_ptr<Proxy> proxy;
  bool finding = false;
  mw::FindServiceHandle handle;
  {
    std::lock_guard<std::mutex> lock(m_proxyMutex);
    proxy = std::move(m_proxy);
    finding = m_finding;
    handle = m_findHandle;
    m_finding = false;
  }
  if (finding)
    Proxy::StopFindService(handle, m_binding);
}

bool DiagLocalUpdateManagerControlClient::init(const std::string& instance) {
  MLOG_TRACE(kTag, "Connecting to [", instance, "]");
  // A joinable thread assigned over ends the process: init is called once.
  m_startupWorker = std::thread([this, instance] {
    pthread_setname_np(pthread_self(), "lum-find");
    startDiscovery(instance);
  });
  return true;
}

void DiagLocalUpdateManagerControlClient::startDiscovery(const std::string& instance) {
  std::shared_ptr<Gate> gate = m_gate;
  auto handler = [gate](mw::ServiceHandleContainer handles, mw::FindServiceHandle findHandle) {
    std::lock_guard<std::mutex> lock(gate->mutex);
    if (gate->owner)
      gate->owner->findServiceCallback(std::move(handles), findHandle);
  };
  auto find = Proxy::StartFindService(handler, lum::kInterfaceV11, mw::InstanceSpecifier(instance),
                                      m_binding);
  if (!find) {
    MLOG_ERROR(kTag, "cannot look for ", lum::kInterfaceV11, " [", instance,
               "]: ", mw::toString(find.error()), " ", find.errorMessage());
    return;
  }
  std::lock_guard<std::mutex> lock(m_proxyMutex);
  m_findHandle = find.value();
  m_finding = true;
}

void DiagLocalUpdateManagerControlClient::findServiceCallback(mw::ServiceHandleContainer handles,
                                                              mw::FindServiceHandle findHandle) {
  (void)findHandle;
  MLOG_DEBUG(kTag, "");
  if (handles.empty()) {
    MLOG_WARN(kTag, "size is 0");
    // The old proxy stays: calls made now still go through it.
    m_connected = false;
    if (signalEventConnection)
      signalEventConnection(false);
    else
      MLOG_ERROR(kTag, "->signalEventConnection");
    return;
  }
  const mw::ServiceHandle handle = handles.front();
  auto confirmed = Proxy::Preconstruct(handle, m_binding).get();
  if (!confirmed) {
    MLOG_WARN(kTag, "Still no answer!");
    return;
  }
  MLOG_INFO(kTag, "Creating proxy for DiagLocalUpdateManagerControlClient");
  auto created = Proxy::Create(handle, m_binding);
  if (!created) {
    MLOG_ERROR(kTag, "proxy not created: ", mw::toString(created.error()), " ",
               created.errorMessage());
    return;
  }
  std::shared_ptr<Proxy> fresh(std::move(created).value());
  std::shared_ptr<Proxy> old;
  {
    std::lock_guard<std::mutex> lock(m_proxyMutex);
    old = std::exchange(m_proxy, fresh);
  }
  old.reset();  // outside the mutex: its events unsubscribe through the binding
  subscribeEvents();
  m_connected = true;
  MLOG_INFO(kTag, "DiagLocalUpdateManagerControlClient connected!");
  if (signalEventConnection)
    signalEventConnection(true);
  else
    MLOG_ERROR(kTag, "->signalEventConnection");
}

std::shared_ptr<DiagLocalUpdateManagerControlClient::Proxy>
DiagLocalUpdateManagerControlClient::proxy() const {
  std::lock_guard<std::mutex> lock(m_proxyMutex);
  return m_proxy;
}

template <typename E, typename Relay>
void DiagLocalUpdateManagerControlClient::subscribe(Proxy& proxy, const char* slotName,
                                                    const char* noProxyText, Relay relay) {
  auto& event = proxy.event<E>();
  std::shared_ptr<Gate> gate = m_gate;
  event.SetReceiveHandler([gate, slotName, noProxyText, relay] {
    std::lock_guard<std::mutex> lock(gate->mutex);
    DiagLocalUpdateManagerControlClient* self = gate->owner;
    if (!self)
      return;
    MLOG_INFO(kTag, "<~~");
    auto current = self->proxy();
    if (!current) {
      MLOG_ERROR(kTag, noProxyText);
      return;
    }
    current->event<E>().GetNewSamples([&](mw::SamplePtr<typename E::Sample> sample) {
      if (!sample) {
        MLOG_ERROR(kTag, "Empty event item!");
        return;
      }
      if (!relay(*self, *sample))
        MLOG_ERROR(kTag, slotName, " not bound!");
    });
  });
  auto subscribed = event.Subscribe(kEventCacheSize);
  if (!subscribed)
    MLOG_ERROR(kTag, "cannot subscribe ", E::kName, ": ", mw::toString(subscribed.error()), " ",
               subscribed.errorMessage());
}

void DiagLocalUpdateManagerControlClient::subscribeEvents() {
  auto current = proxy();
  if (!current) {
    MLOG_ERROR(kTag, "m_proxy is null!");
    return;
  }
  using Self = DiagLocalUpdateManagerControlClient;
  subscribe<events::DomainReadyForDownloadNotification>(
      *current, "signalEventDomainReadyForDownloadNotification", "m_proxy is null!",
      [](Self& c, const events::DomainReadyForDownloadNotification::Sample& s) {
        if (!c.signalEventDomainReadyForDownloadNotification)
          return false;
        c.signalEventDomainReadyForDownloadNotification(s.domainRepairInstructionID,
                                                        s.readyForDownloadInfo);
        return true;
      });
  subscribe<events::DomainReadyForUpdateNotification>(
      *current, "signalEventDomainReadyForUpdateNotification", "m_proxy is null!",
      [](Self& c, const events::DomainReadyForUpdateNotification::Sample& s) {
        if (!c.signalEventDomainReadyForUpdateNotification)
          return false;
        c.signalEventDomainReadyForUpdateNotification(s.domainRepairInstructionID,
                                                      s.readyForUpdateInfo);
        return true;
      });
  subscribe<events::DomainUpdateFinishedNotification>(
      *current, "signalEventDomainUpdateFinishedNotification", "m_proxy is null!",
      [](Self& c, const events::DomainUpdateFinishedNotification::Sample& s) {
        if (!c.signalEventDomainUpdateFinishedNotification)
          return false;
        c.signalEventDomainUpdateFinishedNotification(s.domainRepairInstructionID);
        return true;
      });
  subscribe<events::DomainOffTimeNotification>(
      *current, "signalEventDomainOffTimeNotification", "m_proxy is null!",
      [](Self& c, const events::DomainOffTimeNotification::Sample& s) {
        if (!c.signalEventDomainOffTimeNotification)
          return false;
        c.signalEventDomainOffTimeNotification(s.domainRepairInstructionID, s.timeout);
        return true;
      });
  subscribe<events::DebugMessageNotification>(
      *current, "signalEventDebugMessageNotification", "m_proxy is null!",
      [](Self& c, const events::DebugMessageNotification::Sample& s) {
        if (!c.signalEventDebugMessageNotification)
          return false;
        c.signalEventDebugMessageNotification(s.debugMessageInfo.domainRepairInstructionID,
                                              s.debugMessageInfo.debugMessageID,
                                              s.debugMessageInfo.debugMessage);
        return true;
      });
  subscribe<events::ResolveUpdateURLRequest>(
      *current, "signalEventResolveUpdateURLRequest", "m_proxy is null!",
      [](Self& c, const events::ResolveUpdateURLRequest::Sample& s) {
        if (!c.signalEventResolveUpdateURLRequest)
          return false;
        c.signalEventResolveUpdateURLRequest(s.fileNames, s.fileType, s.updateURLRequestID);
        return true;
      });
  subscribe<events::DomainErrorNotification>(
      *current, "signalEventDomainErrorNotification", "null m_proxy",
      [](Self& c, const events::DomainErrorNotification::Sample& s) {
        if (!c.signalEventDomainErrorNotification)
          return false;
        c.signalEventDomainErrorNotification(s.domainRepairInstructionID, s.errorCode);
        return true;
      });
}

template <typename T>
bool DiagLocalUpdateManagerControlClient::awaitAnswer(mw::Future<T>& future,
                                                      uint32_t milliseconds) {
  if (milliseconds != 0) {
    MLOG_TRACE(kTag, "awaiting answer within ", milliseconds, " milliseconds...");
    if (future.wait_for(std::chrono::milliseconds(milliseconds)) != mw::FutureStatus::kReady) {
      MLOG_ERROR(kTag, "timeout");
      return false;
    }
  } else {
    future.wait();
  }
  return future.get().hasValue();
}

template <typename M>
bool DiagLocalUpdateManagerControlClient::invoke(const typename M::Input& input,
                                                 typename M::Output& out, uint32_t milliseconds) {
  auto current = proxy();
  if (!current) {
    MLOG_ERROR(kTag, "m_proxy is invalid!");
    return false;
  }
  auto future = current->call<M>(input);
  if (!awaitAnswer(future, milliseconds)) {
    MLOG_ERROR(kTag, "no answer!");
    return false;
  }
  MLOG_INFO(kTag, "<==");
  auto answer = future.get();
  if (!answer.hasValue()) {
    MLOG_ERROR(kTag, "No value in reply!");
    return false;
  }
  out = std::move(answer).value();
  return true;
}

bool DiagLocalUpdateManagerControlClient::updateURLResponse(
    const lum11::UpdateUrlResponseStruct& updateUrlResponse) {
  MLOG_INFO(kTag, "==>");
  auto current = proxy();
  if (!current) {
    MLOG_ERROR(kTag, "m_proxy is invalid!");
    return false;
  }
  auto sent = current->fireAndForget<methods::UpdateURLResponse>(
      methods::UpdateURLResponse::Input{updateUrlResponse});
  if (!sent) {
    MLOG_ERROR(kTag, "not sent: ", mw::toString(sent.error()), " ", sent.errorMessage());
    return false;
  }
  return true;
}

bool DiagLocalUpdateManagerControlClient::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
    const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const lum11::DownloadSource& downloadSource,
    const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    lum11::CM_SessionType sessionType, CreateDomainUpdateSessionOutput& out) {
  std::string manifests;
  for (const auto& m : manifestInformation) {
    if (!manifests.empty())
      manifests += ", ";
    manifests += minfw::cat("manifestType:", m.manifestType, " manifestLink:", m.manifestLink);
  }
  std::string addresses;
  for (auto a : diagnosticAddress.diagnosticAddresses)
    addresses += minfw::cat(addresses.empty() ? "[" : ", ", "0x", minfw::hex(a));
  addresses = addresses.empty() ? "[EMPTY]" : addresses + "]";
  MLOG_INFO(kTag, "clientID=[", accessID, "], domainRepairInstructionID=[",
            vehicleRepairInstructionID, "], updateOrderLink=[", updateOrderLink,
            "], manifestInformation=[", manifests, "], downloadSource.baseURL=[",
            downloadSource.baseURL, "], diagnosticAddress=", addresses);
  return invoke<methods::CreateDomainUpdateSession>(
      methods::CreateDomainUpdateSession::Input{
          accessID, vehicleRepairInstructionID, updateOrderLink, manifestInformation,
          cryptoParameters, downloadSource, diagnosticAddress, sessionType},
      out, 0);
}

bool DiagLocalUpdateManagerControlClient::getDomainUpdateSessionState(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    GetDomainUpdateSessionStateOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainUpdateSessionState>(session(accessID, domainRepairInstructionID),
                                                      out, 0);
}

bool DiagLocalUpdateManagerControlClient::startDomainUpdateDownload(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    StartDomainUpdateDownloadOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::StartDomainUpdateDownload>(session(accessID, domainRepairInstructionID),
                                                    out, kStartDownloadAnswerMs);
}

bool DiagLocalUpdateManagerControlClient::getDomainUpdateDownloadProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    GetDomainUpdateDownloadProgressOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainUpdateDownloadProgress>(
      session(accessID, domainRepairInstructionID), out, 0);
}

bool DiagLocalUpdateManagerControlClient::startDomainUpdate(const std::string& accessID,
                                                            uint16_t domainRepairInstructionID,
                                                            StartDomainUpdateOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::StartDomainUpdate>(session(accessID, domainRepairInstructionID), out, 0);
}

bool DiagLocalUpdateManagerControlClient::getDomainUpdateProgress(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    GetDomainUpdateProgressOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainUpdateProgress>(session(accessID, domainRepairInstructionID), out,
                                                  0);
}

bool DiagLocalUpdateManagerControlClient::cancelDomainUpdate(const std::string& accessID,
                                                             uint16_t domainRepairInstructionID,
                                                             CancelDomainUpdateOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::CancelDomainUpdate>(session(accessID, domainRepairInstructionID), out, 0);
}

bool DiagLocalUpdateManagerControlClient::setDebugInstruction(const std::string& accessID,
                                                              uint16_t domainRepairInstructionID,
                                                              const std::string& debugInstructionID,
                                                              const std::string& debugInstruction,
                                                              SetDebugInstructionOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::SetDebugInstruction>(
      methods::SetDebugInstruction::Input{accessID, domainRepairInstructionID, debugInstructionID,
                                          debugInstruction},
      out, 0);
}

bool DiagLocalUpdateManagerControlClient::getDomainConfiguration(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    GetDomainConfigurationOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainConfiguration>(session(accessID, domainRepairInstructionID), out,
                                                 0);
}

bool DiagLocalUpdateManagerControlClient::getDomainDownloadInfo(const std::string& accessID,
                                                                uint16_t domainRepairInstructionID,
                                                                GetDomainDownloadInfoOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainDownloadInfo>(session(accessID, domainRepairInstructionID), out,
                                                0);
}

bool DiagLocalUpdateManagerControlClient::getDomainUpdateInfo(const std::string& accessID,
                                                              uint16_t domainRepairInstructionID,
                                                              GetDomainUpdateInfoOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainUpdateInfo>(session(accessID, domainRepairInstructionID), out, 0);
}

bool DiagLocalUpdateManagerControlClient::getDomainUpdateResult(const std::string& accessID,
                                                                uint16_t domainRepairInstructionID,
                                                                getDomainUpdateResultOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetDomainUpdateResult>(session(accessID, domainRepairInstructionID), out,
                                                0);
}

bool DiagLocalUpdateManagerControlClient::closeDomainUpdateSession(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    CloseDomainUpdateSessionOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::CloseDomainUpdateSession>(session(accessID, domainRepairInstructionID),
                                                   out, 0);
}

bool DiagLocalUpdateManagerControlClient::ackDomainOffTimeNotification(
    uint16_t domainRepairInstructionID, uint32_t timeout, AckDomainOffTimeNotificationOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::AckDomainOffTimeNotification>(
      methods::AckDomainOffTimeNotification::Input{domainRepairInstructionID, timeout}, out, 0);
}

bool DiagLocalUpdateManagerControlClient::checkProgrammingPreconditions(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    CheckProgrammingPreconditionsOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::CheckProgrammingPreconditions>(
      session(accessID, domainRepairInstructionID), out, kPreconditionsAnswerMs);
}

bool DiagLocalUpdateManagerControlClient::getServiceDescription(GetServiceDescriptionOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::GetServiceDescription>(methods::Empty{}, out, 0);
}

bool DiagLocalUpdateManagerControlClient::updateClientDownloadFinished(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& downloadPath, UpdateClientDownloadFinishedOutput& out) {
  MLOG_INFO(kTag, "==>");
  return invoke<methods::UpdateClientDownloadFinished>(
      methods::UpdateClientDownloadFinished::Input{accessID, domainRepairInstructionID,
                                                   downloadPath},
      out, 0);
}

}  // namespace orv

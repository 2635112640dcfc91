#include "lum_service.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "interfaces/lum/lum_names.h"
#include "minfw/log.h"
#include "minfw/str.h"

namespace lumsim {

namespace {

constexpr const char* kTag = "SIM";
constexpr int64_t kPumpStepMs = 20;

using kel::vxp3::minfw::cat;

std::string session(const std::string& accessID, uint16_t riid) {
  return cat(" accessID=", accessID, " domainRepairInstructionID=", riid);
}

std::string hex16(uint16_t value) {
  static const char* digits = "0123456789abcdef";
  std::string s = "0x";
  for (int shift = 12; shift >= 0; shift -= 4)
    s += digits[(value >> shift) & 0xf];
  return s;
}

template <typename T, typename F>
std::string listOf(const std::vector<T>& items, F each) {
  std::string s = "[";
  for (std::size_t i = 0; i < items.size(); ++i)
    s += (i ? "," : "") + each(items[i]);
  return s + "]";
}

}  // namespace

LumService::LumService(const mw::InstanceSpecifier& instance, mw::Binding* binding,
                       Scenario scenario, std::string callLogPath)
    : DiagLocalUpdateManagerControlSkeleton(instance, binding),
      callLogPath_(std::move(callLogPath)),
      sim_(std::move(scenario), outputs()) {}

LumService::~LumService() {
  stopping_ = true;
  if (pump_.joinable())
    pump_.join();
  StopOfferService();
  std::lock_guard<std::mutex> lock(callLogMutex_);
  if (callLog_)
    std::fclose(callLog_);
}

bool LumService::start(std::string& error) {
  if (!callLogPath_.empty()) {
    std::lock_guard<std::mutex> lock(callLogMutex_);
    callLog_ = std::fopen(callLogPath_.c_str(), "w");
    if (!callLog_) {
      error = cat(callLogPath_, ": cannot be written");
      return false;
    }
  }
  const auto offered = OfferService();
  if (!offered) {
    error = cat("cannot offer the service: ", mw::toString(offered.error()), " ",
                offered.errorMessage());
    return false;
  }
  pump_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "lum-sim-pump");
    pump();
  });
  return true;
}

SimulatorOutputs LumService::outputs() {
  SimulatorOutputs o;
  o.readyForDownload = [this](const lum11::ReadyForDownloadInfo& info, uint16_t riid) {
    MLOG_INFO(kTag, "~~> domainReadyForDownloadNotification domainRepairInstructionID=", riid,
              " installationTime=", info.installationTime,
              " downloadDataSize=", info.downloadDataSize);
    sendDomainReadyForDownloadNotification(info, riid);
  };
  o.readyForUpdate = [this](const lum11::ReadyForUpdateInfo& info, uint16_t riid) {
    MLOG_INFO(kTag, "~~> domainReadyForUpdateNotification domainRepairInstructionID=", riid,
              " installationTime=", info.installationTime,
              " downloadedDataSize=", info.downloadedDataSize);
    sendDomainReadyForUpdateNotification(info, riid);
  };
  o.updateFinished = [this](uint16_t riid) {
    MLOG_INFO(kTag, "~~> domainUpdateFinishedNotification domainRepairInstructionID=", riid);
    sendDomainUpdateFinishedNotification(riid);
  };
  o.error = [this](uint16_t riid, uint32_t code) {
    MLOG_INFO(kTag, "~~> domainErrorNotification domainRepairInstructionID=", riid,
              " errorCode=", code);
    sendDomainErrorNotification(riid, code);
  };
  o.resolveUrl = [this](const lum11::resolveUpdateURLRequest_fileNames& names,
                        lum11::CM_FileType type, const lum11::DT_uuid& uuid) {
    MLOG_INFO(kTag, "~~> resolveUpdateURLRequest fileNames=",
              listOf(names, [](const std::string& n) { return n; }), " fileType=", toString(type),
              " updateURLRequestID=", kel::vxp3::minfw::hexText(uuid.data(), uuid.size()));
    sendResolveUpdateURLRequest(names, type, uuid);
  };
  o.stopOffer = [this] { StopOfferService(); };
  o.offer = [this] {
    const auto offered = OfferService();
    if (!offered)
      MLOG_ERROR(kTag, "cannot offer the service again: ", offered.errorMessage());
  };
  o.crash = [this](int code) {
    {
      std::lock_guard<std::mutex> lock(callLogMutex_);
      if (callLog_)
        std::fflush(callLog_);
    }
    // A crash: no goodbye on the network, no destructors.
    std::_Exit(code);
  };
  return o;
}

void LumService::logCall(const std::string& line) {
  MLOG_INFO(kTag, "<== ", line);
  std::lock_guard<std::mutex> lock(callLogMutex_);
  if (!callLog_)
    return;
  std::fputs(line.c_str(), callLog_);
  std::fputc('\n', callLog_);
  std::fflush(callLog_);
}

template <typename Output>
mw::Future<Output> LumService::answer(const char* op, Reply<Output> reply) {
  MLOG_INFO(kTag, "==> ", op,
            " returnStatus=", orv::lum::sequenceReturnStatusName(reply.output.returnStatus),
            reply.delayMs > 0 ? cat(" in ", reply.delayMs, " ms") : std::string());
  if (reply.delayMs <= 0)
    return mw::Future<Output>::ready(std::move(reply.output));
  auto promise = std::make_shared<mw::Promise<Output>>();
  auto future = promise->get_future();
  std::lock_guard<std::mutex> lock(lateMutex_);
  late_.push_back({kel::vxp3::minfw::clock().now() + std::chrono::milliseconds(reply.delayMs),
                   [promise, output = std::move(reply.output)]() mutable {
                     promise->set_value(std::move(output));
                   }});
  return future;
}

void LumService::answerDue(bool all) {
  std::vector<LateAnswer> due;
  {
    std::lock_guard<std::mutex> lock(lateMutex_);
    const auto now = kel::vxp3::minfw::clock().now();
    for (auto it = late_.begin(); it != late_.end();) {
      if (all || it->due <= now) {
        due.push_back(std::move(*it));
        it = late_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& d : due)
    d.answer();
}

void LumService::pump() {
  while (!stopping_) {
    sim_.poll();
    answerDue(false);
    kel::vxp3::minfw::sleepMs(kPumpStepMs);
  }
  answerDue(true);
}

void LumService::updateURLResponse(const lum11::UpdateUrlResponseStruct& r) {
  logCall(cat("updateURLResponse updateURLRequestID=",
              kel::vxp3::minfw::hexText(r.updateURLRequestID.data(), r.updateURLRequestID.size()),
              " urlInfo=", listOf(r.urlInfo, [](const std::string& u) { return u; }),
              " error=", toString(r.error)));
  sim_.updateURLResponse({r});
}

mw::Future<methods::CreateDomainUpdateSession::Output> LumService::createDomainUpdateSession(
    const std::string& accessID, uint16_t vehicleRepairInstructionID,
    const std::string& updateOrderLink,
    const lum11::createDomainUpdateSession_manifestInformation& manifestInformation,
    const lum11::createDomainUpdateSession_cryptoParameters& cryptoParameters,
    const lum11::DownloadSource& downloadSource,
    const lum11::createDomainUpdateSession_diagnosticAddress& diagnosticAddress,
    lum11::CM_SessionType sessionType) {
  logCall(cat("createDomainUpdateSession accessID=", accessID,
              " vehicleRepairInstructionID=", vehicleRepairInstructionID,
              " updateOrderLink=", updateOrderLink, " manifestInformation=",
              listOf(manifestInformation,
                     [](const lum11::DT_manifestInformation_struct& m) {
                       return cat(m.manifestType, ":", m.manifestLink);
                     }),
              " cryptoParameters=",
              listOf(cryptoParameters,
                     [](const lum11::DT_cryptoParameters_struct& c) { return c.fileName; }),
              " downloadSource.resolveURL=", downloadSource.resolveURL,
              " downloadSource.baseURL=", downloadSource.baseURL,
              " diagnosticAddress=", listOf(diagnosticAddress.diagnosticAddresses, hex16),
              " sessionType=", toString(sessionType)));
  methods::CreateDomainUpdateSession::Input in{accessID,          vehicleRepairInstructionID,
                                               updateOrderLink,   manifestInformation,
                                               cryptoParameters,  downloadSource,
                                               diagnosticAddress, sessionType};
  return answer("createDomainUpdateSession", sim_.createDomainUpdateSession(in));
}

#define LUMSIM_SESSION_OP(Name, Op)                                                      \
  mw::Future<methods::Name::Output> LumService::Op(const std::string& accessID,          \
                                                   uint16_t domainRepairInstructionID) { \
    logCall(cat(#Op, session(accessID, domainRepairInstructionID)));                     \
    return answer(#Op, sim_.Op({accessID, domainRepairInstructionID}));                  \
  }

LUMSIM_SESSION_OP(GetDomainUpdateSessionState, getDomainUpdateSessionState)
LUMSIM_SESSION_OP(StartDomainUpdateDownload, startDomainUpdateDownload)
LUMSIM_SESSION_OP(GetDomainUpdateDownloadProgress, getDomainUpdateDownloadProgress)
LUMSIM_SESSION_OP(StartDomainUpdate, startDomainUpdate)
LUMSIM_SESSION_OP(GetDomainUpdateProgress, getDomainUpdateProgress)
LUMSIM_SESSION_OP(CancelDomainUpdate, cancelDomainUpdate)
LUMSIM_SESSION_OP(GetDomainConfiguration, getDomainConfiguration)
LUMSIM_SESSION_OP(GetDomainDownloadInfo, getDomainDownloadInfo)
LUMSIM_SESSION_OP(GetDomainUpdateInfo, getDomainUpdateInfo)
LUMSIM_SESSION_OP(GetDomainUpdateResult, getDomainUpdateResult)
LUMSIM_SESSION_OP(CloseDomainUpdateSession, closeDomainUpdateSession)
LUMSIM_SESSION_OP(CheckProgrammingPreconditions, checkProgrammingPreconditions)

#undef LUMSIM_SESSION_OP

mw::Future<methods::SetDebugInstruction::Output> LumService::setDebugInstruction(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& debugInstructionID, const std::string& debugInstruction) {
  logCall(cat("setDebugInstruction", session(accessID, domainRepairInstructionID),
              " debugInstructionID=", debugInstructionID, " debugInstruction=", debugInstruction));
  return answer("setDebugInstruction",
                sim_.setDebugInstruction(
                    {accessID, domainRepairInstructionID, debugInstructionID, debugInstruction}));
}

mw::Future<methods::AckDomainOffTimeNotification::Output> LumService::ackDomainOffTimeNotification(
    uint16_t domainRepairInstructionID, uint32_t timeout) {
  logCall(cat("ackDomainOffTimeNotification domainRepairInstructionID=", domainRepairInstructionID,
              " timeout=", timeout));
  return answer("ackDomainOffTimeNotification",
                sim_.ackDomainOffTimeNotification({domainRepairInstructionID, timeout}));
}

mw::Future<methods::GetServiceDescription::Output> LumService::getServiceDescription() {
  logCall("getServiceDescription");
  return answer("getServiceDescription", sim_.getServiceDescription());
}

mw::Future<methods::UpdateClientDownloadFinished::Output> LumService::updateClientDownloadFinished(
    const std::string& accessID, uint16_t domainRepairInstructionID,
    const std::string& downloadPath) {
  logCall(cat("updateClientDownloadFinished", session(accessID, domainRepairInstructionID),
              " downloadPath=", downloadPath));
  return answer(
      "updateClientDownloadFinished",
      sim_.updateClientDownloadFinished({accessID, domainRepairInstructionID, downloadPath}));
}

}  // namespace lumsim

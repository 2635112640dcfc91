#include "interfaces/hmi/hmi_service.h"

#include "interfaces/hmi/hmi_states.h"
#include "interfaces/hmi/medium_path_relay.h"
#include "logic/persistence.h"
#include "minfw/log.h"

namespace orv {

namespace {
constexpr const char* kTag = "hmi";
// The front end's own level: above fatal, always passes the filter.
constexpr uint8_t kHmiLevel = 6;
}  // namespace

HmiService::HmiService() : HmiService(kNotebookIp, kNotebookPort) {}

HmiService::HmiService(std::string notebookIp, uint16_t notebookPort)
    : notebookIp_(std::move(notebookIp)), notebookPort_(notebookPort) {}

HmiService::~HmiService() {
  MediumPathRelay::instance().unbind(relayBinding_);
  notebook_.reset();
}

std::unique_ptr<kel::nodbox::diag::orv::NotebookService> HmiService::createNotebookService() {
  return std::make_unique<kel::nodbox::diag::orv::NotebookService>(notebookIp_, notebookPort_);
}

bool HmiService::init(std::shared_ptr<Persistence> persistence) {
  persistence_ = std::move(persistence);
  if (!persistence_) {
    MLOG_ERROR(kTag, "HmiService received null persistence object!");
  }
  notebook_ = createNotebookService();
  MLOG_DEBUG(kTag, "Record: statehmi [", recordStateHmi(), "], progress [", recordProgress(),
             "], errorcode [", recordErrorCode(), "]");
  MLOG_INFO(kTag, "Create Notebook object and allow start update command.");
  relayBinding_ = MediumPathRelay::instance().bind(
      [this](const std::string& path) { forwardFromDiagnostic(path); });
  if (!notebook_) {
    MLOG(kHmiLevel, kTag, "Failed to make socket");
    return true;
  }
  notebook_->mUpdateState = [this] { return recordStateHmi(); };
  notebook_->mUpdateProgress = [this] { return recordProgress(); };
  notebook_->mUpdateErrorCode = [this] { return recordErrorCode(); };
  notebook_->mStartUpdate = [this](const std::string& path) { return forwardFromSocket(path); };
  if (notebook_->makeSocket()) {
    notebook_->start();
  } else {
    MLOG(kHmiLevel, kTag, "Failed to make socket");
  }
  return true;
}

void HmiService::hmiSetState(int state, std::string /*description*/) {
  MLOG(kHmiLevel, kTag, "HMI State: ", state);
  if (!HmiStateChanged) {
    MLOG_ERROR(kTag, "HmiStateChanged not bound!");
    return;
  }
  switch (state) {
    case eINSTALLATIONAVAILABLE:
      if (runByDiagnostic_) {
        MLOG_INFO(kTag, "Update started by diagnostic - do not change state!");
        return;
      }
      report(eINSTALLATIONCONFIRMED);
      break;
    case eINSTALLATIONFAILED:
      report(eINSTALLATIONFAILEDCONFIRMED);
      break;
    case eINSTALLATIONFINISHED:
      report(eINSTALLATIONFINISHEDCONFIRMED);
      break;
    case eINSTALLATIONCANCELLED:
    case eINSTALLATIONCONFIRMED:
    case eINSTALLATIONFAILEDCONFIRMED:
    case eINSTALLATIONFINISHEDCONFIRMED:
    case eINSTALLATIONREJECTED:
    case eINSTALLATIONREJECTEDCONFIRMED:
    case eINSTALLING:
      lastState_ = static_cast<uint8_t>(state);
      break;
    default:
      break;
  }
}

// There is no head unit on this machine: the remaining notifications are only logged.
void HmiService::hmiSetProgress(uint32_t percent) {
  MLOG_DEBUG(kTag, "HMI progress: ", percent, "%");
}

void HmiService::hmiSetErrorCode(uint32_t errorCode) {
  MLOG_DEBUG(kTag, "HMI error code: ", errorCode);
}

void HmiService::hmiDelete() {
  MLOG_DEBUG(kTag, "HMI offer deleted");
}

void HmiService::usbDelete() {
  MLOG_DEBUG(kTag, "USB medium forgotten");
}

void HmiService::hmiSetPackageName(const std::string& packageName) {
  MLOG_DEBUG(kTag, "HMI package name: ", packageName);
}

void HmiService::hmiSetDownloadInfo(int64_t dataSize, uint32_t installationTime) {
  MLOG_DEBUG(kTag, "HMI download info: size ", dataSize, ", time ", installationTime);
}

void HmiService::hmiSetUpdateInfo(int64_t dataSize, uint32_t installationTime) {
  MLOG_DEBUG(kTag, "HMI update info: size ", dataSize, ", time ", installationTime);
}

void HmiService::runUsbInserted(const std::string& path) {
  if (!UsbInserted) {
    MLOG_ERROR(kTag, "UsbInserted not bound!");
    return;
  }
  markRunByDiagnostic();
  UsbInserted(path);
}

bool HmiService::foundUsbPath(std::string path) {
  MLOG(kHmiLevel, kTag, "Path for update medium [", path, "]");
  if (!UsbInserted) {
    MLOG_ERROR(kTag, "UsbInserted not bound!");
    return false;
  }
  MLOG(kHmiLevel, kTag, "Calling usb inserted!");
  UsbInserted(path);
  if (!HmiStateChanged) {
    MLOG_ERROR(kTag, "HmiStateChanged not bound!");
    return false;
  }
  report(eINSTALLATIONAVAILABLE);
  return true;
}

bool HmiService::forwardFromSocket(const std::string& path) {
  MLOG(kHmiLevel, kTag, "Sending path [", path, "] from socket to logic");
  if (persistence_ && !persistence_->setHandOver(path)) {
    MLOG_ERROR(kTag, "Hand-over of [", path, "] could not be recorded, refused");
    return false;
  }
  foundUsbPath(path);
  return true;
}

void HmiService::forwardFromDiagnostic(const std::string& path) {
  MLOG(kHmiLevel, kTag, "Sending path [", path, "] from diagnostic to logic");
  // The flag must be up before Logic can offer the medium, or the offer would be confirmed
  // here as a USB update and the tester's start that follows would find no offer.
  if (UsbInserted) {
    markRunByDiagnostic();
  }
  foundUsbPath(path);
}

uint32_t HmiService::recordStateHmi() {
  return persistence_ ? persistence_->getStateHmi(eINVALID) : eINVALID;
}

uint32_t HmiService::recordProgress() {
  return persistence_ ? persistence_->getProgress(0) : 0;
}

int32_t HmiService::recordErrorCode() {
  return persistence_ ? persistence_->getErrorCode(0) : 0;
}

void HmiService::report(int state) {
  HmiStateChanged(state);
  lastState_ = static_cast<uint8_t>(state);
}

void HmiService::markRunByDiagnostic() {
  MLOG_INFO(kTag, "Run by diagnostic.");
  runByDiagnostic_ = true;
}

}  // namespace orv

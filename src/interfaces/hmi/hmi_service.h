#pragma once
// HmiService: the USB channel's front end towards the head unit. It confirms, on the driver's
// behalf, the HMI states that wait for a confirmation (an offer, a failure, a success; never a
// rejection or a cancellation, and no offer while diagnostics run the update), and turns an
// update medium's address from the workshop laptop (NotebookService) or from diagnostics
// (MediumPathRelay) into Logic's USB-inserted input followed by the HMI state report 0.
//
// A laptop's hand-over is written to the record before it is acknowledged, so that it survives
// a crash that follows the acknowledgement; Logic clears it once the update settles.
//
// The laptop's update statistics are read from the record, which Logic writes on every state
// change, so the laptop never needs Logic itself.
//
// Threading: hmiSetState and the other IHmiService operations run on Logic's pool worker; the
// medium paths arrive on the "orv-notebook" worker and on the diagnostic routine client's
// thread. UsbInserted and HmiStateChanged are bound before init() and only read afterwards; the
// run-by-diagnostic flag and the last state are atomics; no mutex of its own. The destructor
// unbinds the relay and stops the laptop service before members go, so no path arrives late.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "interfaces/hmi/hmi_service_i.h"
#include "interfaces/notebook/notebook_service.h"

namespace orv {

class HmiService : public IHmiService {
 public:
  static constexpr const char* kNotebookIp = "127.0.0.1";
  static constexpr uint16_t kNotebookPort = 5002;

  HmiService();
  // Another laptop address, for tests.
  HmiService(std::string notebookIp, uint16_t notebookPort);
  ~HmiService() override;
  HmiService(const HmiService&) = delete;
  HmiService& operator=(const HmiService&) = delete;

  // Always true: without its socket the service still serves Logic and diagnostics.
  bool init(std::shared_ptr<Persistence> persistence) override;
  void hmiSetState(int state, std::string description) override;
  void hmiSetProgress(uint32_t percent) override;
  void hmiSetErrorCode(uint32_t errorCode) override;
  void hmiDelete() override;
  void usbDelete() override;
  void hmiSetPackageName(const std::string& packageName) override;
  void hmiSetDownloadInfo(int64_t dataSize, uint32_t installationTime) override;
  void hmiSetUpdateInfo(int64_t dataSize, uint32_t installationTime) override;

  // A medium path from diagnostics: from now on offers are left to the diagnostic tester.
  void runUsbInserted(const std::string& path);
  // The common entry of a medium path: UsbInserted, then the HMI state report 0.
  bool foundUsbPath(std::string path);

  uint8_t lastState() const { return lastState_.load(); }
  bool runByDiagnostic() const { return runByDiagnostic_.load(); }

 protected:
  virtual std::unique_ptr<kel::nodbox::diag::orv::NotebookService> createNotebookService();

  // Receivers of a medium path, bound in init(): the laptop service's start path and the relay.
  // The laptop's path is recorded first; false (the laptop is refused) when that fails.
  bool forwardFromSocket(const std::string& path);
  void forwardFromDiagnostic(const std::string& path);

  // The laptop's statistics, from the record; the resting values without a record.
  uint32_t recordStateHmi();
  uint32_t recordProgress();
  int32_t recordErrorCode();

 private:
  void report(int state);
  void markRunByDiagnostic();

  const std::string notebookIp_;
  const uint16_t notebookPort_;
  std::shared_ptr<Persistence> persistence_;
  std::unique_ptr<kel::nodbox::diag::orv::NotebookService> notebook_;
  std::atomic<bool> runByDiagnostic_{false};
  std::atomic<uint8_t> lastState_{10};
  uint64_t relayBinding_ = 0;
};

}  // namespace orv

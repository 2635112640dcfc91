#pragma once
// IHmiService: the USB channel's front end towards the head unit, as Logic sees it. Logic tells
// it what to show (state, progress, error code, package, download figures) and when to forget
// the offer or the medium; it answers through the two callables that Logic binds: UsbInserted
// (a medium path arrived) and HmiStateChanged (the driver's answer, an HMI state value).
//
// Threading: the operations are called on Logic's pool worker; the callables are bound once by
// Logic::init before any input can arrive and are only read afterwards.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orv {

class Persistence;

class IHmiService {
 public:
  virtual ~IHmiService() = default;

  // Start-up: keeps the record and brings up the front ends that feed medium paths in.
  virtual bool init(std::shared_ptr<Persistence> persistence) = 0;

  // The HMI state that Logic wants shown, with its description (the train name).
  virtual void hmiSetState(int state, std::string description) = 0;
  virtual void hmiSetProgress(uint32_t percent) = 0;
  virtual void hmiSetErrorCode(uint32_t errorCode) = 0;
  // Clears the offer from the head unit.
  virtual void hmiDelete() = 0;
  // Forgets the medium at the USB front end.
  virtual void usbDelete() = 0;
  // The package that the LUM is working on, and the figures of the next phase.
  virtual void hmiSetPackageName(const std::string& packageName) = 0;
  virtual void hmiSetDownloadInfo(int64_t dataSize, uint32_t installationTime) = 0;
  virtual void hmiSetUpdateInfo(int64_t dataSize, uint32_t installationTime) = 0;

  // Bound by Logic::init.
  std::function<void(const std::string& path)> UsbInserted;
  std::function<void(int state)> HmiStateChanged;
};

}  // namespace orv

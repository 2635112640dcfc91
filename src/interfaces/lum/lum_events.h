#pragma once
// ILumEvents: what the LUM tells its client, as one interface. The Multiplexer implements it to
// receive the LUM client's events and relays each call, unchanged, to the channel that holds
// control (the USB channel's Logic or the diagnostic-master service), which implement it too.
//
// Threading: the operations are called on middleware threads (through the Multiplexer's relay);
// implementations must be safe against that and must return quickly.

#include <cstdint>
#include <string>

#include "interfaces/lum/lum11_interface.h"
#include "interfaces/lum/lum11_types.h"

namespace orv {

// The LUM's request to resolve update-file names into URLs and crypto parameters.
using ResolveUpdateURLRequest = lum11::events::ResolveUpdateURLRequest::Sample;

class ILumEvents {
 public:
  virtual ~ILumEvents() = default;

  virtual void eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) = 0;
  virtual void eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                                       const lum11::ReadyForDownloadInfo& info) = 0;
  virtual void eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                                     const lum11::ReadyForUpdateInfo& info) = 0;
  virtual void eventDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                              uint16_t timeout) = 0;
  virtual void eventDomainErrorNotification(uint16_t domainRepairInstructionID,
                                            uint32_t errorCode) = 0;
  virtual void eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                             const std::string& debugMessageID,
                                             const std::string& debugMessage) = 0;
  virtual void eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) = 0;

  // The LUM service appeared (true) or went away (false).
  virtual void eventConnection(bool connected) = 0;
  // The facade's internal notification (value 1 re-arms the USB channel after a restart).
  virtual void eventInternal(int value) = 0;
};

}  // namespace orv

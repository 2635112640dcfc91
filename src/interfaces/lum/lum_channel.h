#pragma once
// ILumChannel: a requester that may drive the LUM (the diagnostic-master service, channel
// ACTIVE_DM, and the USB channel's Logic, ACTIVE_USB). A channel never calls the LUM or the
// other channel directly: it reaches the control arbitration only through the eleven slots
// below, which the Multiplexer binds at start-up, and receives the LUM's events through
// ILumEvents while it holds control.
//
// Slots that take a channel are called with the channel's own value; the Multiplexer's bound
// callables hold nothing but the Multiplexer. A channel checks that a slot is bound before it
// calls it.
//
// Threading: the slots are bound once on the main thread before init() and are only read
// afterwards, so any thread of the channel may call them. The bound operations are thread-safe.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "interfaces/lum/control_types.h"
#include "interfaces/lum/lum_events.h"

namespace orv {

class DiagLUMControlClient;

class ILumChannel : public ILumEvents {
 public:
  ~ILumChannel() override = default;

  // Start-up of the channel, after its slots are bound.
  virtual bool init() = 0;

  // Start of a diagnostic update by a workshop tester (routine control). Only the USB channel
  // can start one; every other channel refuses.
  virtual bool diagTriggerStartUpdate(const std::string& ctrlOptions, int override) {
    (void)ctrlOptions;
    (void) override;
    return false;
  }

  // The slots, in the order in which the Multiplexer binds them.
  std::function<bool(uint32_t channel)> signalRequestExclusiveControl;
  std::function<bool(uint32_t channel)> signalRequestTemporaryControl;
  std::function<std::shared_ptr<DiagLUMControlClient>(uint32_t channel)> signalRequestInterface;
  std::function<bool(uint32_t channel)> signalRelinquish;
  std::function<uint32_t()> signalQueryControl;
  // Whether the LUM client currently holds a connection to the LUM service.
  std::function<bool()> signalQueryAlive;
  std::function<bool(uint32_t updateType)> signalSetUpdateType;
  std::function<uint32_t()> signalGetUpdateType;
  std::function<bool()> signalSetUpdateTimestampStart;
  std::function<bool()> signalSetUpdateTimestampEnd;
  std::function<bool(uint32_t errorCode)> signalSetErrorCode;
};

}  // namespace orv

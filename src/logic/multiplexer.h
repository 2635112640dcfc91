#pragma once
// Multiplexer: arbitrates which channel (ACTIVE_DM, the diagnostic-master service, or
// ACTIVE_USB, the USB channel's Logic) holds exclusive control of the LUM, hands the LUM
// client facade only to the holder, relays every LUM event to the holder, keeps the update
// record current and answers the diagnosis clients' read-outs. It owns every interface object
// of the service and wires them together (createInterfaces, initBindings, initInterfaces).
//
// There is no pre-emption: a channel keeps control until it gives it back. A non-temporary
// grant and every release are written to the record's "channel", so control survives a
// restart; a temporary grant is not written.
//
// Threading: thread-safe after start-up. grantMutex_ serialises every grant and release (the
// check of the holder, the change and the record write); active_ is atomic so that queries and
// relays read it without the mutex. The object lists (channels_, the clients) are filled on
// the main thread during start-up, before any other thread exists, and only read afterwards.
// Record access is serialised by Persistence itself.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/diagnosis/nodbox/diagnosis_interfaces.h"
#include "interfaces/lum/control_types.h"
#include "interfaces/lum/lum_channel.h"
#include "interfaces/lum/lum_events.h"
#include "logic/persistence.h"

namespace orv {

class DiagLUMControlClient;

class Multiplexer : public ILumEvents {
 public:
  // Throws std::runtime_error on an empty record handle. Reads the holder from the record.
  explicit Multiplexer(std::shared_ptr<Persistence> persistence);
  ~Multiplexer() override;

  Multiplexer(const Multiplexer&) = delete;
  Multiplexer& operator=(const Multiplexer&) = delete;

  // LUM events: each goes to the channel that holds control, or is dropped.
  void eventDomainUpdateFinishedNotification(uint16_t domainRepairInstructionID) override;
  void eventDomainReadyForDownloadNotification(uint16_t domainRepairInstructionID,
                                               const lum11::ReadyForDownloadInfo& info) override;
  void eventDomainReadyForUpdateNotification(uint16_t domainRepairInstructionID,
                                             const lum11::ReadyForUpdateInfo& info) override;
  void eventDomainOffTimeNotification(uint16_t domainRepairInstructionID,
                                      uint16_t timeout) override;
  void eventDomainErrorNotification(uint16_t domainRepairInstructionID,
                                    uint32_t errorCode) override;
  void eventDebugMessageNotification(uint16_t domainRepairInstructionID,
                                     const std::string& debugMessageID,
                                     const std::string& debugMessage) override;
  void eventResolveUpdateURLRequest(const ResolveUpdateURLRequest& request) override;
  void eventConnection(bool connected) override;
  void eventInternal(int value) override;

  // Start-up, in this order, on the main thread. Each returns false with an error line when a
  // piece is missing.
  virtual bool createInterfaces();
  virtual bool initInterfaces();
  virtual bool initBindings();

  // Control arbitration, called through the channels' slots with the channel's own value.
  bool requestExclusiveControl(uint32_t channel, bool temporary);
  bool relinquishControl(uint32_t channel);
  uint32_t queryControl();
  // The LUM client facade, to the holder only; empty for everybody else.
  std::shared_ptr<DiagLUMControlClient> requestInterface(uint32_t channel);

  // Record operations.
  bool setErrorCode(uint32_t errorCode);
  bool setUpdateType(uint32_t updateType);
  uint32_t getUpdateType();
  // Stamps the current local date and time (clock seam) as start, and resets the end.
  bool setUpdateTimestampStart();
  bool setUpdateTimestampEnd();

  // Diagnosis clients.
  diagNewStatusType diagnoseUpdateState();
  diagTimestampType diagnoseTimestamps();
  // A tester's start of a diagnostic update, handed to the USB channel while nobody holds
  // control.
  bool diagnoseStartUpdate(const std::string& text, int number);

 protected:
  // Wiring seams: createInterfaces fills these; tests fill them with fakes instead. Main thread,
  // before initBindings.
  void addChannel(std::unique_ptr<ILumChannel> channel);
  void setLumClient(std::shared_ptr<DiagLUMControlClient> client);
  void setRoutineClient(std::unique_ptr<IRoutine> client);
  void setMesswertClient(std::unique_ptr<IMesswert> client);
  // The channel interface with that value, or nullptr.
  ILumChannel* channel(uint32_t value) const;

 private:
  // The holder's interface for a relay, or nullptr (with its log line) when nobody holds
  // control or the holder has no interface.
  ILumChannel* relayTarget();
  void bindChannel(ILumChannel& channel);
  void bindLumEvents();

  const std::shared_ptr<Persistence> persistence_;
  std::mutex grantMutex_;  // guards every change of active_ and its record write
  std::atomic<uint32_t> active_{ACTIVE_NONE};

  // Declared so that the LUM client, whose threads deliver events, goes first on destruction.
  std::vector<std::unique_ptr<ILumChannel>> channels_;  // index = channel value
  std::unique_ptr<IMesswert> diagMesswert_;
  std::unique_ptr<IRoutine> diagRoutineCtrl_;
  std::shared_ptr<DiagLUMControlClient> lumClient_;
};

}  // namespace orv

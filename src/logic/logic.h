#pragma once
// Logic: the USB channel of the service (channel ACTIVE_USB). It owns the HMI state (what the
// head unit shows about a local update) and the LUM sequence state (how far the LUM was driven),
// turns inputs (a medium path, the driver's answer, a tester's start, the LUM's events) into
// the update sequences, and writes every change of state, error code, progress, train name and
// key manifest through to the record at once, so that a restart resumes where it stopped.
// The definitions lie in logic*.cpp, one file per part of that story: life cycle, inputs, LUM
// events, session, progress, key manifest and URLs, resume.
//
// Threading: every input returns quickly; the work runs as tasks on the one worker of pool_,
// strictly in enqueue order, so the sequences never overlap. stateHMI_, stateLUM_, errorCode_
// and riid_ are atomics, read without a lock by any thread. mediumMutex_ guards medium_ and
// keyManifest_, which the worker writes and diagTriggerStartUpdate (a caller's thread) reads.
// The retry counters and polling bookkeeping belong to the worker. The signals are bound on
// the main thread before init() and are only read afterwards.
// One update ends once: the LUM's error report (a middleware thread) and the sequences' own
// failures and success (the worker) claim the end under endMutex_. While the handling of the
// LUM's error is queued, every other failure leaves the end to it. endMutex_ is taken last: no
// other lock of this class and no signal is used while it is held (only the record and the log).
// lumWatchMutex_ guards the watch over a LUM lost during an update: the connection events (a
// middleware thread) and the poll arm or disarm it, the watch task on the worker ends the
// update once the LUM stayed away longer than the limit.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "interfaces/hmi/hmi_service_i.h"
#include "interfaces/hmi/hmi_states.h"
#include "interfaces/lum/lum_channel.h"
#include "minfw/clock.h"
#include "minfw/thread_pool.h"

namespace orv {

class Persistence;

class Logic : public ILumChannel {
 public:
  // The LUM client id of every session this channel opens.
  static constexpr const char* kClientId = "NODBOX-USB";
  static constexpr uint64_t kKeyManifestMaxSize = 512000;
  // How long an update waits for a LUM that went away; ORVANE_LUM_LOSS_LIMIT_S overrides it.
  static constexpr int64_t kLumLossLimitSeconds = 1800;

  // Service error codes.
  enum ErrorCode : uint32_t {
    kErrNoInterface = 601,
    kErrCreateSession = 602,
    kErrStartDownload = 603,
    kErrStartUpdate = 605,
    kErrResult = 607,
    kErrInterrupted = 608,
    kErrUnexpected = 609,
    kErrMedium = 610,
    kErrKeyManifestRead = 612,
    kErrKeyManifestDecrypt = 613,
    kErrUpdateProgress = 615,
    kErrDownloadProgress = 616,
    kErrKeyManifestSize = 617,
    kErrNoMedium = 618,
    kErrOrder = 619,
    kErrResumeLoop = 620,
  };
  // Restarts that may resume an update at the same step before it is given up as failed.
  static constexpr uint32_t kMaxResumeAttempts = 3;

  // Status-poll counters of steps that the LUM shows complete before their event arrived.
  enum RetryCounter {
    RETRY_ERROR = 0,
    RETRY_VERIFICATION = 1,
    RETRY_DOWNLOAD = 2,
    RETRY_UPDATE = 3
  };

  // The record is shared with the Multiplexer and the HMI service; a null record is logged and
  // the state then lives in memory only.
  explicit Logic(std::shared_ptr<Persistence> persistence);
  // Waits for every queued task to end.
  ~Logic() override;

  Logic(const Logic&) = delete;
  Logic& operator=(const Logic&) = delete;

  // Reads the record, creates and binds the HMI service, queues the wait for the LUM and, after
  // a restart, the resynchronisation of the HMI and the resumption of the update.
  bool init() override;

  // Inputs.
  void inputUsbInserted(const std::string& path);
  void inputHmiStateChanged(int state);
  bool diagTriggerStartUpdate(const std::string& ctrlOptions, int override) override;

  // LUM events, relayed by the Multiplexer while this channel holds control.
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

  uint32_t getStateHMI() const { return stateHMI_.load(); }
  uint32_t getStateLUM() const { return stateLUM_.load(); }
  uint32_t getErrorCode() const { return errorCode_.load(); }

  // Percent of processed over total, 0 for nonsense and 100 when processed exceeds total.
  uint32_t getProgress(int64_t processedBytes, int64_t totalBytes);
  // True when `second` is not empty and occurs in `first`.
  static bool diagParseUpdateOrder(const std::string& first, const std::string& second);

  // HMI-side signals, bound by init() to the HMI service.
  std::function<void(uint32_t state, const std::string& description)> signalUSBhmiSetState;
  std::function<void(uint32_t percent)> signalUSBhmiSetProgress;
  std::function<void(uint32_t errorCode)> signalUSBhmiSetErrorCode;
  std::function<void()> signalUSBhmiDelete;
  std::function<void()> signalUSBusbDelete;
  std::function<void(const std::string& packageName)> signalUSBhmiSetPackageName;
  std::function<void(int64_t dataSize, uint32_t installationTime)> signalUSBhmiSetDownloadInfo;
  std::function<void(int64_t dataSize, uint32_t installationTime)> signalUSBhmiSetUpdateInfo;

 protected:
  // Seam: the HMI service that init() creates; tests hand in a double.
  virtual std::unique_ptr<IHmiService> createHmiService();

  // The sequences, each run as one pool task (protected so that tests can drive one directly).
  void setStateHMI(uint32_t state);
  void setStateLUM(uint32_t state);
  void seqUsbInserted(const std::string& path);
  void seqHmiStateChanged(int newState);
  void seqInstallationAnalysis();
  void seqInstallationAvailable();
  void seqInstallationStart();
  bool seqCheckProgrammingPreconditions();
  void seqSendStartDomainUpdateDownload();
  void seqSendStartDomainUpdate();
  void seqGetStatus();
  void seqUpdateProgress(uint32_t percent);
  void seqGetDomainUpdateResult();
  void seqCloseDomainUpdate();
  void seqCancelDomainUpdate();
  void seqInstallationFinished();
  void seqInstallationFailed(int errorCode);
  void seqResolveUpdateURLRequest(const ResolveUpdateURLRequest& request);
  bool ReadKeyManifest();

  // Queues a task on the pool; tests run the queue themselves.
  virtual void enqueue(std::function<void()> task);

 private:
  // What the analysis took over from the medium's description.
  struct Medium {
    std::string usbPath;
    std::string trainName;
    std::string updateOrder;
    std::string updateBaseUrl;
    std::vector<std::string> updateManifests;
    std::vector<uint16_t> diagAddresses;
    std::string keyManifestFileAddr;
  };
  Medium medium() const;
  std::string keyManifest() const;
  void setKeyManifest(const std::string& text);
  void setTrainName(const std::string& name);
  // Reads the description at `path` and takes its fields over; false (unlogged) on a fault.
  bool takeOver(const std::string& path);
  void restoreMedium();

  // Clean-ups of seqHmiStateChanged.
  void forgetMedium();
  void closeUpdate();
  // Gives control back when this channel holds it.
  void relinquishIfHeld();
  // The record's timestamps: the start once the LUM holds the session, the end when the update
  // ends either way.
  void stampUpdate(bool start);
  void sendHmiState(uint32_t state, const std::string& description);
  void writeErrorCode(uint32_t code);
  // The handling of the two events, shared with the status poll that makes up for them.
  // `lumCode` is the LUM's own code (0: none reported); `fallback` the code used when the LUM
  // gives none, neither in its event nor in its result.
  void queueErrorHandling(uint32_t lumCode, uint32_t fallback);
  void queueFinishedHandling();
  // The claims on the end of the update (see the threading note above). claimFailure is false
  // when the LUM's error handling ends the update instead; claimLumFailure yields the code it
  // ends with; claimSuccess is false while that handling is queued.
  void openSession();
  bool claimFailure(uint32_t code);
  bool claimLumFailure(uint32_t& code);
  bool claimSuccess();
  bool lumErrorPending();
  // A start call the LUM refused: when its session has failed, the LUM's error handling ends
  // the update (its event may still be on the way); otherwise the start's own `code` does.
  void startFailed(uint32_t code);
  bool lumSessionFailed();
  // The LUM went away (or stopped answering the poll) while a session runs: the watch starts.
  void lumLost();
  // One step of the watch; it queues itself again until the LUM is back or the limit passed.
  void seqWatchLum();
  void lumGoneForGood();
  void waitForLum();
  void resynchroniseHmi();
  void resume();
  // Counts this restart's resume in the record before anything else runs; false once it is one
  // too many, and the update is then given up by abandonResume().
  bool countResume();
  void abandonResume();
  // The recorded hand-over at start-up: whether it is started again (true) or dropped.
  bool takeBackHandOver(const std::string& location);
  // The update holds the LUM session or ended: a hand-over it came from is no longer needed.
  void settleHandOver();
  void queuePoll();
  bool startExpected(uint32_t before, const char* phase);
  void fallBackTo(uint32_t step);
  // Reads and decrypts the key manifest: 0, or the error code of the fault (logged).
  uint32_t loadKeyManifest();
  // Ends the update with a key-manifest fault's code (617 is queued, the others end it at once).
  void failKeyManifest(uint32_t code);
  void sendUrlResponse(const lum11::UpdateUrlResponseStruct& response);
  // The USB channel's facade; without one the update fails with 601.
  std::shared_ptr<DiagLUMControlClient> lumOrFail();
  // One session call with retry on busy: true when the LUM accepted it; otherwise `refusal` is
  // the answer's name or "no answer", or stays empty when there was no facade (already failed).
  using SessionCall = bool (DiagLUMControlClient::*)(const std::string&, uint16_t,
                                                     lum11::methods::StatusOutput&, bool);
  bool callSession(const char* op, SessionCall call, std::string* refusal);
  // Logs a progress answer under `label` and passes its percentage and package on.
  template <typename Progress>
  void reportProgress(const char* label, const Progress& progress);

  std::shared_ptr<Persistence> persistence_;
  std::unique_ptr<IHmiService> hmi_;

  std::atomic<uint32_t> stateHMI_{eINVALID};
  std::atomic<uint32_t> stateLUM_{0};
  std::atomic<uint32_t> errorCode_{0};
  std::atomic<uint16_t> riid_{1};
  // The step that this run resumed at, 0 when none; the resume count resets once it moves on.
  std::atomic<uint32_t> resumeStep_{0};
  // True while a status poll is queued or running, so that no second poll chain starts.
  std::atomic<bool> polling_{false};
  // Set when destruction begins: no new task is queued, waiting tasks give up.
  std::atomic<bool> stopping_{false};

  mutable std::mutex mediumMutex_;  // guards medium_ and keyManifest_
  Medium medium_;
  std::string keyManifest_;
  // Pool worker only: the laptop's recorded hand-over that the current update came from, ""
  // when none; cleared in the record too once the update settles.
  std::string handOver_;

  std::mutex endMutex_;           // guards the four below
  bool endDecided_ = false;       // the running update's end is claimed
  bool lumErrorPending_ = false;  // the LUM's error handling is queued and ends the update
  uint32_t lumErrorCode_ = 0;     // the LUM's own code; the first report counts
  uint32_t fallbackCode_ = 0;     // the code of the first failure left to that handling

  std::mutex lumWatchMutex_;  // guards the two below
  std::optional<kel::vxp3::minfw::Clock::TimePoint> lumLostSince_;
  bool lumWatchQueued_ = false;
  // Set at construction, read only afterwards.
  std::chrono::seconds lumLossLimit_{kLumLossLimitSeconds};

  std::array<uint32_t, 4> retry_{};  // pool worker only

  std::unique_ptr<kel::vxp3::minfw::ThreadPool> pool_;
};

}  // namespace orv

#pragma once
// Operations and events of the LUM control interface, version 11, as descriptors for the
// middleware's generic proxies and skeletons: one struct per operation with its name on the
// wire, its inputs and its outputs in documented order; one struct per event with its sample.
// The host configuration maps each kName to its identifiers.
//
// Threading: plain values.

#include <cstdint>
#include <string>
#include <tuple>

#include "interfaces/lum/lum11_types.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol {

namespace methods {

// The inputs of every call that addresses one session.
struct SessionInput {
  std::string accessID;
  uint16_t domainRepairInstructionID = 0;
};

// An operation whose only output is the LUM's verdict.
struct StatusOutput {
  CM_ReturnStatus returnStatus{};
};

struct Empty {};

struct UpdateURLResponse {
  static constexpr const char* kName = "updateURLResponse";
  static constexpr bool kFireAndForget = true;
  struct Input {
    UpdateUrlResponseStruct updateUrlResponse;
  };
  using Output = Empty;
};

struct CreateDomainUpdateSession {
  static constexpr const char* kName = "createDomainUpdateSession";
  struct Input {
    std::string accessID;
    uint16_t vehicleRepairInstructionID = 0;
    std::string updateOrderLink;
    createDomainUpdateSession_manifestInformation manifestInformation;
    createDomainUpdateSession_cryptoParameters cryptoParameters;
    DownloadSource downloadSource;
    createDomainUpdateSession_diagnosticAddress diagnosticAddress;
    CM_SessionType sessionType{};
  };
  struct Output {
    CM_ReturnStatus returnStatus{};
    uint16_t domainRepairInstructionID = 0;
  };
};

struct GetDomainUpdateSessionState {
  static constexpr const char* kName = "getDomainUpdateSessionState";
  using Input = SessionInput;
  struct Output {
    CM_CurrentProcessingState currentProcessingState{};
    std::string currentProcessingDetails;
    CM_ReturnStatus returnStatus{};
  };
};

struct StartDomainUpdateDownload {
  static constexpr const char* kName = "startDomainUpdateDownload";
  using Input = SessionInput;
  using Output = StatusOutput;
};

struct GetDomainUpdateDownloadProgress {
  static constexpr const char* kName = "getDomainUpdateDownloadProgress";
  using Input = SessionInput;
  struct Output {
    int64_t totalBytes = 0;
    int64_t processedBytes = 0;
    int32_t downloadRate = 0;
    uint32_t currentPackageNumber = 0;
    uint32_t totalPackageNumber = 0;
    std::string packageName;
    CM_CurrentProcessingState currentProcessingState{};
    std::string currentProcessingDetails;
    CM_ReturnStatus returnStatus{};
  };
};

struct StartDomainUpdate {
  static constexpr const char* kName = "startDomainUpdate";
  using Input = SessionInput;
  using Output = StatusOutput;
};

struct GetDomainUpdateProgress {
  static constexpr const char* kName = "getDomainUpdateProgress";
  using Input = SessionInput;
  struct Output {
    int64_t totalBytes = 0;
    int64_t processedBytes = 0;
    uint32_t currentPackageNumber = 0;
    uint32_t totalPackageNumber = 0;
    std::string packageName;
    CM_CurrentProcessingState currentProcessingState{};
    std::string currentProcessingDetails;
    CM_ReturnStatus returnStatus{};
  };
};

struct CancelDomainUpdate {
  static constexpr const char* kName = "cancelDomainUpdate";
  using Input = SessionInput;
  struct Output {
    CM_CancelStatus cancelStatus{};
    CM_ReturnStatus returnStatus{};
  };
};

struct SetDebugInstruction {
  static constexpr const char* kName = "setDebugInstruction";
  struct Input {
    std::string accessID;
    uint16_t domainRepairInstructionID = 0;
    std::string debugInstructionID;
    std::string debugInstruction;
  };
  using Output = StatusOutput;
};

struct GetDomainConfiguration {
  static constexpr const char* kName = "getDomainConfiguration";
  using Input = SessionInput;
  struct Output {
    std::string configurationInformation;
    std::string configurationInformationDetails;
    CM_ReturnStatus returnStatus{};
  };
};

struct GetDomainDownloadInfo {
  static constexpr const char* kName = "getDomainDownloadInfo";
  using Input = SessionInput;
  struct Output {
    ReadyForDownloadInfo readyForDownloadInfo;
    CM_ReturnStatus returnStatus{};
  };
};

struct GetDomainUpdateInfo {
  static constexpr const char* kName = "getDomainUpdateInfo";
  using Input = SessionInput;
  struct Output {
    ReadyForUpdateInfo readyForUpdateInfo;
    CM_ReturnStatus returnStatus{};
  };
};

struct GetDomainUpdateResult {
  static constexpr const char* kName = "getDomainUpdateResult";
  using Input = SessionInput;
  struct Output {
    DomainResult domainResult;
    CM_ReturnStatus returnStatus{};
  };
};

struct CloseDomainUpdateSession {
  static constexpr const char* kName = "closeDomainUpdateSession";
  using Input = SessionInput;
  using Output = StatusOutput;
};

struct AckDomainOffTimeNotification {
  static constexpr const char* kName = "ackDomainOffTimeNotification";
  struct Input {
    uint16_t domainRepairInstructionID = 0;
    uint32_t timeout = 0;  // the event's UInt16 timeout, widened on purpose
  };
  using Output = StatusOutput;
};

struct CheckProgrammingPreconditions {
  static constexpr const char* kName = "checkProgrammingPreconditions";
  using Input = SessionInput;
  struct Output {
    checkProgrammingPreconditions_preconditionCheckResult preconditionCheckResult;
    CM_ReturnStatus returnStatus{};
  };
};

struct GetServiceDescription {
  static constexpr const char* kName = "getServiceDescription";
  using Input = Empty;
  struct Output {
    std::string accessID;
    orv::lum::ServiceDescription serviceDescription;
    CM_ReturnStatus returnStatus{};
  };
};

struct UpdateClientDownloadFinished {
  static constexpr const char* kName = "updateClientDownloadFinished";
  struct Input {
    std::string accessID;
    uint16_t domainRepairInstructionID = 0;
    std::string downloadPath;
  };
  using Output = StatusOutput;
};

// Every operation, in the order of the interface (the order of the method identifiers).
using All =
    std::tuple<UpdateURLResponse, CreateDomainUpdateSession, GetDomainUpdateSessionState,
               StartDomainUpdateDownload, GetDomainUpdateDownloadProgress, StartDomainUpdate,
               GetDomainUpdateProgress, CancelDomainUpdate, SetDebugInstruction,
               GetDomainConfiguration, GetDomainDownloadInfo, GetDomainUpdateInfo,
               GetDomainUpdateResult, CloseDomainUpdateSession, AckDomainOffTimeNotification,
               CheckProgrammingPreconditions, GetServiceDescription, UpdateClientDownloadFinished>;

inline void marshal(FieldVisitor&, Empty&) {}
inline void marshal(FieldVisitor& v, SessionInput& x) {
  platform::middleware::marshalAll(v, x.accessID, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, StatusOutput& x) {
  platform::middleware::marshalAll(v, x.returnStatus);
}
inline void marshal(FieldVisitor& v, UpdateURLResponse::Input& x) {
  platform::middleware::marshalAll(v, x.updateUrlResponse);
}
inline void marshal(FieldVisitor& v, CreateDomainUpdateSession::Input& x) {
  platform::middleware::marshalAll(v, x.accessID, x.vehicleRepairInstructionID, x.updateOrderLink,
                                   x.manifestInformation, x.cryptoParameters, x.downloadSource,
                                   x.diagnosticAddress, x.sessionType);
}
inline void marshal(FieldVisitor& v, CreateDomainUpdateSession::Output& x) {
  platform::middleware::marshalAll(v, x.returnStatus, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, GetDomainUpdateSessionState::Output& x) {
  platform::middleware::marshalAll(v, x.currentProcessingState, x.currentProcessingDetails,
                                   x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetDomainUpdateDownloadProgress::Output& x) {
  platform::middleware::marshalAll(v, x.totalBytes, x.processedBytes, x.downloadRate,
                                   x.currentPackageNumber, x.totalPackageNumber, x.packageName,
                                   x.currentProcessingState, x.currentProcessingDetails,
                                   x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetDomainUpdateProgress::Output& x) {
  platform::middleware::marshalAll(v, x.totalBytes, x.processedBytes, x.currentPackageNumber,
                                   x.totalPackageNumber, x.packageName, x.currentProcessingState,
                                   x.currentProcessingDetails, x.returnStatus);
}
inline void marshal(FieldVisitor& v, CancelDomainUpdate::Output& x) {
  platform::middleware::marshalAll(v, x.cancelStatus, x.returnStatus);
}
inline void marshal(FieldVisitor& v, SetDebugInstruction::Input& x) {
  platform::middleware::marshalAll(v, x.accessID, x.domainRepairInstructionID, x.debugInstructionID,
                                   x.debugInstruction);
}
inline void marshal(FieldVisitor& v, GetDomainConfiguration::Output& x) {
  platform::middleware::marshalAll(v, x.configurationInformation, x.configurationInformationDetails,
                                   x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetDomainDownloadInfo::Output& x) {
  platform::middleware::marshalAll(v, x.readyForDownloadInfo, x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetDomainUpdateInfo::Output& x) {
  platform::middleware::marshalAll(v, x.readyForUpdateInfo, x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetDomainUpdateResult::Output& x) {
  platform::middleware::marshalAll(v, x.domainResult, x.returnStatus);
}
inline void marshal(FieldVisitor& v, AckDomainOffTimeNotification::Input& x) {
  platform::middleware::marshalAll(v, x.domainRepairInstructionID, x.timeout);
}
inline void marshal(FieldVisitor& v, CheckProgrammingPreconditions::Output& x) {
  platform::middleware::marshalAll(v, x.preconditionCheckResult, x.returnStatus);
}
inline void marshal(FieldVisitor& v, GetServiceDescription::Output& x) {
  platform::middleware::marshalAll(v, x.accessID, x.serviceDescription, x.returnStatus);
}
inline void marshal(FieldVisitor& v, UpdateClientDownloadFinished::Input& x) {
  platform::middleware::marshalAll(v, x.accessID, x.domainRepairInstructionID, x.downloadPath);
}

}  // namespace methods

namespace events {

struct DomainReadyForDownloadNotification {
  static constexpr const char* kName = "domainReadyForDownloadNotification";
  struct Sample {
    ReadyForDownloadInfo readyForDownloadInfo;
    uint16_t domainRepairInstructionID = 0;
  };
};

struct DomainReadyForUpdateNotification {
  static constexpr const char* kName = "domainReadyForUpdateNotification";
  struct Sample {
    ReadyForUpdateInfo readyForUpdateInfo;
    uint16_t domainRepairInstructionID = 0;
  };
};

struct DomainUpdateFinishedNotification {
  static constexpr const char* kName = "domainUpdateFinishedNotification";
  struct Sample {
    uint16_t domainRepairInstructionID = 0;  // of the finished session
  };
};

struct DomainOffTimeNotification {
  static constexpr const char* kName = "domainOffTimeNotification";
  struct Sample {
    uint16_t domainRepairInstructionID = 0;
    uint16_t timeout = 0;
  };
};

struct DebugMessageNotification {
  static constexpr const char* kName = "debugMessageNotification";
  struct Sample {
    DebugMessageInfo debugMessageInfo;
  };
};

struct ResolveUpdateURLRequest {
  static constexpr const char* kName = "resolveUpdateURLRequest";
  struct Sample {
    resolveUpdateURLRequest_fileNames fileNames;
    CM_FileType fileType{};
    DT_uuid updateURLRequestID{};
  };
};

struct DomainErrorNotification {
  static constexpr const char* kName = "domainErrorNotification";
  struct Sample {
    uint16_t domainRepairInstructionID = 0;
    uint32_t errorCode = 0;
  };
};

// Every event, in the order of the interface (the order of the event identifiers).
using All = std::tuple<DomainReadyForDownloadNotification, DomainReadyForUpdateNotification,
                       DomainUpdateFinishedNotification, DomainOffTimeNotification,
                       DebugMessageNotification, ResolveUpdateURLRequest, DomainErrorNotification>;

inline void marshal(FieldVisitor& v, DomainReadyForDownloadNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.readyForDownloadInfo, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, DomainReadyForUpdateNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.readyForUpdateInfo, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, DomainUpdateFinishedNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, DomainOffTimeNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.domainRepairInstructionID, x.timeout);
}
inline void marshal(FieldVisitor& v, DebugMessageNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.debugMessageInfo);
}
inline void marshal(FieldVisitor& v, ResolveUpdateURLRequest::Sample& x) {
  platform::middleware::marshalAll(v, x.fileNames, x.fileType, x.updateURLRequestID);
}
inline void marshal(FieldVisitor& v, DomainErrorNotification::Sample& x) {
  platform::middleware::marshalAll(v, x.domainRepairInstructionID, x.errorCode);
}

}  // namespace events

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol

#pragma once
// Operations and fields of the LUM control interface, version 12, as descriptors for the
// middleware's generic skeletons and proxies: one struct per operation with its name on the
// wire, its inputs and its outputs in documented order; one struct per field with its value.
// The host configuration maps each kName to its identifiers.
//
// Threading: plain values.

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "interfaces/lum/lum12_types.h"

namespace zor::services::diaglocalupdatemanagercontrol {

// Name of the service as the diagnostic master knows it.
inline constexpr const char* kServiceName =
    "asi.someip.zor.services.diaglocalupdatemanagercontrol.v12.DiagLocalUpdateManagerControl";

namespace methods {

// The inputs of every call that addresses one session.
struct SessionInput {
  std::string accessID;
  uint16_t domainRepairInstructionID = 0;
};

// An operation whose only output is the verdict.
struct StatusOutput {
  CM_ReturnStatus_state returnStatus{};
};

struct Empty {};

struct UpdateUrlResponse {
  static constexpr const char* kName = "updateUrlResponse";
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
    DT_DownloadSource downloadSource;
    createDomainUpdateSession_diagnosticAddress diagnosticAddress;
    CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType sessionType{};
  };
  struct Output {
    CM_ReturnStatus_state returnStatus{};
    uint16_t domainRepairInstructionID = 0;
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
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateDownloadProgress_currentProcessingState
        currentProcessingState{};
    std::string currentProcessingDetails;
    CM_ReturnStatus_state returnStatus{};
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
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateProgress_currentProcessingState
        currentProcessingState{};
    std::string currentProcessingDetails;
    CM_ReturnStatus_state returnStatus{};
  };
};

struct CancelDomainUpdate {
  static constexpr const char* kName = "cancelDomainUpdate";
  using Input = SessionInput;
  struct Output {
    CM_DT_DiagLocalUpdateManagerControl_cancelDomainUpdate_cancelStatus cancelStatus{};
    CM_ReturnStatus_state returnStatus{};
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
    CM_ReturnStatus_state returnStatus{};
  };
};

struct GetDomainUpdateResult {
  static constexpr const char* kName = "getDomainUpdateResult";
  using Input = SessionInput;
  struct Output {
    DomainResult domainResult;
    CM_ReturnStatus_state returnStatus{};
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
    uint32_t timeout = 0;  // the field's UInt16 timeout, widened on purpose
  };
  using Output = StatusOutput;
};

struct CheckProgrammingPreconditions {
  static constexpr const char* kName = "checkProgrammingPreconditions";
  using Input = SessionInput;
  struct Output {
    checkProgrammingPreconditions_preconditionCheckResult preconditionCheckResult;
    CM_ReturnStatus_state returnStatus{};
  };
};

struct GetServiceDescription {
  static constexpr const char* kName = "getServiceDescription";
  using Input = Empty;
  struct Output {
    std::string accessID;
    orv::lum::ServiceDescription serviceDescription;
    CM_ReturnStatus_state returnStatus{};
  };
};

struct UpdateClientDownloadFinished {
  static constexpr const char* kName = "updateClientDownloadFinished";
  struct Input {
    std::string accessID;
    uint16_t domainRepairInstructionID = 0;
    std::string downloadPath;
  };
  struct Output {
    CM_DT_DiagLocalUpdateManagerControl_updateClientDownloadFinished_returnStatus returnStatus{};
  };
};

// Every operation, in the order of the interface (the order of the method identifiers).
using All =
    std::tuple<UpdateUrlResponse, CreateDomainUpdateSession, StartDomainUpdateDownload,
               GetDomainUpdateDownloadProgress, StartDomainUpdate, GetDomainUpdateProgress,
               CancelDomainUpdate, SetDebugInstruction, GetDomainConfiguration,
               GetDomainUpdateResult, CloseDomainUpdateSession, AckDomainOffTimeNotification,
               CheckProgrammingPreconditions, GetServiceDescription, UpdateClientDownloadFinished>;

inline void marshal(FieldVisitor&, Empty&) {}
inline void marshal(FieldVisitor& v, SessionInput& x) {
  platform::middleware::marshalAll(v, x.accessID, x.domainRepairInstructionID);
}
inline void marshal(FieldVisitor& v, StatusOutput& x) {
  platform::middleware::marshalAll(v, x.returnStatus);
}
inline void marshal(FieldVisitor& v, UpdateUrlResponse::Input& x) {
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
inline void marshal(FieldVisitor& v, UpdateClientDownloadFinished::Output& x) {
  platform::middleware::marshalAll(v, x.returnStatus);
}

}  // namespace methods

namespace fields {

struct DomainUpdateSessionState {
  static constexpr const char* kName = "domainUpdateSessionState";
  using Value = std::vector<DT_domainUpdateSessionState_struct>;
};

struct DomainOffTimeNotification {
  static constexpr const char* kName = "domainOffTimeNotification";
  using Value = std::vector<DT_domainOffTimeNotification_struct>;
};

struct DebugMessageNotification {
  static constexpr const char* kName = "debugMessageNotification";
  using Value = std::vector<DT_debugMessageNotification_struct>;
};

struct ResolveUpdateURLRequest {
  static constexpr const char* kName = "resolveUpdateURLRequest";
  using Value = std::vector<DT_resolveUpdateURLRequest_struct>;
};

struct DomainErrorNotification {
  static constexpr const char* kName = "domainErrorNotification";
  using Value = std::vector<DT_domainErrorNotification_struct>;
};

// Every field, in the order of the interface (the order of the notifier identifiers).
using All = std::tuple<DomainUpdateSessionState, DomainOffTimeNotification,
                       DebugMessageNotification, ResolveUpdateURLRequest, DomainErrorNotification>;

}  // namespace fields

}  // namespace zor::services::diaglocalupdatemanagercontrol

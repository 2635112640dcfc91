#pragma once
// Data types of the LUM control interface, version 11 (the LUM's own interface; orvane is its
// client). Fields are declared in serialisation order and marshal() visits them in that order;
// that order is the wire contract with the LUM and must not change.
//
// Enumerations are one byte on the wire. A value outside an enumeration's table is kept as it
// came (an enum class holds any value of its underlying type) and prints as "UNKNOWN".
//
// Threading: plain values.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "interfaces/lum/lum_marshal.h"
#include "interfaces/lum/lum_values.h"
#include "platform/middleware/marshal.h"

namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol {

using platform::middleware::FieldVisitor;

using DT_uuid = std::array<uint8_t, 16>;

// --- Enumerations ------------------------------------------------------------------------------

enum class CM_ReturnStatus : uint8_t {
  ok = 0,
  invalidState = 1,
  internalError = 2,
  invalidParameters = 3,
  // Not in the interface's table, but the LUM answers it when it cannot serve a call now; the
  // update sequences retry on it and print it as "busy".
  busy = 4,
};

enum class CM_CurrentProcessingState : uint8_t {
  malfunctioning = 0,
  idle = 1,
  busy = 2,
  verifying = 3,
  verificationFinished = 4,
  downloading = 5,
  downloadFinished = 6,
  updating = 7,
  failing = 8,
  cancelling = 9,
  successfulFinished = 100,
  failFinished = 101,
  revertFinished = 102,
};

enum class CM_SessionStatus : uint8_t {
  none = 0,
  notStarted = 1,
  successful = 2,
  error = 3,
  reverted = 4,
};

enum class CM_ValidationStatus : uint8_t {
  none = 0,
  notStarted = 1,
  successful = 2,
  failed = 3,
  error = 4,
};

enum class CM_CancelStatus : uint8_t {
  cancelled = orv::lum::kCancelStatusCancelled,
  cancelling = orv::lum::kCancelStatusCancelling,
  notCancellable = orv::lum::kCancelStatusNotCancellable,
};

enum class CM_ConnectionType : uint8_t {
  http = orv::lum::kConnectionTypeHttp,
  https = orv::lum::kConnectionTypeHttps,
};

enum class CM_FileType : uint8_t {
  updatePackage = orv::lum::kFileTypeUpdatePackage,
  manifest = orv::lum::kFileTypeManifest,
};

enum class CM_UrlError : uint8_t {
  noError = orv::lum::kUrlErrorNoError,
  fileNotFound = orv::lum::kUrlErrorFileNotFound,
  internalError = orv::lum::kUrlErrorInternalError,
};

enum class CM_SessionType : uint8_t {
  localUpdate = orv::lum::kSessionTypeLocalUpdate,
  remoteUpdate = orv::lum::kSessionTypeRemoteUpdate,
};

// --- Records -----------------------------------------------------------------------------------

struct ReadyForDownloadInfo {
  uint32_t installationTime = 0;  // the LUM's estimate
  int64_t downloadDataSize = 0;   // bytes still to be downloaded
};

struct ReadyForUpdateInfo {
  uint32_t installationTime = 0;
  int64_t downloadedDataSize = 0;
};

struct ValidationResult {
  CM_ValidationStatus status{};
  orv::lum::ResultCode resultCode = 0;
  std::string errorDetails;
};

struct DomainResult {
  CM_SessionStatus sessionStatus{};
  orv::lum::ResultCode resultCode = 0;
  std::string errorDetails;
  uint8_t errorCategories = 0;
  uint8_t retries = 0;
  ValidationResult integrityValidationResult;
  ValidationResult safetyValidationResult;
};

// One parameter of a manifest entry.
struct DT_parameters_struct {
  std::string parameterKey;
  std::string parameterValue;
};

// One entry of createDomainUpdateSession_manifestInformation.
struct DT_manifestInformation_struct {
  std::string manifestType;
  std::string manifestLink;
  std::vector<DT_parameters_struct> parameters;
};
using createDomainUpdateSession_manifestInformation = std::vector<DT_manifestInformation_struct>;

// One entry of createDomainUpdateSession_cryptoParameters.
struct DT_cryptoParameters_struct {
  std::string fileName;
  std::string url;
  std::string cryptoParameters;
};
using createDomainUpdateSession_cryptoParameters = std::vector<DT_cryptoParameters_struct>;

struct DownloadSource {
  bool resolveURL = false;
  CM_ConnectionType connectionType{};
  std::string baseURL;  // base address of the update files
};

struct createDomainUpdateSession_diagnosticAddress {
  std::vector<orv::lum::DiagnosticAddress> diagnosticAddresses;  // the ECUs of the domain
};

// One ECU's entry of checkProgrammingPreconditions' result.
struct DT_updatePreconditionCheckResult_struct {
  orv::lum::DiagnosticAddress diagnosticAddress = 0;
  orv::lum::PreconditionCheckText updatePreconditionCheckResult;
};
using checkProgrammingPreconditions_preconditionCheckResult =
    std::vector<DT_updatePreconditionCheckResult_struct>;

struct UpdateUrlResponseStruct {
  DT_uuid updateURLRequestID{};  // copied from the request that it answers
  orv::lum::UrlInfo urlInfo;
  CM_UrlError error{};
};

struct DebugMessageInfo {
  uint16_t domainRepairInstructionID = 0;
  std::string debugMessageID;
  std::string debugMessage;
};

using resolveUpdateURLRequest_fileNames = std::vector<std::string>;

// --- Marshalling -------------------------------------------------------------------------------

inline void marshal(FieldVisitor& v, ReadyForDownloadInfo& x) {
  orv::lum::marshalRecord(v, x.installationTime, x.downloadDataSize);
}
inline void marshal(FieldVisitor& v, ReadyForUpdateInfo& x) {
  orv::lum::marshalRecord(v, x.installationTime, x.downloadedDataSize);
}
inline void marshal(FieldVisitor& v, ValidationResult& x) {
  orv::lum::marshalRecord(v, x.status, x.resultCode, x.errorDetails);
}
inline void marshal(FieldVisitor& v, DomainResult& x) {
  orv::lum::marshalRecord(v, x.sessionStatus, x.resultCode, x.errorDetails, x.errorCategories,
                          x.retries, x.integrityValidationResult, x.safetyValidationResult);
}
inline void marshal(FieldVisitor& v, DT_parameters_struct& x) {
  orv::lum::marshalRecord(v, x.parameterKey, x.parameterValue);
}
inline void marshal(FieldVisitor& v, DT_manifestInformation_struct& x) {
  orv::lum::marshalRecord(v, x.manifestType, x.manifestLink, x.parameters);
}
inline void marshal(FieldVisitor& v, DT_cryptoParameters_struct& x) {
  orv::lum::marshalRecord(v, x.fileName, x.url, x.cryptoParameters);
}
inline void marshal(FieldVisitor& v, DownloadSource& x) {
  orv::lum::marshalRecord(v, x.resolveURL, x.connectionType, x.baseURL);
}
inline void marshal(FieldVisitor& v, createDomainUpdateSession_diagnosticAddress& x) {
  orv::lum::marshalRecord(v, x.diagnosticAddresses);
}
inline void marshal(FieldVisitor& v, DT_updatePreconditionCheckResult_struct& x) {
  orv::lum::marshalRecord(v, x.diagnosticAddress, x.updatePreconditionCheckResult);
}
inline void marshal(FieldVisitor& v, UpdateUrlResponseStruct& x) {
  orv::lum::marshalRecord(v, x.updateURLRequestID, x.urlInfo, x.error);
}
inline void marshal(FieldVisitor& v, DebugMessageInfo& x) {
  orv::lum::marshalRecord(v, x.domainRepairInstructionID, x.debugMessageID, x.debugMessage);
}

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol

namespace lum11 =
    zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol;

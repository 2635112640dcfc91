#pragma once
// Data types of the LUM control interface, version 12 (the variant that orvane offers to the
// diagnostic master). The records keep the fields of version 11; every enumeration is a type of
// its own per use, under the name that the middleware registers it with, and keeps the values
// of the version-11 enumeration that it replaces. The five fields are sequences of entries that
// start with an elementId key.
//
// Threading: plain values.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "interfaces/lum/lum11_types.h"
#include "interfaces/lum/lum_marshal.h"
#include "interfaces/lum/lum_values.h"
#include "platform/middleware/marshal.h"

namespace zor::services::diaglocalupdatemanagercontrol {

using platform::middleware::FieldVisitor;

using DT_uuid = std::array<uint8_t, 16>;

// --- Enumerations ------------------------------------------------------------------------------

enum class CM_ReturnStatus_state : uint8_t {
  ok = 0,
  invalidState = 1,
  internalError = 2,
  invalidParameters = 3,
  busy = 4,  // passed through from the LUM, as in version 11
};

enum class CM_DT_DiagLocalUpdateManagerControl_updateClientDownloadFinished_returnStatus : uint8_t {
  ok = 0,
  invalidState = 1,
  internalError = 2,
  invalidParameters = 3,
  busy = 4,
};

enum class CM_DomainResult_sessionStatus : uint8_t {
  none = 0,
  notStarted = 1,
  successful = 2,
  error = 3,
  reverted = 4,
};

enum class CM_ValidationResult_status : uint8_t {
  none = 0,
  notStarted = 1,
  successful = 2,
  failed = 3,
  error = 4,
};

enum class CM_DownloadSource_connectionType : uint8_t {
  http = orv::lum::kConnectionTypeHttp,
  https = orv::lum::kConnectionTypeHttps,
};

enum class CM_UpdateUrlResponseStruct_error : uint8_t {
  noError = orv::lum::kUrlErrorNoError,
  fileNotFound = orv::lum::kUrlErrorFileNotFound,
  internalError = orv::lum::kUrlErrorInternalError,
};

enum class CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType : uint8_t {
  localUpdate = orv::lum::kSessionTypeLocalUpdate,
  remoteUpdate = orv::lum::kSessionTypeRemoteUpdate,
};

enum class CM_DT_DiagLocalUpdateManagerControl_cancelDomainUpdate_cancelStatus : uint8_t {
  cancelled = orv::lum::kCancelStatusCancelled,
  cancelling = orv::lum::kCancelStatusCancelling,
  notCancellable = orv::lum::kCancelStatusNotCancellable,
};

enum class CM_DT_DiagLocalUpdateManagerControl_resolveUpdateURLRequest_fileType : uint8_t {
  updatePackage = orv::lum::kFileTypeUpdatePackage,
  manifest = orv::lum::kFileTypeManifest,
};

// The three per-use copies of the processing state.
enum class
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateProgress_currentProcessingState : uint8_t {
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

enum class
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateDownloadProgress_currentProcessingState : uint8_t {
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

enum class
    CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState : uint8_t {
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

// --- Records (same fields as version 11) -------------------------------------------------------

struct ValidationResult {
  CM_ValidationResult_status status{};
  orv::lum::ResultCode resultCode = 0;
  std::string errorDetails;
};

struct DomainResult {
  CM_DomainResult_sessionStatus sessionStatus{};
  orv::lum::ResultCode resultCode = 0;
  std::string errorDetails;
  uint8_t errorCategories = 0;
  uint8_t retries = 0;
  ValidationResult integrityValidationResult;
  ValidationResult safetyValidationResult;
};

// Records without enumerations are the very records of version 11.
using DT_parameters_struct = lum11::DT_parameters_struct;

using DT_manifestInformation_struct = lum11::DT_manifestInformation_struct;
using createDomainUpdateSession_manifestInformation = std::vector<DT_manifestInformation_struct>;

using DT_cryptoParameters_struct = lum11::DT_cryptoParameters_struct;
using createDomainUpdateSession_cryptoParameters = std::vector<DT_cryptoParameters_struct>;

struct DT_DownloadSource {
  bool resolveURL = false;
  CM_DownloadSource_connectionType connectionType{};
  std::string baseURL;
};

using createDomainUpdateSession_diagnosticAddress =
    lum11::createDomainUpdateSession_diagnosticAddress;

using DT_updatePreconditionCheckResult_struct = lum11::DT_updatePreconditionCheckResult_struct;
using checkProgrammingPreconditions_preconditionCheckResult =
    std::vector<DT_updatePreconditionCheckResult_struct>;

struct UpdateUrlResponseStruct {
  DT_uuid updateURLRequestID{};
  orv::lum::UrlInfo urlInfo;
  CM_UpdateUrlResponseStruct_error error{};
};

using DebugMessageInfo = lum11::DebugMessageInfo;

using resolveUpdateURLRequest_fileNames = std::vector<std::string>;

// --- Field entries -----------------------------------------------------------------------------

// Replaces the ready-for-download, ready-for-update and update-finished events of version 11.
struct DT_domainUpdateSessionState_struct {
  orv::lum::ElementId elementId = 0;
  uint16_t domainRepairInstructionID = 0;
  CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState
      currentProcessingState{};
  uint32_t installationTime = 0;
  int64_t downloadDataSize = 0;
};

struct DT_domainErrorNotification_struct {
  orv::lum::ElementId elementId = 0;
  uint16_t domainRepairInstructionID = 0;
  uint32_t errorCode = 0;
};

struct DT_domainOffTimeNotification_struct {
  orv::lum::ElementId elementId = 0;
  uint16_t domainRepairInstructionID = 0;
  uint16_t timeout = 0;
};

struct DT_debugMessageNotification_struct {
  orv::lum::ElementId elementId = 0;
  DebugMessageInfo debugMessage;
};

struct DT_resolveUpdateURLRequest_struct {
  orv::lum::ElementId elementId = 0;
  resolveUpdateURLRequest_fileNames fileNames;
  CM_DT_DiagLocalUpdateManagerControl_resolveUpdateURLRequest_fileType fileType{};
  DT_uuid updateURLRequestID{};
};

// --- Marshalling -------------------------------------------------------------------------------

inline void marshal(FieldVisitor& v, ValidationResult& x) {
  orv::lum::marshalRecord(v, x.status, x.resultCode, x.errorDetails);
}
inline void marshal(FieldVisitor& v, DomainResult& x) {
  orv::lum::marshalRecord(v, x.sessionStatus, x.resultCode, x.errorDetails, x.errorCategories,
                          x.retries, x.integrityValidationResult, x.safetyValidationResult);
}
inline void marshal(FieldVisitor& v, DT_DownloadSource& x) {
  orv::lum::marshalRecord(v, x.resolveURL, x.connectionType, x.baseURL);
}
inline void marshal(FieldVisitor& v, UpdateUrlResponseStruct& x) {
  orv::lum::marshalRecord(v, x.updateURLRequestID, x.urlInfo, x.error);
}
inline void marshal(FieldVisitor& v, DT_domainUpdateSessionState_struct& x) {
  orv::lum::marshalRecord(v, x.elementId, x.domainRepairInstructionID, x.currentProcessingState,
                          x.installationTime, x.downloadDataSize);
}
inline void marshal(FieldVisitor& v, DT_domainErrorNotification_struct& x) {
  orv::lum::marshalRecord(v, x.elementId, x.domainRepairInstructionID, x.errorCode);
}
inline void marshal(FieldVisitor& v, DT_domainOffTimeNotification_struct& x) {
  orv::lum::marshalRecord(v, x.elementId, x.domainRepairInstructionID, x.timeout);
}
inline void marshal(FieldVisitor& v, DT_debugMessageNotification_struct& x) {
  orv::lum::marshalRecord(v, x.elementId, x.debugMessage);
}
inline void marshal(FieldVisitor& v, DT_resolveUpdateURLRequest_struct& x) {
  orv::lum::marshalRecord(v, x.elementId, x.fileNames, x.fileType, x.updateURLRequestID);
}

}  // namespace zor::services::diaglocalupdatemanagercontrol

namespace lum12 = zor::services::diaglocalupdatemanagercontrol;

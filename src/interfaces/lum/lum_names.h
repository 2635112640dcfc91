#pragma once
// The texts under which the LUM's values appear in log lines. Each table is indexed by the raw
// value; a value outside its table prints as "UNKNOWN" (the LUM may send values that we do not
// know, and they are logged, never rejected).
//
// The LUM's return status has two tables: returnStatusName() is the interface's (0..3), which
// the multiplexer and the diagnostic-master service print; sequenceReturnStatusName() adds
// 4 "busy", the status on which the update sequences retry. There is deliberately no
// toString() for the return status, so that every caller picks one of the two.
//
// Threading: pure functions over constant tables; thread-safe.

#include <cstdint>
#include <type_traits>

#include "interfaces/lum/lum11_types.h"
#include "interfaces/lum/lum12_types.h"

namespace orv::lum {

inline constexpr const char* kUnknownName = "UNKNOWN";

const char* returnStatusName(uint32_t value);          // 0 "ok" .. 3 "invalidParameters"
const char* sequenceReturnStatusName(uint32_t value);  // as above, plus 4 "busy"
const char* processingStateName(uint32_t value);       // 0..9, 100..102
const char* sessionStatusName(uint32_t value);         // 3 "error", 4 "reverted"
const char* validationStatusName(uint32_t value);      // 3 "failed", 4 "error"
const char* sessionStepName(uint32_t value);           // stateLUM: 0 "Idle" .. 7 "CancelUpdate"
const char* cancelStatusName(uint32_t value);
const char* connectionTypeName(uint32_t value);
const char* fileTypeName(uint32_t value);
const char* urlErrorName(uint32_t value);
const char* sessionTypeName(uint32_t value);

// The return status of any operation of either version.
template <typename E, typename = std::enable_if_t<std::is_enum_v<E>>>
const char* returnStatusName(E value) {
  return returnStatusName(static_cast<uint32_t>(value));
}
template <typename E, typename = std::enable_if_t<std::is_enum_v<E>>>
const char* sequenceReturnStatusName(E value) {
  return sequenceReturnStatusName(static_cast<uint32_t>(value));
}

}  // namespace orv::lum

// toString() for every other enumeration, found by argument-dependent lookup.
namespace zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol {

inline const char* toString(CM_CurrentProcessingState v) {
  return orv::lum::processingStateName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_SessionStatus v) {
  return orv::lum::sessionStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_ValidationStatus v) {
  return orv::lum::validationStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_CancelStatus v) {
  return orv::lum::cancelStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_ConnectionType v) {
  return orv::lum::connectionTypeName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_FileType v) {
  return orv::lum::fileTypeName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_UrlError v) {
  return orv::lum::urlErrorName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_SessionType v) {
  return orv::lum::sessionTypeName(static_cast<uint32_t>(v));
}

}  // namespace
   // zor::services::diagnostic::diaglocalupdatemanagercontrol::diaglocalupdatemanagercontrol

namespace zor::services::diaglocalupdatemanagercontrol {

inline const char* toString(
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateProgress_currentProcessingState v) {
  return orv::lum::processingStateName(static_cast<uint32_t>(v));
}
inline const char* toString(
    CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateDownloadProgress_currentProcessingState v) {
  return orv::lum::processingStateName(static_cast<uint32_t>(v));
}
inline const char* toString(
    CM_DT_DiagLocalUpdateManagerControl_domainUpdateSessionState_currentProcessingState v) {
  return orv::lum::processingStateName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_DomainResult_sessionStatus v) {
  return orv::lum::sessionStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_ValidationResult_status v) {
  return orv::lum::validationStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_DT_DiagLocalUpdateManagerControl_cancelDomainUpdate_cancelStatus v) {
  return orv::lum::cancelStatusName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_DownloadSource_connectionType v) {
  return orv::lum::connectionTypeName(static_cast<uint32_t>(v));
}
inline const char* toString(
    CM_DT_DiagLocalUpdateManagerControl_resolveUpdateURLRequest_fileType v) {
  return orv::lum::fileTypeName(static_cast<uint32_t>(v));
}
inline const char* toString(CM_UpdateUrlResponseStruct_error v) {
  return orv::lum::urlErrorName(static_cast<uint32_t>(v));
}
inline const char* toString(
    CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType v) {
  return orv::lum::sessionTypeName(static_cast<uint32_t>(v));
}

}  // namespace zor::services::diaglocalupdatemanagercontrol

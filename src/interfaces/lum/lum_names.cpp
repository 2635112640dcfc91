#include "interfaces/lum/lum_names.h"

#include <cstddef>

#include "interfaces/lum/lum_values.h"

namespace orv::lum {

namespace {

template <std::size_t N>
const char* lookup(const char* const (&table)[N], uint32_t value) {
  return value < N ? table[value] : kUnknownName;
}

constexpr const char* kReturnStatus[] = {"ok", "invalidState", "internalError",
                                         "invalidParameters"};
constexpr const char* kSequenceReturnStatus[] = {"ok", "invalidState", "internalError",
                                                 "invalidParameters", "busy"};
constexpr const char* kProcessingState[] = {
    "malfunctioning",   "idle",     "busy",    "verifying", "verificationFinished", "downloading",
    "downloadFinished", "updating", "failing", "cancelling"};
// The final states sit apart, from 100 on; nothing lies between 9 and 100.
constexpr uint32_t kFinalStatesBase = 100;
constexpr const char* kFinalProcessingState[] = {"successfulFinished", "failFinished",
                                                 "revertFinished"};
constexpr const char* kSessionStatus[] = {"none", "notStarted", "successful", "error", "reverted"};
constexpr const char* kValidationStatus[] = {"none", "notStarted", "successful", "failed", "error"};
constexpr const char* kSessionStep[] = {
    "Idle",         "CreateSession", "StartCreateDownload", "CreateDownload", "StartCreateUpdate",
    "CreateUpdate", "CloseUpdate",   "CancelUpdate"};

// Tables of the values chosen in lum_values.h; the static_asserts keep them in step.
constexpr const char* kCancelStatus[] = {"cancelled", "cancelling", "notCancellable"};
static_assert(kCancelStatusCancelled == 0 && kCancelStatusCancelling == 1 &&
              kCancelStatusNotCancellable == 2);
constexpr const char* kConnectionType[] = {"http", "https"};
static_assert(kConnectionTypeHttp == 0 && kConnectionTypeHttps == 1);
constexpr const char* kFileType[] = {"updatePackage", "manifest"};
static_assert(kFileTypeUpdatePackage == 0 && kFileTypeManifest == 1);
constexpr const char* kUrlError[] = {"noError", "fileNotFound", "internalError"};
static_assert(kUrlErrorNoError == 0 && kUrlErrorFileNotFound == 1 && kUrlErrorInternalError == 2);
constexpr const char* kSessionType[] = {"localUpdate", "remoteUpdate"};
static_assert(kSessionTypeLocalUpdate == 0 && kSessionTypeRemoteUpdate == 1);

}  // namespace

const char* returnStatusName(uint32_t value) {
  return lookup(kReturnStatus, value);
}
const char* sequenceReturnStatusName(uint32_t value) {
  return lookup(kSequenceReturnStatus, value);
}
const char* processingStateName(uint32_t value) {
  if (value >= kFinalStatesBase)
    return lookup(kFinalProcessingState, value - kFinalStatesBase);
  return lookup(kProcessingState, value);
}
const char* sessionStatusName(uint32_t value) {
  return lookup(kSessionStatus, value);
}
const char* validationStatusName(uint32_t value) {
  return lookup(kValidationStatus, value);
}
const char* sessionStepName(uint32_t value) {
  return lookup(kSessionStep, value);
}
const char* cancelStatusName(uint32_t value) {
  return lookup(kCancelStatus, value);
}
const char* connectionTypeName(uint32_t value) {
  return lookup(kConnectionType, value);
}
const char* fileTypeName(uint32_t value) {
  return lookup(kFileType, value);
}
const char* urlErrorName(uint32_t value) {
  return lookup(kUrlError, value);
}
const char* sessionTypeName(uint32_t value) {
  return lookup(kSessionType, value);
}

}  // namespace orv::lum

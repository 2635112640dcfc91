#pragma once
// Every value of the LUM control interface that the LUM's own interface definition fixes but
// that we have to choose on the host, in one place, each with the reason for the choice. Both
// interface versions take their values from here, so v11 and v12 cannot drift apart.
//
// Threading: constants only.

#include <cstdint>
#include <string>
#include <vector>

namespace orv::lum {

// --- Widths and shapes ---------------------------------------------------------------------

// LUM result codes are passed on unchanged as the service's errorCode (UInt32): same width.
using ResultCode = uint32_t;
// Keys the entries of the v12 fields per domain session, like domainRepairInstructionID (UInt16).
using ElementId = uint16_t;
// ECU diagnostic (logical) addresses on the vehicle network are 16 bits wide.
using DiagnosticAddress = uint16_t;
// One URL per requested file, in the order of the request's fileNames (a request names several).
using UrlInfo = std::vector<std::string>;
// One result text per ECU; it is logged right after that ECU's diagnostic address.
using PreconditionCheckText = std::string;
// The service description is the active path text that getServiceDescription reports.
using ServiceDescription = std::string;

// --- CM_CancelStatus (output of cancelDomainUpdate) ----------------------------------------
// Zero is the plain success, like CM_ReturnStatus::ok, so a default-built answer means "done".
inline constexpr uint8_t kCancelStatusCancelled = 0;
// The LUM accepted the cancel and is still rolling back (processing state "cancelling").
inline constexpr uint8_t kCancelStatusCancelling = 1;
// Too late to cancel: the installation has passed its point of no return.
inline constexpr uint8_t kCancelStatusNotCancellable = 2;

// --- CM_ConnectionType (DownloadSource.connectionType) -------------------------------------
// The medium server on the vehicle network speaks plain HTTP; that is the default.
inline constexpr uint8_t kConnectionTypeHttp = 0;
// Kept for a medium server with TLS; nothing on the host uses it yet.
inline constexpr uint8_t kConnectionTypeHttps = 1;

// --- CM_FileType (resolveUpdateURLRequest.fileType) ----------------------------------------
// Update packages are what the LUM asks for almost always: zero.
inline constexpr uint8_t kFileTypeUpdatePackage = 0;
// A manifest named by the session's manifestInformation.
inline constexpr uint8_t kFileTypeManifest = 1;

// --- CM_UrlError (UpdateUrlResponseStruct.error) -------------------------------------------
// Zero means every requested URL was resolved, so a default-built answer is a good one.
inline constexpr uint8_t kUrlErrorNoError = 0;
// A requested file is not listed in the key manifest.
inline constexpr uint8_t kUrlErrorFileNotFound = 1;
// The key manifest could not be read or a file's crypto parameters are incomplete.
inline constexpr uint8_t kUrlErrorInternalError = 2;

// --- CM_SessionType (createDomainUpdateSession.sessionType) --------------------------------
// This system opens local sessions only (USB medium or workshop tester): zero.
inline constexpr uint8_t kSessionTypeLocalUpdate = 0;
// A session opened on behalf of the vehicle's remote (over-the-air) update path.
inline constexpr uint8_t kSessionTypeRemoteUpdate = 1;

}  // namespace orv::lum

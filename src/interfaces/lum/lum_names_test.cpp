// The texts under which LUM values are logged, generated tables and hand-written ones: the gap
// between the processing states 9 and 100, the two return-status tables, the two enumerations
// that share their first names and differ after them, and the per-use copies of version 12.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interfaces/lum/lum_names.h"

namespace {

using namespace orv::lum;

struct NameRow {
  const char* proves;
  std::string actual;
  std::string expected;
};

TEST(LumNames, TablesPrintTheDocumentedNamesAndUnknownOutsideThem) {
  const std::vector<NameRow> rows = {
      {"return status 0", returnStatusName(0u), "ok"},
      {"busy is not in the interface's return-status table", returnStatusName(4u), "UNKNOWN"},
      {"the sequences' table knows busy", sequenceReturnStatusName(4u), "busy"},
      {"the sequences' table ends after busy", sequenceReturnStatusName(5u), "UNKNOWN"},
      {"processing state 9 is the last before the gap", processingStateName(9u), "cancelling"},
      {"10 lies in the gap", processingStateName(10u), "UNKNOWN"},
      {"102", processingStateName(102u), "revertFinished"},
      {"103 is past the final states", processingStateName(103u), "UNKNOWN"},
      {"356 is not 100 cut to a byte", processingStateName(356u), "UNKNOWN"},
      {"session status 3", sessionStatusName(3u), "error"},
      {"validation status 3 differs from the session status", validationStatusName(3u), "failed"},
      {"session step 7", sessionStepName(7u), "CancelUpdate"},
      {"session step 8", sessionStepName(8u), "UNKNOWN"},
      // Typed overloads pick the right table for each enumeration of both versions.
      {"v11 validation status picks its own table", toString(lum11::CM_ValidationStatus::failed),
       "failed"},
      {"v12 progress state",
       toString(
           lum12::
               CM_DT_DiagLocalUpdateManagerControl_getDomainUpdateProgress_currentProcessingState::
                   failFinished),
       "failFinished"},
      {"v11 return status busy in the interface table",
       returnStatusName(lum11::CM_ReturnStatus::busy), "UNKNOWN"},
      {"v12 return status busy in the sequences' table",
       sequenceReturnStatusName(lum12::CM_ReturnStatus_state::busy), "busy"},
      {"v12 update-client return status",
       returnStatusName(
           lum12::CM_DT_DiagLocalUpdateManagerControl_updateClientDownloadFinished_returnStatus::
               invalidParameters),
       "invalidParameters"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.actual, row.expected) << row.proves;
}

}  // namespace

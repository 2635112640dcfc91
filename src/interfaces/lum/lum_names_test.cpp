// The hand-written parts of the LUM log names: the return-status table that stops before busy,
// the session steps and the gap in the processing states, each with the value just past it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interfaces/lum/lum_names.h"

namespace {

using namespace orv::lum;

TEST(LumNames, HandWrittenTablesEndWhereTheyShould) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {returnStatusName(0u), "ok"},
      {returnStatusName(lum11::CM_ReturnStatus::busy), "UNKNOWN"},
      {sequenceReturnStatusName(lum12::CM_ReturnStatus_state::busy), "busy"},
      {sessionStepName(7u), "CancelUpdate"},
      {sessionStepName(8u), "UNKNOWN"},
      {processingStateName(10u), "UNKNOWN"},
      {processingStateName(356u), "UNKNOWN"},  // not 100 cut to a byte
  };
  for (std::size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

}  // namespace

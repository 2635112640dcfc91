// orvane and lum-sim as real processes in one private network: orvane finds the LUM at start-up,
// and when the LUM dies and comes back, orvane finds it again.

#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "minfw/testing/temp_dir.h"
#include "process.h"

namespace orvane::testing {
namespace {

using kel::vxp3::minfw::testing::TempDir;
using std::chrono::seconds;

constexpr const char* kConnected = "DiagLocalUpdateManagerControlClient connected!";

TEST(LumLinkTest, OrvaneConnectsToTheLumAndReconnectsAfterTheLumRestarts) {
  TempDir record;
  ChildProcess lum;
  ASSERT_TRUE(lum.start(LUM_SIM_PATH, {"-console"}));
  ChildProcess orvane;
  ASSERT_TRUE(orvane.start(ORVANE_BIN, {"-console"}, {{"ORVANE_PERSISTENCE_DIR", record.path()}}));

  ASSERT_TRUE(orvane.waitForOutput(kConnected, seconds(20))) << orvane.output();
  EXPECT_NE(orvane.output().find("Connecting to [12233]"), std::string::npos);
  // The start-up report follows the diagnosis clients, which wait up to 1 s for a tester.
  EXPECT_TRUE(orvane.waitForOutput("LUM init [True]", seconds(20))) << orvane.output();

  // A LUM that dies says nothing; its offer runs out and orvane reports it gone.
  lum.kill(SIGKILL);
  ASSERT_TRUE(lum.wait(seconds(10)));
  ASSERT_TRUE(orvane.waitForOutput("size is 0", seconds(20))) << orvane.output();

  ChildProcess again;
  ASSERT_TRUE(again.start(LUM_SIM_PATH, {"-console"}));
  ASSERT_TRUE(orvane.waitForOutput(kConnected, seconds(20), 2)) << orvane.output();

  // orvane itself never ended.
  EXPECT_FALSE(orvane.wait(std::chrono::milliseconds(0)));
  again.kill(SIGTERM);
  EXPECT_EQ(again.wait(seconds(10)), 0);
}

}  // namespace
}  // namespace orvane::testing

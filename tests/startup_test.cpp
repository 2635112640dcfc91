// Start-up of the real orvane binary: sink selection, banner, and the failure path.

#include <signal.h>

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>

#include "minfw/testing/target_command.h"
#include "minfw/testing/temp_dir.h"
#include "process.h"

namespace orvane::testing {
namespace {

using kel::vxp3::minfw::testing::TempDir;
using std::chrono::seconds;

// orvane in a private network of its own: its service discovery must not meet other test runs.
bool startOrvane(ChildProcess& child, const std::vector<std::string>& args,
                 const std::map<std::string, std::string>& env) {
  std::vector<std::string> command{ORVANE_BIN};
  command.insert(command.end(), args.begin(), args.end());
  std::vector<std::string> all = kel::vxp3::minfw::testing::targetCommand(command);
  all.insert(all.begin(), "--");
  return child.start(ORVANE_SOURCE_DIR "/scripts/netns-run", all, env);
}

// One banner line of the console sink: green, time, name, location, the banner, colour reset.
const std::regex kBanner(
    "\x1b\\[32m\\[\\d\\d:\\d\\d:\\d\\d:\\d{3}\\]     Orvane +main\\(\\d+\\) \\| "
    ">>>>>>>>>>>>    LumOrvane \\(ORVANE_R1\\.0, [A-Z][a-z]{2} [ \\d]\\d "
    "\\d{4}-\\d\\d:\\d\\d:\\d\\d\\)"
    "   <<<<<<<<<<<<<<\x1b\\[0m\n");

TEST(StartupTest, ConsoleOptionAndMissingRecordFolder) {
  TempDir dir;
  const std::string missing = dir.path() + "/does-not-exist";
  const std::string refused = "Persistence directory does not exist [" + missing + "]!";
  struct Row {
    const char* proves;
    std::vector<std::string> args;
    bool console, missingDir;  // with missingDir orvane ends with status 1
  } rows[] = {
      {"-console among other arguments, any position", {"x", "-console", "--y"}, true, false},
      {"double dash or capitals are not the option", {"--console", "-Console"}, false, false},
      {"a missing record folder, console sink", {"-console"}, true, true},
      {"a missing record folder, trace sink", {}, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    ChildProcess orvane;
    ASSERT_TRUE(startOrvane(orvane, row.args,
                            {{"ORVANE_PERSISTENCE_DIR", row.missingDir ? missing : dir.path()}}));
    if (row.missingDir) {
      EXPECT_EQ(orvane.wait(seconds(20)), 1);
      const std::string out = orvane.output();
      // Printed as a plain line; with the console sink also logged by "main" at error level.
      if (row.console) {
        EXPECT_NE(out.find("\n" + refused + "\n"), std::string::npos) << out;
        EXPECT_NE(out.find("\x1b[31m["), std::string::npos) << out;
        EXPECT_NE(out.find("main("), std::string::npos) << out;
      } else {
        EXPECT_EQ(out, refused + "\n");
      }
      continue;
    }
    if (row.console) {
      ASSERT_TRUE(orvane.waitForOutput("<<<<<<<<<<<<<<", seconds(20))) << orvane.output();
      const std::string out = orvane.output();
      std::smatch match;
      ASSERT_TRUE(std::regex_search(out, match, kBanner)) << out;
      EXPECT_EQ(match.position(0), 0) << "the banner is the first line: " << out;
      // It keeps running: the main thread only parks.
      EXPECT_FALSE(orvane.wait(std::chrono::milliseconds(300)));
    } else {
      // Without the console sink nothing reaches standard output, not even libdlt's own notes.
      EXPECT_FALSE(orvane.waitForOutput("LumOrvane", std::chrono::milliseconds(1500)));
      EXPECT_EQ(orvane.output(), "");
      EXPECT_FALSE(orvane.wait(std::chrono::milliseconds(10)));
    }
    orvane.kill(SIGKILL);
    EXPECT_EQ(orvane.wait(seconds(10)), 128 + SIGKILL);
  }
}

}  // namespace
}  // namespace orvane::testing

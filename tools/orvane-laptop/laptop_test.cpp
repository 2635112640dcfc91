#include "laptop.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <tuple>
#include <vector>

#include "interfaces/notebook/notebook_service.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace orv::laptop {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;

TEST(LaptopTest, RepliesAreParsedStrictly) {
  struct Row {
    const char* reply;
    bool ok;
    UpdateStats stats;
  };
  const Row rows[] = {
      {"9, 45, 0", true, {9, 45, 0}},
      {"3, 40, 612\r", true, {3, 40, 612}},
      {"warn:0|msg:Update stats not available", false, {}},
      {"9, 45", false, {}},
      {"9, 45, 0 and more", false, {}},
      {"99999999999, 0, 0", false, {}},
      {"", false, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reply);
    UpdateStats stats;
    EXPECT_EQ(parseStats(row.reply, &stats), row.ok);
    // Rows that fail expect the defaults: a refused reply leaves the stats alone.
    EXPECT_EQ(std::tie(stats.state, stats.progress, stats.errorCode),
              std::tie(row.stats.state, row.stats.progress, row.stats.errorCode));
  }
}

TEST(LaptopTest, WatchEndsWithTheUpdate) {
  struct Row {
    const char* proves;
    std::vector<UpdateStats> polls;  // the last poll decides
    Outcome outcome;
  };
  const Row rows[] = {
      {"a whole run ends in the resting state",
       {{10, 0, 0}, {0, 0, 0}, {9, 50, 0}, {10, 100, 0}},
       Outcome::kFinished},
      {"a finished state ends it at once", {{9, 90, 0}, {5, 100, 0}}, Outcome::kFinished},
      {"a failure ends it", {{9, 40, 0}, {3, 40, 612}}, Outcome::kFailed},
      {"a rejection ends it", {{7, 0, 0}}, Outcome::kFailed},
      {"an old finished record before activity is no end",
       {{10, 100, 0}, {10, 100, 0}},
       Outcome::kRunning},
      {"resting with an error code after activity failed",
       {{9, 40, 0}, {10, 40, 612}},
       Outcome::kFailed},
      {"resting short of 100 % after activity failed", {{2, 0, 0}, {10, 60, 0}}, Outcome::kFailed},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    UpdateWatch watch;
    for (std::size_t i = 0; i + 1 < row.polls.size(); ++i)
      ASSERT_EQ(watch.observe(row.polls[i]), Outcome::kRunning);
    EXPECT_EQ(watch.observe(row.polls.back()), row.outcome);
  }
  EXPECT_EQ(statusLine({9, 50, 0}),
            "eINSTALLING                      [###############---------------]  50%");
}

// The real service on loopback, its state path playing back a run.
class LaptopServiceTest : public ::testing::Test {
 protected:
  void serve(std::vector<UpdateStats> script) {
    script_ = std::move(script);
    next_ = 0;
    service_ = std::make_unique<kel::nodbox::diag::orv::NotebookService>("127.0.0.9", 5002);
    // One stats request calls the three paths in this order, all on the service's worker.
    service_->mUpdateState = [this] {
      current_ = script_[next_ < script_.size() ? next_++ : script_.size() - 1];
      return current_.state;
    };
    service_->mUpdateProgress = [this] { return current_.progress; };
    service_->mUpdateErrorCode = [this] { return current_.errorCode; };
    ASSERT_TRUE(service_->start());
  }
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  ScopedLogCapture log_;
  Options options_{"127.0.0.9", 5002, 1000, 0, "http://127.0.0.1:8080/medium"};
  std::vector<UpdateStats> script_;
  std::size_t next_ = 0;
  UpdateStats current_;
  std::unique_ptr<kel::nodbox::diag::orv::NotebookService> service_;
  std::ostringstream out_, err_;
};

TEST_F(LaptopServiceTest, StartWatchFailuresAndMissingServices) {
  serve({{10, 0, 0}, {0, 0, 0}, {9, 30, 0}, {9, 100, 0}, {10, 100, 0}});
  EXPECT_EQ(runWatch(options_, out_, err_), kExitFinished);
  EXPECT_NE(out_.str().find("\reINSTALLING "), std::string::npos);
  EXPECT_NE(out_.str().find("\nUpdate finished\n"), std::string::npos);
  // A failure, a watch that times out, services that are not there.
  serve({{9, 10, 0}, {3, 10, 612}});
  EXPECT_EQ(runWatch(options_, out_, err_), kExitFailed);
  EXPECT_NE(out_.str().find("Update ended in eINSTALLATIONFAILED, error code 612"),
            std::string::npos)
      << out_.str();
  service_.reset();
  serve({{9, 10, 0}});
  options_.timeoutS = 5;
  EXPECT_EQ(runWatch(options_, out_, err_), kExitNoService);  // in virtual time
  EXPECT_NE(err_.str().find("no end of the update within 5 s"), std::string::npos);
  service_.reset();
  EXPECT_EQ(runWatch(options_, out_, err_), kExitNoService);
  EXPECT_EQ(runStart(options_, out_, err_), kExitNoService);
  options_.host = "10.0.0.1";  // refused before any packet
  EXPECT_EQ(runStart(options_, out_, err_), kExitNoService);
  EXPECT_NE(err_.str().find("only loopback"), std::string::npos);
}

}  // namespace
}  // namespace orv::laptop

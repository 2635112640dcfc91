// Logger core, the Console sink, the text helpers and the clock: location rules, filtering, the
// exact console line, the failure paths of a record and sleeps.

#include "minfw/log.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "minfw/clock.h"
#include "minfw/console_sink.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"

namespace kel::vxp3::minfw {
namespace {

enum class Small : uint8_t { kHundred = 100 };

using std::chrono::milliseconds;
namespace gi = ::testing::internal;

// Puts the logger back to a known state and restores the sink afterwards.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = Logger::instance().sink();
    Logger::instance().init("Orvane", "LUM", 0);
  }
  void TearDown() override {
    Logger::instance().setMinLevel(0);
    Logger::instance().setSink(previous_);
  }

 private:
  std::shared_ptr<Sink> previous_;
};

TEST(LoggerLocation, SignatureNameAndLineGiveTheLocation) {
  // pretty function, function, line, location, proves
  const std::tuple<const char*, const char*, int32_t, const char*, const char*> rows[] = {
      {"void orv::Logic::seqStart()", "seqStart", 120, " orv::Logic::seqStart(120)",
       "a method keeps the blank before its qualified name"},
      {"int main(int, char**)", "main", 67, "main(67)", "a free function is its bare name"},
      {"void orv::Logic::seqStart()", "foo", 3, "Unknown::foo(3)",
       "a name not in the signature is unknown"},
      {"void orv::Box<T>::put(T) [with T = int]", "put", 5, " orv::Box<T>::put(5)",
       "template parameters of the class are kept; the [with ...] part is not"},
      {"std::vector<int> orv::Store<std::pair<int, int> >::get() const", "get", 6, " >::get(6)",
       "the last blank before the name wins, even inside template arguments"},
      {"orv::Logic::Logic(std::shared_ptr<orv::Persistence>)", "Logic", 8, "orv::Logic(8)",
       "a constructor: the first ::Logic, no blank before it"},
      {"orv::HmiService::start()::<lambda()>", "operator()", 10, "Unknown::operator()(10)",
       "a lambda's call operator is not in its signature"},
      {"static void orv::Pool::run(orv::Pool*)", "run", -1, " orv::Pool::run(-1)",
       "a static member; a negative line prints as it is"},
      {"", "f", 0, "Unknown::f(0)", "an empty signature"},
  };
  for (const auto& [pretty, function, line, location, proves] : rows)
    EXPECT_EQ(Logger::location(pretty, function, line), location) << proves;
}

TEST_F(LoggerTest, FilteringAndCachedLocations) {
  testing::ScopedLogCapture capture;
  Logger::instance().setMinLevel(kWarn);
  int built = 0;
  auto piece = [&built] {
    ++built;
    return "built";
  };
  MLOG_INFO("GLOBAL", piece());
  Logger::instance().log("direct info", "GLOBAL", kInfo, "void f()", "f", 1);
  EXPECT_EQ(built, 0) << "the message of a filtered record is not even composed";
  EXPECT_TRUE(capture->records().empty());
  MLOG_WARN("GLOBAL", piece());
  Logger::instance().log("direct above fatal", "hmi", 6, "void f()", "f", 2);
  Logger::instance().setMinLevel(0);
  // The same buffers at the same line, with other contents: no stale location from before.
  char pretty[64] = "void orv::Logic::seqStart()";
  char function[16] = "seqStart";
  Logger::instance().log("first", "GLOBAL", kInfo, pretty, function, 5);
  std::snprintf(pretty, sizeof(pretty), "%s", "void orv::Hmi::seqStart()");
  Logger::instance().log("second", "GLOBAL", kInfo, pretty, function, 5);
  std::snprintf(function, sizeof(function), "%s", "other");
  Logger::instance().log("third", "GLOBAL", kInfo, pretty, function, 5);
  Logger::instance().log("fourth", "GLOBAL", kInfo, pretty, function, 6);
  const auto records = capture->records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[0].message, "built");
  EXPECT_EQ(records[0].level, kWarn);
  EXPECT_EQ(records[0].tag, "GLOBAL");
  EXPECT_EQ(records[1].level, 6) << "levels above fatal pass";
  EXPECT_EQ(records[1].location, "f(2)");
  EXPECT_EQ(records[2].location, " orv::Logic::seqStart(5)");
  EXPECT_EQ(records[3].location, " orv::Hmi::seqStart(5)");
  EXPECT_EQ(records[4].location, "Unknown::other(5)");
  EXPECT_EQ(records[5].location, "Unknown::other(6)");
}

TEST(TextHelpers, HexAndPieces) {
  EXPECT_EQ(hexText({}), "");
  EXPECT_EQ(hexText({0x0f, 0xa0, 0xff, 0x00}), "0fa0ff00");
  EXPECT_EQ(hexText("\xde\xad", 2), "dead");
  EXPECT_EQ(hex(0x4C9), "4c9");
  EXPECT_EQ(hex(0xFFFFFFFFFFFFFFFFu), "ffffffffffffffff");
  // A one-byte number must print as a number, not as a raw byte (processing states are uint8_t).
  EXPECT_EQ(cat(uint8_t{7}, int8_t{-3}, 'x', true, "/", false, 1.5), "7-3xtrue/false1.500000");
  EXPECT_EQ(cat(int64_t{-9223372036854775807 - 1}, std::string_view("b"), ']'),
            "-9223372036854775808b]");
  EXPECT_EQ(
      cat(static_cast<const char*>(nullptr), Small::kHundred, uint64_t{18446744073709551615u}),
      "(null)10018446744073709551615");
}

TEST_F(LoggerTest, ConsoleLineHasTheExactLayout) {
  gi::CaptureStdout();
  Console console;
  std::string expected;
  auto line = [&](uint8_t level, const std::string& colour, const std::string& location,
                  const std::string& message) {
    console.write("LUM", "Orvane", "GLOBAL", location, message, level);
    expected += cat(colour, "[T]     Orvane ",
                    std::string(location.size() < 25 ? 25 - location.size() : 0, ' '), location,
                    " | ", message, "\033[0m\n");
  };
  // Trace and levels above fatal have no colour; then yellow, green, cyan, red, magenta.
  const char* const colours[] = {"0", "33", "32", "36", "31", "35", "0"};
  for (uint8_t level = 0; level < 7; ++level)
    line(level, cat("\033[", colours[level], "m"), "main(67)", cat("level ", level));
  line(2, "\033[32m", " orv::DiagLocalUpdateManagerControlService::diagStart(1234)", "not cut");
  line(2, "\033[32m", "main(67)", std::string(5000, 'm'));  // grows the buffer
  line(2, "\033[32m", "main(67)", "");
  // Through the logger, which init() gave a Console.
  Logger::instance().log("started", "GLOBAL", kWarn, "void orv::Logic::seqStart()", "seqStart",
                         120);
  // The time of day varies; everything else is exact, one line per record.
  const std::string out = std::regex_replace(
      gi::GetCapturedStdout(), std::regex("\\[\\d\\d:[0-5]\\d:[0-6]\\d:\\d\\d\\d\\]"), "[T]");
  EXPECT_EQ(out, expected + "\033[36m[T]     Orvane  orv::Logic::seqStart(120) | started\033[0m\n");
}

// Throws what the message names.
class ThrowingSink : public Sink {
 public:
  void write(const std::string&, const std::string&, const std::string&, const std::string&,
             const std::string& message, uint8_t) override {
    message == "length"    ? throw std::length_error("too long")
    : message == "runtime" ? throw std::runtime_error("boom")
                           : throw 42;
  }
};

TEST_F(LoggerTest, AnExceptionInARecordIsReportedAndTheLoggerKeepsWorking) {
  const std::pair<const char*, const char*> rows[] = {
      {"length", "Orvane: Logger length_error caught: too long\n"},
      {"runtime", "Orvane: Logger exception caught: boom\n"},
      {"other", "Orvane: Logger unknown exception caught!\n"}};
  for (const auto& [message, report] : rows) {
    Logger::instance().setSink(std::make_shared<ThrowingSink>());
    gi::CaptureStderr();
    Logger::instance().log(message, "GLOBAL", kError, "void f()", "f", 1);
    EXPECT_EQ(gi::GetCapturedStderr(), report);
    // The mutex was released: the next record gets through.
    testing::ScopedLogCapture capture;
    MLOG_INFO("GLOBAL", "after");
    EXPECT_TRUE(capture->contains("after"));
  }
}

extern "C" void ignoreSignal(int) {}

TEST(ClockTest, SystemSleepResumesAfterASignal) {
  struct sigaction action {};
  action.sa_handler = ignoreSignal;  // no SA_RESTART: nanosleep returns EINTR
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  std::atomic<bool> asleep{false};
  const auto start = std::chrono::steady_clock::now();
  std::thread sleeper([&] {
    asleep = true;
    systemClock().sleepFor(milliseconds(200));
  });
  while (!asleep)
    std::this_thread::yield();
  for (int i = 0; i < 5; ++i)
    pthread_kill(sleeper.native_handle(), SIGUSR1);
  sleeper.join();
  // An interrupted sleep that were not resumed would end right after the first signal.
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
  sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
}  // namespace kel::vxp3::minfw

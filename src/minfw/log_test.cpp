// Logger core and the Console sink: location rules, filtering, the level and hex helpers, the
// output without a sink, the exact console line and the failure paths of a record.

#include "minfw/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "minfw/console_sink.h"
#include "minfw/testing/capture_sink.h"

namespace kel::vxp3::minfw {
namespace {

// Redirects a standard stream (stdout or stderr) into a temporary file while it lives.
class StreamCapture {
 public:
  StreamCapture(std::FILE* stream, int fd) : stream_(stream), fd_(fd) {
    char templ[] = "/tmp/orvane-log-test-XXXXXX";
    const int file = mkstemp(templ);
    path_ = templ;
    std::fflush(stream_);
    saved_ = dup(fd_);
    dup2(file, fd_);
    close(file);
  }
  ~StreamCapture() {
    restore();
    std::remove(path_.c_str());
  }
  std::string text() {
    restore();
    std::ifstream in(path_);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
  }

 private:
  void restore() {
    if (saved_ < 0)
      return;
    std::fflush(stream_);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
  }
  std::FILE* stream_;
  int fd_;
  int saved_ = -1;
  std::string path_;
};

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
  struct Row {
    const char* pretty;
    const char* function;
    int32_t line;
    const char* location;
    const char* proves;
  };
  const Row rows[] = {
      {"void orv::Logic::seqStart()", "seqStart", 120, " orv::Logic::seqStart(120)",
       "a method keeps the blank before its qualified name"},
      {"int main(int, char**)", "main", 67, "main(67)", "a free function is its bare name"},
      {"void orv::Logic::seqStart()", "foo", 3, "Unknown::foo(3)",
       "a name not in the signature is unknown"},
      {"bool kel::vxp3::minfw::json::JSON::parse(const string&)", "parse", 9,
       " kel::vxp3::minfw::json::JSON::parse(9)", "nested namespaces are kept"},
      {"void orv::helper(int)", "helper", 4, " orv::helper(4)", "a namespaced free function"},
      {"void orv::Box<T>::put(T) [with T = int]", "put", 5, " orv::Box<T>::put(5)",
       "template parameters of the class are kept; the [with ...] part is not"},
      {"std::vector<int> orv::Store<std::pair<int, int> >::get() const", "get", 6, " >::get(6)",
       "the last blank before the name wins, even inside template arguments"},
      {"bool orv::Key::operator==(const orv::Key&) const", "operator==", 7,
       " orv::Key::operator==(7)", "an operator"},
      {"orv::Logic::Logic(std::shared_ptr<orv::Persistence>)", "Logic", 8, "orv::Logic(8)",
       "a constructor: the first ::Logic, no blank before it"},
      {"orv::HmiService::start()::<lambda()>", "operator()", 10, "Unknown::operator()(10)",
       "a lambda's call operator is not in its signature"},
      {"static void orv::Pool::run(orv::Pool*)", "run", -1, " orv::Pool::run(-1)",
       "a static member; a negative line prints as it is"},
      {"", "f", 0, "Unknown::f(0)", "an empty signature"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Logger::location(row.pretty, row.function, row.line), row.location) << row.proves;
}

TEST_F(LoggerTest, RecordBelowTheMinimumLevelNeverReachesTheSink) {
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
  const auto records = capture->records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "built");
  EXPECT_EQ(records[0].level, kWarn);
  EXPECT_EQ(records[0].tag, "GLOBAL");
  EXPECT_EQ(records[1].level, 6) << "levels above fatal pass";
  EXPECT_EQ(records[1].location, "f(2)");
}

TEST_F(LoggerTest, ALocationIsRecomputedWhenItsSignatureTextChanges) {
  testing::ScopedLogCapture capture;
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
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].location, " orv::Logic::seqStart(5)");
  EXPECT_EQ(records[1].location, " orv::Hmi::seqStart(5)");
  EXPECT_EQ(records[2].location, "Unknown::other(5)");
  EXPECT_EQ(records[3].location, "Unknown::other(6)");
}

TEST(LoggerLevels, LevelFromTextTakesTheFirstNameItBegins) {
  struct Row {
    const char* text;
    uint8_t level;
    const char* lowered;
    const char* proves;
  };
  const Row rows[] = {
      {"trace", 0, "trace", "full name"},
      {"debug", 1, "debug", "full name"},
      {"info", 2, "info", "full name"},
      {"warn", 3, "warn", "full name"},
      {"w", 3, "w", "a prefix"},
      {"err", 4, "err", "a prefix"},
      {"FATAL", 5, "fatal", "upper case is lowered in place"},
      {"Deb", 1, "deb", "mixed case"},
      {"", 0, "", "empty gives trace"},
      {"warning", 0, "warning", "longer than any name: unknown gives trace"},
      {"x", 0, "x", "unknown gives trace"},
      {"t", 0, "t", "a prefix of trace"},
  };
  for (const Row& row : rows) {
    std::string text = row.text;
    EXPECT_EQ(levelFromText(text), row.level) << row.proves << ": " << row.text;
    EXPECT_EQ(text, row.lowered) << row.proves;
  }
}

TEST(LoggerHex, TwoLowerCaseDigitsPerByteWithoutSeparators) {
  struct Row {
    std::vector<uint8_t> bytes;
    const char* text;
  };
  const Row rows[] = {
      {{}, ""},
      {{0x00}, "00"},
      {{0x0f, 0xa0, 0xff}, "0fa0ff"},
      {{0xde, 0xad, 0xbe, 0xef, 0x01}, "deadbeef01"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(hexText(row.bytes), row.text);
    EXPECT_EQ(hexText(row.bytes.data(), row.bytes.size()), row.text);
  }
}

TEST_F(LoggerTest, WithoutASinkRecordsGoToStandardOutput) {
  Logger::instance().setSink(nullptr);
  StreamCapture out(stdout, 1);
  Logger::instance().log("hello", "GLOBAL", kInfo, "void orv::Logic::seqStart()", "seqStart", 120);
  Logger::instance().log("free", "GLOBAL", kTrace, "int main(int, char**)", "main", 67);
  EXPECT_EQ(out.text(), "Orvane:  orv::Logic::seqStart(120): hello\nOrvane: main(67): free\n");
}

TEST_F(LoggerTest, InitInstallsAConsoleSink) {
  EXPECT_NE(dynamic_cast<Console*>(Logger::instance().sink().get()), nullptr);
  EXPECT_EQ(Logger::instance().name(), "Orvane");
  EXPECT_EQ(Logger::instance().traceApp(), "LUM");
}

TEST_F(LoggerTest, ConsoleLineHasTheExactLayout) {
  struct Row {
    uint8_t level;
    const char* colour;
    std::string location;
    std::string message;
    const char* proves;
  };
  const std::string longLocation = " orv::DiagLocalUpdateManagerControlService::diagStart(1234)";
  const Row rows[] = {
      {0, "\033[0m", "main(67)", "trace has no colour", "trace"},
      {1, "\033[33m", "main(67)", "debug", "debug is yellow"},
      {2, "\033[32m", "main(67)", "info", "info is green"},
      {3, "\033[36m", "main(67)", "warn", "warn is cyan"},
      {4, "\033[31m", "main(67)", "error", "error is red"},
      {5, "\033[35m", "main(67)", "fatal", "fatal is magenta"},
      {6, "\033[0m", "main(67)", "above fatal", "levels above 5 have no colour"},
      {2, "\033[32m", longLocation, "x", "a long location is not cut"},
      {2, "\033[32m", "main(67)", std::string(5000, 'm'), "a long message grows the buffer"},
      {2, "\033[32m", "main(67)", "", "an empty message"},
  };
  StreamCapture out(stdout, 1);
  Console console;
  for (const Row& row : rows)
    console.write("LUM", "Orvane", "GLOBAL", row.location, row.message, row.level);
  std::istringstream lines(out.text());
  for (const Row& row : rows) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line)) << row.proves;
    const std::string pad =
        row.location.size() < 25 ? std::string(25 - row.location.size(), ' ') : "";
    const std::regex layout(std::regex_replace(row.colour, std::regex("\\["), "\\[") +
                            "\\[\\d\\d:[0-5]\\d:[0-6]\\d:\\d\\d\\d\\]     Orvane ");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(line, m, layout, std::regex_constants::match_continuous))
        << row.proves << ": " << line;
    EXPECT_EQ(m.suffix().str(), pad + row.location + " | " + row.message + "\033[0m") << row.proves;
  }
  std::string rest;
  EXPECT_FALSE(std::getline(lines, rest)) << "one line per record";
}

TEST_F(LoggerTest, RecordsGoThroughTheLoggerToTheConsole) {
  StreamCapture out(stdout, 1);
  Logger::instance().log("started", "GLOBAL", kWarn, "void orv::Logic::seqStart()", "seqStart",
                         120);
  EXPECT_THAT(out.text(),
              ::testing::MatchesRegex("\033\\[36m\\[[0-9:]{12}\\]     Orvane  "
                                      "orv::Logic::seqStart\\(120\\) \\| started\033\\[0m\n"));
}

class ThrowingSink : public Sink {
 public:
  explicit ThrowingSink(int kind) : kind_(kind) {}
  void write(const std::string&, const std::string&, const std::string&, const std::string&,
             const std::string& message, uint8_t) override {
    if (message != "throw")
      return;
    if (kind_ == 0)
      throw std::length_error("too long");
    if (kind_ == 1)
      throw std::runtime_error("boom");
    throw 42;
  }

 private:
  int kind_;
};

TEST_F(LoggerTest, AnExceptionInARecordIsReportedAndTheLoggerKeepsWorking) {
  struct Row {
    int kind;
    const char* report;
  };
  const Row rows[] = {
      {0, "Orvane: Logger length_error caught: too long\n"},
      {1, "Orvane: Logger exception caught: boom\n"},
      {2, "Orvane: Logger unknown exception caught!\n"},
  };
  for (const Row& row : rows) {
    Logger::instance().setSink(std::make_shared<ThrowingSink>(row.kind));
    StreamCapture err(stderr, 2);
    Logger::instance().log("throw", "GLOBAL", kError, "void f()", "f", 1);
    EXPECT_EQ(err.text(), row.report);
    // The mutex was released: the next record gets through.
    testing::ScopedLogCapture capture;
    MLOG_INFO("GLOBAL", "after");
    EXPECT_TRUE(capture->contains("after"));
  }
}

}  // namespace
}  // namespace kel::vxp3::minfw

// Scenario files: a full file is read into every field; a bad file is refused as a whole with a
// message that names the file and the key.
#include "scenario.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/temp_dir.h"

namespace lumsim {
namespace {

using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;
using kel::vxp3::minfw::testing::writeFile;

TEST(ScenarioTest, FullFileIsReadIntoEveryField) {
  TempDir dir;
  const std::string path = dir.file("scenario.json");
  writeFile(path, R"({"sessions": [
    {"analyseMs": 10, "downloadMs": 20, "installMs": 30, "cancelMs": 40, "totalBytes": 5000000000,
     "installationTime": 99, "packages": ["x.pkg"],
     "events": {"domainUpdateFinishedNotification": false},
     "busy": {"startDomainUpdate": 3},
     "delay": {"startDomainUpdateDownload": {"ms": 1500, "calls": 1}},
     "error": {"phase": "updating", "afterMs": 5, "code": 1234},
     "result": {"sessionStatus": 3, "resultCode": 1234, "errorDetails": "flash",
                "errorCategories": 2, "retries": 1,
                "integrityValidationResult": {"status": 3, "resultCode": 8, "errorDetails": "crc"},
                "safetyValidationResult": {"status": 2}},
     "resolveUrl": {"phase": "downloading", "fileNames": ["a.bin"], "fileType": 1,
                    "holdUntilAnswered": true},
     "stopOffer": {"phase": "verifying", "afterMs": 1, "durationMs": 2000},
     "crash": {"phase": "downloadFinished", "exitCode": 9},
     "preconditionResult": "ignition on"},
    {}
  ], "strictSessionIds": true})");
  const ScenarioResult r = loadScenario(path);
  ASSERT_TRUE(r.scenario) << r.error;
  ASSERT_EQ(r.scenario->sessions.size(), 2u);
  EXPECT_TRUE(r.scenario->strictSessionIds);
  const SessionScript& s = r.scenario->sessions[0];
  EXPECT_EQ((std::vector<int64_t>{s.analyseMs, s.downloadMs, s.installMs, s.cancelMs, s.totalBytes,
                                  s.installationTime}),
            (std::vector<int64_t>{10, 20, 30, 40, 5000000000, 99}));
  EXPECT_EQ(s.packages, std::vector<std::string>{"x.pkg"});
  EXPECT_FALSE(s.sends("domainUpdateFinishedNotification"));
  EXPECT_TRUE(s.sends("domainErrorNotification"));
  EXPECT_EQ(s.busy.at("startDomainUpdate"), 3u);
  const DelayPlan delay = s.delays.at("startDomainUpdateDownload");
  EXPECT_EQ((std::vector<int64_t>{delay.ms, delay.calls}), (std::vector<int64_t>{1500, 1}));
  ASSERT_TRUE(s.error && s.result && s.resolveUrl && s.stopOffer && s.crash);
  EXPECT_EQ(s.error->at.phase, Phase::updating);
  EXPECT_EQ((std::vector<int64_t>{s.error->at.afterMs, s.error->code}),
            (std::vector<int64_t>{5, 1234}));
  const lum11::DomainResult& result = *s.result;
  EXPECT_EQ(
      std::tie(result.sessionStatus, result.errorCategories,
               result.integrityValidationResult.status,
               result.integrityValidationResult.errorDetails, result.safetyValidationResult.status),
      std::make_tuple(lum11::CM_SessionStatus::error, 2, lum11::CM_ValidationStatus::failed, "crc",
                      lum11::CM_ValidationStatus::successful));
  EXPECT_EQ(
      std::tie(s.resolveUrl->fileNames, s.resolveUrl->fileType, s.resolveUrl->holdUntilAnswered,
               s.stopOffer->durationMs, s.crash->at.phase, s.crash->exitCode),
      std::make_tuple(std::vector<std::string>{"a.bin"}, lum11::CM_FileType::manifest, true, 2000,
                      Phase::downloadFinished, 9));
  EXPECT_EQ(s.preconditionResult, "ignition on");
  // An empty entry is the clean default; sessions past the list follow the last entry.
  EXPECT_FALSE(r.scenario->forSession(1).error);
  EXPECT_EQ(&r.scenario->forSession(5), &r.scenario->sessions[1]);
}

TEST(ScenarioTest, BadFilesAreRefusedNamingFileAndKey) {
  struct Row {
    const char* text;
    const char* message;
  };
  const std::vector<Row> rows{
      {R"([])", "scenario.json: expected an object"},
      {R"({"session": []})", "scenario.json: session: unknown key"},
      {R"({"sessions": []})",
       "scenario.json: sessions: expected a non-empty array of session objects"},
      {R"({"sessions": [3]})", "scenario.json: sessions[0]: expected an object"},
      {R"({"strictSessionIds": 1})", "scenario.json: strictSessionIds: expected true or false"},
      {R"({"sessions": [{"busy": {"startDomainUpdate": -1}}]})",
       "scenario.json: sessions[0].busy.startDomainUpdate: expected a non-negative integer"},
      {R"({"sessions": [{"busy": {"startUpdate": 2}}]})",
       "scenario.json: sessions[0].busy.startUpdate: unknown key"},
      {R"({"sessions": [{}, {"downloadMs": 1.5}]})",
       "scenario.json: sessions[1].downloadMs: expected a non-negative integer"},
      {R"({"sessions": [{"events": {"domainErrorNotification": 0}}]})",
       "scenario.json: sessions[0].events.domainErrorNotification: expected true or false"},
      {R"({"sessions": [{"packages": []}]})",
       "scenario.json: sessions[0].packages: expected at least one package name"},
      {R"({"sessions": [{"packages": ["a", 2]}]})",
       "scenario.json: sessions[0].packages[1]: expected a string"},
      {R"({"sessions": [{"error": {"code": 5}}]})",
       "scenario.json: sessions[0].error.phase: missing"},
      {R"({"sessions": [{"error": {"phase": "flashing", "code": 5}}]})",
       "scenario.json: sessions[0].error.phase: expected one of verifying, verificationFinished, "
       "downloading, downloadFinished, updating"},
      {R"({"sessions": [{"error": {"phase": "updating", "code": 4294967296}}]})",
       "scenario.json: sessions[0].error.code: expected an integer 0..4294967295"},
      {R"({"sessions": [{"crash": {"phase": "updating", "exitCode": 256}}]})",
       "scenario.json: sessions[0].crash.exitCode: expected an integer 0..255"},
      {R"({"sessions": [{"delay": {"startDomainUpdateDownload": 1500}}]})",
       "scenario.json: sessions[0].delay.startDomainUpdateDownload: expected an object"},
      {R"({"sessions": [{"result": {"integrityValidationResult": {"state": 1}}}]})",
       "scenario.json: sessions[0].result.integrityValidationResult.state: unknown key"},
      {R"({"sessions": [{"resolveUrl": {"phase": "downloading", "fileNames": "a.bin"}}]})",
       "scenario.json: sessions[0].resolveUrl.fileNames: expected an array of strings"},
      {R"({"sessions": [{"analyseMs": 1O}]})",
       "scenario.json: not valid JSON (the parser's message is in the log)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    ScopedLogCapture capture;  // the parser's own messages stay out of the test output
    const ScenarioResult r = parseScenario(row.text, "scenario.json");
    EXPECT_FALSE(r.scenario);
    EXPECT_EQ(r.error, row.message);
  }
  const ScenarioResult missing = loadScenario("/nonexistent/lum.json");
  EXPECT_FALSE(missing.scenario);
  EXPECT_EQ(missing.error, "/nonexistent/lum.json: cannot be read");
}

}  // namespace
}  // namespace lumsim

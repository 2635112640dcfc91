#include "interfaces/hmi/hmi_service.h"

#include <gtest/gtest.h>

#include <vector>

#include "interfaces/hmi/medium_path_relay.h"
#include "logic/persistence.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/temp_dir.h"

namespace orv {
namespace {

using kel::nodbox::diag::orv::NotebookService;
using kel::vxp3::minfw::testing::LogRecord;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::TempDir;

// A laptop service without a socket: its paths are driven directly, no network involved.
class SocketlessNotebook : public NotebookService {
 public:
  SocketlessNotebook() : NotebookService("127.0.0.1", 5002) {}
  bool makeSocket() override { return false; }
};

class TestableHmi : public HmiService {
 public:
  NotebookService* notebook = nullptr;

 protected:
  std::unique_ptr<NotebookService> createNotebookService() override {
    auto service = std::make_unique<SocketlessNotebook>();
    notebook = service.get();
    return service;
  }
};

// A service with both callables recording what Logic would receive.
struct Bound {
  explicit Bound(bool bindUsb = true, bool bindState = true) {
    if (bindUsb)
      hmi.UsbInserted = [this](const std::string& path) { paths.push_back(path); };
    if (bindState)
      hmi.HmiStateChanged = [this](int state) { reports.push_back(state); };
  }
  TestableHmi hmi;
  std::vector<std::string> paths;
  std::vector<int> reports;
};

TEST(HmiServiceTest, ConfirmsOnTheDriversBehalf) {
  struct Row {
    const char* proves;
    bool diagnostic;
    int state;
    std::vector<int> reports;
    uint8_t last;  // the last state was 9 before the call
  };
  const Row rows[] = {
      {"an offer is confirmed", false, 0, {2}, 2},
      {"a failure is acknowledged", false, 3, {4}, 4},
      {"a success is acknowledged", false, 5, {6}, 6},
      {"a cancellation is only stored", false, 1, {}, 1},
      {"a rejection is never confirmed", false, 7, {}, 7},
      {"a confirmed state is only stored, as are the other answers", false, 2, {}, 2},
      {"eINVALID leaves the last state", false, 10, {}, 9},
      {"a negative state is ignored", false, -1, {}, 9},
      {"a state above 10 is ignored", false, 11, {}, 9},
      {"no offer confirmed after a diagnostic start", true, 0, {}, 9},
      {"a failure is still acknowledged under diagnostics", true, 3, {4}, 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    ScopedLogCapture log;
    Bound b;
    if (row.diagnostic)
      b.hmi.runUsbInserted("http://127.0.0.1/m");
    b.hmi.hmiSetState(9, "");
    b.hmi.hmiSetState(row.state, "Train");
    EXPECT_EQ(b.reports, row.reports);
    EXPECT_EQ(b.hmi.lastState(), row.last);
    LogRecord record;
    ASSERT_TRUE(log->find("HMI State: " + std::to_string(row.state), &record));
    EXPECT_EQ(record.level, 6);
    EXPECT_EQ(log->contains("Update started by diagnostic - do not change state!"),
              row.diagnostic && row.state == 0);
  }
}

TEST(HmiServiceTest, UnboundCallablesEndWithoutEffect) {
  struct Row {
    const char* proves;
    bool bindUsb, bindState;
    bool diagnosticEntry;  // runUsbInserted instead of foundUsbPath
    bool result;
    std::size_t paths, reports;  // how many paths and state reports reached Logic
    const char* log;
  };
  const Row rows[] = {
      {"both bound: Logic gets the path, then state 0", true, true, false, true, 1, 1,
       "Calling usb inserted!"},
      {"no UsbInserted: nothing reaches Logic", false, true, false, false, 0, 0,
       "UsbInserted not bound!"},
      {"no HmiStateChanged: the path still reaches Logic", true, false, false, false, 1, 0,
       "HmiStateChanged not bound!"},
      {"diagnostic entry without UsbInserted sets no flag", false, true, true, false, 0, 0,
       "UsbInserted not bound!"},
      {"diagnostic entry reports no state", true, false, true, true, 1, 0, "Run by diagnostic."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    ScopedLogCapture log;
    Bound b(row.bindUsb, row.bindState);
    if (row.diagnosticEntry)
      b.hmi.runUsbInserted("p");
    EXPECT_EQ(row.diagnosticEntry ? b.hmi.runByDiagnostic() : b.hmi.foundUsbPath("p"), row.result);
    EXPECT_EQ(b.paths.size(), row.paths);
    EXPECT_EQ(b.reports, std::vector<int>(row.reports, 0));
    EXPECT_TRUE(log->contains(row.log));
  }
  ScopedLogCapture log;
  Bound unbound(false, false);
  unbound.hmi.hmiSetState(0, "");
  EXPECT_TRUE(log->contains("HmiStateChanged not bound!"));
  EXPECT_EQ(unbound.hmi.lastState(), 10);
}

TEST(HmiServiceTest, MediumPathsFromLaptopAndDiagnostics) {
  ScopedLogCapture log;
  {
    Bound b;
    ASSERT_TRUE(b.hmi.init(nullptr));
    ASSERT_NE(b.hmi.notebook, nullptr);
    EXPECT_TRUE(log->contains("Failed to make socket"));
    EXPECT_EQ(b.hmi.notebook->startUpdateProcess("http://127.0.0.1:8080/medium\n"), "0, 0, 0");
    EXPECT_TRUE(log->contains("Sending path [http://127.0.0.1:8080/medium] from socket to logic"));
    EXPECT_FALSE(b.hmi.runByDiagnostic());
    EXPECT_TRUE(MediumPathRelay::instance().send("http://[fd00::1]:29214"));
    EXPECT_TRUE(log->contains("Sending path [http://[fd00::1]:29214] from diagnostic to logic"));
    EXPECT_TRUE(b.hmi.runByDiagnostic());
    EXPECT_EQ(b.paths,
              (std::vector<std::string>{"http://127.0.0.1:8080/medium", "http://[fd00::1]:29214"}));
    EXPECT_EQ(b.reports, (std::vector<int>{0, 0}));
    // The tester starts the offer, not this service.
    b.hmi.hmiSetState(0, "");
    EXPECT_EQ(b.reports.size(), 2u);
    // A newer service takes the relay over; the older one's end must not unbind it.
    auto older = std::make_unique<Bound>();
    older->hmi.init(nullptr);
    Bound newer;
    newer.hmi.init(nullptr);
    older.reset();
    EXPECT_TRUE(MediumPathRelay::instance().send("x"));
    EXPECT_EQ(newer.paths, std::vector<std::string>{"x"});
  }
  EXPECT_FALSE(MediumPathRelay::instance().send("late"));
  EXPECT_TRUE(log->contains("MediumPathRelay not bound!"));
}

TEST(HmiServiceTest, LaptopStatisticsComeFromTheRecord) {
  TempDir dir;
  auto record = std::make_shared<Persistence>(dir.path(), "persistence.json");
  struct Row {
    const char* proves;
    bool write;
    std::shared_ptr<Persistence> persistence;
    const char* reply;
  };
  const Row rows[] = {
      {"no record: resting values", false, nullptr, "10, 0, 0"},
      {"empty record: defaults", false, record, "10, 0, 0"},
      {"state, progress and error code as written", true, record, "9, 45, 612"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    if (row.write) {
      record->setStateHmi(9);
      record->setProgress(45);
      record->setErrorCode(612);
    }
    Bound b;
    b.hmi.init(row.persistence);
    EXPECT_EQ(b.hmi.notebook->responseWithUpdateStats(), row.reply);
  }
}

}  // namespace
}  // namespace orv

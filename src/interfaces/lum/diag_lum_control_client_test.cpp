// The facade's retry scheme and serialisation in virtual time, over a scripted client and over a
// client that has not found the LUM yet.
#include "interfaces/lum/diag_lum_control_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace orv {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;
using Client = DiagLocalUpdateManagerControlClient;
using namespace std::chrono_literals;

constexpr int kAlways = -1;

// Records every attempt as "op(accessID,id)" and fails each operation as often as scripted.
class ScriptedClient : public Client {
 public:
  void failFirst(const std::string& op, int times) {
    std::lock_guard<std::mutex> lock(mutex_);
    failures_[op] = times;
  }
  std::vector<std::string> attempts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return attempts_;
  }

  bool updateURLResponse(const lum11::UpdateUrlResponseStruct& r) override {
    return attempt("updateURLResponse", std::to_string(r.urlInfo.size()), 0);
  }
  bool createDomainUpdateSession(const std::string& a, uint16_t id, const std::string&,
                                 const lum11::createDomainUpdateSession_manifestInformation&,
                                 const lum11::createDomainUpdateSession_cryptoParameters&,
                                 const lum11::DownloadSource&,
                                 const lum11::createDomainUpdateSession_diagnosticAddress&,
                                 lum11::CM_SessionType,
                                 CreateDomainUpdateSessionOutput& out) override {
    out.domainRepairInstructionID = 77;
    return attempt("createDomainUpdateSession", a, id);
  }
  bool getDomainUpdateSessionState(const std::string& a, uint16_t id,
                                   GetDomainUpdateSessionStateOutput&) override {
    return attempt("getDomainUpdateSessionState", a, id);
  }
  bool startDomainUpdateDownload(const std::string& a, uint16_t id,
                                 StartDomainUpdateDownloadOutput&) override {
    return attempt("startDomainUpdateDownload", a, id);
  }
  bool getDomainUpdateDownloadProgress(const std::string& a, uint16_t id,
                                       GetDomainUpdateDownloadProgressOutput&) override {
    return attempt("getDomainUpdateDownloadProgress", a, id);
  }
  bool startDomainUpdate(const std::string& a, uint16_t id, StartDomainUpdateOutput&) override {
    return attempt("startDomainUpdate", a, id);
  }
  bool getDomainUpdateProgress(const std::string& a, uint16_t id,
                               GetDomainUpdateProgressOutput&) override {
    return attempt("getDomainUpdateProgress", a, id);
  }
  bool cancelDomainUpdate(const std::string& a, uint16_t id, CancelDomainUpdateOutput&) override {
    return attempt("cancelDomainUpdate", a, id);
  }
  bool setDebugInstruction(const std::string& a, uint16_t id, const std::string& k,
                           const std::string& v, SetDebugInstructionOutput&) override {
    return attempt("setDebugInstruction", a + "/" + k + "/" + v, id);
  }
  bool getDomainConfiguration(const std::string& a, uint16_t id,
                              GetDomainConfigurationOutput&) override {
    return attempt("getDomainConfiguration", a, id);
  }
  bool getDomainDownloadInfo(const std::string& a, uint16_t id,
                             GetDomainDownloadInfoOutput&) override {
    return attempt("getDomainDownloadInfo", a, id);
  }
  bool getDomainUpdateInfo(const std::string& a, uint16_t id, GetDomainUpdateInfoOutput&) override {
    return attempt("getDomainUpdateInfo", a, id);
  }
  bool getDomainUpdateResult(const std::string& a, uint16_t id,
                             getDomainUpdateResultOutput&) override {
    return attempt("getDomainUpdateResult", a, id);
  }
  bool closeDomainUpdateSession(const std::string& a, uint16_t id,
                                CloseDomainUpdateSessionOutput&) override {
    return attempt("closeDomainUpdateSession", a, id);
  }
  bool ackDomainOffTimeNotification(uint16_t id, uint32_t timeout,
                                    AckDomainOffTimeNotificationOutput&) override {
    return attempt("ackDomainOffTimeNotification", std::to_string(timeout), id);
  }
  bool checkProgrammingPreconditions(const std::string& a, uint16_t id,
                                     CheckProgrammingPreconditionsOutput&) override {
    return attempt("checkProgrammingPreconditions", a, id);
  }
  bool getServiceDescription(GetServiceDescriptionOutput&) override {
    return attempt("getServiceDescription", "", 0);
  }
  bool updateClientDownloadFinished(const std::string& a, uint16_t id, const std::string& path,
                                    UpdateClientDownloadFinishedOutput&) override {
    return attempt("updateClientDownloadFinished", a + "/" + path, id);
  }

 private:
  bool attempt(const std::string& op, const std::string& arg, uint16_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    attempts_.push_back(op + "(" + arg + "," + std::to_string(id) + ")");
    int& left = failures_[op];
    if (left == kAlways)
      return false;
    if (left > 0) {
      --left;
      return false;
    }
    return true;
  }

  mutable std::mutex mutex_;  // guards failures_ and attempts_
  std::map<std::string, int> failures_;
  std::vector<std::string> attempts_;
};

// One facade operation with recognisable arguments, and the attempt text that it must cause.
struct Operation {
  std::string attempt;
  std::function<bool(DiagLUMControlClient&, bool retry)> call;
};

std::vector<Operation> allOperations() {
  using F = DiagLUMControlClient;
  return {
      {"updateURLResponse(2,0)",
       [](F& f, bool r) {
         lum11::UpdateUrlResponseStruct response;
         response.urlInfo = {"http://a", "http://b"};
         f.updateURLResponse(response, r);
         return true;
       }},
      {"createDomainUpdateSession(NODBOX-USB,7)",
       [](F& f, bool r) {
         Client::CreateDomainUpdateSessionOutput out;
         return f.createDomainUpdateSession("NODBOX-USB", 7, "link", {}, {}, {}, {},
                                            lum11::CM_SessionType::localUpdate, out, r);
       }},
      {"getDomainUpdateSessionState(c,1)",
       [](F& f, bool r) {
         Client::GetDomainUpdateSessionStateOutput out;
         return f.getDomainUpdateSessionState("c", 1, out, r);
       }},
      {"startDomainUpdateDownload(c,2)",
       [](F& f, bool r) {
         Client::StartDomainUpdateDownloadOutput out;
         return f.startDomainUpdateDownload("c", 2, out, r);
       }},
      {"getDomainUpdateDownloadProgress(c,3)",
       [](F& f, bool r) {
         Client::GetDomainUpdateDownloadProgressOutput out;
         return f.getDomainUpdateDownloadProgress("c", 3, out, r);
       }},
      {"startDomainUpdate(c,4)",
       [](F& f, bool r) {
         Client::StartDomainUpdateOutput out;
         return f.startDomainUpdate("c", 4, out, r);
       }},
      {"getDomainUpdateProgress(c,5)",
       [](F& f, bool r) {
         Client::GetDomainUpdateProgressOutput out;
         return f.getDomainUpdateProgress("c", 5, out, r);
       }},
      {"cancelDomainUpdate(c,6)",
       [](F& f, bool r) {
         Client::CancelDomainUpdateOutput out;
         return f.cancelDomainUpdate("c", 6, out, r);
       }},
      {"setDebugInstruction(c/key/value,8)",
       [](F& f, bool r) {
         Client::SetDebugInstructionOutput out;
         return f.setDebugInstruction("c", 8, "key", "value", out, r);
       }},
      {"getDomainConfiguration(c,9)",
       [](F& f, bool r) {
         Client::GetDomainConfigurationOutput out;
         return f.getDomainConfiguration("c", 9, out, r);
       }},
      {"getDomainDownloadInfo(c,10)",
       [](F& f, bool r) {
         Client::GetDomainDownloadInfoOutput out;
         return f.getDomainDownloadInfo("c", 10, out, r);
       }},
      {"getDomainUpdateInfo(c,11)",
       [](F& f, bool r) {
         Client::GetDomainUpdateInfoOutput out;
         return f.getDomainUpdateInfo("c", 11, out, r);
       }},
      {"getDomainUpdateResult(c,12)",
       [](F& f, bool r) {
         Client::getDomainUpdateResultOutput out;
         return f.getDomainUpdateResult("c", 12, out, r);
       }},
      {"closeDomainUpdateSession(c,13)",
       [](F& f, bool r) {
         Client::CloseDomainUpdateSessionOutput out;
         return f.closeDomainUpdateSession("c", 13, out, r);
       }},
      {"ackDomainOffTimeNotification(300,14)",
       [](F& f, bool r) {
         Client::AckDomainOffTimeNotificationOutput out;
         return f.ackDomainOffTimeNotification(14, 300, out, r);
       }},
      {"checkProgrammingPreconditions(c,15)",
       [](F& f, bool r) {
         Client::CheckProgrammingPreconditionsOutput out;
         return f.checkProgrammingPreconditions("c", 15, out, r);
       }},
      {"getServiceDescription(,0)",
       [](F& f, bool r) {
         Client::GetServiceDescriptionOutput out;
         return f.getServiceDescription(out, r);
       }},
      {"updateClientDownloadFinished(c//tmp/x,16)",
       [](F& f, bool r) {
         Client::UpdateClientDownloadFinishedOutput out;
         return f.updateClientDownloadFinished("c", 16, "/tmp/x", out, r);
       }},
  };
}

std::vector<std::string> retryMessages(ScopedLogCapture& capture) {
  std::vector<std::string> out;
  for (const auto& r : capture->records())
    if (r.message.rfind("Retry ", 0) == 0) {
      EXPECT_EQ(r.level, kel::vxp3::minfw::kWarn) << r.message;
      out.push_back(r.message);
    }
  return out;
}

TEST(DiagLUMControlClientTest, RetrySchemeCountsAttemptsPausesAndMessages) {
  struct Row {
    const char* proves;
    bool retry;
    int failures;
    bool result;
    std::size_t attempts;
    std::vector<std::string> messages;
  };
  const std::vector<Row> rows = {
      {"a first answer needs no retry", true, 0, true, 1, {}},
      {"without retry a failure is final and silent", false, kAlways, false, 1, {}},
      {"with retry a dead LUM is tried five times, the first message already says 2",
       true,
       kAlways,
       false,
       5,
       {"Retry 2/5", "Retry 3/5", "Retry 4/5", "Retry 5/5"}},
      {"an answer on the third attempt stops retrying",
       true,
       2,
       true,
       3,
       {"Retry 2/5", "Retry 3/5"}},
      {"an answer on the fifth and last attempt still counts",
       true,
       4,
       true,
       5,
       {"Retry 2/5", "Retry 3/5", "Retry 4/5", "Retry 5/5"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock useClock(clock);
    ScopedLogCapture capture;
    auto scripted = std::make_unique<ScriptedClient>();
    scripted->failFirst("getDomainUpdateProgress", row.failures);
    ScriptedClient& client = *scripted;
    DiagLUMControlClient facade(std::move(scripted));

    Client::GetDomainUpdateProgressOutput out;
    EXPECT_EQ(facade.getDomainUpdateProgress("NODBOX-USB", 3, out, row.retry), row.result);
    EXPECT_EQ(client.attempts().size(), row.attempts);
    EXPECT_EQ(retryMessages(capture), row.messages);
    EXPECT_EQ(clock.sleeps(), std::vector<SimulatedClock::Duration>(row.attempts - 1, 5s));
  }
}

TEST(DiagLUMControlClientTest, EveryOperationForwardsItsArgumentsAndRetries) {
  for (const auto& op : allOperations()) {
    SCOPED_TRACE(op.attempt);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock useClock(clock);
    ScopedLogCapture capture;
    auto scripted = std::make_unique<ScriptedClient>();
    const std::string name = op.attempt.substr(0, op.attempt.find('('));
    scripted->failFirst(name, 1);
    ScriptedClient& client = *scripted;
    DiagLUMControlClient facade(std::move(scripted));

    EXPECT_TRUE(op.call(facade, true));
    EXPECT_EQ(client.attempts(), std::vector<std::string>(2, op.attempt));
    EXPECT_EQ(retryMessages(capture), std::vector<std::string>{"Retry 2/5"});
  }
}

// A client that never found the LUM fails every call at once; the facade then spends its five
// attempts and four pauses of 5 s (20 s of virtual time) before giving up.
TEST(DiagLUMControlClientTest, WithoutDiscoveryEveryOperationFailsAfterFiveAttempts) {
  for (const auto& op : allOperations()) {
    SCOPED_TRACE(op.attempt);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock useClock(clock);
    ScopedLogCapture capture;
    DiagLUMControlClient facade(std::make_unique<Client>());

    const bool result = op.call(facade, true);
    if (op.attempt.rfind("updateURLResponse", 0) != 0) {
      EXPECT_FALSE(result);
    }
    EXPECT_EQ(capture->count("m_proxy is invalid!"), 5u);
    EXPECT_EQ(retryMessages(capture).size(), 4u);
    EXPECT_EQ(clock.totalSlept(), 20s);
    EXPECT_FALSE(facade.connected());

    capture->clear();
    op.call(facade, false);
    EXPECT_EQ(capture->count("m_proxy is invalid!"), 1u);
    EXPECT_EQ(clock.totalSlept(), 20s);
  }
}

// Without waiting, a client that never found the LUM answers at once, and the facade is free for
// the next call.
TEST(DiagLUMControlClientTest, WithoutDiscoveryACallWithoutWaitingFailsAtOnce) {
  ScopedLogCapture capture;
  DiagLUMControlClient facade(std::make_unique<Client>());
  std::vector<bool> answers;
  facade.getDomainConfiguration(
      "c", 9, [&answers](bool answered, const Client::GetDomainConfigurationOutput&) {
        answers.push_back(answered);
      });
  EXPECT_EQ(answers, std::vector<bool>{false});
  EXPECT_TRUE(capture->contains("m_proxy is invalid!"));
  auto next = std::async(std::launch::async, [&facade] {
    Client::GetDomainConfigurationOutput out;
    return facade.getDomainConfiguration("c", 9, out, false);
  });
  ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(next.get());
}

TEST(DiagLUMControlClientTest, InternalGoesToItsSlotOrIsReported) {
  ScopedLogCapture capture;
  DiagLUMControlClient facade(std::make_unique<ScriptedClient>());
  facade._internal(1);
  EXPECT_TRUE(capture->contains("signalEventInternal not bound!"));
  int got = 0;
  facade.signalEventInternal = [&](int v) { got = v; };
  capture->clear();
  facade._internal(1);
  EXPECT_EQ(got, 1);
  EXPECT_FALSE(capture->contains("not bound"));
}

// A report without instances says "disconnected" through the slot (or reports the missing
// slot); it never makes a client connected.
TEST(DiagLUMControlClientTest, EmptyDiscoveryReportSendsDisconnected) {
  for (const bool bound : {true, false}) {
    SCOPED_TRACE(bound ? "slot bound" : "slot unbound");
    ScopedLogCapture capture;
    Client client;
    std::vector<bool> seen;
    if (bound)
      client.signalEventConnection = [&](bool up) { seen.push_back(up); };
    client.findServiceCallback({}, {});
    EXPECT_TRUE(capture->contains("size is 0"));
    EXPECT_EQ(seen, bound ? std::vector<bool>{false} : std::vector<bool>{});
    EXPECT_EQ(capture->contains("->signalEventConnection"), !bound);
    EXPECT_FALSE(client.connected());
  }
}

// The facade's mutex covers the retry pauses: a second caller waits until the first one has
// used up all its attempts, even while the first one merely sleeps.
TEST(DiagLUMControlClientTest, ThreadedSecondCallerWaitsForFirstCallersRetries) {
  SimulatedClock clock;  // manual: sleeps end only when the test advances time
  ScopedClock useClock(clock);
  ScopedLogCapture capture;
  auto scripted = std::make_unique<ScriptedClient>();
  scripted->failFirst("startDomainUpdate", kAlways);
  ScriptedClient& client = *scripted;
  DiagLUMControlClient facade(std::move(scripted));

  std::atomic<bool> firstResult{true};
  std::thread first([&] {
    Client::StartDomainUpdateOutput out;
    firstResult = facade.startDomainUpdate("first", 1, out, true);
  });
  ASSERT_TRUE(clock.waitForSleepers(1));

  std::atomic<bool> secondEntered{false};
  std::atomic<bool> secondResult{false};
  std::thread second([&] {
    Client::GetDomainUpdateProgressOutput out;
    secondEntered = true;
    secondResult = facade.getDomainUpdateProgress("second", 2, out, true);
  });
  for (int pause = 0; pause < 4; ++pause) {
    ASSERT_TRUE(clock.waitForSleepers(1));
    EXPECT_EQ(client.attempts().size(), static_cast<std::size_t>(pause + 1))
        << "the second caller got in during a pause";
    clock.advance(5s);
  }
  first.join();
  second.join();
  EXPECT_TRUE(secondEntered);
  EXPECT_FALSE(firstResult);
  EXPECT_TRUE(secondResult);
  const std::vector<std::string> expected = {
      "startDomainUpdate(first,1)", "startDomainUpdate(first,1)",
      "startDomainUpdate(first,1)", "startDomainUpdate(first,1)",
      "startDomainUpdate(first,1)", "getDomainUpdateProgress(second,2)"};
  EXPECT_EQ(client.attempts(), expected);
}

}  // namespace
}  // namespace orv

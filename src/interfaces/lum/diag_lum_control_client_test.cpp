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
                                 lum11::CM_SessionType, CreateDomainUpdateSessionOutput&) override {
    return attempt("createDomainUpdateSession", a, id);
  }
  // The operations that take only the session.
#define SESSION_ATTEMPT(op, Output)                              \
  bool op(const std::string& a, uint16_t id, Output&) override { \
    return attempt(#op, a, id);                                  \
  }                                                              \
  static_assert(true)
  SESSION_ATTEMPT(getDomainUpdateSessionState, GetDomainUpdateSessionStateOutput);
  SESSION_ATTEMPT(startDomainUpdateDownload, StartDomainUpdateDownloadOutput);
  SESSION_ATTEMPT(getDomainUpdateDownloadProgress, GetDomainUpdateDownloadProgressOutput);
  SESSION_ATTEMPT(startDomainUpdate, StartDomainUpdateOutput);
  SESSION_ATTEMPT(getDomainUpdateProgress, GetDomainUpdateProgressOutput);
  SESSION_ATTEMPT(cancelDomainUpdate, CancelDomainUpdateOutput);
  SESSION_ATTEMPT(getDomainConfiguration, GetDomainConfigurationOutput);
  SESSION_ATTEMPT(getDomainDownloadInfo, GetDomainDownloadInfoOutput);
  SESSION_ATTEMPT(getDomainUpdateInfo, GetDomainUpdateInfoOutput);
  SESSION_ATTEMPT(getDomainUpdateResult, getDomainUpdateResultOutput);
  SESSION_ATTEMPT(closeDomainUpdateSession, CloseDomainUpdateSessionOutput);
  SESSION_ATTEMPT(checkProgrammingPreconditions, CheckProgrammingPreconditionsOutput);
#undef SESSION_ATTEMPT
  bool setDebugInstruction(const std::string& a, uint16_t id, const std::string& k,
                           const std::string& v, SetDebugInstructionOutput&) override {
    return attempt("setDebugInstruction", a + "/" + k + "/" + v, id);
  }
  bool ackDomainOffTimeNotification(uint16_t id, uint32_t timeout,
                                    AckDomainOffTimeNotificationOutput&) override {
    return attempt("ackDomainOffTimeNotification", std::to_string(timeout), id);
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

using F = DiagLUMControlClient;

// An operation that takes only the session, called with accessID "c" and `id`.
template <typename Output>
Operation sessionCall(const std::string& name,
                      bool (F::*call)(const std::string&, uint16_t, Output&, bool), uint16_t id) {
  return {name + "(c," + std::to_string(id) + ")", [call, id](F& f, bool r) {
            Output out;
            return (f.*call)("c", id, out, r);
          }};
}

std::vector<Operation> allOperations() {
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
      sessionCall("getDomainUpdateSessionState", &F::getDomainUpdateSessionState, 1),
      sessionCall("startDomainUpdateDownload", &F::startDomainUpdateDownload, 2),
      sessionCall("getDomainUpdateDownloadProgress", &F::getDomainUpdateDownloadProgress, 3),
      sessionCall("startDomainUpdate", &F::startDomainUpdate, 4),
      sessionCall("getDomainUpdateProgress", &F::getDomainUpdateProgress, 5),
      sessionCall("cancelDomainUpdate", &F::cancelDomainUpdate, 6),
      sessionCall("getDomainConfiguration", &F::getDomainConfiguration, 9),
      sessionCall("getDomainDownloadInfo", &F::getDomainDownloadInfo, 10),
      sessionCall("getDomainUpdateInfo", &F::getDomainUpdateInfo, 11),
      sessionCall("getDomainUpdateResult", &F::getDomainUpdateResult, 12),
      sessionCall("closeDomainUpdateSession", &F::closeDomainUpdateSession, 13),
      {"setDebugInstruction(c/key/value,8)",
       [](F& f, bool r) {
         Client::SetDebugInstructionOutput out;
         return f.setDebugInstruction("c", 8, "key", "value", out, r);
       }},
      {"ackDomainOffTimeNotification(300,14)",
       [](F& f, bool r) {
         Client::AckDomainOffTimeNotificationOutput out;
         return f.ackDomainOffTimeNotification(14, 300, out, r);
       }},
      sessionCall("checkProgrammingPreconditions", &F::checkProgrammingPreconditions, 15),
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

// A LUM answering only the fifth attempt is heard, each retry a warning after 5 s. Against a
// client that never found the LUM: five attempts and four pauses, or one silent one without retry.
TEST(DiagLUMControlClientTest, EveryOperationForwardsItsArgumentsAndRetries) {
  const std::vector<std::string> retries = {"Retry 2/5", "Retry 3/5", "Retry 4/5", "Retry 5/5"};
  for (const auto& op : allOperations()) {
    SCOPED_TRACE(op.attempt);
    SimulatedClock clock(SimulatedClock::Mode::kAutoAdvance);
    ScopedClock useClock(clock);
    ScopedLogCapture capture;
    auto scripted = std::make_unique<ScriptedClient>();
    scripted->failFirst(op.attempt.substr(0, op.attempt.find('(')), 4);
    ScriptedClient& client = *scripted;
    DiagLUMControlClient facade(std::move(scripted));
    EXPECT_TRUE(op.call(facade, true));
    EXPECT_EQ(client.attempts(), std::vector<std::string>(5, op.attempt));
    EXPECT_EQ(retryMessages(capture), retries);
    EXPECT_EQ(clock.sleeps(), std::vector<SimulatedClock::Duration>(4, 5s));
    capture->clear();
    DiagLUMControlClient undiscovered(std::make_unique<Client>());
    const bool result = op.call(undiscovered, true);
    EXPECT_TRUE(!result || op.attempt.rfind("updateURLResponse", 0) == 0);
    EXPECT_EQ(capture->count("m_proxy is invalid!"), 5u);
    EXPECT_EQ(retryMessages(capture), retries);
    EXPECT_EQ(clock.totalSlept(), 40s);
    EXPECT_FALSE(undiscovered.connected());
    capture->clear();
    op.call(undiscovered, false);
    EXPECT_EQ(capture->count("m_proxy is invalid!"), 1u);
    EXPECT_TRUE(retryMessages(capture).empty());
    EXPECT_EQ(clock.totalSlept(), 40s);
  }
}

// Without waiting, a client that never found the LUM answers at once; the facade stays free.
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

// Unbound slots are reported instead of called: the facade's internal event and a discovery
// report without instances, which never makes the client connected either.
TEST(DiagLUMControlClientTest, UnboundSlotsAreReported) {
  ScopedLogCapture capture;
  DiagLUMControlClient facade(std::make_unique<ScriptedClient>());
  facade._internal(1);
  EXPECT_TRUE(capture->contains("signalEventInternal not bound!"));
  int got = 0;
  facade.signalEventInternal = [&](int v) { got = v; };
  facade._internal(1);
  EXPECT_EQ(got, 1);
  Client client;
  client.findServiceCallback({}, {});
  EXPECT_TRUE(capture->contains("size is 0"));
  EXPECT_TRUE(capture->contains("->signalEventConnection"));
  EXPECT_FALSE(client.connected());
}

// The facade's mutex covers the retry pauses: a second caller waits out all the first's attempts.
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
  std::vector<std::string> expected(5, "startDomainUpdate(first,1)");
  expected.push_back("getDomainUpdateProgress(second,2)");
  EXPECT_EQ(client.attempts(), expected);
}

}  // namespace
}  // namespace orv

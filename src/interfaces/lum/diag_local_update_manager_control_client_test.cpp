// The client against a real v11 service, two SOME/IP runtimes ("lum-sim", "orvane") in one
// process. Real time: every wait is a bounded hang guard, never a measure.
#include "interfaces/lum/diag_local_update_manager_control_client.h"
#include "minfw/testing/inbox.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "interfaces/host_interfaces.h"
#include "minfw/str.h"
#include "minfw/testing/capture_sink.h"
#include "platform/middleware/skeleton.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

namespace orv {
namespace {

using kel::vxp3::minfw::testing::Inbox;

namespace mw = platform::middleware;
namespace methods = lum11::methods;
namespace events = lum11::events;
using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using Client = DiagLocalUpdateManagerControlClient;
using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

// Holds the promises of startDomainUpdateDownload so that it is answered late (or never).
class HeldAnswers {
 public:
  mw::Future<methods::StartDomainUpdateDownload::Output> hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    promises_.emplace_back();
    return promises_.back().get_future();
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& p : promises_)
      p.set_value({});
    promises_.clear();
  }

 private:
  std::mutex mutex_;  // guards promises_
  std::vector<mw::Promise<methods::StartDomainUpdateDownload::Output>> promises_;
};

void bindSlots(Client& client, Inbox& inbox) {
  client.signalEventConnection = [&](bool up) { inbox.add(cat("connection:", up)); };
  client.signalEventDomainReadyForDownloadNotification =
      [&](uint16_t id, const lum11::ReadyForDownloadInfo& info) {
        inbox.add(
            cat("readyForDownload:", id, ":", info.installationTime, ":", info.downloadDataSize));
      };
  client.signalEventDomainReadyForUpdateNotification = [&](uint16_t id,
                                                           const lum11::ReadyForUpdateInfo& info) {
    inbox.add(cat("readyForUpdate:", id, ":", info.installationTime, ":", info.downloadedDataSize));
  };
  // signalEventDomainUpdateFinishedNotification stays unbound on purpose.
  client.signalEventDomainOffTimeNotification = [&](uint16_t id, uint16_t timeout) {
    inbox.add(cat("offTime:", id, ":", timeout));
  };
  client.signalEventDebugMessageNotification = [&](uint16_t id, const std::string& key,
                                                   const std::string& text) {
    inbox.add(cat("debug:", id, ":", key, ":", text));
  };
  client.signalEventResolveUpdateURLRequest =
      [&](const lum11::resolveUpdateURLRequest_fileNames& names, lum11::CM_FileType type,
          const lum11::DT_uuid& uuid) {
        std::string joined;
        for (const auto& n : names)
          joined += n + ";";
        inbox.add(cat("resolve:", joined, ":", type, ":", uuid[0], "-", uuid[15]));
      };
  client.signalEventDomainErrorNotification = [&](uint16_t id, uint32_t code) {
    inbox.add(cat("error:", id, ":", code));
  };
}

void serve(mw::Skeleton& skeleton, HeldAnswers& held) {
  skeleton.handle<methods::CreateDomainUpdateSession>(
      [](const methods::CreateDomainUpdateSession::Input& in) {
        methods::CreateDomainUpdateSession::Output out;
        const bool complete = in.accessID == "NODBOX-USB" && in.manifestInformation.size() == 1 &&
                              in.downloadSource.baseURL == "http://medium/" &&
                              in.diagnosticAddress.diagnosticAddresses.size() == 2;
        out.returnStatus =
            complete ? lum11::CM_ReturnStatus::ok : lum11::CM_ReturnStatus::invalidParameters;
        out.domainRepairInstructionID = static_cast<uint16_t>(in.vehicleRepairInstructionID + 1);
        return mw::Future<methods::CreateDomainUpdateSession::Output>::ready(out);
      });
  skeleton.handle<methods::GetDomainUpdateResult>(
      [](const methods::GetDomainUpdateResult::Input& in) {
        methods::GetDomainUpdateResult::Output out;
        out.domainResult.sessionStatus = lum11::CM_SessionStatus::reverted;
        out.domainResult.resultCode = in.domainRepairInstructionID * 1000u;
        out.domainResult.errorDetails = "details of " + in.accessID;
        out.domainResult.retries = 3;
        out.domainResult.safetyValidationResult.status = lum11::CM_ValidationStatus::error;
        out.returnStatus = lum11::CM_ReturnStatus::invalidState;
        return mw::Future<methods::GetDomainUpdateResult::Output>::ready(out);
      });
  skeleton.handle<methods::StartDomainUpdateDownload>(
      [&held](const methods::StartDomainUpdateDownload::Input&) { return held.hold(); });
}

// Sends domainErrorNotification until one reaches the slot: the client subscribes that event
// last, so from then on every event has its receive handler.
bool awaitEventFlow(mw::Skeleton& skeleton, Inbox& inbox, uint16_t probe) {
  const std::string expected = cat("error:", probe, ":7");
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    skeleton.send<events::DomainErrorNotification>({probe, 7});
    if (inbox.waitFor(expected, 100ms))
      return true;
  }
  return false;
}

TEST(DiagLocalUpdateManagerControlClientTest, ThreadedAgainstRealService) {
  platform::someip::HostConfig config;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(ORVANE_SOURCE_DIR "/config/host.json",
                                               orv::hostInterfaces(), config, error))
      << error;
  auto lum = platform::someip::Runtime::start(config, "lum-sim", error);
  ASSERT_TRUE(lum) << error;
  auto orvane = platform::someip::Runtime::start(config, "orvane", error);
  ASSERT_TRUE(orvane) << error;
  auto created =
      mw::Skeleton::Create(lum::kInterfaceV11, mw::InstanceSpecifier("12233"), lum.get());
  ASSERT_TRUE(created);
  std::unique_ptr<mw::Skeleton> skeleton = std::move(created).value();
  HeldAnswers held;
  serve(*skeleton, held);
  ScopedLogCapture capture;
  Inbox inbox;
  auto client = std::make_unique<Client>(orvane.get());
  bindSlots(*client, inbox);
  ASSERT_TRUE(client->init("12233"));
  EXPECT_TRUE(capture->contains("Connecting to [12233]"));
  ASSERT_TRUE(skeleton->OfferService());
  // Discovery.
  ASSERT_TRUE(inbox.waitFor("connection:true"));
  EXPECT_TRUE(capture->contains("DiagLocalUpdateManagerControlClient connected!"));
  EXPECT_TRUE(client->connected());
  // A round trip with inputs delivered and outputs copied.
  Client::CreateDomainUpdateSessionOutput session;
  lum11::DownloadSource source;
  source.baseURL = "http://medium/";
  lum11::createDomainUpdateSession_diagnosticAddress addresses;
  addresses.diagnosticAddresses = {0x1a01, 0x1a02};
  ASSERT_TRUE(client->createDomainUpdateSession(
      "NODBOX-USB", 41, "order", {{"key", "manifest.mose", {}}}, {}, source, addresses,
      lum11::CM_SessionType::localUpdate, session));
  EXPECT_EQ(std::tie(session.returnStatus, session.domainRepairInstructionID),
            std::make_tuple(lum11::CM_ReturnStatus::ok, 42));
  EXPECT_TRUE(capture->contains("manifestType:key manifestLink:manifest.mose"));
  EXPECT_TRUE(capture->contains("diagnosticAddress=[0x1a01, 0x1a02]"));
  Client::getDomainUpdateResultOutput result;
  ASSERT_TRUE(client->getDomainUpdateResult("NODBOX-USB", 42, result));
  const lum11::DomainResult& r = result.domainResult;
  EXPECT_EQ(std::tie(result.returnStatus, r.sessionStatus, r.resultCode, r.errorDetails, r.retries,
                     r.safetyValidationResult.status),
            std::make_tuple(lum11::CM_ReturnStatus::invalidState, lum11::CM_SessionStatus::reverted,
                            42000u, "details of NODBOX-USB", 3, lum11::CM_ValidationStatus::error));
  EXPECT_TRUE(capture->contains("<=="));
  // Without waiting: the outputs come with the answer, on the thread that receives it (or on the
  // caller's, should the answer be in before request() attached its continuation).
  client->request<methods::GetDomainUpdateResult>(
      {"NODBOX-USB", 43}, [&inbox](bool answered, const Client::getDomainUpdateResultOutput& out) {
        inbox.add(cat("request:", answered, ":", out.domainResult.resultCode));
      });
  EXPECT_TRUE(inbox.waitFor("request:true:43000"));
  // startDomainUpdateDownload gives the LUM 1000 ms; this answer comes only afterwards.
  Client::StartDomainUpdateDownloadOutput download;
  EXPECT_FALSE(client->startDomainUpdateDownload("NODBOX-USB", 42, download));
  EXPECT_TRUE(capture->contains("awaiting answer within 1000 milliseconds..."));
  EXPECT_TRUE(capture->contains("timeout"));
  EXPECT_TRUE(capture->contains("no answer!"));
  held.release();
  // Events reach their slots with their fields; an unbound slot is reported, the rest relay.
  ASSERT_TRUE(awaitEventFlow(*skeleton, inbox, 1));
  skeleton->send<events::DomainReadyForDownloadNotification>({{120, 5000000000}, 42});
  skeleton->send<events::DomainReadyForUpdateNotification>({{240, 6000000000}, 42});
  skeleton->send<events::DomainUpdateFinishedNotification>({42});
  skeleton->send<events::DomainOffTimeNotification>({42, 600});
  skeleton->send<events::DebugMessageNotification>({{42, "dbg-1", "flash step 3"}});
  lum11::DT_uuid uuid{};
  uuid[0] = 0xab;
  uuid[15] = 0xcd;
  skeleton->send<events::ResolveUpdateURLRequest>(
      {{"a.bin", "b.bin"}, lum11::CM_FileType::manifest, uuid});
  for (const std::string& relayed : std::vector<std::string>{
           "readyForDownload:42:120:5000000000", "readyForUpdate:42:240:6000000000",
           "offTime:42:600", "debug:42:dbg-1:flash step 3",
           cat("resolve:a.bin;b.bin;:", lum11::CM_FileType::manifest, ":171-205")})
    EXPECT_TRUE(inbox.waitFor(relayed)) << relayed;
  // Events of one connection are relayed in order: the off-time event came after it.
  EXPECT_EQ(capture->count("signalEventDomainUpdateFinishedNotification not bound!"), 1u);
  EXPECT_TRUE(capture->contains("<~~"));
  // The service goes away: false is reported and the old proxy stays (so no "invalid").
  skeleton->StopOfferService();
  ASSERT_TRUE(inbox.waitFor("connection:false"));
  EXPECT_TRUE(capture->contains("size is 0"));
  EXPECT_FALSE(client->connected());
  capture->clear();
  client->startDomainUpdateDownload("NODBOX-USB", 42, download);
  EXPECT_FALSE(capture->contains("m_proxy is invalid!"));
  held.release();
  // It comes back: a new proxy, and events flow through it again.
  ASSERT_TRUE(skeleton->OfferService());
  ASSERT_TRUE(inbox.waitFor("connection:true", kPatience, 2));
  EXPECT_TRUE(capture->contains("Creating proxy for DiagLocalUpdateManagerControlClient"));
  EXPECT_TRUE(client->connected());
  EXPECT_TRUE(awaitEventFlow(*skeleton, inbox, 2));
  skeleton->send<events::DomainOffTimeNotification>({43, 60});
  EXPECT_TRUE(inbox.waitFor("offTime:43:60"));
  client.reset();
  held.release();  // before the skeleton goes, which holds its handler
  skeleton.reset();
}

}  // namespace
}  // namespace orv

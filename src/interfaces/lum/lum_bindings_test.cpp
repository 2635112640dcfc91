// The typed bindings of both versions end to end over SOME/IP, inside a private network
// namespace: version 11 between "lum-sim" (skeleton) and "orvane" (proxy), version 12 between
// "orvane" (skeleton) and "diag-tester" (proxy). Every operation carries distinct filled inputs
// and answers distinct filled outputs, compared field by field as text; every event and field
// arrives with its fields. Real time: every wait is a bounded hang guard, never a measure.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "interfaces/host_interfaces.h"
#include "interfaces/lum/lum11_proxy.h"
#include "interfaces/lum/lum11_skeleton.h"
#include "interfaces/lum/lum12_proxy.h"
#include "interfaces/lum/lum12_skeleton.h"
#include "interfaces/lum/lum_test_support.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "platform/someip/config.h"
#include "platform/someip/runtime.h"

namespace orv {
namespace {

using kel::vxp3::minfw::testing::Inbox;

namespace mw = platform::middleware;
using namespace std::chrono_literals;
using kel::vxp3::minfw::testing::ScopedLogCapture;

constexpr auto kPatience = 20s;

// Every visited value as text, in order, with sequence and record brackets.
class Dump final : public mw::FieldVisitor {
 public:
  const std::string& text() const { return text_; }
  bool writing() const override { return true; }
  void value(bool& v) override { add(v ? "true" : "false"); }
  void value(uint8_t& v) override { add(std::to_string(v)); }
  void value(uint16_t& v) override { add(std::to_string(v)); }
  void value(uint32_t& v) override { add(std::to_string(v)); }
  void value(uint64_t& v) override { add(std::to_string(v)); }
  void value(int8_t& v) override { add(std::to_string(v)); }
  void value(int16_t& v) override { add(std::to_string(v)); }
  void value(int32_t& v) override { add(std::to_string(v)); }
  void value(int64_t& v) override { add(std::to_string(v)); }
  void value(float& v) override { add(std::to_string(v)); }
  void value(double& v) override { add(std::to_string(v)); }
  void value(std::string& v) override { add("\"" + v + "\""); }
  void beginSequence() override { add("["); }
  bool moreElements() override { return false; }
  void endSequence() override { add("]"); }
  void beginStruct() override { add("{"); }
  void endStruct() override { add("}"); }
  bool ok() const override { return true; }
  std::string error() const override { return {}; }

 private:
  void add(const std::string& t) { text_ += text_.empty() ? t : " " + t; }
  std::string text_;
};

template <typename T>
std::string dump(const T& x) {
  Dump d;
  mw::writeValue(d, x);
  return d.text();
}

// A value with every field set, different for every seed.
template <typename T>
T filled(int seed) {
  using mw::marshal;
  T x{};
  lum::testing::Filler filler(2);
  for (int i = 0; i < seed; ++i) {
    uint8_t skip;
    filler.value(skip);
  }
  marshal(filler, x);
  return x;
}

// Position of descriptor M in the tuple of descriptors All.
template <typename M, typename All>
int indexOf() {
  int i = 0;
  int found = -1;
  std::apply([&](auto... d) { ((found = std::is_same_v<decltype(d), M> ? i : found, ++i), ...); },
             All{});
  return found;
}

// Output seeds are the operation's index; input seeds are far from them.
template <typename M, typename All>
int outputSeed() {
  return 1 + 5 * indexOf<M, All>();
}
template <typename M, typename All>
int inputSeed() {
  return 60 + 3 * indexOf<M, All>();
}

// Records the inputs of an operation and answers its filled output at once.
template <typename M, typename All>
mw::Future<typename M::Output> answer(Inbox& inbox, const typename M::Input& in) {
  inbox.add(std::string(M::kName) + " " + dump(in));
  return mw::Future<typename M::Output>::ready(filled<typename M::Output>(outputSeed<M, All>()));
}

// Calls an operation with filled inputs; empty when inputs and outputs crossed field-exact.
template <typename M, typename All, typename Proxy, typename Call>
std::function<std::string(Proxy&, Inbox&)> roundTrip(Call call) {
  return [call](Proxy& proxy, Inbox& inbox) -> std::string {
    const auto in = filled<typename M::Input>(inputSeed<M, All>());
    auto future = call(proxy, in);
    if (future.wait_for(kPatience) != mw::FutureStatus::kReady)
      return "no answer";
    auto result = future.get();
    if (!result)
      return "error " + mw::toString(result.error()) + " " + result.errorMessage();
    std::string problems;
    const std::string want = dump(filled<typename M::Output>(outputSeed<M, All>()));
    if (dump(result.value()) != want)
      problems += "output: got " + dump(result.value()) + ", want " + want + "; ";
    if (!inbox.waitFor(std::string(M::kName) + " " + dump(in)))
      problems += "inputs not delivered as sent";
    return problems;
  };
}

// Sends fire-and-forget with filled inputs; empty when the service saw them field-exact.
template <typename M, typename All, typename Proxy, typename Call>
std::function<std::string(Proxy&, Inbox&)> oneWay(Call call) {
  return [call](Proxy& proxy, Inbox& inbox) -> std::string {
    const auto in = filled<typename M::Input>(inputSeed<M, All>());
    auto sent = call(proxy, in);
    if (!sent)
      return "not sent: " + mw::toString(sent.error());
    return inbox.waitFor(std::string(M::kName) + " " + dump(in)) ? "" : "inputs not delivered";
  };
}

template <typename P>
struct Found {
  std::mutex mutex;  // guards handle
  std::condition_variable cv;
  std::optional<mw::ServiceHandle> handle;
};

// Finds the instance and makes a proxy of it; null if it does not appear in time.
template <typename P>
std::unique_ptr<P> discover(mw::Binding* binding, const std::string& instance) {
  auto found = std::make_shared<Found<P>>();
  auto find = P::StartFindService(
      [found](mw::ServiceHandleContainer handles, mw::FindServiceHandle) {
        std::lock_guard<std::mutex> lock(found->mutex);
        if (!handles.empty())
          found->handle = handles.front();
        found->cv.notify_all();
      },
      mw::InstanceSpecifier(instance), binding);
  if (!find)
    return nullptr;
  std::optional<mw::ServiceHandle> handle;
  {
    std::unique_lock<std::mutex> lock(found->mutex);
    found->cv.wait_for(lock, kPatience, [&] { return found->handle.has_value(); });
    handle = found->handle;
  }
  P::StopFindService(find.value(), binding);
  if (!handle)
    return nullptr;
  auto created = P::Create(*handle, binding);
  return created ? std::move(created).value() : nullptr;
}

platform::someip::HostConfig hostConfig() {
  platform::someip::HostConfig config;
  std::string error;
  EXPECT_TRUE(platform::someip::loadHostConfig(ORVANE_SOURCE_DIR "/config/host.json",
                                               orv::hostInterfaces(), config, error))
      << error;
  return config;
}

std::unique_ptr<platform::someip::Runtime> startRuntime(const platform::someip::HostConfig& config,
                                                        const char* process) {
  std::string error;
  auto runtime = platform::someip::Runtime::start(config, process, error);
  EXPECT_TRUE(runtime) << process << ": " << error;
  return runtime;
}

// ---- Version 11 -------------------------------------------------------------------------------

namespace v11 {

namespace m = lum11::methods;
namespace e = lum11::events;
using All = m::All;
using Proxy = lum11::proxy::DiagLocalUpdateManagerControlProxy;
template <typename M>
using Answer = mw::Future<typename M::Output>;

class Service final : public lum11::skeleton::DiagLocalUpdateManagerControlSkeleton {
 public:
  Service(mw::Binding* binding, Inbox& inbox)
      : DiagLocalUpdateManagerControlSkeleton(mw::InstanceSpecifier("12233"), binding),
        inbox_(inbox) {}
  ~Service() override { StopOfferService(); }

  void updateURLResponse(const lum11::UpdateUrlResponseStruct& x) override {
    answer<m::UpdateURLResponse, All>(inbox_, {x});
  }
  Answer<m::CreateDomainUpdateSession> createDomainUpdateSession(
      const std::string& a, uint16_t v, const std::string& o,
      const lum11::createDomainUpdateSession_manifestInformation& mi,
      const lum11::createDomainUpdateSession_cryptoParameters& cp, const lum11::DownloadSource& ds,
      const lum11::createDomainUpdateSession_diagnosticAddress& da,
      lum11::CM_SessionType st) override {
    return answer<m::CreateDomainUpdateSession, All>(inbox_, {a, v, o, mi, cp, ds, da, st});
  }
  Answer<m::GetDomainUpdateSessionState> getDomainUpdateSessionState(const std::string& a,
                                                                     uint16_t d) override {
    return answer<m::GetDomainUpdateSessionState, All>(inbox_, {a, d});
  }
  Answer<m::StartDomainUpdateDownload> startDomainUpdateDownload(const std::string& a,
                                                                 uint16_t d) override {
    return answer<m::StartDomainUpdateDownload, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateDownloadProgress> getDomainUpdateDownloadProgress(const std::string& a,
                                                                             uint16_t d) override {
    return answer<m::GetDomainUpdateDownloadProgress, All>(inbox_, {a, d});
  }
  Answer<m::StartDomainUpdate> startDomainUpdate(const std::string& a, uint16_t d) override {
    return answer<m::StartDomainUpdate, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateProgress> getDomainUpdateProgress(const std::string& a,
                                                             uint16_t d) override {
    return answer<m::GetDomainUpdateProgress, All>(inbox_, {a, d});
  }
  Answer<m::CancelDomainUpdate> cancelDomainUpdate(const std::string& a, uint16_t d) override {
    return answer<m::CancelDomainUpdate, All>(inbox_, {a, d});
  }
  Answer<m::SetDebugInstruction> setDebugInstruction(const std::string& a, uint16_t d,
                                                     const std::string& id,
                                                     const std::string& text) override {
    return answer<m::SetDebugInstruction, All>(inbox_, {a, d, id, text});
  }
  Answer<m::GetDomainConfiguration> getDomainConfiguration(const std::string& a,
                                                           uint16_t d) override {
    return answer<m::GetDomainConfiguration, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainDownloadInfo> getDomainDownloadInfo(const std::string& a,
                                                         uint16_t d) override {
    return answer<m::GetDomainDownloadInfo, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateInfo> getDomainUpdateInfo(const std::string& a, uint16_t d) override {
    return answer<m::GetDomainUpdateInfo, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateResult> getDomainUpdateResult(const std::string& a,
                                                         uint16_t d) override {
    return answer<m::GetDomainUpdateResult, All>(inbox_, {a, d});
  }
  Answer<m::CloseDomainUpdateSession> closeDomainUpdateSession(const std::string& a,
                                                               uint16_t d) override {
    return answer<m::CloseDomainUpdateSession, All>(inbox_, {a, d});
  }
  Answer<m::AckDomainOffTimeNotification> ackDomainOffTimeNotification(uint16_t d,
                                                                       uint32_t t) override {
    return answer<m::AckDomainOffTimeNotification, All>(inbox_, {d, t});
  }
  Answer<m::CheckProgrammingPreconditions> checkProgrammingPreconditions(const std::string& a,
                                                                         uint16_t d) override {
    return answer<m::CheckProgrammingPreconditions, All>(inbox_, {a, d});
  }
  Answer<m::GetServiceDescription> getServiceDescription() override {
    return answer<m::GetServiceDescription, All>(inbox_, {});
  }
  Answer<m::UpdateClientDownloadFinished> updateClientDownloadFinished(
      const std::string& a, uint16_t d, const std::string& path) override {
    return answer<m::UpdateClientDownloadFinished, All>(inbox_, {a, d, path});
  }

 private:
  Inbox& inbox_;
};

struct OperationRow {
  const char* proves;
  std::function<std::string(Proxy&, Inbox&)> run;
};

std::vector<OperationRow> operationRows() {
  // Session operations differ only in name and output; one row maker covers them.
#define SESSION_ROW(M, member)                                                   \
  OperationRow{#member " carries the session and answers its output",            \
               roundTrip<m::M, All, Proxy>([](Proxy& p, const m::M::Input& in) { \
                 return p.member(in.accessID, in.domainRepairInstructionID);     \
               })}
  std::vector<OperationRow> rows = {
      {"updateURLResponse is delivered one way with its record",
       oneWay<m::UpdateURLResponse, All, Proxy>(
           [](Proxy& p, const m::UpdateURLResponse::Input& in) {
             return p.updateURLResponse(in.updateUrlResponse);
           })},
      {"createDomainUpdateSession passes eight inputs in order",
       roundTrip<m::CreateDomainUpdateSession, All, Proxy>(
           [](Proxy& p, const m::CreateDomainUpdateSession::Input& in) {
             return p.createDomainUpdateSession(in.accessID, in.vehicleRepairInstructionID,
                                                in.updateOrderLink, in.manifestInformation,
                                                in.cryptoParameters, in.downloadSource,
                                                in.diagnosticAddress, in.sessionType);
           })},
      SESSION_ROW(GetDomainUpdateSessionState, getDomainUpdateSessionState),
      SESSION_ROW(StartDomainUpdateDownload, startDomainUpdateDownload),
      SESSION_ROW(GetDomainUpdateDownloadProgress, getDomainUpdateDownloadProgress),
      SESSION_ROW(StartDomainUpdate, startDomainUpdate),
      SESSION_ROW(GetDomainUpdateProgress, getDomainUpdateProgress),
      SESSION_ROW(CancelDomainUpdate, cancelDomainUpdate),
      {"setDebugInstruction passes its two texts after the session",
       roundTrip<m::SetDebugInstruction, All, Proxy>(
           [](Proxy& p, const m::SetDebugInstruction::Input& in) {
             return p.setDebugInstruction(in.accessID, in.domainRepairInstructionID,
                                          in.debugInstructionID, in.debugInstruction);
           })},
      SESSION_ROW(GetDomainConfiguration, getDomainConfiguration),
      SESSION_ROW(GetDomainDownloadInfo, getDomainDownloadInfo),
      SESSION_ROW(GetDomainUpdateInfo, getDomainUpdateInfo),
      SESSION_ROW(GetDomainUpdateResult, getDomainUpdateResult),
      SESSION_ROW(CloseDomainUpdateSession, closeDomainUpdateSession),
      {"ackDomainOffTimeNotification passes the widened timeout",
       roundTrip<m::AckDomainOffTimeNotification, All, Proxy>(
           [](Proxy& p, const m::AckDomainOffTimeNotification::Input& in) {
             return p.ackDomainOffTimeNotification(in.domainRepairInstructionID, in.timeout);
           })},
      SESSION_ROW(CheckProgrammingPreconditions, checkProgrammingPreconditions),
      {"getServiceDescription needs no input",
       roundTrip<m::GetServiceDescription, All, Proxy>(
           [](Proxy& p, const m::Empty&) { return p.getServiceDescription(); })},
      {"updateClientDownloadFinished passes the download path",
       roundTrip<m::UpdateClientDownloadFinished, All, Proxy>(
           [](Proxy& p, const m::UpdateClientDownloadFinished::Input& in) {
             return p.updateClientDownloadFinished(in.accessID, in.domainRepairInstructionID,
                                                   in.downloadPath);
           })},
  };
#undef SESSION_ROW
  return rows;
}

// Subscribes the proxy's event and sends through the skeleton until the filled sample arrives.
// The receive handler only signals and samples are read here: a handler call that is still
// running when the proxy goes touches nothing but the shared inbox.
template <typename E, typename Member, typename Send>
std::function<std::string(Service&, Proxy&, const std::shared_ptr<Inbox>&)> eventTrip(Member member,
                                                                                      Send send) {
  return [member, send](Service& service, Proxy& proxy,
                        const std::shared_ptr<Inbox>& inbox) -> std::string {
    auto& event = member(proxy);
    const std::string tick = std::string(E::kName) + " arrived";
    event.SetReceiveHandler([inbox, tick] { inbox->add(tick); });
    if (!event.Subscribe(10))
      return "cannot subscribe";
    const auto sample = filled<typename E::Sample>(30 + 4 * indexOf<E, e::All>());
    // The subscription is acknowledged asynchronously: repeat until it carries.
    bool arrived = false;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!arrived && std::chrono::steady_clock::now() < deadline) {
      if (!send(service, sample))
        return "not sent";
      arrived = inbox->waitFor(tick, 100ms);
    }
    if (!arrived)
      return "never arrived";
    bool matched = false;
    std::string others;
    event.GetNewSamples([&](mw::SamplePtr<typename E::Sample> received) {
      if (dump(*received) == dump(sample))
        matched = true;
      else
        others += " <" + dump(*received) + ">";
    });
    return matched ? "" : "want <" + dump(sample) + ">, got" + others;
  };
}

struct EventRow {
  const char* proves;
  std::function<std::string(Service&, Proxy&, const std::shared_ptr<Inbox>&)> run;
};

std::vector<EventRow> eventRows() {
  using S = Service;
  return {
      {"domainReadyForDownloadNotification carries its info record and session",
       eventTrip<e::DomainReadyForDownloadNotification>(
           [](Proxy & p) -> auto& { return p.domainReadyForDownloadNotification; },
           [](S& s, const e::DomainReadyForDownloadNotification::Sample& x) {
             return s.sendDomainReadyForDownloadNotification(x.readyForDownloadInfo,
                                                             x.domainRepairInstructionID);
           })},
      {"domainReadyForUpdateNotification carries its info record and session",
       eventTrip<e::DomainReadyForUpdateNotification>(
           [](Proxy & p) -> auto& { return p.domainReadyForUpdateNotification; },
           [](S& s, const e::DomainReadyForUpdateNotification::Sample& x) {
             return s.sendDomainReadyForUpdateNotification(x.readyForUpdateInfo,
                                                           x.domainRepairInstructionID);
           })},
      {"domainUpdateFinishedNotification carries the finished session",
       eventTrip<e::DomainUpdateFinishedNotification>(
           [](Proxy & p) -> auto& { return p.domainUpdateFinishedNotification; },
           [](S& s, const e::DomainUpdateFinishedNotification::Sample& x) {
             return s.sendDomainUpdateFinishedNotification(x.domainRepairInstructionID);
           })},
      {"domainOffTimeNotification carries session and timeout in order",
       eventTrip<e::DomainOffTimeNotification>(
           [](Proxy & p) -> auto& { return p.domainOffTimeNotification; },
           [](S& s, const e::DomainOffTimeNotification::Sample& x) {
             return s.sendDomainOffTimeNotification(x.domainRepairInstructionID, x.timeout);
           })},
      {"debugMessageNotification carries its record",
       eventTrip<e::DebugMessageNotification>(
           [](Proxy & p) -> auto& { return p.debugMessageNotification; },
           [](S& s, const e::DebugMessageNotification::Sample& x) {
             return s.sendDebugMessageNotification(x.debugMessageInfo);
           })},
      {"resolveUpdateURLRequest carries names, type and the 16-byte id",
       eventTrip<e::ResolveUpdateURLRequest>(
           [](Proxy & p) -> auto& { return p.resolveUpdateURLRequest; },
           [](S& s, const e::ResolveUpdateURLRequest::Sample& x) {
             return s.sendResolveUpdateURLRequest(x.fileNames, x.fileType, x.updateURLRequestID);
           })},
      {"domainErrorNotification carries session and error code in order",
       eventTrip<e::DomainErrorNotification>(
           [](Proxy & p) -> auto& { return p.domainErrorNotification; },
           [](S& s, const e::DomainErrorNotification::Sample& x) {
             return s.sendDomainErrorNotification(x.domainRepairInstructionID, x.errorCode);
           })},
  };
}

TEST(LumBindingsTest, ThreadedVersion11EveryOperationAndEvent) {
  const auto config = hostConfig();
  // Declared first: late receive-handler calls may still reach it while the runtimes stop.
  auto inbox = std::make_shared<Inbox>();
  auto lum = startRuntime(config, "lum-sim");
  auto orvane = startRuntime(config, "orvane");
  ASSERT_TRUE(lum && orvane);
  auto service = std::make_unique<Service>(lum.get(), *inbox);
  ASSERT_TRUE(service->OfferService());
  auto proxy = discover<Proxy>(orvane.get(), "12233");
  ASSERT_TRUE(proxy);

  const auto operations = operationRows();
  EXPECT_EQ(operations.size(), std::tuple_size_v<All>);
  for (const auto& row : operations)
    EXPECT_EQ(row.run(*proxy, *inbox), "") << row.proves;
  const auto events = eventRows();
  EXPECT_EQ(events.size(), std::tuple_size_v<e::All>);
  for (const auto& row : events)
    EXPECT_EQ(row.run(*service, *proxy, inbox), "") << row.proves;

  proxy.reset();
  service.reset();
}

}  // namespace v11

// ---- Version 12 -------------------------------------------------------------------------------

namespace v12 {

namespace m = lum12::methods;
namespace f = lum12::fields;
using All = m::All;
using Proxy = lum12::proxy::DiagLocalUpdateManagerControlProxy;
using Skeleton = lum12::skeleton::DiagLocalUpdateManagerControl;
template <typename M>
using Answer = mw::Future<typename M::Output>;

class Service final : public Skeleton {
 public:
  Service(mw::Binding* binding, Inbox& inbox)
      : Skeleton(mw::InstanceSpecifier("1"), binding), inbox_(inbox) {}
  ~Service() override { StopOfferService(); }

  void updateUrlResponse(const lum12::UpdateUrlResponseStruct& x) override {
    answer<m::UpdateUrlResponse, All>(inbox_, {x});
  }
  Answer<m::CreateDomainUpdateSession> createDomainUpdateSession(
      const std::string& a, uint16_t v, const std::string& o,
      const lum12::createDomainUpdateSession_manifestInformation& mi,
      const lum12::createDomainUpdateSession_cryptoParameters& cp,
      const lum12::DT_DownloadSource& ds,
      const lum12::createDomainUpdateSession_diagnosticAddress& da,
      lum12::CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType st)
      override {
    return answer<m::CreateDomainUpdateSession, All>(inbox_, {a, v, o, mi, cp, ds, da, st});
  }
  Answer<m::StartDomainUpdateDownload> startDomainUpdateDownload(const std::string& a,
                                                                 uint16_t d) override {
    return answer<m::StartDomainUpdateDownload, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateDownloadProgress> getDomainUpdateDownloadProgress(const std::string& a,
                                                                             uint16_t d) override {
    return answer<m::GetDomainUpdateDownloadProgress, All>(inbox_, {a, d});
  }
  Answer<m::StartDomainUpdate> startDomainUpdate(const std::string& a, uint16_t d) override {
    return answer<m::StartDomainUpdate, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateProgress> getDomainUpdateProgress(const std::string& a,
                                                             uint16_t d) override {
    return answer<m::GetDomainUpdateProgress, All>(inbox_, {a, d});
  }
  Answer<m::CancelDomainUpdate> cancelDomainUpdate(const std::string& a, uint16_t d) override {
    return answer<m::CancelDomainUpdate, All>(inbox_, {a, d});
  }
  Answer<m::SetDebugInstruction> setDebugInstruction(const std::string& a, uint16_t d,
                                                     const std::string& id,
                                                     const std::string& text) override {
    return answer<m::SetDebugInstruction, All>(inbox_, {a, d, id, text});
  }
  Answer<m::GetDomainConfiguration> getDomainConfiguration(const std::string& a,
                                                           uint16_t d) override {
    return answer<m::GetDomainConfiguration, All>(inbox_, {a, d});
  }
  Answer<m::GetDomainUpdateResult> getDomainUpdateResult(const std::string& a,
                                                         uint16_t d) override {
    return answer<m::GetDomainUpdateResult, All>(inbox_, {a, d});
  }
  Answer<m::CloseDomainUpdateSession> closeDomainUpdateSession(const std::string& a,
                                                               uint16_t d) override {
    return answer<m::CloseDomainUpdateSession, All>(inbox_, {a, d});
  }
  Answer<m::AckDomainOffTimeNotification> ackDomainOffTimeNotification(uint16_t d,
                                                                       uint32_t t) override {
    return answer<m::AckDomainOffTimeNotification, All>(inbox_, {d, t});
  }
  Answer<m::CheckProgrammingPreconditions> checkProgrammingPreconditions(const std::string& a,
                                                                         uint16_t d) override {
    return answer<m::CheckProgrammingPreconditions, All>(inbox_, {a, d});
  }
  Answer<m::GetServiceDescription> getServiceDescription() override {
    return answer<m::GetServiceDescription, All>(inbox_, {});
  }
  Answer<m::UpdateClientDownloadFinished> updateClientDownloadFinished(
      const std::string& a, uint16_t d, const std::string& path) override {
    return answer<m::UpdateClientDownloadFinished, All>(inbox_, {a, d, path});
  }

 private:
  Inbox& inbox_;
};

struct OperationRow {
  const char* proves;
  std::function<std::string(Proxy&, Inbox&)> run;
};

std::vector<OperationRow> operationRows() {
#define SESSION_ROW(M, member)                                                   \
  OperationRow{#member " carries the session and answers its output",            \
               roundTrip<m::M, All, Proxy>([](Proxy& p, const m::M::Input& in) { \
                 return p.member(in.accessID, in.domainRepairInstructionID);     \
               })}
  std::vector<OperationRow> rows = {
      {"updateUrlResponse is delivered one way with its record",
       oneWay<m::UpdateUrlResponse, All, Proxy>(
           [](Proxy& p, const m::UpdateUrlResponse::Input& in) {
             return p.updateUrlResponse(in.updateUrlResponse);
           })},
      {"createDomainUpdateSession passes eight inputs in order",
       roundTrip<m::CreateDomainUpdateSession, All, Proxy>(
           [](Proxy& p, const m::CreateDomainUpdateSession::Input& in) {
             return p.createDomainUpdateSession(in.accessID, in.vehicleRepairInstructionID,
                                                in.updateOrderLink, in.manifestInformation,
                                                in.cryptoParameters, in.downloadSource,
                                                in.diagnosticAddress, in.sessionType);
           })},
      SESSION_ROW(StartDomainUpdateDownload, startDomainUpdateDownload),
      SESSION_ROW(GetDomainUpdateDownloadProgress, getDomainUpdateDownloadProgress),
      SESSION_ROW(StartDomainUpdate, startDomainUpdate),
      SESSION_ROW(GetDomainUpdateProgress, getDomainUpdateProgress),
      SESSION_ROW(CancelDomainUpdate, cancelDomainUpdate),
      {"setDebugInstruction passes its two texts after the session",
       roundTrip<m::SetDebugInstruction, All, Proxy>(
           [](Proxy& p, const m::SetDebugInstruction::Input& in) {
             return p.setDebugInstruction(in.accessID, in.domainRepairInstructionID,
                                          in.debugInstructionID, in.debugInstruction);
           })},
      SESSION_ROW(GetDomainConfiguration, getDomainConfiguration),
      SESSION_ROW(GetDomainUpdateResult, getDomainUpdateResult),
      SESSION_ROW(CloseDomainUpdateSession, closeDomainUpdateSession),
      {"ackDomainOffTimeNotification passes the widened timeout",
       roundTrip<m::AckDomainOffTimeNotification, All, Proxy>(
           [](Proxy& p, const m::AckDomainOffTimeNotification::Input& in) {
             return p.ackDomainOffTimeNotification(in.domainRepairInstructionID, in.timeout);
           })},
      SESSION_ROW(CheckProgrammingPreconditions, checkProgrammingPreconditions),
      {"getServiceDescription needs no input",
       roundTrip<m::GetServiceDescription, All, Proxy>(
           [](Proxy& p, const m::Empty&) { return p.getServiceDescription(); })},
      {"updateClientDownloadFinished answers its own return-status type",
       roundTrip<m::UpdateClientDownloadFinished, All, Proxy>(
           [](Proxy& p, const m::UpdateClientDownloadFinished::Input& in) {
             return p.updateClientDownloadFinished(in.accessID, in.domainRepairInstructionID,
                                                   in.downloadPath);
           })},
  };
#undef SESSION_ROW
  return rows;
}

// A value of field F with `entries` filled entries, different for every seed.
template <typename F>
typename F::Value fieldValue(int seed, int entries) {
  typename F::Value value;
  for (int i = 0; i < entries; ++i)
    value.push_back(filled<typename F::Value::value_type>(seed + 9 * i));
  return value;
}

// Updates before and after a subscription: the subscriber is greeted with the value it missed,
// then sees every later update in order; Get answers the last one. As for events, the receive
// handler only signals.
template <typename F, typename SkeletonMember, typename ProxyMember>
std::function<std::string(Service&, Proxy&, const std::shared_ptr<Inbox>&)> fieldTrip(
    SkeletonMember onSkeleton, ProxyMember onProxy) {
  return [onSkeleton, onProxy](Service& service, Proxy& proxy,
                               const std::shared_ptr<Inbox>& inbox) -> std::string {
    const int base = 10 * indexOf<F, f::All>();
    const std::string tick = std::string(F::kName) + " arrived";
    // The last value has no entries, which must also cross.
    const std::vector<typename F::Value> values = {
        fieldValue<F>(base + 1, 1), fieldValue<F>(base + 2, 2), fieldValue<F>(base + 3, 3),
        fieldValue<F>(base + 4, 0)};
    if (!onSkeleton(service).Update(values[0]))
      return "first update refused";
    auto& field = onProxy(proxy);
    field.SetReceiveHandler([inbox, tick] { inbox->add(tick); });
    if (!field.Subscribe(10))
      return "cannot subscribe";
    if (!inbox->waitFor(tick))
      return "no greeting with the value before the subscription";
    for (std::size_t i = 1; i < values.size(); ++i)
      if (!onSkeleton(service).Update(values[i]))
        return "update refused";
    if (!inbox->waitFor(tick, kPatience, values.size()))
      return "updates never arrived";
    std::vector<std::string> want;
    for (const auto& v : values)
      want.push_back(dump(v));
    std::vector<std::string> got;
    field.GetNewSamples(
        [&got](mw::SamplePtr<typename F::Value> sample) { got.push_back(dump(*sample)); });
    if (got != want) {
      std::string text = "received out of order or twice:";
      for (const auto& g : got)
        text += " <" + g + ">";
      return text;
    }
    auto current = field.Get();
    if (current.wait_for(kPatience) != mw::FutureStatus::kReady)
      return "Get not answered";
    auto result = current.get();
    if (!result)
      return "Get failed: " + mw::toString(result.error());
    if (dump(result.value()) != dump(values.back()))
      return "Get answered " + dump(result.value()) + " instead of the last value";
    return "";
  };
}

struct FieldRow {
  const char* proves;
  std::function<std::string(Service&, Proxy&, const std::shared_ptr<Inbox>&)> run;
};

std::vector<FieldRow> fieldRows() {
#define FIELD_ROW(F, member)                                      \
  FieldRow{#member " is greeted, updated in order and read back", \
           fieldTrip<f::F>(                                       \
               [](Service & s) -> auto& { return s.member; },     \
               [](Proxy & p) -> auto& { return p.member; })}
  std::vector<FieldRow> rows = {
      FIELD_ROW(DomainUpdateSessionState, domainUpdateSessionState),
      FIELD_ROW(DomainOffTimeNotification, domainOffTimeNotification),
      FIELD_ROW(DebugMessageNotification, debugMessageNotification),
      FIELD_ROW(ResolveUpdateURLRequest, resolveUpdateURLRequest),
      FIELD_ROW(DomainErrorNotification, domainErrorNotification),
  };
#undef FIELD_ROW
  return rows;
}

TEST(LumBindingsTest, ThreadedVersion12EveryOperationAndField) {
  const auto config = hostConfig();
  // Declared first: late receive-handler calls may still reach it while the runtimes stop.
  auto inbox = std::make_shared<Inbox>();
  auto orvane = startRuntime(config, "orvane");
  auto tester = startRuntime(config, "diag-tester");
  ASSERT_TRUE(orvane && tester);
  auto service = std::make_unique<Service>(orvane.get(), *inbox);
  ASSERT_TRUE(service->OfferService());
  auto proxy = discover<Proxy>(tester.get(), "1");
  ASSERT_TRUE(proxy);

  const auto operations = operationRows();
  EXPECT_EQ(operations.size(), std::tuple_size_v<All>);
  for (const auto& row : operations)
    EXPECT_EQ(row.run(*proxy, *inbox), "") << row.proves;
  const auto fields = fieldRows();
  EXPECT_EQ(fields.size(), std::tuple_size_v<f::All>);
  for (const auto& row : fields)
    EXPECT_EQ(row.run(*service, *proxy, inbox), "") << row.proves;

  proxy.reset();
  service.reset();
}

}  // namespace v12

// Without a binding no skeleton can be made: the typed skeletons say why once, and every later
// use answers an error instead of reaching through the missing skeleton.
TEST(LumBindingsTest, SkeletonsWithoutBindingRefuseEveryUse) {
  ASSERT_EQ(mw::defaultBinding(), nullptr);
  ScopedLogCapture capture;
  Inbox inbox;
  v11::Service lum(nullptr, inbox);
  v12::Service orvane(nullptr, inbox);
  struct Row {
    const char* proves;
    mw::Result<void> result;
  };
  const Row rows[] = {
      {"v11 OfferService", lum.OfferService()},
      {"v11 event send", lum.sendDomainErrorNotification(1, 2)},
      {"v12 OfferService", orvane.OfferService()},
      {"v12 field Update", orvane.domainErrorNotification.Update({{1, 2, 3}})},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(row.result) << row.proves;
    EXPECT_EQ(row.result.error(), mw::ErrorCode::kNotConfigured) << row.proves;
  }
  EXPECT_TRUE(
      capture->contains("cannot make the skeleton of DiagLocalUpdateManagerControl_v11 "
                        "[12233]: wrong state no binding"));
  EXPECT_TRUE(capture->contains(
      "cannot make the skeleton of DiagLocalUpdateManagerControl_v12 [1]: wrong state no binding"));
  EXPECT_TRUE(inbox.entries().empty());
}

}  // namespace
}  // namespace orv

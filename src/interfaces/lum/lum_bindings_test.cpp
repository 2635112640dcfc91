// The typed v12 bindings over SOME/IP, skeleton "orvane" to proxy "diag-tester": every operation
// shape's filled inputs and outputs cross field-exact. Real time: waits are bounded hang guards.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "interfaces/host_interfaces.h"
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
using lum::testing::dump;
namespace m = lum12::methods;
namespace f = lum12::fields;
using Proxy = lum12::proxy::DiagLocalUpdateManagerControlProxy;
template <typename M>
using Answer = mw::Future<typename M::Output>;

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

// Seeds of operation M: `base` plus `step` times its position among the method descriptors, so
// outputs (base 1, step 5) differ from operation to operation and stay far from the inputs (60, 3).
template <typename M>
int seed(int base, int step) {
  int i = 0, found = -1;
  std::apply([&](auto... d) { ((found = std::is_same_v<decltype(d), M> ? i : found, ++i), ...); },
             m::All{});
  return base + step * found;
}

// Records the inputs of an operation and answers its filled output at once.
template <typename M>
mw::Future<typename M::Output> answer(Inbox& inbox, const typename M::Input& in) {
  inbox.add(std::string(M::kName) + " " + dump(in));
  return mw::Future<typename M::Output>::ready(filled<typename M::Output>(seed<M>(1, 5)));
}

// Calls (or sends) an operation with filled inputs; empty when both ways crossed field-exact.
template <typename M, typename Call>
std::function<std::string(Proxy&, Inbox&)> trip(Call call) {
  return [call](Proxy& proxy, Inbox& inbox) -> std::string {
    const auto in = filled<typename M::Input>(seed<M>(60, 3));
    auto sent = call(proxy, in);
    std::string problems;
    if constexpr (std::is_same_v<decltype(sent), mw::Result<void>>) {
      if (!sent)
        return "not sent: " + mw::toString(sent.error());
    } else {
      if (sent.wait_for(kPatience) != mw::FutureStatus::kReady)
        return "no answer";
      auto result = sent.get();
      if (!result)
        return "error " + mw::toString(result.error()) + " " + result.errorMessage();
      const std::string want = dump(filled<typename M::Output>(seed<M>(1, 5)));
      if (dump(result.value()) != want)
        problems += "output: got " + dump(result.value()) + ", want " + want + "; ";
    }
    if (!inbox.waitFor(std::string(M::kName) + " " + dump(in)))
      problems += "inputs not delivered as sent";
    return problems;
  };
}

// Finds the service and makes a proxy of it; null if it does not appear in time.
std::unique_ptr<Proxy> discover(mw::Binding* binding) {
  auto found = std::make_shared<std::promise<mw::ServiceHandle>>();
  auto once = std::make_shared<std::once_flag>();
  auto handle = found->get_future();
  auto find = Proxy::StartFindService(
      [found, once](mw::ServiceHandleContainer handles, mw::FindServiceHandle) {
        if (!handles.empty())
          std::call_once(*once, [&] { found->set_value(handles.front()); });
      },
      mw::InstanceSpecifier("1"), binding);
  if (!find)
    return nullptr;
  const bool ready = handle.wait_for(kPatience) == std::future_status::ready;
  Proxy::StopFindService(find.value(), binding);
  if (!ready)
    return nullptr;
  auto created = Proxy::Create(handle.get(), binding);
  return created ? std::move(created).value() : nullptr;
}

class Service final : public lum12::skeleton::DiagLocalUpdateManagerControl {
 public:
  Service(mw::Binding* binding, Inbox& inbox)
      : DiagLocalUpdateManagerControl(mw::InstanceSpecifier("1"), binding), inbox_(inbox) {}
  ~Service() override { StopOfferService(); }
  void updateUrlResponse(const lum12::UpdateUrlResponseStruct& x) override {
    answer<m::UpdateUrlResponse>(inbox_, {x});
  }
  Answer<m::CreateDomainUpdateSession> createDomainUpdateSession(
      const std::string& a, uint16_t v, const std::string& o,
      const lum12::createDomainUpdateSession_manifestInformation& mi,
      const lum12::createDomainUpdateSession_cryptoParameters& cp,
      const lum12::DT_DownloadSource& ds,
      const lum12::createDomainUpdateSession_diagnosticAddress& da,
      lum12::CM_DT_DiagLocalUpdateManagerControl_createDomainUpdateSession_sessionType st)
      override {
    return answer<m::CreateDomainUpdateSession>(inbox_, {a, v, o, mi, cp, ds, da, st});
  }
  // The operations that take only the session.
#define SESSION_OPERATION(M, member)                               \
  Answer<m::M> member(const std::string& a, uint16_t d) override { \
    return answer<m::M>(inbox_, {a, d});                           \
  }                                                                \
  static_assert(true)
  SESSION_OPERATION(StartDomainUpdateDownload, startDomainUpdateDownload);
  SESSION_OPERATION(GetDomainUpdateDownloadProgress, getDomainUpdateDownloadProgress);
  SESSION_OPERATION(StartDomainUpdate, startDomainUpdate);
  SESSION_OPERATION(GetDomainUpdateProgress, getDomainUpdateProgress);
  SESSION_OPERATION(CancelDomainUpdate, cancelDomainUpdate);
  SESSION_OPERATION(GetDomainConfiguration, getDomainConfiguration);
  SESSION_OPERATION(GetDomainUpdateResult, getDomainUpdateResult);
  SESSION_OPERATION(CloseDomainUpdateSession, closeDomainUpdateSession);
  SESSION_OPERATION(CheckProgrammingPreconditions, checkProgrammingPreconditions);
#undef SESSION_OPERATION
  Answer<m::SetDebugInstruction> setDebugInstruction(const std::string& a, uint16_t d,
                                                     const std::string& id,
                                                     const std::string& text) override {
    return answer<m::SetDebugInstruction>(inbox_, {a, d, id, text});
  }
  Answer<m::AckDomainOffTimeNotification> ackDomainOffTimeNotification(uint16_t d,
                                                                       uint32_t t) override {
    return answer<m::AckDomainOffTimeNotification>(inbox_, {d, t});
  }
  Answer<m::GetServiceDescription> getServiceDescription() override {
    return answer<m::GetServiceDescription>(inbox_, {});
  }
  Answer<m::UpdateClientDownloadFinished> updateClientDownloadFinished(
      const std::string& a, uint16_t d, const std::string& path) override {
    return answer<m::UpdateClientDownloadFinished>(inbox_, {a, d, path});
  }

 private:
  Inbox& inbox_;
};

struct OperationRow {
  std::string proves;
  std::function<std::string(Proxy&, Inbox&)> run;
};

std::vector<OperationRow> operationRows() {
  return {
      // One operation of each shape the generator emits (session only, many inputs, one way,
      // no session, no input): operations of one shape share their generated code.
      {"getDomainUpdateResult carries the session and answers its output",
       trip<m::GetDomainUpdateResult>([](Proxy& p, const m::GetDomainUpdateResult::Input& in) {
         return p.getDomainUpdateResult(in.accessID, in.domainRepairInstructionID);
       })},
      {"updateUrlResponse is delivered one way with its record",
       trip<m::UpdateUrlResponse>([](Proxy& p, const m::UpdateUrlResponse::Input& in) {
         return p.updateUrlResponse(in.updateUrlResponse);
       })},
      {"createDomainUpdateSession passes eight inputs in order",
       trip<m::CreateDomainUpdateSession>([](Proxy& p,
                                             const m::CreateDomainUpdateSession::Input& in) {
         return p.createDomainUpdateSession(
             in.accessID, in.vehicleRepairInstructionID, in.updateOrderLink, in.manifestInformation,
             in.cryptoParameters, in.downloadSource, in.diagnosticAddress, in.sessionType);
       })},
      {"ackDomainOffTimeNotification passes the widened timeout",
       trip<m::AckDomainOffTimeNotification>(
           [](Proxy& p, const m::AckDomainOffTimeNotification::Input& in) {
             return p.ackDomainOffTimeNotification(in.domainRepairInstructionID, in.timeout);
           })},
      {"getServiceDescription needs no input",
       trip<m::GetServiceDescription>(
           [](Proxy& p, const m::Empty&) { return p.getServiceDescription(); })},
  };
}

// A value of field F with `entries` filled entries, different for every seed.
template <typename F>
typename F::Value fieldValue(int seed, int entries) {
  typename F::Value value;
  for (int i = 0; i < entries; ++i)
    value.push_back(filled<typename F::Value::value_type>(seed + 9 * i));
  return value;
}

// A subscriber is greeted with the value it missed, then sees every later update in order; Get
// answers the last one. Fields share generated code; this one's entries nest a sequence.
std::string fieldTrip(Service& service, Proxy& proxy, const std::shared_ptr<Inbox>& inbox) {
  using F = f::ResolveUpdateURLRequest;
  auto& skeleton = service.resolveUpdateURLRequest;
  auto& field = proxy.resolveUpdateURLRequest;
  // The last value has no entries, which must also cross.
  const std::vector<F::Value> values = {fieldValue<F>(1, 1), fieldValue<F>(2, 2),
                                        fieldValue<F>(3, 3), fieldValue<F>(4, 0)};
  if (!skeleton.Update(values[0]))
    return "first update refused";
  field.SetReceiveHandler([inbox] { inbox->add("tick"); });
  if (!field.Subscribe(10))
    return "cannot subscribe";
  if (!inbox->waitFor("tick"))
    return "no greeting with the value before the subscription";
  for (std::size_t i = 1; i < values.size(); ++i)
    if (!skeleton.Update(values[i]))
      return "update refused";
  if (!inbox->waitFor("tick", kPatience, values.size()))
    return "updates never arrived";
  std::string want, got;
  for (const auto& v : values)
    want += " <" + dump(v) + ">";
  field.GetNewSamples(
      [&got](mw::SamplePtr<F::Value> sample) { got += " <" + dump(*sample) + ">"; });
  if (got != want)
    return "received out of order or twice:" + got;
  auto current = field.Get();
  if (current.wait_for(kPatience) != mw::FutureStatus::kReady)
    return "Get not answered";
  auto result = current.get();
  if (!result)
    return "Get failed: " + mw::toString(result.error());
  if (dump(result.value()) != dump(values.back()))
    return "Get answered " + dump(result.value()) + " instead of the last value";
  return "";
}

TEST(LumBindingsTest, ThreadedVersion12OperationShapesAndAField) {
  platform::someip::HostConfig config;
  std::string error;
  ASSERT_TRUE(platform::someip::loadHostConfig(ORVANE_SOURCE_DIR "/config/host.json",
                                               orv::hostInterfaces(), config, error))
      << error;
  // Declared first: late receive-handler calls may still reach it while the runtimes stop.
  auto inbox = std::make_shared<Inbox>();
  auto orvane = platform::someip::Runtime::start(config, "orvane", error);
  ASSERT_TRUE(orvane) << error;
  auto tester = platform::someip::Runtime::start(config, "diag-tester", error);
  ASSERT_TRUE(tester) << error;
  auto service = std::make_unique<Service>(orvane.get(), *inbox);
  ASSERT_TRUE(service->OfferService());
  auto proxy = discover(tester.get());
  ASSERT_TRUE(proxy);
  for (const auto& row : operationRows())
    EXPECT_EQ(row.run(*proxy, *inbox), "") << row.proves;
  EXPECT_EQ(fieldTrip(*service, *proxy, inbox), "");
}

// Without a binding no skeleton can be made: the typed skeleton says why once, and every later
// use answers an error instead of reaching through the missing skeleton.
TEST(LumBindingsTest, SkeletonWithoutBindingRefusesEveryUse) {
  ASSERT_EQ(mw::defaultBinding(), nullptr);
  ScopedLogCapture capture;
  Inbox inbox;
  Service orvane(nullptr, inbox);
  for (const auto& result :
       {orvane.OfferService(), orvane.domainErrorNotification.Update({{1, 2, 3}})}) {
    EXPECT_FALSE(result);
    EXPECT_EQ(result.error(), mw::ErrorCode::kNotConfigured);
  }
  EXPECT_TRUE(capture->contains(
      "cannot make the skeleton of DiagLocalUpdateManagerControl_v12 [1]: wrong state no binding"));
  EXPECT_TRUE(inbox.entries().empty());
}

}  // namespace
}  // namespace orv

// The binding's runtime over loopback sockets, two runtimes in one process (testing/fixture.h):
// - calls whose answers come late, out of order or to nobody;
// - bad frames on a service's TCP connection: logged, and skipped, answered with the right error
//   or (when the stream is lost) the connection reset; the server serves on either way;
// - the SD agent against a raw UDP peer bound as another SOME/IP stack on the host binds;
// - wire conformance judged by Wireshark's dissectors (tshark), in one exchange that also checks
//   what each step gives: find / offer, subscriptions, calls, fire and forget, getter, errors.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"
#include "minfw/testing/temp_dir.h"
#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/serializer.h"
#include "platform/someip/testing/fixture.h"
#include "platform/someip/testing/raw_client.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;
using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;

constexpr uint32_t kPeer = 0x7F000003;    // 127.0.0.3, not part of the configuration
constexpr uint32_t kServer = 0x7F000002;  // the offering runtime, "server"
constexpr uint32_t kGroup = 0xE0F4E0F5;   // 224.244.224.245, the configured SD group
const Endpoint kServerTcp{kServer, 30501};

// Keeps the promises of "slow" requests; answers them all, in reverse order of arrival, once
// `batch` of them are held. Threading: any thread (its mutex guards held_).
class SlowServer {
 public:
  explicit SlowServer(std::size_t batch) : batch_(batch) {}
  std::function<mw::Future<Slow::Output>(const Slow::Input&)> handler() {
    return [this](const Slow::Input& in) {
      mw::Promise<Slow::Output> p;
      auto f = p.get_future();
      std::lock_guard<std::mutex> lock(mutex_);
      held_.emplace_back(in, std::move(p));
      held.add("held");
      if (held_.size() >= batch_) {
        for (auto it = held_.rbegin(); it != held_.rend(); ++it)
          it->second.set_value(it->first * it->first);
        held_.clear();
      }
      return f;
    };
  }
  Inbox held;

 private:
  const std::size_t batch_;
  std::mutex mutex_;  // guards held_
  std::vector<std::pair<uint32_t, mw::Promise<Slow::Output>>> held_;
};

TEST(MethodTest, LateOutOfOrderAndForgottenAnswersReachOnlyTheirOwnCalls) {
  constexpr uint32_t kForgotten = 300;
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kPerThread = 25;
  RuntimePair pair;
  // Every answer is held back until all requests are in, then sent in reverse order.
  SlowServer slow(1 + kForgotten + kThreads * kPerThread);
  ASSERT_TRUE(pair.start());
  pair.skeleton->handle<Slow>(slow.handler());
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, 0});
  });
  ASSERT_TRUE(pair.connect());
  ScopedLogCapture logs;
  SimulatedClock clock;
  ScopedClock scoped(clock);
  // Calls whose futures are dropped at once: their answers must find nobody and harm nobody.
  for (uint32_t i = 0; i < kForgotten; ++i)
    pair.proxy->call<Slow>(100000 + i);
  auto waited = pair.proxy->call<Slow>(3u);
  ASSERT_TRUE(slow.held.waitFor("held", kPatience, 1 + kForgotten));
  // The answer does not come within the waiting time: no answer.
  auto status = std::async(std::launch::async,
                           [&] { return waited.wait_for(std::chrono::milliseconds(1000)); });
  while (status.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
    clock.advance(std::chrono::milliseconds(400));
  EXPECT_EQ(status.get(), mw::FutureStatus::kTimeout);
  // Concurrent callers; the last of their requests releases every answer.
  std::atomic<uint32_t> matched{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<std::pair<uint32_t, mw::Future<Slow::Output>>> calls;
      for (uint32_t i = 0; i < kPerThread; ++i) {
        uint32_t id = t * 1000 + i;
        calls.emplace_back(id, pair.proxy->call<Slow>(id));
      }
      for (auto& [id, future] : calls) {
        auto r = future.get();
        if (r && r.value() == id * id)
          ++matched;
        else
          ADD_FAILURE() << "call " << id << " got "
                        << (r ? std::to_string(r.value()) : mw::toString(r.error()));
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(matched.load(), kThreads * kPerThread);
  // Released answers were all sent before this one is served: once it is back, all are in, and
  // the connection still serves.
  auto after = pair.proxy->call<Echo>(Echo::Input{"still here", 0}).get();
  ASSERT_TRUE(after);
  EXPECT_EQ(after.value().text, "still here");
  // The 257th pending call swept the 256 forgotten ones before it; the rest were still pending.
  EXPECT_EQ(logs->count("matches no pending call"), 256u);
  // The late answer landed in the future nobody waited for any more.
  auto late = waited.get();
  ASSERT_TRUE(late);
  EXPECT_EQ(late.value(), 9u);
}

Header request(uint16_t method, uint16_t session) {
  return {4660, method, 0, 0x77, session, 1, 1, MessageType::kRequest, ReturnCode::kOk};
}

std::vector<uint8_t> echoRequest(uint16_t session) {
  Echo::Input in{"ok", 5};
  return encodeMessage(request(1, session), serialize(in));
}

TEST(MalformedFrameTest, BadFramesAreSkippedAnsweredOrResetWhileTheServerServesOn) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, in.n});
  });
  ASSERT_TRUE(pair.skeleton->OfferService());
  struct Row {
    const char* proves;
    std::vector<uint8_t> frame;
    std::optional<ReturnCode> error;  // the answer to the frame: an ERROR, or E_OK for a RESPONSE
    bool reset;                       // the connection is closed instead
    const char* log;                  // a text the server logs, if any
  };
  // A request for method 1 as `edit` changes it, then byte `at` (if not 0) of its image set.
  auto frame = [](void (*edit)(Header&), std::size_t at = 0, uint8_t value = 0) {
    Header h = request(1, 1);
    edit(h);
    auto bytes = encodeMessage(h, {});
    if (at)
      bytes[at] = value;
    return bytes;
  };
  auto echo = echoRequest(1);
  echo[13] = 0;  // interface version
  // The string claims 100 bytes, 3 follow.
  const std::vector<uint8_t> unreadable{0, 0, 0, 100, 0xEF, 0xBB, 0xBF};
  const Row rows[] = {
      {"a request for a service this port does not serve gets UNKNOWN_SERVICE",
       frame([](Header& h) { h.serviceId = 0x9999; }), ReturnCode::kUnknownService, false,
       "E_UNKNOWN_SERVICE"},
      {"a request for a method nobody implements gets UNKNOWN_METHOD",
       frame([](Header& h) { h.methodId = 4; }), ReturnCode::kUnknownMethod, false,
       "E_UNKNOWN_METHOD"},
      {"a request for another major version gets WRONG_INTERFACE_VERSION",
       frame([](Header& h) { h.interfaceVersion = 9; }), ReturnCode::kWrongInterfaceVersion, false,
       "E_WRONG_INTERFACE_VERSION"},
      {"a request for interface version 0 (any) is served", echo, ReturnCode::kOk, false, nullptr},
      {"a payload that cannot be read gets MALFORMED_MESSAGE",
       encodeMessage(request(1, 1), unreadable), ReturnCode::kMalformedMessage, false,
       "not readable"},
      {"a request of an unknown protocol version is answered, not served",
       frame([](Header&) {}, 12, 2), ReturnCode::kWrongProtocolVersion, false, "malformed frame"},
      {"a response sent to the server is dropped",
       frame([](Header& h) { h.messageType = MessageType::kResponse; }), std::nullopt, false,
       "unexpected RESPONSE"},
      {"a length field below 8 resets the connection", frame([](Header&) {}, 7, 4), std::nullopt,
       true, "resetting the connection"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    ScopedLogCapture logs;
    RawClient client(kServerTcp);
    ASSERT_TRUE(client.connected());
    // The bad frame and a good request in one write: framing must split them.
    std::vector<uint8_t> bytes = row.frame;
    auto good = echoRequest(2);
    bytes.insert(bytes.end(), good.begin(), good.end());
    client.send(bytes);
    if (row.reset) {
      EXPECT_FALSE(client.receive()) << "connection still open";
    } else {
      if (row.error) {
        auto answer = client.receive();
        ASSERT_TRUE(answer);
        const Header& h = answer->header;
        EXPECT_EQ(std::tie(h.messageType, h.returnCode, h.sessionId, h.clientId),
                  std::make_tuple(
                      *row.error == ReturnCode::kOk ? MessageType::kResponse : MessageType::kError,
                      *row.error, 1, 0x77));
      }
      auto answer = client.receive();
      ASSERT_TRUE(answer);
      EXPECT_EQ(std::tie(answer->header.messageType, answer->header.sessionId),
                std::make_tuple(MessageType::kResponse, 2));
    }
    EXPECT_TRUE(!row.log || logs->contains(row.log)) << "log lacks: " << row.log;
    // Whatever happened, a fresh connection is served.
    RawClient next(kServerTcp);
    ASSERT_TRUE(next.connected());
    next.send(echoRequest(3));
    auto answer = next.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.returnCode, ReturnCode::kOk);
  }
}

Header sdHeader(uint16_t session) {
  return {kSdServiceId,   kSdMethodId, 0, 0, session, 1, 1, MessageType::kNotification,
          ReturnCode::kOk};
}

// An SD participant speaking as 127.0.0.3 from a raw UDP socket bound as a common open-source
// stack binds its SD receiver: 0.0.0.0:30490 with SO_REUSEADDR, a member of the group.
class RawSdPeer {
 public:
  RawSdPeer() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    timeval limit{static_cast<time_t>(kPatience.count()), 0};
    int one = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = toSockaddr(Endpoint{INADDR_ANY, kSdPort});
    ip_mreqn group{{htonl(kGroup)}, {htonl(kPeer)}, 0};
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
             ::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == 0 &&
             ::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &group, sizeof group) == 0;
  }
  ~RawSdPeer() { ::close(fd_); }
  bool bound() const { return bound_; }
  // From 127.0.0.3, whatever the socket is bound to.
  void sendRaw(const std::vector<uint8_t>& bytes, Endpoint to = Endpoint{kServer, kSdPort}) {
    sockaddr_in dest = toSockaddr(to);
    iovec io{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr msg{&dest, sizeof dest, &io, 1, control, sizeof control, 0};
    *CMSG_FIRSTHDR(&msg) = cmsghdr{CMSG_LEN(sizeof(in_pktinfo)), IPPROTO_IP, IP_PKTINFO};
    in_pktinfo source{0, {htonl(kPeer)}, {}};
    std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &source, sizeof source);
    ASSERT_EQ(::sendmsg(fd_, &msg, 0), static_cast<ssize_t>(bytes.size()));
  }
  void send(const SdMessage& sd, Endpoint to = Endpoint{kServer, kSdPort}) {
    sendRaw(encodeMessage(sdHeader(++session_), encodeSd(sd)), to);
  }
  // The next SD message that someone else sent to `to`, with its header.
  std::optional<std::pair<Header, SdMessage>> receive(uint32_t to = kPeer) {
    std::vector<uint8_t> buffer(65536);
    for (auto end = std::chrono::steady_clock::now() + kPatience;
         std::chrono::steady_clock::now() < end;) {
      sockaddr_in from{};
      iovec io{buffer.data(), buffer.size()};
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
      msghdr msg{&from, sizeof from, &io, 1, control, sizeof control, 0};
      ssize_t n = ::recvmsg(fd_, &msg, 0);
      in_pktinfo info{};
      if (n > 0 && CMSG_FIRSTHDR(&msg))
        std::memcpy(&info, CMSG_DATA(CMSG_FIRSTHDR(&msg)), sizeof info);
      if (n <= 0 || ntohl(info.ipi_addr.s_addr) != to || ntohl(from.sin_addr.s_addr) == kPeer)
        continue;
      Message m;
      SdMessage sd;
      std::string error;
      if (parseMessage(buffer.data(), static_cast<std::size_t>(n), m).status !=
              ParseResult::Status::kOk ||
          !decodeSd(m.payload.data(), m.payload.size(), sd, error))
        return std::nullopt;
      return std::make_pair(m.header, sd);
    }
    return std::nullopt;
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
  uint16_t session_ = 0;
};

// Entry fields: type, index1, index2, numOptions1, numOptions2, service, instance, major, ttl,
// minor, counter, eventgroup.
SdMessage find(uint8_t major) {
  return {0,
          {{SdEntryType::kFindService, 0, 0, 0, 0, 4660, kAnyInstance, major, 3, kAnyMinor, 0, 0}},
          {}};
}

SdMessage subscribe(uint16_t eventgroup, uint16_t port) {
  return {0,
          {{SdEntryType::kSubscribeEventgroup, 0, 0, 1, 0, 4660, 1, 1, 3, 0, 0, eventgroup}},
          {{kSdOptionIpv4Endpoint, {kPeer, kSdProtocolTcp, port}, {}}}};
}

// The peer's offer of `instance`, its option naming TCP `port`.
SdMessage offerOf(uint16_t instance, uint16_t port) {
  SdMessage sd = subscribe(0, port);
  sd.entries[0].type = SdEntryType::kOfferService;
  sd.entries[0].instanceId = instance;
  return sd;
}

TEST(SdPeerTest, SharesThePortInEitherStartOrderAnswersFindsRefusesBadSubscriptionsAndDatagrams) {
  for (bool runtimesFirst : {true, false}) {
    SCOPED_TRACE(runtimesFirst ? "runtimes first" : "peer first");
    std::optional<RawSdPeer> peerFirst;
    if (!runtimesFirst)
      peerFirst.emplace();
    RuntimePair pair;
    ASSERT_TRUE(pair.start());
    ASSERT_TRUE(pair.skeleton->OfferService());
    RawSdPeer& peer = runtimesFirst ? peerFirst.emplace() : *peerFirst;
    ASSERT_TRUE(peer.bound()) << std::strerror(errno);
    auto cyclic = peer.receive(kGroup);  // the group's only sender yet: the server's offers
    ASSERT_TRUE(cyclic);
    EXPECT_EQ(cyclic->second.entries.at(0).type, SdEntryType::kOfferService);
    // A find (of major version 1; later any) is answered by a unicast offer naming the TCP
    // endpoint and the TTL.
    peer.send(find(1));
    auto offer = peer.receive();
    ASSERT_TRUE(offer);
    // The first message of this unicast channel.
    EXPECT_EQ(std::tie(offer->first.clientId, offer->first.sessionId), std::make_tuple(0, 1));
    EXPECT_TRUE(offer->second.flags & SdMessage::kRebootFlag);
    ASSERT_EQ(offer->second.entries.size(), 1u);
    const SdEntry& e = offer->second.entries[0];
    EXPECT_EQ(std::tie(e.type, e.ttl), std::make_tuple(SdEntryType::kOfferService, 1u));
    std::vector<SdIpv4Endpoint> endpoints;
    ASSERT_TRUE(endpointsOf(offer->second, e, endpoints));
    ASSERT_EQ(endpoints.size(), 1u);
    EXPECT_EQ(std::tie(endpoints[0].address, endpoints[0].port, endpoints[0].protocol),
              std::make_tuple(kServer, 30501, kSdProtocolTcp));
    // Subscriptions are refused (a Nack, logged) from an endpoint with no connection to the
    // service, and for an eventgroup that the service does not have.
    const std::pair<uint16_t, const char*> refusals[] = {{1, "no TCP connection"},
                                                         {77, "unknown eventgroup"}};
    uint16_t expectedSession = 2;
    for (const auto& [eventgroup, log] : refusals) {
      ScopedLogCapture logs;
      peer.send(subscribe(eventgroup, 40000));
      auto answer = peer.receive();
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->first.sessionId, expectedSession++);
      ASSERT_EQ(answer->second.entries.size(), 1u);
      const SdEntry& nack = answer->second.entries[0];
      EXPECT_EQ(std::make_tuple(nack.type, nack.ttl, nack.eventgroupId),
                std::make_tuple(SdEntryType::kSubscribeEventgroupAck, 0u, eventgroup));
      EXPECT_TRUE(logs->contains(log)) << log;
    }
    // Bad datagrams are logged and dropped; the agent still answers the next find.
    ScopedLogCapture logs;
    std::vector<uint8_t> truncated = {0xFF, 0xFF, 0x81, 0x00, 0, 0, 0, 40};
    peer.sendRaw(truncated);
    std::vector<uint8_t> badEntries = {0, 0, 0, 0, 0, 0, 0x10, 0};  // entries claim 4096 bytes
    peer.sendRaw(encodeMessage(sdHeader(50), badEntries));
    peer.send(find(kAnyMajor));
    auto again = peer.receive();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->second.entries.at(0).type, SdEntryType::kOfferService);
    EXPECT_TRUE(logs->contains("malformed SD datagram"));
    EXPECT_TRUE(logs->contains("malformed SD message"));
    // The peer's offer of instance 2 on the group reaches the runtimes.
    ASSERT_TRUE(mw::Proxy::StartFindService(pair.reports.handler(), kTestInterface,
                                            mw::InstanceSpecifier("2"), pair.client.get()));
    // Its finds heard on the group until three cyclic offers passed after the `expected`th.
    auto findsHeard = [&peer](int expected) {
      int finds = 0, offersAfter = 0;
      for (int heard = 0; offersAfter < 3 && heard < 100; ++heard) {
        auto sd = peer.receive(kGroup);
        if (!sd)
          break;
        for (const SdEntry& e : sd->second.entries) {
          finds += e.type == SdEntryType::kFindService && e.instanceId == 2;
          offersAfter += e.type == SdEntryType::kOfferService && finds >= expected;
        }
      }
      return finds;
    };
    EXPECT_EQ(findsHeard(4), 4) << "the first find and repetitionsMax (3) repetitions";
    peer.send(offerOf(3, 30602), Endpoint{kGroup, kSdPort});
    EXPECT_EQ(findsHeard(0), 0) << "another instance's offer does not start the search again";
    peer.send(offerOf(2, 30601), Endpoint{kGroup, kSdPort});
    auto found = pair.reports.until([](auto& found) { return !found.empty(); });
    ASSERT_TRUE(found);
    // Nobody listens on the port that offer names: the refused connection ends the wait.
    auto reachable = mw::Proxy::Preconstruct((*found)[0], pair.client.get());
    ASSERT_EQ(reachable.wait_for(kPatience), mw::FutureStatus::kReady);
    EXPECT_FALSE(reachable.get());
  }
}

// An offer goes out, then repetitionsMax repetitions, then only the cyclic offers: here a minute
// apart, so that whatever the machine's load the repetitions are the only offers soon after.
TEST(SdPeerTest, OfferIsRepeatedRepetitionsMaxTimes) {
  RawSdPeer peer;
  ASSERT_TRUE(peer.bound()) << std::strerror(errno);
  TempDir dir;
  std::string json = testConfigJson();
  const std::string cyclic = "\"cyclicOfferDelayMs\": 100";
  json.replace(json.find(cyclic), cyclic.size(), "\"cyclicOfferDelayMs\": 60000");
  const HostConfig config = loadTestConfig(dir, nullptr, json);
  std::string error;
  auto server = Runtime::start(config, "server", error);
  ASSERT_TRUE(server) << error;
  auto skeleton = mw::Skeleton::Create(kTestInterface, mw::InstanceSpecifier("1"), server.get());
  ASSERT_TRUE(skeleton && skeleton.value()->OfferService());
  int offers = 0;
  while (offers < 4) {
    auto sd = peer.receive(kGroup);
    if (!sd)
      break;
    offers += sd->second.entries.at(0).type == SdEntryType::kOfferService;
  }
  EXPECT_EQ(offers, 4) << "the first offer and repetitionsMax (3) repetitions";
}

// Has `skeleton` answer "emit n" by sending ticks 1 to n.
void handleEmit(mw::Skeleton& skeleton) {
  skeleton.handle<Emit>([s = &skeleton](const Emit::Input& n) {
    for (uint32_t i = 1; i <= n; ++i)
      s->send<Tick>(Tick::Sample{i, "t"});
    return mw::Future<Emit::Output>::ready(n);
  });
}

// With two clients connected, each subscriber gets the events on its own connection.
TEST(EventTest, EachOfTwoSubscribersGetsTicksOnItsOwnConnection) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  handleEmit(*pair.skeleton);
  ASSERT_TRUE(pair.connect());
  ReportQueue reports;  // outlives the runtime that reports to it
  std::string error;
  auto other = Runtime::start(pair.config, "other", error);
  ASSERT_TRUE(other) << error;
  ASSERT_TRUE(mw::Proxy::StartFindService(reports.handler(), kTestInterface,
                                          mw::InstanceSpecifier("1"), other.get()));
  std::unique_ptr<mw::Proxy> second = proxyOnceFound(*other, reports);
  ASSERT_TRUE(second);
  // The first client subscribes last, when the server holds both connections.
  auto inbox = std::make_shared<Inbox>();
  const std::pair<mw::Proxy*, std::string> subscribers[] = {{second.get(), "second"},
                                                            {pair.proxy.get(), "first"}};
  for (const auto& [proxy, name] : subscribers) {
    proxy->event<Tick>().SetReceiveHandler([inbox, name = name] { inbox->add(name); });
    ASSERT_TRUE(proxy->event<Tick>().Subscribe(10));
  }
  for (auto end = std::chrono::steady_clock::now() + kPatience;
       inbox->count("first") == 0 || inbox->count("second") == 0;) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "a subscriber gets no tick";
    ASSERT_TRUE(pair.proxy->call<Emit>(1u).get());
  }
  for (const auto& [proxy, _] : subscribers)
    proxy->event<Tick>().UnsetReceiveHandler();
}

// The output of a shell command that must succeed.
std::string run(const std::string& command, const std::string& output) {
  EXPECT_EQ(std::system((command + " >" + output).c_str()), 0) << command;
  return kel::vxp3::minfw::testing::readFile(output);
}

TEST(WireCaptureTest, RecordedExchangeAnswersAsIntendedAndDecodesWithWireshark) {
  // Declared before the runtimes, so that they outlive every call of the tap and the handlers.
  std::mutex mutex;
  std::vector<TapRecord> records;
  auto inbox = std::make_shared<Inbox>();
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  const uint32_t clientAddress = pair.client->unicast();
  pair.client->setTap([&mutex, &records, inbox, clientAddress](const TapRecord& r) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      records.push_back(r);
    }
    if (!r.tcp && r.from.address == clientAddress)
      inbox->add("sd sent");
  });
  std::atomic<uint32_t> noted{0};
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text + "!", in.n + 1});
  });
  pair.skeleton->handleFireAndForget<Note>([&](const Note::Input& in) { noted = in; });
  handleEmit(*pair.skeleton);
  pair.skeleton->field<Level>().Update(7);
  // The client's find goes out before the server offers, so that it is part of the exchange.
  ASSERT_TRUE(pair.connect([&] { ASSERT_TRUE(inbox->waitFor("sd sent")); }));
  auto& proxy = *pair.proxy;
  auto& tick = proxy.event<Tick>();
  auto& level = proxy.field<Level>();
  tick.SetReceiveHandler([inbox] { inbox->add("tick"); });
  level.SetReceiveHandler([inbox] { inbox->add("level"); });
  // The eventgroup is subscribed through the event; once ticks arrive, the field is subscribed
  // and must still get its value unasked, and its updates.
  ASSERT_TRUE(tick.Subscribe(10));
  for (auto end = std::chrono::steady_clock::now() + kPatience; inbox->count("tick") == 0;) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "no tick arrives";
    ASSERT_TRUE(proxy.call<Emit>(1u).get());
  }
  ASSERT_TRUE(level.Subscribe(2));
  ASSERT_TRUE(inbox->waitFor("level"));
  pair.skeleton->field<Level>().Update(8);
  ASSERT_TRUE(inbox->waitFor("level", kPatience, 2));
  std::vector<uint32_t> values;
  level.GetNewSamples([&](mw::SamplePtr<uint32_t> v) { values.push_back(*v); });
  EXPECT_EQ(values, (std::vector<uint32_t>{7, 8}));
  auto echo = proxy.call<Echo>(Echo::Input{"Hi", 1}).get();
  ASSERT_TRUE(echo);
  EXPECT_EQ(std::tie(echo.value().text, echo.value().n), std::make_tuple("Hi!", 2u));
  // Configured for the interface, but the server has no handler: an ERROR on the wire.
  EXPECT_EQ(proxy.call<Ghost>(Ghost::Input{}).get().error(), mw::ErrorCode::kUnknownMethod);
  // A getter without handler is answered with the last value.
  auto got = level.Get().get();
  ASSERT_TRUE(got);
  EXPECT_EQ(got.value(), 8u);
  // Requests of one connection are served in order, so the note is in before the echo returns.
  ASSERT_TRUE(proxy.fireAndForget<Note>(9u));
  ASSERT_TRUE(proxy.call<Echo>(Echo::Input{"", 0}).get());
  EXPECT_EQ(noted.load(), 9u);
  // A handler that drops its promise answers with an error instead of leaving the caller hanging.
  pair.skeleton->handle<Echo>([](const Echo::Input&) {
    mw::Promise<Echo::Output> dropped;
    return dropped.get_future();
  });
  EXPECT_EQ(proxy.call<Echo>(Echo::Input{"x", 0}).get().error(), mw::ErrorCode::kRemoteError);
  tick.UnsetReceiveHandler();
  level.UnsetReceiveHandler();
  pair.client->setTap(nullptr);
  // One UDP packet per SD datagram or TCP message, all on the SD port: the dissector tells SD
  // from other messages by their ids, and judges SOME/IP alike over either transport.
  const std::string file = pair.dir.file("exchange.pcap");
  std::size_t packets = 0;
  std::vector<int> notifications;  // session ids of the test service's events, in wire order
  {
    std::ofstream dump(file + ".txt");
    std::lock_guard<std::mutex> lock(mutex);
    for (const TapRecord& r : records) {
      if (r.bytes.empty())
        continue;  // a TCP connection was opened
      ++packets;
      if (r.bytes.size() >= 16 && r.bytes[0] == 0x12 && r.bytes[1] == 0x34 && r.bytes[14] == 0x02)
        notifications.push_back(r.bytes[10] << 8 | r.bytes[11]);
      dump << "0000" << std::hex << std::setfill('0');
      for (uint8_t byte : r.bytes)
        dump << ' ' << std::setw(2) << int{byte};
      dump << '\n';
    }
  }
  // The service's notifications count their session ids up, ticks and field updates alike.
  EXPECT_GE(notifications.size(), 3u);
  EXPECT_EQ(std::adjacent_find(notifications.begin(), notifications.end(), std::greater_equal<>()),
            notifications.end())
      << ::testing::PrintToString(notifications);
  run("text2pcap -q -u 30490,30490 " + file + ".txt " + file, file + ".log");
  const std::string tshark = "tshark -r " + file + " -d udp.port==30490,someip";
  // One line per SOME/IP message (a packet holds one): service;method;type;return code;SD entry
  // types;SD TTLs.
  const std::string fields =
      run(tshark +
              " -Y someip -T fields -E separator=';' -E occurrence=a"
              " -e someip.serviceid -e someip.methodid -e someip.messagetype"
              " -e someip.returncode -e someipsd.entry.type -e someipsd.entry.ttl"
              " 2>/dev/null",
          file + ".fields");
  const std::string sd = "0xffff;0x8100;0x02;0x00;";  // NOTIFICATION E_OK
  const std::string expected[] = {
      sd + "0x00",                 // find
      sd + "0x01",                 // offer
      sd + "0x06",                 // subscribe
      sd + "0x07",                 // subscribe ack
      "0x1234;0x0001;0x00;0x00;",  // echo REQUEST
      "0x1234;0x0001;0x80;0x00;",  // echo RESPONSE E_OK
      "0x1234;0x0001;0x81;0x01;",  // echo with a dropped answer: ERROR E_NOT_OK
      "0x1234;0x0004;0x81;0x03;",  // ghost: ERROR E_UNKNOWN_METHOD
      "0x1234;0x0005;0x01;0x00;",  // note REQUEST_NO_RETURN
      "0x1234;0x0006;0x80;0x00;",  // level getter RESPONSE
      "0x1234;0x8001;0x02;0x00;",  // tick NOTIFICATION
      "0x1234;0x8002;0x02;0x00;",  // level NOTIFICATION
  };
  for (const std::string& line : expected)
    EXPECT_NE(("\n" + fields).find("\n" + line), std::string::npos) << line << "\n" << fields;
  std::istringstream in(fields);
  for (std::string line; std::getline(in, line);)  // every offer carries the TTL of 1 s
    if (line.rfind(sd + "0x01", 0) == 0) {
      EXPECT_EQ(line.substr(line.rfind(';')).find_first_not_of(";1,"), std::string::npos) << line;
    }
  // No malformed packets and no warnings or errors of any dissector.
  std::string problems =
      run(tshark + " -Y '_ws.malformed || _ws.expert.severity >= 0x00600000' 2>/dev/null",
          file + ".problems");
  EXPECT_EQ(problems, "") << problems;
  std::string frames = run(tshark + " 2>/dev/null | wc -l", file + ".count");
  EXPECT_EQ(std::strtoul(frames.c_str(), nullptr, 10), packets);
}

}  // namespace
}  // namespace platform::someip

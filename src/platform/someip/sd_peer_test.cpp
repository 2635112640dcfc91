// The SD agent against a hand-made peer on a raw UDP socket, bound as another SOME/IP stack on
// the same host binds: answers to finds, refused subscriptions, session counting, bad datagrams,
// and both sharing SD port 30490 whichever starts first.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>

#include "minfw/testing/capture_sink.h"
#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/testing/pair.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip {
namespace {

using namespace testing;

constexpr uint32_t kPeer = 0x7F000003;    // 127.0.0.3, not part of the configuration
constexpr uint32_t kServer = 0x7F000002;  // the offering runtime
constexpr uint32_t kGroup = 0xE0F4E0F5;   // 224.244.224.245, the configured SD group

Header sdHeader(uint16_t session) {
  Header h;
  h.serviceId = kSdServiceId;
  h.methodId = kSdMethodId;
  h.sessionId = session;
  h.interfaceVersion = 1;
  h.messageType = MessageType::kNotification;
  return h;
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

SdMessage find() {
  SdMessage sd;
  SdEntry e;
  e.type = SdEntryType::kFindService;
  e.serviceId = 4660;
  e.instanceId = kAnyInstance;
  e.majorVersion = kAnyMajor;
  e.minorVersion = kAnyMinor;
  e.ttl = 3;
  sd.entries.push_back(e);
  return sd;
}

SdMessage subscribe(uint16_t eventgroup, uint16_t port) {
  SdMessage sd;
  SdEntry e;
  e.type = SdEntryType::kSubscribeEventgroup;
  e.serviceId = 4660;
  e.instanceId = 1;
  e.majorVersion = 1;
  e.ttl = 3;
  e.eventgroupId = eventgroup;
  e.numOptions1 = 1;
  sd.entries.push_back(e);
  SdOption o;
  o.endpoint = SdIpv4Endpoint{kPeer, kSdProtocolTcp, port};
  sd.options.push_back(o);
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

    // A find is answered by a unicast offer naming the TCP endpoint and the TTL.
    peer.send(find());
    auto offer = peer.receive();
    ASSERT_TRUE(offer);
    const Header& h = offer->first;
    EXPECT_EQ(h.clientId, 0);
    EXPECT_EQ(h.sessionId, 1);  // first message of this unicast channel
    EXPECT_TRUE(offer->second.flags & SdMessage::kRebootFlag);
    ASSERT_EQ(offer->second.entries.size(), 1u);
    const SdEntry& e = offer->second.entries[0];
    EXPECT_EQ(e.type, SdEntryType::kOfferService);
    EXPECT_EQ(e.ttl, 1u);
    std::vector<SdIpv4Endpoint> endpoints;
    ASSERT_TRUE(endpointsOf(offer->second, e, endpoints));
    ASSERT_EQ(endpoints.size(), 1u);
    EXPECT_EQ(endpoints[0].address, kServer);
    EXPECT_EQ(endpoints[0].port, 30501);
    EXPECT_EQ(endpoints[0].protocol, kSdProtocolTcp);

    struct Row {
      const char* proves;
      SdMessage request;
      const char* log;
    };
    const Row rows[] = {
        {"a subscription from an endpoint with no connection to the service is refused",
         subscribe(1, 40000), "no TCP connection"},
        {"a subscription of an eventgroup the service does not have is refused",
         subscribe(77, 40000), "unknown eventgroup"},
    };
    uint16_t expectedSession = 2;
    for (const Row& row : rows) {
      SCOPED_TRACE(row.proves);
      kel::vxp3::minfw::testing::ScopedLogCapture logs;
      peer.send(row.request);
      auto answer = peer.receive();
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->first.sessionId, expectedSession++);
      ASSERT_EQ(answer->second.entries.size(), 1u);
      EXPECT_EQ(answer->second.entries[0].type, SdEntryType::kSubscribeEventgroupAck);
      EXPECT_EQ(answer->second.entries[0].ttl, 0u) << "not a Nack";
      EXPECT_EQ(answer->second.entries[0].eventgroupId, row.request.entries[0].eventgroupId);
      EXPECT_TRUE(logs->contains(row.log)) << row.log;
    }

    // Bad datagrams are logged and dropped; the agent still answers the next find.
    kel::vxp3::minfw::testing::ScopedLogCapture logs;
    std::vector<uint8_t> truncated = {0xFF, 0xFF, 0x81, 0x00, 0, 0, 0, 40};
    peer.sendRaw(truncated);
    std::vector<uint8_t> badEntries = {0, 0, 0, 0, 0, 0, 0x10, 0};  // entries claim 4096 bytes
    peer.sendRaw(encodeMessage(sdHeader(50), badEntries));
    peer.send(find());
    auto again = peer.receive();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->second.entries.at(0).type, SdEntryType::kOfferService);
    EXPECT_TRUE(logs->contains("malformed SD datagram"));
    EXPECT_TRUE(logs->contains("malformed SD message"));

    // The peer's offer of instance 2 on the group reaches the runtimes.
    ASSERT_TRUE(platform::middleware::Proxy::StartFindService(
        pair.reports.handler(), kTestInterface, platform::middleware::InstanceSpecifier("2"),
        pair.client.get()));
    SdMessage offer2 = subscribe(0, 30601);  // its option: the endpoint offered
    offer2.entries[0].type = SdEntryType::kOfferService;
    offer2.entries[0].instanceId = 2;
    peer.send(offer2, Endpoint{kGroup, kSdPort});
    EXPECT_TRUE(pair.reports.until([](auto& found) { return !found.empty(); }));
  }
}

}  // namespace
}  // namespace platform::someip

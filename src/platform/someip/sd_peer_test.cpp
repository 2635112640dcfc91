// The SD agent against a hand-made peer on a raw UDP socket: answers to finds, refused
// subscriptions, session counting and bad datagrams.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>

#include "minfw/testing/capture_sink.h"
#include "platform/someip/header.h"
#include "platform/someip/sd.h"
#include "platform/someip/testing/pair.h"

namespace platform::someip {
namespace {

using namespace testing;

constexpr uint32_t kPeer = 0x7F000003;    // 127.0.0.3, not part of the configuration
constexpr uint32_t kServer = 0x7F000002;  // the offering runtime

class RawSdPeer {
 public:
  RawSdPeer() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    timeval limit{static_cast<time_t>(kPatience.count()), 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in a = toSockaddr(Endpoint{kPeer, kSdPort});
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawSdPeer() { ::close(fd_); }
  bool bound() const { return bound_; }

  void sendRaw(const std::vector<uint8_t>& bytes) {
    sockaddr_in to = toSockaddr(Endpoint{kServer, kSdPort});
    ASSERT_EQ(
        ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
        static_cast<ssize_t>(bytes.size()));
  }
  void send(const SdMessage& sd) {
    Header h;
    h.serviceId = kSdServiceId;
    h.methodId = kSdMethodId;
    h.sessionId = ++session_;
    h.interfaceVersion = 1;
    h.messageType = MessageType::kNotification;
    sendRaw(encodeMessage(h, encodeSd(sd)));
  }
  // The next SD message sent to us, with its header.
  std::optional<std::pair<Header, SdMessage>> receive() {
    std::vector<uint8_t> buffer(65536);
    ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n <= 0)
      return std::nullopt;
    Message m;
    if (parseMessage(buffer.data(), static_cast<std::size_t>(n), m).status !=
        ParseResult::Status::kOk)
      return std::nullopt;
    SdMessage sd;
    std::string error;
    if (!decodeSd(m.payload.data(), m.payload.size(), sd, error))
      return std::nullopt;
    return std::make_pair(m.header, sd);
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

TEST(SdPeerTest, AnswersFindsRefusesImpossibleSubscriptionsAndSurvivesBadDatagrams) {
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  ASSERT_TRUE(pair.skeleton->OfferService());
  RawSdPeer peer;
  ASSERT_TRUE(peer.bound());

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
      {"a subscription of an eventgroup the service does not have is refused", subscribe(77, 40000),
       "unknown eventgroup"},
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
  Header h2;
  h2.serviceId = kSdServiceId;
  h2.methodId = kSdMethodId;
  h2.sessionId = 50;
  h2.interfaceVersion = 1;
  h2.messageType = MessageType::kNotification;
  std::vector<uint8_t> badEntries = {0, 0, 0, 0, 0, 0, 0x10, 0};  // entries claim 4096 bytes
  peer.sendRaw(encodeMessage(h2, badEntries));
  peer.send(find());
  auto again = peer.receive();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->second.entries.at(0).type, SdEntryType::kOfferService);
  EXPECT_TRUE(logs->contains("malformed SD datagram"));
  EXPECT_TRUE(logs->contains("malformed SD message"));
}

}  // namespace
}  // namespace platform::someip

// Bad frames on a service's TCP connection: each is logged and skipped or answered with the
// right error, or, when the stream cannot be resynchronised, the connection is reset; the
// server keeps serving either way.
#include <gtest/gtest.h>

#include <optional>

#include "minfw/testing/capture_sink.h"
#include "platform/someip/header.h"
#include "platform/someip/serializer.h"
#include "platform/someip/testing/pair.h"
#include "platform/someip/testing/raw_client.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;

// The test server of pair.h.
struct RawClient : testing::RawClient {
  RawClient() : testing::RawClient(Endpoint{0x7F000002, 30501}, kPatience) {}
};

Header request(uint16_t method, uint16_t session) {
  Header h;
  h.serviceId = 4660;
  h.methodId = method;
  h.clientId = 0x77;
  h.sessionId = session;
  h.interfaceVersion = 1;
  h.messageType = MessageType::kRequest;
  return h;
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
    kel::vxp3::minfw::testing::ScopedLogCapture logs;
    RawClient client;
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
        EXPECT_EQ(answer->header.messageType,
                  *row.error == ReturnCode::kOk ? MessageType::kResponse : MessageType::kError);
        EXPECT_EQ(answer->header.returnCode, *row.error);
        EXPECT_EQ(answer->header.sessionId, 1);
        EXPECT_EQ(answer->header.clientId, 0x77);
      }
      auto answer = client.receive();
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->header.messageType, MessageType::kResponse);
      EXPECT_EQ(answer->header.sessionId, 2);
      Echo::Output out;
      std::string error;
      ASSERT_TRUE(deserialize(answer->payload, &error, out)) << error;
      EXPECT_EQ(out.text, "ok");
    }
    if (row.log) {
      EXPECT_TRUE(logs->contains(row.log)) << "log lacks: " << row.log;
    }
    // Whatever happened, a fresh connection is served.
    RawClient next;
    ASSERT_TRUE(next.connected());
    next.send(echoRequest(3));
    auto answer = next.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.returnCode, ReturnCode::kOk);
  }
}

}  // namespace
}  // namespace platform::someip

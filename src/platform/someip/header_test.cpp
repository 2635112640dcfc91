#include "platform/someip/header.h"

#include <gtest/gtest.h>

#include "platform/someip/test_support.h"

namespace platform::someip {
namespace {

using testing::fromHex;
using Status = ParseResult::Status;

Header sampleHeader() {
  Header h;
  h.serviceId = 0x1234;
  h.methodId = 0x0421;
  h.clientId = 0x0010;
  h.sessionId = 0x0001;
  h.interfaceVersion = 11;
  // Every field has bytes of its own, so a swapped or misplaced field shows in the image.
  h.messageType = MessageType::kError;
  h.returnCode = ReturnCode::kNotReady;
  return h;
}

bool sameHeader(const Header& a, const Header& b) {
  return a.serviceId == b.serviceId && a.methodId == b.methodId && a.length == b.length &&
         a.clientId == b.clientId && a.sessionId == b.sessionId &&
         a.protocolVersion == b.protocolVersion && a.interfaceVersion == b.interfaceVersion &&
         a.messageType == b.messageType && a.returnCode == b.returnCode;
}

TEST(Header, HandCheckedImageAndRoundTrip) {
  const auto frame = encodeMessage(sampleHeader(), {0xAA, 0xBB, 0xCC});
  EXPECT_EQ(frame, fromHex("1234 0421 0000000b 0010 0001 01 0b 81 04 | aabbcc"));

  Message m;
  const ParseResult r = parseMessage(frame.data(), frame.size(), m);
  ASSERT_EQ(r.status, Status::kOk) << r.error;
  EXPECT_EQ(r.consumed, frame.size());
  Header expected = sampleHeader();
  expected.length = 11;
  EXPECT_TRUE(sameHeader(m.header, expected));
  EXPECT_EQ(m.payload, (std::vector<uint8_t>{0xAA, 0xBB, 0xCC}));
}

TEST(Header, MessagesBackToBackParseInTurn) {
  Header second = sampleHeader();
  second.methodId = 0x8005;
  second.messageType = MessageType::kNotification;
  auto buffer = encodeMessage(sampleHeader(), {1, 2});
  const auto tail = encodeMessage(second, {3});
  buffer.insert(buffer.end(), tail.begin(), tail.end());

  Message m;
  ParseResult r = parseMessage(buffer.data(), buffer.size(), m);
  ASSERT_EQ(r.status, Status::kOk);
  EXPECT_EQ(r.consumed, 18u);
  EXPECT_EQ(m.header.methodId, 0x0421);
  EXPECT_EQ(m.payload, (std::vector<uint8_t>{1, 2}));

  r = parseMessage(buffer.data() + 18, buffer.size() - 18, m);
  ASSERT_EQ(r.status, Status::kOk);
  EXPECT_EQ(r.consumed, 17u);
  EXPECT_EQ(m.header.methodId, 0x8005);
  EXPECT_EQ(m.payload, (std::vector<uint8_t>{3}));
}

TEST(Header, StreamFedByteByByteReassembles) {
  std::vector<std::vector<uint8_t>> payloads = {{}, {1, 2, 3, 4, 5}, std::vector<uint8_t>(300, 7)};
  std::vector<uint8_t> stream;
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    Header h = sampleHeader();
    h.sessionId = static_cast<uint16_t>(i + 1);
    const auto frame = encodeMessage(h, payloads[i]);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }

  std::vector<uint8_t> pending;
  std::vector<Message> received;
  for (uint8_t byte : stream) {
    pending.push_back(byte);
    while (true) {
      Message m;
      const ParseResult r = parseMessage(pending.data(), pending.size(), m);
      ASSERT_NE(r.status, Status::kMalformed) << r.error;
      if (r.status == Status::kNeedMore)
        break;
      received.push_back(std::move(m));
      pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(r.consumed));
    }
  }
  EXPECT_TRUE(pending.empty());
  ASSERT_EQ(received.size(), payloads.size());
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    EXPECT_EQ(received[i].header.sessionId, i + 1);
    EXPECT_EQ(received[i].payload, payloads[i]);
  }
}

TEST(Header, MalformedMessageIsSkippedAndTheNextOneParses) {
  // A wrong protocol version has a usable length: skip exactly that message, keep the header for
  // an error reply, and carry on with the next one in the datagram.
  Header bad = sampleHeader();
  bad.protocolVersion = 2;
  auto buffer = encodeMessage(bad, {9, 9});
  const auto good = encodeMessage(sampleHeader(), {1});
  buffer.insert(buffer.end(), good.begin(), good.end());

  Message m;
  ParseResult r = parseMessage(buffer.data(), buffer.size(), m);
  ASSERT_EQ(r.status, Status::kMalformed);
  EXPECT_EQ(r.consumed, 18u);
  EXPECT_EQ(r.error, "protocol version 2 is not supported (expected 1)");
  EXPECT_EQ(m.header.sessionId, 1);
  r = parseMessage(buffer.data() + r.consumed, buffer.size() - r.consumed, m);
  ASSERT_EQ(r.status, Status::kOk);
  EXPECT_EQ(m.payload, (std::vector<uint8_t>{1}));
}

TEST(Header, NamesForLogLines) {
  EXPECT_EQ(toString(MessageType::kNotification), "NOTIFICATION");
  EXPECT_EQ(toString(MessageType::kError), "ERROR");
  EXPECT_EQ(toString(static_cast<MessageType>(0x40)), "0x40");
  EXPECT_EQ(toString(ReturnCode::kOk), "E_OK");
  EXPECT_EQ(toString(ReturnCode::kWrongMessageType), "E_WRONG_MESSAGE_TYPE");
  EXPECT_EQ(toString(static_cast<ReturnCode>(0x20)), "0x20");
}

}  // namespace
}  // namespace platform::someip

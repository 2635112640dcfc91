// Wire conformance judged by someone else's decoder, in one exchange between two runtimes that
// also checks what each step gives: find / offer, subscriptions (a field subscribed after its
// eventgroup still starts with its current value), request / response, fire and forget, getter,
// errors. The client's traffic is recorded to a pcap file and decoded by Wireshark's SOME/IP and
// SOME/IP-SD dissectors (tshark).
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/someip/testing/pair.h"
#include "platform/someip/testing/test_interface.h"

namespace platform::someip {
namespace {

namespace mw = platform::middleware;
using namespace testing;

std::string run(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p)
    return out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, p)) > 0)
    out.append(buffer, n);
  int status = pclose(p);
  EXPECT_EQ(status, 0) << command;
  return out;
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
  mw::Skeleton* s = pair.skeleton.get();
  pair.skeleton->handle<Emit>([s](const Emit::Input& n) {
    for (uint32_t i = 1; i <= n; ++i)
      s->send<Tick>(Tick::Sample{i, "t"});
    return mw::Future<Emit::Output>::ready(n);
  });
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
  EXPECT_EQ(echo.value().text, "Hi!");
  EXPECT_EQ(echo.value().n, 2u);
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
  {
    std::ofstream dump(file + ".txt");
    std::lock_guard<std::mutex> lock(mutex);
    for (const TapRecord& r : records) {
      if (r.bytes.empty())
        continue;  // a TCP connection was opened
      ++packets;
      dump << "0000" << std::hex << std::setfill('0');
      for (uint8_t byte : r.bytes)
        dump << ' ' << std::setw(2) << int{byte};
      dump << '\n';
    }
  }
  run("text2pcap -q -u 30490,30490 " + file + ".txt " + file);
  const std::string tshark = "tshark -r " + file + " -d udp.port==30490,someip";
  // One line per SOME/IP message (a packet holds one): service;method;type;return code;SD entry
  // types;SD TTLs.
  const std::string fields =
      run(tshark +
          " -Y someip -T fields -E separator=';' -E occurrence=a"
          " -e someip.serviceid -e someip.methodid -e someip.messagetype"
          " -e someip.returncode -e someipsd.entry.type -e someipsd.entry.ttl"
          " 2>/dev/null");
  std::set<std::string> lines;
  std::istringstream in(fields);
  for (std::string line; std::getline(in, line);)
    lines.insert(line);
  auto starting = [&lines](const std::string& prefix) {
    auto it = lines.lower_bound(prefix);
    return it != lines.end() && it->rfind(prefix, 0) == 0 ? it : lines.end();
  };
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
  for (const std::string& prefix : expected)
    EXPECT_NE(starting(prefix), lines.end()) << "not decoded: " << prefix << "\n" << fields;
  for (auto it = starting(sd + "0x01"); it != lines.end() && it->rfind(sd + "0x01", 0) == 0; ++it)
    EXPECT_EQ(it->substr(it->rfind(';')).find_first_not_of(";1,"), std::string::npos)
        << "an offer without the configured TTL of 1 s: " << *it;

  // No malformed packets and no warnings or errors of any dissector.
  std::string problems =
      run(tshark + " -Y '_ws.malformed || _ws.expert.severity >= 0x00600000' 2>/dev/null");
  EXPECT_EQ(problems, "") << problems;
  std::string frames = run(tshark + " 2>/dev/null | wc -l");
  EXPECT_EQ(std::strtoul(frames.c_str(), nullptr, 10), packets);
  if (std::getenv("ORVANE_KEEP_CAPTURE")) {
    std::string kept = "/tmp/someip-exchange.pcap";
    std::rename(file.c_str(), kept.c_str());
    std::printf("capture kept in %s\n", kept.c_str());
  }
}

}  // namespace
}  // namespace platform::someip

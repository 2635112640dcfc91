// Wire conformance judged by someone else's decoder: a real exchange between two runtimes is
// recorded to a pcap file and decoded by Wireshark's SOME/IP and SOME/IP-SD dissectors (tshark).
#include <gtest/gtest.h>
#include <stdio.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/someip/testing/pair.h"
#include "platform/someip/testing/pcap_writer.h"
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

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::stringstream in(s);
  std::string part;
  while (std::getline(in, part, sep))
    parts.push_back(part);
  return parts;
}

// Numbers as tshark prints them ("0x1234", "4660" or "1,6" for several occurrences).
std::vector<unsigned long> numbers(const std::string& field) {
  std::vector<unsigned long> v;
  for (auto& p : split(field, ','))
    if (!p.empty())
      v.push_back(std::strtoul(p.c_str(), nullptr, 0));
  return v;
}

TEST(WireCaptureTest, RecordedExchangeDecodesAsIntendedWithWireshark) {
  // Declared before the runtimes, so that they outlive every call of the tap.
  std::mutex mutex;
  std::vector<TapRecord> records;
  auto sdSent = std::make_shared<Signal>();
  RuntimePair pair;
  ASSERT_TRUE(pair.start());
  const uint32_t clientAddress = pair.client->unicast();
  pair.client->setTap([&mutex, &records, sdSent, clientAddress](const TapRecord& r) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      records.push_back(r);
    }
    if (!r.tcp && r.from.address == clientAddress)
      sdSent->bump();
  });
  pair.skeleton->handle<Echo>([](const Echo::Input& in) {
    return mw::Future<Echo::Output>::ready(Echo::Output{in.text, in.n});
  });
  mw::Skeleton* s = pair.skeleton.get();
  pair.skeleton->handle<Emit>([s](const Emit::Input& in) {
    for (uint32_t i = 1; i <= in.count; ++i)
      s->send<Tick>(Tick::Sample{i, "t"});
    return mw::Future<Emit::Output>::ready(Emit::Output{in.count});
  });
  pair.skeleton->field<Level>().Update(7);

  // Find / offer, connect, subscribe / ack (+ the field's first value), request / response,
  // notification, error.
  // The client's find goes out before the server offers, so that it is part of the exchange.
  ASSERT_TRUE(pair.connect([&] { ASSERT_TRUE(sdSent->waitFor(1)); }));
  auto levels = std::make_shared<Signal>();
  pair.proxy->field<Level>().SetReceiveHandler([levels] { levels->bump(); });
  ASSERT_TRUE(pair.proxy->event<Tick>().Subscribe(10));
  ASSERT_TRUE(pair.proxy->field<Level>().Subscribe(1));
  ASSERT_TRUE(levels->waitFor(1));
  ASSERT_TRUE(pair.proxy->call<Echo>(Echo::Input{"Hi", 1}).get());
  ASSERT_TRUE(pair.proxy->call<Emit>(Emit::Input{1}).get());
  ASSERT_EQ(pair.proxy->call<Ghost>(Ghost::Input{}).get().error(), mw::ErrorCode::kUnknownMethod);
  pair.proxy->field<Level>().UnsetReceiveHandler();
  pair.client->setTap(nullptr);

  const std::string file = pair.dir.path() + "/exchange.pcap";
  {
    PcapWriter pcap(file, {30501});
    ASSERT_TRUE(pcap.ok());
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& r : records) {
      if (r.tcp)
        pcap.tcp(r.from, r.to, r.bytes);
      else
        pcap.udp(r.from, r.to, r.bytes);
    }
  }

  const std::string tshark =
      "tshark -r " + file + " -d udp.port==30490,someip -d tcp.port==30501,someip";
  // One line per SOME/IP message: service;method;type;return code;SD entry types;SD TTLs.
  std::string fields = run(tshark +
                           " -Y someip -T fields -E separator=';' -E occurrence=a"
                           " -e someip.serviceid -e someip.methodid -e someip.messagetype"
                           " -e someip.returncode -e someipsd.entry.type -e someipsd.entry.ttl"
                           " 2>/dev/null");
  std::set<std::vector<unsigned long>> messages;  // (service, method, type, return code)
  std::set<unsigned long> entryTypes;
  std::set<unsigned long> offerTtls;
  for (auto& line : split(fields, '\n')) {
    auto f = split(line, ';');
    f.resize(6);
    auto service = numbers(f[0]), method = numbers(f[1]), type = numbers(f[2]), rc = numbers(f[3]),
         entries = numbers(f[4]), ttls = numbers(f[5]);
    for (std::size_t i = 0;
         i < service.size() && i < method.size() && i < type.size() && i < rc.size(); ++i)
      messages.insert({service[i], method[i], type[i], rc[i]});
    for (std::size_t i = 0; i < entries.size(); ++i) {
      entryTypes.insert(entries[i]);
      if (entries[i] == 0x01 && i < ttls.size())
        offerTtls.insert(ttls[i]);
    }
  }
  struct Expected {
    const char* what;
    std::vector<unsigned long> message;
  };
  const Expected expected[] = {
      {"SD message: 0xFFFF/0x8100 NOTIFICATION E_OK", {0xFFFF, 0x8100, 0x02, 0x00}},
      {"echo REQUEST", {0x1234, 0x0001, 0x00, 0x00}},
      {"echo RESPONSE E_OK", {0x1234, 0x0001, 0x80, 0x00}},
      {"tick NOTIFICATION", {0x1234, 0x8001, 0x02, 0x00}},
      {"level field NOTIFICATION", {0x1234, 0x8002, 0x02, 0x00}},
      {"ghost ERROR E_UNKNOWN_METHOD", {0x1234, 0x0004, 0x81, 0x03}},
  };
  for (const Expected& e : expected)
    EXPECT_TRUE(messages.count(e.message)) << "not decoded: " << e.what << "\n" << fields;
  for (unsigned long type : {0x00ul, 0x01ul, 0x06ul, 0x07ul})
    EXPECT_TRUE(entryTypes.count(type)) << "SD entry type " << type << " not decoded\n" << fields;
  EXPECT_EQ(offerTtls, std::set<unsigned long>{1}) << fields;

  // No malformed packets and no warnings or errors of any dissector.
  std::string problems =
      run(tshark + " -Y '_ws.malformed || _ws.expert.severity >= 0x00600000' 2>/dev/null");
  EXPECT_EQ(problems, "") << problems;
  std::string frames = run(tshark + " 2>/dev/null | wc -l");
  EXPECT_GE(std::strtoul(frames.c_str(), nullptr, 10), records.size());
  if (std::getenv("ORVANE_KEEP_CAPTURE")) {
    std::string kept = "/tmp/someip-exchange.pcap";
    std::rename(file.c_str(), kept.c_str());
    std::printf("capture kept in %s\n", kept.c_str());
  }
}

}  // namespace
}  // namespace platform::someip

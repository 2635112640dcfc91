#pragma once
// PcapWriter: writes recorded SOME/IP traffic as a classic pcap file (LINKTYPE_RAW: IPv4
// packets), so that Wireshark's own dissectors can judge our wire format. UDP datagrams become
// one IPv4/UDP packet each; TCP messages become one segment each, on a synthesised connection
// (handshake, consistent sequence and acknowledgement numbers) per pair of endpoints.
//
// Threading: owned by one thread.

#include <cstdint>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/someip/connection.h"

namespace platform::someip::testing {

class PcapWriter {
 public:
  // `serverPorts`: TCP ports that accept connections (the other side opened the connection).
  PcapWriter(const std::string& path, std::set<uint16_t> serverPorts);
  bool ok() const { return static_cast<bool>(out_); }

  void udp(const Endpoint& from, const Endpoint& to, const std::vector<uint8_t>& payload);
  // An empty payload only opens the connection (if it is new).
  void tcp(const Endpoint& from, const Endpoint& to, const std::vector<uint8_t>& payload);

 private:
  enum : uint8_t { kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10 };
  void segment(const Endpoint& from, const Endpoint& to, uint8_t flags,
               const std::vector<uint8_t>& payload);
  void packet(const Endpoint& from, const Endpoint& to, uint8_t protocol,
              const std::vector<uint8_t>& l4);

  std::ofstream out_;
  std::set<uint16_t> serverPorts_;
  std::map<std::pair<Endpoint, Endpoint>, uint32_t> nextSeq_;  // by (from, to)
  uint32_t micros_ = 0;
  uint16_t ipId_ = 1;
};

}  // namespace platform::someip::testing

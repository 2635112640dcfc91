#include "platform/someip/testing/pcap_writer.h"

namespace platform::someip::testing {

namespace {

void put16(std::vector<uint8_t>& b, uint16_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}
void put32(std::vector<uint8_t>& b, uint32_t v) {
  put16(b, static_cast<uint16_t>(v >> 16));
  put16(b, static_cast<uint16_t>(v));
}
// pcap headers are in the writer's byte order (little-endian here, as the magic tells).
void le32(std::ofstream& out, uint32_t v) {
  char b[4] = {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
               static_cast<char>(v >> 24)};
  out.write(b, 4);
}
void le16(std::ofstream& out, uint16_t v) {
  char b[2] = {static_cast<char>(v), static_cast<char>(v >> 8)};
  out.write(b, 2);
}

uint32_t sum(const std::vector<uint8_t>& b, uint32_t acc = 0) {
  for (std::size_t i = 0; i + 1 < b.size(); i += 2)
    acc += static_cast<uint32_t>(b[i] << 8 | b[i + 1]);
  if (b.size() % 2)
    acc += static_cast<uint32_t>(b.back() << 8);
  return acc;
}
uint16_t fold(uint32_t acc) {
  while (acc >> 16)
    acc = (acc & 0xFFFF) + (acc >> 16);
  return static_cast<uint16_t>(~acc);
}

}  // namespace

PcapWriter::PcapWriter(const std::string& path, std::set<uint16_t> serverPorts)
    : out_(path, std::ios::binary), serverPorts_(std::move(serverPorts)) {
  le32(out_, 0xa1b2c3d4);  // microsecond time stamps
  le16(out_, 2);
  le16(out_, 4);
  le32(out_, 0);  // UTC
  le32(out_, 0);
  le32(out_, 65535);
  le32(out_, 101);  // LINKTYPE_RAW
}

void PcapWriter::packet(const Endpoint& from, const Endpoint& to, uint8_t protocol,
                        const std::vector<uint8_t>& l4) {
  std::vector<uint8_t> ip;
  ip.push_back(0x45);
  ip.push_back(0);
  put16(ip, static_cast<uint16_t>(20 + l4.size()));
  put16(ip, ipId_++);
  put16(ip, 0x4000);  // don't fragment
  ip.push_back(64);
  ip.push_back(protocol);
  put16(ip, 0);
  put32(ip, from.address);
  put32(ip, to.address);
  uint16_t check = fold(sum(ip));
  ip[10] = static_cast<uint8_t>(check >> 8);
  ip[11] = static_cast<uint8_t>(check);
  ip.insert(ip.end(), l4.begin(), l4.end());

  micros_ += 1000;
  le32(out_, 1700000000 + micros_ / 1000000);
  le32(out_, micros_ % 1000000);
  le32(out_, static_cast<uint32_t>(ip.size()));
  le32(out_, static_cast<uint32_t>(ip.size()));
  out_.write(reinterpret_cast<const char*>(ip.data()), static_cast<std::streamsize>(ip.size()));
}

void PcapWriter::udp(const Endpoint& from, const Endpoint& to,
                     const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> u;
  put16(u, from.port);
  put16(u, to.port);
  put16(u, static_cast<uint16_t>(8 + payload.size()));
  put16(u, 0);  // no checksum (allowed for IPv4)
  u.insert(u.end(), payload.begin(), payload.end());
  packet(from, to, 17, u);
}

void PcapWriter::segment(const Endpoint& from, const Endpoint& to, uint8_t flags,
                         const std::vector<uint8_t>& payload) {
  uint32_t& seq = nextSeq_[{from, to}];
  const uint32_t ack = nextSeq_[{to, from}];
  std::vector<uint8_t> t;
  put16(t, from.port);
  put16(t, to.port);
  put32(t, seq);
  put32(t, (flags & kAck) ? ack : 0);
  t.push_back(5 << 4);
  t.push_back(flags);
  put16(t, 65535);
  put16(t, 0);
  put16(t, 0);
  t.insert(t.end(), payload.begin(), payload.end());
  std::vector<uint8_t> pseudo;
  put32(pseudo, from.address);
  put32(pseudo, to.address);
  put16(pseudo, 6);
  put16(pseudo, static_cast<uint16_t>(t.size()));
  uint16_t check = fold(sum(t, sum(pseudo)));
  t[16] = static_cast<uint8_t>(check >> 8);
  t[17] = static_cast<uint8_t>(check);
  seq += static_cast<uint32_t>(payload.size()) + ((flags & (kSyn | kFin)) ? 1 : 0);
  packet(from, to, 6, t);
}

void PcapWriter::tcp(const Endpoint& from, const Endpoint& to,
                     const std::vector<uint8_t>& payload) {
  const bool fromServer = serverPorts_.count(from.port) && !serverPorts_.count(to.port);
  const Endpoint& client = fromServer ? to : from;
  const Endpoint& server = fromServer ? from : to;
  if (!nextSeq_.count({client, server})) {
    nextSeq_[{client, server}] = 1000;
    nextSeq_[{server, client}] = 500000;
    segment(client, server, kSyn, {});
    segment(server, client, kSyn | kAck, {});
    segment(client, server, kAck, {});
  }
  if (!payload.empty())
    segment(from, to, kPsh | kAck, payload);
}

}  // namespace platform::someip::testing

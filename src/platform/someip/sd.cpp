#include "platform/someip/sd.h"

#include "minfw/str.h"
#include "platform/someip/endian.h"

namespace platform::someip {

using kel::vxp3::minfw::cat;

namespace {

constexpr std::size_t kEntrySize = 16;
constexpr std::size_t kOptionHeader = 3;  // length (2) + type (1); the length counts from there
constexpr uint16_t kIpv4EndpointLength = 9;

bool runFits(std::size_t index, std::size_t count, std::size_t options) {
  return count == 0 || index + count <= options;
}

void encodeEntry(const SdEntry& e, uint8_t* p) {
  p[0] = static_cast<uint8_t>(e.type);
  p[1] = e.index1;
  p[2] = e.index2;
  p[3] = static_cast<uint8_t>(((e.numOptions1 & 0x0F) << 4) | (e.numOptions2 & 0x0F));
  be::store16(p + 4, e.serviceId);
  be::store16(p + 6, e.instanceId);
  p[8] = e.majorVersion;
  be::store24(p + 9, e.ttl & 0xFFFFFF);
  if (e.isServiceEntry()) {
    be::store32(p + 12, e.minorVersion);
  } else {
    p[12] = 0;
    p[13] = e.counter & 0x0F;
    be::store16(p + 14, e.eventgroupId);
  }
}

SdEntry decodeEntry(const uint8_t* p) {
  SdEntry e;
  e.type = static_cast<SdEntryType>(p[0]);
  e.index1 = p[1];
  e.index2 = p[2];
  e.numOptions1 = p[3] >> 4;
  e.numOptions2 = p[3] & 0x0F;
  e.serviceId = be::load16(p + 4);
  e.instanceId = be::load16(p + 6);
  e.majorVersion = p[8];
  e.ttl = be::load24(p + 9);
  if (e.isServiceEntry()) {
    e.minorVersion = be::load32(p + 12);
  } else {
    e.counter = p[13] & 0x0F;
    e.eventgroupId = be::load16(p + 14);
  }
  return e;
}

}  // namespace

std::vector<uint8_t> encodeSd(const SdMessage& message) {
  std::vector<uint8_t> out(8 + kEntrySize * message.entries.size());
  out[0] = message.flags;
  be::store32(out.data() + 4, static_cast<uint32_t>(kEntrySize * message.entries.size()));
  for (std::size_t i = 0; i < message.entries.size(); ++i)
    encodeEntry(message.entries[i], out.data() + 8 + i * kEntrySize);

  const std::size_t optionsLengthAt = out.size();
  out.resize(out.size() + 4);
  for (const SdOption& o : message.options) {
    const std::size_t at = out.size();
    if (o.type == kSdOptionIpv4Endpoint) {
      out.resize(at + kOptionHeader + kIpv4EndpointLength);
      uint8_t* p = out.data() + at;
      be::store16(p, kIpv4EndpointLength);
      p[2] = o.type;
      p[3] = 0;
      be::store32(p + 4, o.endpoint.address);
      p[8] = 0;
      p[9] = o.endpoint.protocol;
      be::store16(p + 10, o.endpoint.port);
    } else {
      out.resize(at + kOptionHeader + 1);
      be::store16(out.data() + at, static_cast<uint16_t>(1 + o.raw.size()));
      out[at + 2] = o.type;
      out[at + 3] = 0;
      out.insert(out.end(), o.raw.begin(), o.raw.end());
    }
  }
  be::store32(out.data() + optionsLengthAt,
              static_cast<uint32_t>(out.size() - optionsLengthAt - 4));
  return out;
}

bool decodeSd(const uint8_t* data, std::size_t size, SdMessage& out, std::string& error) {
  out = SdMessage{};
  if (data == nullptr)
    size = 0;
  if (size < 8) {
    error = cat("SD payload of ", size, " bytes is shorter than flags and entries length (8)");
    return false;
  }
  out.flags = data[0];
  const uint32_t entriesLength = be::load32(data + 4);
  std::size_t pos = 8;
  if (entriesLength > size - pos) {
    error =
        cat("SD entries length ", entriesLength, " exceeds the ", size - pos, " bytes that remain");
    return false;
  }
  if (entriesLength % kEntrySize != 0) {
    error = cat("SD entries length ", entriesLength, " is not a multiple of ", kEntrySize);
    return false;
  }
  out.entries.reserve(entriesLength / kEntrySize);
  for (std::size_t i = 0; i < entriesLength / kEntrySize; ++i)
    out.entries.push_back(decodeEntry(data + pos + i * kEntrySize));
  pos += entriesLength;

  if (size - pos < 4) {
    error = cat("SD payload ends at offset ", pos, " without the options length");
    return false;
  }
  const uint32_t optionsLength = be::load32(data + pos);
  pos += 4;
  if (optionsLength > size - pos) {
    error =
        cat("SD options length ", optionsLength, " exceeds the ", size - pos, " bytes that remain");
    return false;
  }
  const std::size_t end = pos + optionsLength;
  while (pos < end) {
    if (end - pos < kOptionHeader + 1) {
      error = cat("SD option at offset ", pos, " is truncated: ", end - pos,
                  " bytes left in the options array");
      return false;
    }
    const uint16_t length = be::load16(data + pos);
    const uint8_t type = data[pos + 2];
    if (length < 1) {
      error = cat("SD option at offset ", pos, " has length 0 (at least the reserved byte)");
      return false;
    }
    if (length > end - pos - kOptionHeader) {
      error = cat("SD option at offset ", pos, " of length ", length, " exceeds the ",
                  end - pos - kOptionHeader, " bytes left in the options array");
      return false;
    }
    SdOption option;
    option.type = type;
    const uint8_t* body = data + pos + kOptionHeader + 1;  // past the reserved byte
    if (type == kSdOptionIpv4Endpoint) {
      if (length != kIpv4EndpointLength) {
        error =
            cat("SD IPv4 endpoint option at offset ", pos, " has length ", length, " (expected 9)");
        return false;
      }
      option.endpoint.address = be::load32(body);
      option.endpoint.protocol = body[5];
      option.endpoint.port = be::load16(body + 6);
    } else {
      option.raw.assign(body, body + length - 1);
    }
    out.options.push_back(std::move(option));
    pos += kOptionHeader + length;
  }

  for (std::size_t i = 0; i < out.entries.size(); ++i) {
    const SdEntry& e = out.entries[i];
    if (!runFits(e.index1, e.numOptions1, out.options.size()) ||
        !runFits(e.index2, e.numOptions2, out.options.size())) {
      error = cat("SD entry ", i, " references options ", e.index1, "+", e.numOptions1, " and ",
                  e.index2, "+", e.numOptions2, " but only ", out.options.size(), " exist");
      return false;
    }
  }
  return true;
}

bool endpointsOf(const SdMessage& message, const SdEntry& entry, std::vector<SdIpv4Endpoint>& out) {
  out.clear();
  const std::size_t index1 = entry.index1, count1 = entry.numOptions1 & 0x0F;
  const std::size_t index2 = entry.index2, count2 = entry.numOptions2 & 0x0F;
  const std::size_t n = message.options.size();
  if (!runFits(index1, count1, n) || !runFits(index2, count2, n))
    return false;
  auto collect = [&](std::size_t index, std::size_t count) {
    for (std::size_t i = index; i < index + count; ++i) {
      if (message.options[i].type == kSdOptionIpv4Endpoint)
        out.push_back(message.options[i].endpoint);
    }
  };
  collect(index1, count1);
  collect(index2, count2);
  return true;
}

}  // namespace platform::someip

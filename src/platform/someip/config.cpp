#include "platform/someip/config.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>

#include "minfw/json.h"
#include "minfw/str.h"

#ifndef ORVANE_DEFAULT_HOST_CONFIG
#define ORVANE_DEFAULT_HOST_CONFIG "config/host.json"
#endif

namespace platform::someip {

using kel::vxp3::minfw::cat;
using kel::vxp3::minfw::json::JSON;

namespace {

constexpr int64_t kMaxDelayMs = 3600 * 1000;

// A strict syntax check ahead of the lenient document parser, which would turn a typo into a
// silently truncated document and so into a misleading "missing" error. Reports line and column
// of the first fault, and duplicate keys (the document keeps only one of them).
class SyntaxCheck {
 public:
  explicit SyntaxCheck(const std::string& text) : s_(text) {}

  bool run(std::string& error) {
    skipSpace();
    if (value(0)) {
      skipSpace();
      if (pos_ < s_.size())
        fail("unexpected text after the document");
    }
    if (error_.empty())
      return true;
    error = error_;
    return false;
  }

 private:
  static constexpr int kMaxDepth = 64;

  bool fail(const std::string& what) {
    if (!error_.empty())
      return false;
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i < pos_ && i < s_.size(); ++i) {
      if (s_[i] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    error_ = cat("line ", line, " column ", column, ": ", what);
    return false;
  }
  char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
  void skipSpace() {
    while (pos_ < s_.size() &&
           (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r'))
      ++pos_;
  }
  bool literal(const char* word) {
    const std::string w(word);
    if (s_.compare(pos_, w.size(), w) != 0)
      return fail("invalid literal");
    pos_ += w.size();
    return true;
  }
  bool digits() {
    if (!std::isdigit(static_cast<unsigned char>(peek())))
      return fail("expected a digit");
    while (std::isdigit(static_cast<unsigned char>(peek())))
      ++pos_;
    return true;
  }
  bool number() {
    if (peek() == '-')
      ++pos_;
    if (peek() == '0') {
      ++pos_;
    } else if (!digits()) {
      return false;
    }
    if (peek() == '.') {
      ++pos_;
      if (!digits())
        return false;
    }
    if (peek() == 'e' || peek() == 'E') {
      ++pos_;
      if (peek() == '+' || peek() == '-')
        ++pos_;
      if (!digits())
        return false;
    }
    return true;
  }
  bool string(std::string* raw) {
    const std::size_t start = ++pos_;  // past the opening quote
    while (true) {
      if (pos_ >= s_.size())
        return fail("unterminated string");
      const auto c = static_cast<unsigned char>(s_[pos_]);
      if (c == '"')
        break;
      if (c < 0x20)
        return fail("control character in a string");
      if (c == '\\') {
        ++pos_;
        const char e = peek();
        if (e == 'u') {
          for (int i = 0; i < 4; ++i) {
            ++pos_;
            if (!std::isxdigit(static_cast<unsigned char>(peek())))
              return fail("expected four hex digits after \\u");
          }
        } else if (std::string("\"\\/bfnrt").find(e) == std::string::npos || e == '\0') {
          return fail("invalid escape in a string");
        }
      }
      ++pos_;
    }
    if (raw)
      *raw = s_.substr(start, pos_ - start);
    ++pos_;
    return true;
  }
  bool value(int depth) {
    if (depth > kMaxDepth)
      return fail(cat("nested deeper than ", kMaxDepth));
    switch (peek()) {
      case '{':
        return object(depth);
      case '[':
        return array(depth);
      case '"':
        return string(nullptr);
      case 't':
        return literal("true");
      case 'f':
        return literal("false");
      case 'n':
        return literal("null");
      default:
        if (peek() == '-' || std::isdigit(static_cast<unsigned char>(peek())))
          return number();
        return fail(pos_ < s_.size() ? "expected a value" : "unexpected end of file");
    }
  }
  bool array(int depth) {
    ++pos_;
    skipSpace();
    if (peek() == ']') {
      ++pos_;
      return true;
    }
    while (true) {
      skipSpace();
      if (!value(depth + 1))
        return false;
      skipSpace();
      if (peek() == ']') {
        ++pos_;
        return true;
      }
      if (peek() != ',')
        return fail("expected ',' or ']'");
      ++pos_;
    }
  }
  bool object(int depth) {
    ++pos_;
    skipSpace();
    if (peek() == '}') {
      ++pos_;
      return true;
    }
    std::set<std::string> keys;
    while (true) {
      skipSpace();
      if (peek() != '"')
        return fail("expected a key in double quotes");
      const std::size_t keyAt = pos_;
      std::string key;
      if (!string(&key))
        return false;
      if (!keys.insert(key).second) {
        pos_ = keyAt;
        return fail(cat("duplicate key \"", key, "\""));
      }
      skipSpace();
      if (peek() != ':')
        return fail("expected ':'");
      ++pos_;
      skipSpace();
      if (!value(depth + 1))
        return false;
      skipSpace();
      if (peek() == '}') {
        ++pos_;
        return true;
      }
      if (peek() != ',')
        return fail("expected ',' or '}'");
      ++pos_;
    }
  }

  const std::string& s_;
  std::size_t pos_ = 0;
  std::string error_;
};

std::string join(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

std::string ipv4Text(uint32_t a) {
  return cat(a >> 24, ".", (a >> 16) & 0xFF, ".", (a >> 8) & 0xFF, ".", a & 0xFF);
}

// Validation with the first error kept; every check names the key path it looked at.
class Loader {
 public:
  explicit Loader(std::string file) : file_(std::move(file)) {}

  bool fail(const std::string& path, const std::string& what) {
    if (error_.empty())
      error_ = cat(file_, ": ", path, ": ", what);
    return false;
  }
  const std::string& error() const { return error_; }

  bool isObject(const JSON& v, const std::string& path) {
    return v.JSONType() == JSON::Class::Object || fail(path, "expected an object");
  }

  // Rejects keys outside `known`, so that a misspelt optional key does not go unnoticed.
  bool onlyKeys(const JSON& v, const std::string& path, std::initializer_list<const char*> known) {
    for (const auto& [key, member] : v.ObjectRange()) {
      bool found = false;
      for (const char* k : known)
        found = found || key == k;
      if (!found)
        return fail(join(path, key), "unknown key");
    }
    return true;
  }

  const JSON* member(const JSON& v, const std::string& path, const char* key) {
    const JSON* m = v.find(key);
    if (m == nullptr)
      fail(join(path, key), "missing");
    return m;
  }

  template <typename T>
  bool integer(const JSON& v, const std::string& path, int64_t min, int64_t max, T& out) {
    bool ok = false;
    const int64_t i = v.ToInt(ok);
    if (!ok || i < min || i > max)
      return fail(path, cat("expected an integer ", min, "..", max));
    out = static_cast<T>(i);
    return true;
  }

  template <typename T>
  bool integerMember(const JSON& v, const std::string& path, const char* key, int64_t min,
                     int64_t max, T& out) {
    const JSON* m = member(v, path, key);
    return m != nullptr && integer(*m, join(path, key), min, max, out);
  }

  bool addressMember(const JSON& v, const std::string& path, const char* key, uint32_t net,
                     int prefix, uint32_t& out) {
    const JSON* m = member(v, path, key);
    if (m == nullptr)
      return false;
    const uint32_t mask = prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix);
    bool isText = false;
    const std::string text = m->ToString(isText);
    uint32_t address = 0;
    if (!isText || !parseIpv4(text, address) || (address & mask) != net)
      return fail(join(path, key), cat("expected an IPv4 address in ", ipv4Text(net), "/", prefix));
    out = address;
    return true;
  }

  bool sd(const JSON& v, SdConfig& out) {
    const std::string p = "sd";
    if (!isObject(v, p) ||
        !onlyKeys(v, p,
                  {"multicast", "port", "initialDelayMinMs", "initialDelayMaxMs",
                   "repetitionBaseDelayMs", "repetitionsMax", "cyclicOfferDelayMs", "ttlSeconds"}))
      return false;
    if (!addressMember(v, p, "multicast", 0xE0000000, 4, out.multicast) ||
        !integerMember(v, p, "port", 1, 65535, out.port) ||
        !integerMember(v, p, "initialDelayMinMs", 0, kMaxDelayMs, out.initialDelayMinMs) ||
        !integerMember(v, p, "initialDelayMaxMs", 0, kMaxDelayMs, out.initialDelayMaxMs) ||
        !integerMember(v, p, "repetitionBaseDelayMs", 1, kMaxDelayMs, out.repetitionBaseDelayMs) ||
        !integerMember(v, p, "repetitionsMax", 0, 16, out.repetitionsMax) ||
        !integerMember(v, p, "cyclicOfferDelayMs", 1, kMaxDelayMs, out.cyclicOfferDelayMs) ||
        !integerMember(v, p, "ttlSeconds", 1, 0xFFFFFF, out.ttlSeconds))
      return false;
    if (out.initialDelayMinMs > out.initialDelayMaxMs)
      return fail("sd.initialDelayMinMs", "must not exceed sd.initialDelayMaxMs");
    return true;
  }

  bool processes(const JSON& v, std::map<std::string, uint32_t>& out) {
    const std::string p = "processes";
    if (!isObject(v, p))
      return false;
    std::map<uint32_t, std::string> byAddress;
    for (const auto& [name, process] : v.ObjectRange()) {
      const std::string path = join(p, name);
      uint32_t address = 0;
      if (!isObject(process, path) || !onlyKeys(process, path, {"unicast"}) ||
          !addressMember(process, path, "unicast", 0x7F000000, 8, address))
        return false;
      const auto [it, fresh] = byAddress.emplace(address, path);
      if (!fresh)
        return fail(join(path, "unicast"),
                    cat(ipv4Text(address), " is already the address of ", it->second));
      out[name] = address;
    }
    return true;
  }

  // The deployment of one interface, joined with its description.
  bool interface(const JSON& v, const std::string& p, const std::map<std::string, uint32_t>& known,
                 const middleware::InterfaceIds& ids, InterfaceConfig& out) {
    if (!isObject(v, p) || !onlyKeys(v, p, {"instanceId", "server", "tcpPort"}))
      return false;
    if (!integerMember(v, p, "instanceId", 1, 0xFFFE, out.instanceId) ||
        !integerMember(v, p, "tcpPort", 1, 65535, out.tcpPort))
      return false;
    const JSON* server = member(v, p, "server");
    if (server == nullptr)
      return false;
    bool isText = false;
    out.server = server->ToString(isText);
    if (!isText || known.count(out.server) == 0)
      return fail(join(p, "server"), "expected the name of a process in processes");
    out.serviceId = ids.serviceId;
    out.majorVersion = ids.majorVersion;
    out.minorVersion = ids.minorVersion;
    for (const auto& m : ids.methods)
      out.methods[m.name] = m.id;
    for (const auto& e : ids.events)
      out.events[e.name] = e;
    for (const auto& f : ids.fields)
      out.fields[f.name] = f;
    return true;
  }

  bool document(const JSON& root, const std::vector<middleware::InterfaceIds>& descriptions,
                HostConfig& out) {
    if (root.JSONType() != JSON::Class::Object)
      return fail("(document)", "expected an object");
    if (!onlyKeys(root, "", {"sd", "processes", "interfaces"}))
      return false;
    const JSON* sdValue = member(root, "", "sd");
    const JSON* processValue = member(root, "", "processes");
    const JSON* interfaceValue = member(root, "", "interfaces");
    if (sdValue == nullptr || processValue == nullptr || interfaceValue == nullptr)
      return false;
    if (!sd(*sdValue, out.sd) || !processes(*processValue, out.processes) ||
        !isObject(*interfaceValue, "interfaces"))
      return false;
    std::map<uint32_t, std::string> services;  // service << 16 | instance -> path
    for (const auto& [name, value] : interfaceValue->ObjectRange()) {
      const std::string path = join("interfaces", name);
      const middleware::InterfaceIds* ids = nullptr;
      std::string names;
      for (const auto& d : descriptions) {
        if (d.name == name)
          ids = &d;
        names += names.empty() ? d.name : ", " + d.name;
      }
      if (ids == nullptr)
        return fail(path, cat("no interface of that name is described (known: ",
                              names.empty() ? "none" : names, ")"));
      InterfaceConfig itf;
      itf.name = name;
      if (!interface(value, path, out.processes, *ids, itf))
        return false;
      const auto [it, fresh] =
          services.emplace((uint32_t{itf.serviceId} << 16) | itf.instanceId, path);
      if (!fresh)
        return fail(join(path, "instanceId"),
                    cat("service ", itf.serviceId, " instance ", itf.instanceId,
                        " is already used by ", it->second));
      out.interfaces[name] = std::move(itf);
    }
    return true;
  }

 private:
  std::string file_;
  std::string error_;
};

}  // namespace

const InterfaceConfig* HostConfig::findInterface(const std::string& name) const {
  const auto it = interfaces.find(name);
  return it == interfaces.end() ? nullptr : &it->second;
}

bool parseIpv4(const std::string& text, uint32_t& out) {
  uint32_t address = 0;
  std::size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.')
        return false;
      ++pos;
    }
    const std::size_t start = pos;
    uint32_t octet = 0;
    while (pos < text.size() && pos - start < 3 &&
           std::isdigit(static_cast<unsigned char>(text[pos])))
      octet = octet * 10 + static_cast<uint32_t>(text[pos++] - '0');
    // No empty parts, no leading zeros (which some parsers read as octal), no values above 255.
    if (pos == start || octet > 255 || (pos - start > 1 && text[start] == '0'))
      return false;
    address = (address << 8) | octet;
  }
  if (pos != text.size())
    return false;
  out = address;
  return true;
}

bool loadHostConfig(const std::string& path, const std::vector<middleware::InterfaceIds>& known,
                    HostConfig& out, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = cat(path, ": cannot open the file");
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    error = cat(path, ": cannot read the file");
    return false;
  }
  const std::string document = text.str();

  std::string syntax;
  if (!SyntaxCheck(document).run(syntax)) {
    error = cat(path, ": ", syntax);
    return false;
  }
  Loader loader(path);
  HostConfig config;
  if (!loader.document(JSON::Load(document), known, config)) {
    error = loader.error();
    return false;
  }
  out = std::move(config);
  return true;
}

std::string hostConfigPath() {
  const char* env = std::getenv("ORVANE_MIDDLEWARE_CONFIG");
  if (env != nullptr && *env != '\0')
    return env;
  return ORVANE_DEFAULT_HOST_CONFIG;
}

}  // namespace platform::someip

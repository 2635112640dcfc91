#include "logic/http.h"

#include <httplib.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "minfw/clock.h"
#include "minfw/log.h"

namespace orv {

namespace {

constexpr const char* kTag = "GLOBAL";

// 0: the library's default.
std::atomic<int64_t> g_connectMs{0};
std::atomic<int64_t> g_readMs{0};

void applyTimeouts(httplib::Client& client) {
  const int64_t connectMs = g_connectMs.load();
  const int64_t readMs = g_readMs.load();
  if (connectMs > 0) {
    client.set_connection_timeout(std::chrono::milliseconds(connectMs));
  }
  if (readMs > 0) {
    client.set_read_timeout(std::chrono::milliseconds(readMs));
    client.set_write_timeout(std::chrono::milliseconds(readMs));
  }
}

// Splits `url`, logs its parts and sends one request; false (logged) when the URL is unusable,
// otherwise the reply, which may hold no response, in `out`.
template <typename Request>
bool request(const std::string& url, Request&& send, httplib::Result* out) {
  if (url.empty()) {
    MLOG_ERROR(kTag, "Empty remoteURL!");
    return false;
  }
  Http::Url parts;
  if (!Http::split(url, parts)) {
    MLOG_ERROR(kTag, "Bad URL [", url, "]");
    return false;
  }
  MLOG_INFO(kTag, "Host=[", parts.host, "], Port=[", parts.port, "], Path=[", parts.path, "]");
  httplib::Client client(parts.host, parts.port);
  applyTimeouts(client);
  *out = send(client, parts.path);
  return true;
}

template <typename Once>
bool retrying(unsigned tries, Once&& once) {
  const unsigned attempts = tries == 0 ? 1 : tries;
  for (unsigned attempt = 1; attempt <= attempts; ++attempt) {
    if (once()) {
      return true;
    }
    if (attempt < attempts) {
      kel::vxp3::minfw::sleepMs(Http::kRetryPauseMs);
    }
  }
  return false;
}

}  // namespace

bool Http::split(const std::string& url, Url& parts) {
  static const std::string kScheme = "http://";
  if (url.compare(0, kScheme.size(), kScheme) != 0) {
    return false;
  }
  const std::string rest = url.substr(kScheme.size());
  const size_t slash = rest.find('/');
  const std::string authority = rest.substr(0, slash);
  parts.path = slash == std::string::npos ? "/" : rest.substr(slash);
  std::string portText;
  if (!authority.empty() && authority[0] == '[') {
    const size_t close = authority.find(']');
    if (close == std::string::npos || close == 1) {
      return false;
    }
    parts.host = authority.substr(1, close - 1);
    const std::string after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') {
        return false;
      }
      portText = after.substr(1);
    }
  } else {
    const size_t colon = authority.find(':');
    parts.host = authority.substr(0, colon);
    if (colon != std::string::npos) {
      portText = authority.substr(colon + 1);
    }
    if (parts.host.find_first_of("[]@ ?#") != std::string::npos) {
      return false;
    }
  }
  if (parts.host.empty()) {
    return false;
  }
  parts.port = 80;
  if (!portText.empty()) {
    if (portText.find_first_not_of("0123456789") != std::string::npos || portText.size() > 5) {
      return false;
    }
    const long port = std::strtol(portText.c_str(), nullptr, 10);
    if (port < 1 || port > 65535) {
      return false;
    }
    parts.port = static_cast<int>(port);
  }
  return true;
}

bool Http::_Size(const std::string& url, uint64_t& size) {
  httplib::Result result{nullptr, httplib::Error::Unknown};
  if (!request(
          url, [](httplib::Client& c, const std::string& path) { return c.Head(path); }, &result)) {
    return false;
  }
  if (!result) {
    MLOG_ERROR(kTag, "HEAD [", url, "] : No reply!");
    return false;
  }
  if (result->status < 200 || result->status > 299) {
    MLOG_ERROR(kTag, "Request status = [", result->status, "] for [", url, "]");
    return false;
  }
  const std::string value = result->get_header_value("Content-Length");
  MLOG_INFO(kTag, "Content-Length=[", value, "]");
  // Digits only: strtoull would take a sign or blanks.
  errno = 0;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(value.c_str(), &end, 10);
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
      errno == ERANGE || end == value.c_str()) {
    MLOG_ERROR(kTag, "Unable to convert [", value, "] to uint64_t");
    return false;
  }
  size = parsed;
  return true;
}

namespace {

// One GET that keeps at most `maxBytes` of the body; `tooBig` tells a refused body from a fault.
bool getOnce(const std::string& url, std::string& content, uint64_t maxBytes, bool& tooBig) {
  tooBig = false;
  std::string body;
  int status = 0;
  const auto send = [&](httplib::Client& c, const std::string& path) {
    return c.Get(
        path,
        [&](const httplib::Response& response) {
          // Neither a refusal's body nor one announced past the limit is read.
          status = response.status;
          if (status < 200 || status > 299) {
            return false;
          }
          const std::string length = response.get_header_value("Content-Length");
          tooBig = !length.empty() && std::strtoull(length.c_str(), nullptr, 10) > maxBytes;
          return !tooBig;
        },
        [&](const char* data, size_t size) {
          tooBig = size > maxBytes - body.size();
          if (!tooBig) {
            body.append(data, size);
          }
          return !tooBig;
        });
  };
  httplib::Result result{nullptr, httplib::Error::Unknown};
  if (!request(url, send, &result)) {
    return false;
  }
  if (tooBig) {
    MLOG_ERROR(kTag, "GET [", url, "]: body exceeds [", maxBytes, "] bytes, stopped receiving");
    return false;
  }
  if (status != 0 && (status < 200 || status > 299)) {
    MLOG_ERROR(kTag, "GET [", url, "]: Status=", status);
    return false;
  }
  if (!result) {
    MLOG_ERROR(kTag, "GET [", url, "]: No reply!");
    return false;
  }
  content = std::move(body);
  MLOG_INFO(kTag, "GET [", url, "]: ", content.size(), " bytes read");
  return true;
}

}  // namespace

bool Http::_Get(const std::string& url, std::string& content) {
  bool tooBig = false;
  return getOnce(url, content, kMaxBody, tooBig);
}

bool Http::_Size(const std::string& url, uint64_t& size, unsigned tries) {
  return retrying(tries, [&] { return _Size(url, size); });
}

bool Http::_Get(const std::string& url, std::string& content, unsigned tries) {
  bool tooBig = false;
  return _Get(url, content, tries, kMaxBody, tooBig);
}

bool Http::_Get(const std::string& url, std::string& content, unsigned tries, uint64_t maxBytes,
                bool& tooBig) {
  // A refused body ends the tries as a success would; it is still answered false.
  return retrying(tries, [&] { return getOnce(url, content, maxBytes, tooBig) || tooBig; }) &&
         !tooBig;
}

void Http::setTimeoutsForTesting(int64_t connectMs, int64_t readMs) {
  g_connectMs.store(connectMs);
  g_readMs.store(readMs);
}

void Http::resetTimeouts() {
  setTimeoutsForTesting(0, 0);
}

}  // namespace orv

// The update medium over a real HTTP server on loopback (IPv4, IPv6), pauses in virtual time.
#include "logic/update_medium.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "logic/http.h"
#include "logic/testing/http_server.h"
#include "minfw/testing/capture_sink.h"
#include "minfw/testing/simulated_clock.h"

namespace orv {
namespace {

using kel::vxp3::minfw::ScopedClock;
using kel::vxp3::minfw::testing::ScopedLogCapture;
using kel::vxp3::minfw::testing::SimulatedClock;

constexpr const char* kGood =
    R"({"train": "T1", "order": "O1", "manifests": ["a.json", "b.json"],)"
    R"( "diagAddresses": ["6657", "0x1A02", "0"], "keyManifest": "keys/km.mose"})";

// True when an error record's message is exactly `text`.
bool loggedError(ScopedLogCapture& log, const std::string& text) {
  for (const auto& record : log->records())
    if (record.message == text && record.level == 4 && record.tag == "GLOBAL")
      return true;
  return false;
}

class UpdateMediumTest : public ::testing::Test {
 protected:
  UpdateMediumTest() : clock_(SimulatedClock::Mode::kAutoAdvance), scoped_(clock_) {}
  ~UpdateMediumTest() override { Http::resetTimeouts(); }
  SimulatedClock clock_;
  ScopedClock scoped_;
  ScopedLogCapture log_;
  orv::testing::HttpServer server_;
};

TEST_F(UpdateMediumTest, GoodDescriptionOverIpv4AndIpv6WithAndWithoutFinalSlash) {
  orv::testing::HttpServer v6("::1");
  for (orv::testing::HttpServer* server : {&server_, &v6}) {
    server->put("/usb/NodboxUpdateMedium.json", kGood);
    for (const std::string& location : {server->base() + "/usb", server->base() + "/usb/"}) {
      SCOPED_TRACE(location);
      UpdateMedium medium;
      ASSERT_TRUE(medium.Parse(location));
      EXPECT_EQ(medium.trainName(), "T1");
      EXPECT_EQ(medium.updateOrder(), "O1");
      EXPECT_EQ(medium.updateManifests(), (std::vector<std::string>{"a.json", "b.json"}));
      EXPECT_EQ(medium.diagAddresses(), (std::vector<uint16_t>{6657, 0x1A02, 0}));
      EXPECT_EQ(medium.keyManifestFileAddr(), "keys/km.mose");
      EXPECT_EQ(medium.updateBaseUrl(), server->base() + "/usb");
    }
    EXPECT_EQ(server->requests("HEAD /usb/NodboxUpdateMedium.json"), 2);
    EXPECT_EQ(server->requests("GET /usb/NodboxUpdateMedium.json"), 2);
  }
  const std::string port = v6.base().substr(v6.base().rfind(':') + 1);
  // The literal keeps its brackets in the Host header, or a strict server could not parse it.
  EXPECT_EQ(v6.lastHost(), "[::1]:" + port);
  EXPECT_EQ(log_->count("Host=[::1], Port=[" + port + "], Path=[/usb/NodboxUpdateMedium.json]"),
            4u);
}

TEST_F(UpdateMediumTest, DescriptionFaults) {
  struct Row {
    const char* proves;
    std::string body;
    std::string logged;  // "%" stands for the description's URL
  };
  const std::vector<Row> rows = {
      {"not JSON", "this is not json", "No JSON content in [%]"},
      {"a JSON array", "[1, 2]", "No JSON content in [%]"},
      {"order of the wrong type", R"({"order": 5})", "Invalid data for \"order"},
      {"no manifests", R"({"order": "O"})", "No \"manifests\" array in [%]"},
      {"manifests not an array", R"({"manifests": "a"})", "No \"manifests\" array in [%]"},
      {"no manifest at all", R"({"manifests": []})", "Illegal size for \"manifests\" array in [%]"},
      {"a manifest that is no text", R"({"manifests": ["a", 3]})",
       "Invalid data for \"manifests\", index [1]"},
      {"an empty manifest name", R"({"manifests": [""]})", "Empty manifest file in [%]"},
      {"no addresses", R"({"manifests": ["a"]})", "No \"diagAddresses\" array in [%]"},
      {"an address that is a number", R"({"manifests": ["a"], "diagAddresses": [6657]})",
       "Invalid data for \"diagAddresses\", index [0]"},
      {"an empty address", R"({"manifests": ["a"], "diagAddresses": [""]})",
       "Empty diagnosis address in [%]"},
      {"an address with a sign", R"({"manifests": ["a"], "diagAddresses": ["1", "-1"]})",
       "Unable to convert diagAddresses index=[1], value=[-1] to uint16_t!"},
      {"no train", R"({"manifests": ["a"], "diagAddresses": ["1"]})", "No \"train\" key in [%]"},
      {"a train that is no text", R"({"manifests": ["a"], "diagAddresses": ["1"], "train": 1})",
       "Invalid data for \"train\""},
      {"a key manifest that is no text",
       R"({"manifests": ["a"], "diagAddresses": ["1"], "train": "T", "keyManifest": []})",
       "Invalid data for \"keyManifest"}};
  const std::string url = server_.base() + "/m/NodboxUpdateMedium.json";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    server_.put("/m/NodboxUpdateMedium.json", row.body);
    log_->clear();
    UpdateMedium medium;
    EXPECT_FALSE(medium.Parse(server_.base() + "/m"));
    std::string expected = row.logged;
    const size_t mark = expected.find('%');
    if (mark != std::string::npos)
      expected.replace(mark, 1, url);
    EXPECT_TRUE(loggedError(log_, expected)) << "missing: " << expected;
    EXPECT_EQ(medium.trainName(), "") << "a failed parse fills nothing";
  }
}

TEST_F(UpdateMediumTest, SizeLimitOnBothSides) {
  // A valid description padded with blanks to the byte.
  auto sized = [](size_t size) {
    std::string body = kGood;
    body.insert(body.size() - 1, size - body.size(), ' ');
    return body;
  };
  enum Send { kPlain, kChunked, kEndless };
  struct Row {
    const char* proves;
    size_t bodySize;
    size_t headSize;  // 0: HEAD tells the truth
    Send send;
    bool parsed;
    int gets;  // GET requests the parse made: a refused body is not fetched again
  };
  const std::vector<Row> rows = {
      {"the limit itself is accepted", 512000, 0, kPlain, true, 1},
      {"a body shorter than announced is taken", 1000, 2000, kPlain, true, 1},
      {"one byte over is refused before the GET", 512001, 0, kPlain, false, 0},
      {"a HEAD that overstates is refused", 1000, 512001, kPlain, false, 0},
      {"a body longer than announced", 1000, 100, kPlain, false, 1},
      {"a body without a length, longer than announced", 1000, 999, kChunked, false, 1},
      {"an endless body stops at the limit", 1000, 512000, kEndless, false, 1}};
  int index = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    const std::string dir = "/" + std::to_string(index++);
    server_.put(dir + "/NodboxUpdateMedium.json", sized(row.bodySize));
    server_.set(dir + "/NodboxUpdateMedium.json", [&](orv::testing::HttpServer::Path& p) {
      p.headSays = row.headSize, p.chunked = row.send;
    });
    log_->clear();
    UpdateMedium medium;
    EXPECT_EQ(medium.Parse(server_.base() + dir), row.parsed);
    EXPECT_EQ(server_.requests("GET " + dir + "/NodboxUpdateMedium.json"), row.gets);
    if (!row.parsed) {
      const std::string seen =
          row.gets == 0 ? "size=[" + std::to_string(std::max(row.bodySize, row.headSize))
                        : "more than the announced size=[" + std::to_string(row.headSize);
      EXPECT_TRUE(loggedError(log_, "Remote file too big: " + seen + "], max=[512000]")) << seen;
    }
  }
}

TEST(UpdateMediumAddressTest, AddressTexts) {
  // Decimal and hex up to 16 bits; leading zeros are no octal and may run long.
  const std::vector<std::pair<const char*, uint16_t>> accepted = {
      {"0", 0},    {"65535", 65535}, {"0x1A01", 0x1A01},   {"0XFFFF", 0xFFFF},
      {"010", 10}, {"000", 0},       {"0x00000000001", 1}, {"0000000065535", 65535}};
  for (const auto& [text, expected] : accepted) {
    uint16_t value = 7;
    EXPECT_TRUE(UpdateMedium::toAddress(text, value)) << text;
    EXPECT_EQ(value, expected) << text;
  }
  // Beyond 16 bits (also by digit overflow), a bare prefix, no hex without it, blanks and signs.
  for (const char* text :
       {"65536", "0x10000", "99999999999999999999", "0x", "1a", " 1", "+1", "-0"}) {
    uint16_t value = 7;
    EXPECT_FALSE(UpdateMedium::toAddress(text, value)) << text;
  }
}

TEST_F(UpdateMediumTest, HttpFaultsRetriesAndTimeouts) {
  // Accepts connections (the kernel's backlog) but never reads or replies.
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd, 4), 0);
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string silent = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
  Http::setTimeoutsForTesting(200, 200);
  const std::string base = server_.base();
  const std::string refused = "http://127.0.0.1:1/x";  // nobody listens there
  server_.put("/flaky", "body");
  server_.set("/nolen", [](orv::testing::HttpServer::Path& p) { p.exists = p.noLength = true; });
  // Just past the 2xx range: the medium has no choices to offer.
  server_.set("/gone", [](orv::testing::HttpServer::Path& p) { p.status = 300; });
  struct Row {
    const char* proves;
    std::string url;
    bool get;
    unsigned tries;
    int failFirst;       // requests for /flaky the server refuses with 503 before it serves
    size_t attempts;     // requests sent, with a pause of 2 s between two
    std::string logged;  // an error once per attempt (once when none is sent); "": success
  };
  const std::vector<Row> rows = {
      {"empty URL", "", false, 1, 0, 0, "Empty remoteURL!"},
      {"another scheme", "https://127.0.0.1/x", false, 1, 0, 0, "Bad URL [https://127.0.0.1/x]"},
      {"HEAD without Content-Length", base + "/nolen", false, 1, 0, 1,
       "Unable to convert [] to uint64_t"},
      {"HEAD refused", base + "/gone", false, 1, 0, 1,
       "Request status = [300] for [" + base + "/gone]"},
      {"GET refused", base + "/lost", true, 1, 0, 1, "GET [" + base + "/lost]: Status=404"},
      {"0 tries count as 1", refused, true, 0, 0, 1, "GET [" + refused + "]: No reply!"},
      {"1 try, no pause", refused, false, 1, 0, 1, "HEAD [" + refused + "] : No reply!"},
      {"3 tries, 2 pauses, none after the last", refused, false, 3, 0, 3,
       "HEAD [" + refused + "] : No reply!"},
      {"a GET that succeeds on its second try", base + "/flaky", true, 3, 1, 2, ""},
      {"a HEAD that succeeds on its third try", base + "/flaky", false, 3, 2, 3, ""},
      {"a HEAD to a server that never answers times out", silent, false, 1, 0, 1,
       "HEAD [" + silent + "] : No reply!"},
      {"a GET to it as well", silent, true, 1, 0, 1, "GET [" + silent + "]: No reply!"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    server_.set("/flaky", [&](orv::testing::HttpServer::Path& p) { p.failFirst = row.failFirst; });
    const size_t pausesBefore = clock_.sleeps().size();
    log_->clear();
    std::string content;
    uint64_t size = 0;
    EXPECT_EQ(
        row.get ? Http::_Get(row.url, content, row.tries) : Http::_Size(row.url, size, row.tries),
        row.logged.empty());
    EXPECT_EQ(log_->count("Host=["), row.attempts);
    const auto sleeps = clock_.sleeps();
    ASSERT_EQ(sleeps.size() - pausesBefore, row.attempts == 0 ? 0 : row.attempts - 1);
    for (size_t i = pausesBefore; i < sleeps.size(); ++i)
      EXPECT_EQ(sleeps[i], std::chrono::seconds(2));
    if (row.logged.empty()) {
      EXPECT_EQ(row.get ? content : std::to_string(size), row.get ? "body" : "4");
    } else {
      EXPECT_TRUE(loggedError(log_, row.logged));
      EXPECT_EQ(log_->count(row.logged), std::max<size_t>(row.attempts, 1));
    }
  }
  ::close(fd);
  // The parse gives up after the HEAD's 3 tries and never sends its GET.
  log_->clear();
  UpdateMedium medium;
  EXPECT_FALSE(medium.Parse(refused));
  EXPECT_EQ(log_->count("HEAD [" + refused + "/NodboxUpdateMedium.json] : No reply!"), 3u);
  EXPECT_EQ(log_->count("GET ["), 0u);
}

TEST(HttpUrlTest, Split) {
  struct Row {
    const char* url;
    const char* host;
    int port;
    const char* path;
  };
  const std::vector<Row> rows = {
      {"http://127.0.0.1:8080/a/b.json", "127.0.0.1", 8080, "/a/b.json"},
      {"http://[fd00::1]:29214/medium/", "fd00::1", 29214, "/medium/"},
      {"http://[::1]/x", "::1", 80, "/x"},
      {"http://host", "host", 80, "/"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.url);
    Http::Url parts;
    ASSERT_TRUE(Http::split(row.url, parts));
    EXPECT_EQ(parts.host, row.host);
    EXPECT_EQ(parts.port, row.port);
    EXPECT_EQ(parts.path, row.path);
  }
  // No host, an empty or unclosed literal, text after it, bad ports, another scheme, a query,
  // and an IPv6 literal without its brackets.
  for (const char* url :
       {"http://:80/x", "http://[]/x", "http://[::1]x/y", "http://[::1/x", "http://h:0/x",
        "http://h:8a/x", "http://h:70000/x", "ftp://h/x", "http://h?q=1", "http://fd00::1/x"}) {
    Http::Url parts;
    EXPECT_FALSE(Http::split(url, parts)) << url;
  }
}

}  // namespace
}  // namespace orv

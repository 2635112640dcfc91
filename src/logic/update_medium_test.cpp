// The update medium and its HTTP access against a real cpp-httplib server on loopback (IPv4 and
// IPv6), in virtual time for the pauses between tries.
#include "logic/update_medium.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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
  for (const auto& record : log->records()) {
    if (record.message == text && record.level == 4 && record.tag == "GLOBAL") {
      return true;
    }
  }
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

TEST_F(UpdateMediumTest, GoodDescriptionWithAndWithoutFinalSlash) {
  server_.put("/usb/NodboxUpdateMedium.json", kGood);
  for (const std::string& location : {server_.base() + "/usb", server_.base() + "/usb/"}) {
    SCOPED_TRACE(location);
    UpdateMedium medium;
    ASSERT_TRUE(medium.Parse(location));
    EXPECT_EQ(medium.trainName(), "T1");
    EXPECT_EQ(medium.updateOrder(), "O1");
    EXPECT_EQ(medium.updateManifests(), (std::vector<std::string>{"a.json", "b.json"}));
    EXPECT_EQ(medium.diagAddresses(), (std::vector<uint16_t>{6657, 0x1A02, 0}));
    EXPECT_EQ(medium.keyManifestFileAddr(), "keys/km.mose");
    EXPECT_EQ(medium.updateBaseUrl(), server_.base() + "/usb");
  }
  EXPECT_EQ(server_.requests("HEAD /usb/NodboxUpdateMedium.json"), 2);
  EXPECT_EQ(server_.requests("GET /usb/NodboxUpdateMedium.json"), 2);
}

TEST_F(UpdateMediumTest, DescriptionFaults) {
  struct Row {
    const char* proves;
    std::string body;
    std::string logged;  // "%" stands for the description's URL
  };
  const std::vector<Row> rows = {
      {"not JSON", "this is not json", "No JSON content in [%]"},
      {"empty file", "", "No JSON content in [%]"},
      {"a JSON array", "[1, 2]", "No JSON content in [%]"},
      {"order of the wrong type", R"({"order": 5})", "Invalid data for \"order"},
      {"no manifests", R"({"order": "O"})", "No \"manifests\" array in [%]"},
      {"manifests not an array", R"({"manifests": "a"})", "No \"manifests\" array in [%]"},
      {"no manifest at all", R"({"manifests": []})", "Illegal size for \"manifests\" array in [%]"},
      {"a manifest that is no text", R"({"manifests": ["a", 3]})",
       "Invalid data for \"manifests\", index [1]"},
      {"an empty manifest name", R"({"manifests": [""]})", "Empty manifest file in [%]"},
      {"no addresses", R"({"manifests": ["a"]})", "No \"diagAddresses\" array in [%]"},
      {"no address at all", R"({"manifests": ["a"], "diagAddresses": []})",
       "Illegal size for \"diagAddresses\" array in [%]"},
      {"an address that is a number", R"({"manifests": ["a"], "diagAddresses": [6657]})",
       "Invalid data for \"diagAddresses\", index [0]"},
      {"an empty address", R"({"manifests": ["a"], "diagAddresses": [""]})",
       "Empty diagnosis address in [%]"},
      {"an address beyond 16 bits", R"({"manifests": ["a"], "diagAddresses": ["70000"]})",
       "Unable to convert diagAddresses index=[0], value=[70000] to uint16_t!"},
      {"an address with a sign", R"({"manifests": ["a"], "diagAddresses": ["1", "-1"]})",
       "Unable to convert diagAddresses index=[1], value=[-1] to uint16_t!"},
      {"a hexadecimal address beyond 16 bits",
       R"({"manifests": ["a"], "diagAddresses": ["0x10000"]})",
       "Unable to convert diagAddresses index=[0], value=[0x10000] to uint16_t!"},
      {"no train", R"({"manifests": ["a"], "diagAddresses": ["1"]})", "No \"train\" key in [%]"},
      {"a train that is no text", R"({"manifests": ["a"], "diagAddresses": ["1"], "train": 1})",
       "Invalid data for \"train\""},
      {"a key manifest that is no text",
       R"({"manifests": ["a"], "diagAddresses": ["1"], "train": "T", "keyManifest": []})",
       "Invalid data for \"keyManifest"},
  };
  const std::string url = server_.base() + "/m/NodboxUpdateMedium.json";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    server_.put("/m/NodboxUpdateMedium.json", row.body);
    log_->clear();
    UpdateMedium medium;
    EXPECT_FALSE(medium.Parse(server_.base() + "/m"));
    std::string expected = row.logged;
    const size_t mark = expected.find('%');
    if (mark != std::string::npos) {
      expected.replace(mark, 1, url);
    }
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
      {"an endless body stops at the limit", 1000, 512000, kEndless, false, 1},
  };
  int index = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    const std::string dir = "/" + std::to_string(index++);
    server_.put(dir + "/NodboxUpdateMedium.json", sized(row.bodySize));
    if (row.headSize != 0) {
      server_.headSays(dir + "/NodboxUpdateMedium.json", row.headSize);
    }
    server_.chunked(dir + "/NodboxUpdateMedium.json", row.send);
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
  struct Row {
    const char* text;
    bool ok;
    uint16_t value;
  };
  const std::vector<Row> rows = {
      {"0", true, 0},
      {"65535", true, 65535},
      {"65536", false, 0},
      {"0x1A01", true, 0x1A01},
      {"0XFFFF", true, 0xFFFF},
      {"0x10000", false, 0},
      {"010", true, 10},  // a leading zero is no octal
      {"0x", false, 0},
      {"1a", false, 0},
      {" 1", false, 0},
      {"+1", false, 0},
      {"-0", false, 0},
      {"99999999999999999999", false, 0},
      {"0x00000000001", true, 1},
      {"0000000065535", true, 65535},
      {"000", true, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    uint16_t value = 7;
    ASSERT_EQ(UpdateMedium::toAddress(row.text, value), row.ok);
    if (row.ok) {
      EXPECT_EQ(value, row.value);
    }
  }
}

TEST_F(UpdateMediumTest, HttpFaultsAndRetries) {
  struct Row {
    const char* proves;
    std::string url;
    std::function<void(orv::testing::HttpServer&)> arrange;
    bool sized;
    std::vector<std::string> logged;
  };
  const std::string base = server_.base();
  const std::vector<Row> rows = {
      {"empty URL", "", nullptr, false, {"Empty remoteURL!"}},
      {"another scheme", "https://127.0.0.1/x", nullptr, false, {"Bad URL [https://127.0.0.1/x]"}},
      {"unclosed IPv6 literal", "http://[::1/x", nullptr, false, {"Bad URL [http://[::1/x]"}},
      {"port out of range",
       "http://127.0.0.1:70000/x",
       nullptr,
       false,
       {"Bad URL [http://127.0.0.1:70000/x]"}},
      {"HEAD without Content-Length",
       base + "/nolen",
       [](orv::testing::HttpServer& s) {
         s.put("/nolen", "{}");
         s.withoutLength("/nolen");
       },
       false,
       {"Content-Length=[]", "Unable to convert [] to uint64_t"}},
      {"HEAD refused",
       base + "/gone",
       [](orv::testing::HttpServer& s) { s.status("/gone", 503); },
       false,
       {"Request status = [503] for [" + base + "/gone]"}},
      {"GET refused",
       base + "/gone",
       [](orv::testing::HttpServer& s) { s.status("/gone", 404); },
       true,
       {"GET [" + base + "/gone]: Status=404"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    if (row.arrange) {
      row.arrange(server_);
    }
    log_->clear();
    if (row.sized) {
      std::string content;
      EXPECT_FALSE(Http::_Get(row.url, content));
    } else {
      uint64_t size = 0;
      EXPECT_FALSE(Http::_Size(row.url, size));
    }
    const std::vector<std::string> messages = log_->messages();
    for (const std::string& line : row.logged) {
      EXPECT_NE(std::find(messages.begin(), messages.end(), line), messages.end())
          << "missing: " << line;
    }
  }
}

TEST_F(UpdateMediumTest, RetriesPauseTwoSecondsAfterEachFailedTry) {
  server_.put("/flaky", "body");
  struct Row {
    const char* proves;
    std::string url;
    bool get;
    unsigned tries;
    int failFirst;  // requests the server refuses with 503 before it serves
    bool ok;
    size_t attempts;
  };
  const std::string refused = "http://127.0.0.1:1/x";  // nobody listens there
  const std::vector<Row> rows = {
      {"0 tries count as 1", refused, true, 0, 0, false, 1},
      {"1 try, no pause", refused, false, 1, 0, false, 1},
      {"3 tries, 2 pauses, none after the last", refused, false, 3, 0, false, 3},
      {"a GET that succeeds on its second try", server_.base() + "/flaky", true, 3, 1, true, 2},
      {"a HEAD that succeeds on its third try", server_.base() + "/flaky", false, 3, 2, true, 3},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.proves);
    server_.failFirst("/flaky", row.failFirst);
    const size_t pausesBefore = clock_.sleeps().size();
    log_->clear();
    std::string content;
    uint64_t size = 0;
    EXPECT_EQ(
        row.get ? Http::_Get(row.url, content, row.tries) : Http::_Size(row.url, size, row.tries),
        row.ok);
    EXPECT_EQ(log_->count("Host=["), row.attempts);
    const auto sleeps = clock_.sleeps();
    ASSERT_EQ(sleeps.size() - pausesBefore, row.attempts - 1);
    for (size_t i = pausesBefore; i < sleeps.size(); ++i) {
      EXPECT_EQ(sleeps[i], std::chrono::seconds(2));
    }
    if (row.ok) {
      EXPECT_EQ(row.get ? content : std::to_string(size), row.get ? "body" : "4");
    } else {
      EXPECT_EQ(log_->count(row.get ? "GET [" + refused + "]: No reply!"
                                    : "HEAD [" + refused + "] : No reply!"),
                row.attempts);
    }
  }

  // The parse gives up after the HEAD's 3 tries and never sends its GET.
  log_->clear();
  UpdateMedium medium;
  EXPECT_FALSE(medium.Parse("http://127.0.0.1:1/usb"));
  EXPECT_EQ(log_->count("HEAD [http://127.0.0.1:1/usb/NodboxUpdateMedium.json] : No reply!"), 3u);
  EXPECT_EQ(log_->count("GET ["), 0u);
}

TEST_F(UpdateMediumTest, AServerThatNeverAnswersTimesOut) {
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
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
  Http::setTimeoutsForTesting(200, 200);
  uint64_t size = 0;
  EXPECT_FALSE(Http::_Size(url, size));
  EXPECT_TRUE(loggedError(log_, "HEAD [" + url + "] : No reply!"));
  std::string content;
  EXPECT_FALSE(Http::_Get(url, content));
  EXPECT_TRUE(loggedError(log_, "GET [" + url + "]: No reply!"));
  ::close(fd);
}

TEST_F(UpdateMediumTest, Ipv6LiteralHost) {
  orv::testing::HttpServer v6("::1");
  v6.put("/usb/NodboxUpdateMedium.json", kGood);
  UpdateMedium medium;
  ASSERT_TRUE(medium.Parse(v6.base() + "/usb"));
  EXPECT_EQ(medium.updateBaseUrl(), v6.base() + "/usb");
  const std::string port = v6.base().substr(v6.base().rfind(':') + 1);
  // The literal keeps its brackets in the Host header, or a strict server could not parse it.
  EXPECT_EQ(v6.lastHost(), "[::1]:" + port);
  EXPECT_EQ(log_->count("Host=[::1], Port=[" + port + "], Path=[/usb/NodboxUpdateMedium.json]"),
            2u);
}

TEST(HttpUrlTest, Split) {
  struct Row {
    const char* url;
    bool ok;
    const char* host;
    int port;
    const char* path;
  };
  const std::vector<Row> rows = {
      {"http://127.0.0.1:8080/a/b.json", true, "127.0.0.1", 8080, "/a/b.json"},
      {"http://[fd00::1]:29214/medium/", true, "fd00::1", 29214, "/medium/"},
      {"http://[::1]/x", true, "::1", 80, "/x"},
      {"http://host", true, "host", 80, "/"},
      {"http://:80/x", false, "", 0, ""},
      {"http://[]/x", false, "", 0, ""},
      {"http://[::1]x/y", false, "", 0, ""},
      {"http://h:0/x", false, "", 0, ""},
      {"http://h:8a/x", false, "", 0, ""},
      {"ftp://h/x", false, "", 0, ""},
      {"http://h?q=1", false, "", 0, ""},
      {"http://fd00::1/x", false, "", 0, ""},  // an IPv6 literal needs its brackets
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.url);
    Http::Url parts;
    ASSERT_EQ(Http::split(row.url, parts), row.ok);
    if (row.ok) {
      EXPECT_EQ(parts.host, row.host);
      EXPECT_EQ(parts.port, row.port);
      EXPECT_EQ(parts.path, row.path);
    }
  }
}

}  // namespace
}  // namespace orv

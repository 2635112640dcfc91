#include "interfaces/notebook/notebook_service.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include "minfw/testing/capture_sink.h"
#include "minfw/testing/inbox.h"
#include "minfw/testing/simulated_clock.h"

namespace kel::nodbox::diag::orv {
namespace {

using ::kel::vxp3::minfw::ScopedClock;
using ::kel::vxp3::minfw::testing::Inbox;
using ::kel::vxp3::minfw::testing::ScopedLogCapture;
using ::kel::vxp3::minfw::testing::SimulatedClock;

constexpr const char* kIp = "127.0.0.7";
constexpr uint16_t kPort = 5002;

// A laptop: a real TCP client whose reads are bounded, so a broken service cannot hang the test.
class Laptop {
 public:
  Laptop() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    inet_pton(AF_INET, kIp, &address.sin_addr);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~Laptop() { close(); }
  bool connected() const { return connected_; }
  void send(const std::string& text) {
    ASSERT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
  }
  // The next reply line with its "\n"; "<eof>" when the service closed; "<none>" on the limit.
  std::string line() {
    std::string out;
    while (out.empty() || out.back() != '\n') {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 20000) != 1)
        return "<none>";
      char c;
      if (::recv(fd_, &c, 1, 0) != 1)
        return out.empty() ? "<eof>" : out;
      out.push_back(c);
    }
    return out;
  }
  void close() {
    ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

class NotebookServiceTest : public ::testing::Test {
 protected:
  // Paths are bound before start only; `start` replaces the recording start path.
  void startService(std::chrono::milliseconds receiveTimeout = std::chrono::seconds(10),
                    bool bind = true, std::function<bool(const std::string&)> start = nullptr) {
    service_ = std::make_unique<NotebookService>(kIp, kPort, receiveTimeout);
    if (bind) {
      service_->mUpdateState = [this] { return state_.load(); };
      service_->mUpdateProgress = [] { return 45u; };
      service_->mUpdateErrorCode = [] { return 0; };
      service_->mStartUpdate =
          start ? start : [this](const std::string& path) { return starts_.add(path), true; };
    }
    ASSERT_TRUE(service_->start());
  }
  // The service still serves a fresh client.
  void expectServesNextClient() {
    Laptop next;
    ASSERT_TRUE(next.connected());
    next.send("Update_stats");
    EXPECT_EQ(next.line(), "9, 45, 0\n");
  }
  // The pause between two clients passes in virtual time.
  SimulatedClock clock_{SimulatedClock::Mode::kAutoAdvance};
  ScopedClock scopedClock_{clock_};
  ScopedLogCapture log_;
  std::atomic<uint32_t> state_{9};
  Inbox starts_;
  std::unique_ptr<NotebookService> service_;
};

TEST_F(NotebookServiceTest, RequestsOnOneConnection) {
  struct Row {
    const char* proves;
    std::string request;
    std::string reply;  // "" = no reply at all
    std::string start;  // what the start path receives; "" = no start
  };
  const Row rows[] = {
      {"stats: state, progress and error code", "Update_stats\n", "9, 45, 0\n", ""},
      {"a medium address starts, CR/LF trimmed", "http://127.0.0.1:8080/medium\r\n", "0, 0, 0\n",
       "http://127.0.0.1:8080/medium"},
      {"an address anywhere in the text starts", "go 10.0.0.255 now", "0, 0, 0\n",
       "go 10.0.0.255 now"},
      {"numbers out of range are no address", "http://300.400.500.600/m\n", "", ""},
      {"three parts are no address", "http://1.2.3/m\n", "", ""},
      {"contains-check: 999.1.1.1 holds 99.1.1.1", "999.1.1.1", "0, 0, 0\n", "999.1.1.1"},
      {"unknown text gets no reply", "hello\n", "", ""},
      {"each line of one receive is answered", "Update_stats\nhttp://127.0.0.2/m\n",
       "9, 45, 0\n0, 0, 0\n", "http://127.0.0.2/m"},
      {"blank lines get no reply", "\r\n\n", "", ""},
      {"a request longer than one receive gets no reply", std::string(1500, 'x'), "", ""},
      {"binary bytes get no reply", std::string("\0\xff\x01", 3), "", ""},
  };
  startService();
  Laptop laptop;
  ASSERT_TRUE(laptop.connected());
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    laptop.send(row.request);
    if (row.reply.empty()) {
      // Nothing came back if the next line is the answer to a stats request sent after it.
      laptop.send("Update_stats");
      EXPECT_EQ(laptop.line(), "9, 45, 0\n");
    } else {
      std::string replies;
      while (replies.size() < row.reply.size())
        replies += laptop.line();
      EXPECT_EQ(replies, row.reply);
    }
    if (!row.start.empty()) {
      EXPECT_TRUE(starts_.waitFor(row.start));
    }
  }
  EXPECT_EQ(starts_.entries().size(), 4u);
}

TEST_F(NotebookServiceTest, UnboundPathsAndFailingPathsAreAnswered) {
  startService(std::chrono::seconds(10), false);
  {
    Laptop laptop;
    laptop.send("Update_stats");
    EXPECT_EQ(laptop.line(), "warn:0|msg:Update stats not available\n");
    laptop.send("http://127.0.0.1/medium");
    EXPECT_EQ(laptop.line(), "1, 1, 1\n");
  }
  EXPECT_TRUE(log_->contains("ORV state signal path not bound!"));
  EXPECT_TRUE(log_->contains("mUpdateProgress state signal path not bound!"));
  EXPECT_TRUE(log_->contains("mUpdateErrorCode signal path not bound!"));
  EXPECT_TRUE(log_->contains("Signal path not bound"));
  // A fresh service with a start path that throws.
  service_.reset();
  startService(std::chrono::seconds(10), true,
               [](const std::string&) -> bool { throw std::runtime_error("boom"); });
  Laptop laptop;
  laptop.send("http://127.0.0.1/medium");
  EXPECT_EQ(laptop.line(), "warn:0|msg:Exception caught: [boom]\n");
  laptop.close();
  expectServesNextClient();
}

TEST_F(NotebookServiceTest, ClientsThatMisbehaveDoNotBlockTheNext) {
  startService(std::chrono::milliseconds(20));
  {
    // Connects and says nothing: dropped after the receive timeouts.
    Laptop silent;
    ASSERT_TRUE(silent.connected());
    EXPECT_EQ(silent.line(), "<eof>");
  }
  EXPECT_TRUE(
      log_->contains(::kel::vxp3::minfw::cat("Error receiving data: ", std::strerror(EAGAIN))));
  EXPECT_EQ(log_->count("Error occurred while retrieving over the socket."),
            std::size_t(NotebookService::kMaxIdleReceives));
  expectServesNextClient();
  {
    // Goes away in the middle of a request.
    Laptop leaving;
    leaving.send("Update_st");
  }
  expectServesNextClient();
  EXPECT_TRUE(starts_.entries().empty());
}

TEST_F(NotebookServiceTest, StopEndsTheWorkerWhileAClientIsConnectedOrNone) {
  startService();
  Laptop laptop;
  laptop.send("Update_stats");
  ASSERT_EQ(laptop.line(), "9, 45, 0\n");  // being served: the worker waits in recv()
  service_->stop();
  EXPECT_EQ(laptop.line(), "<eof>");
  EXPECT_TRUE(log_->contains("Closed socket"));
  service_->stop();  // idempotent
  startService();    // the worker waits in accept()
  service_->stop();
  EXPECT_FALSE(Laptop().connected());
}

TEST(NotebookServiceSetup, BadAddressesAreRefused) {
  struct Row {
    const char* proves;
    std::string ip;
    uint16_t port;
    std::string error;  // of validateIpAndPort
  };
  const Row rows[] = {
      {"empty address", "", 5002, "warn:0|msg:Ip address or port number is empty."},
      {"no port", "127.0.0.1", 0, "warn:0|msg:Ip address or port number is empty."},
      {"a name is no address", "localhost", 5002, "warn:0|msg:Invalid Ip: [localhost]"},
      {"passes the regex, fails the bind", "999.1.1.1", 5002, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    NotebookService service(row.ip, row.port);
    EXPECT_EQ(service.validateIpAndPort(), row.error);
    EXPECT_FALSE(service.start());
  }
}

}  // namespace
}  // namespace kel::nodbox::diag::orv

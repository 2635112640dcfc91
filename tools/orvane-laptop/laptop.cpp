#include "laptop.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "interfaces/hmi/hmi_states.h"
#include "minfw/clock.h"

namespace orv::laptop {

bool parseStats(const std::string& reply, UpdateStats* stats) {
  unsigned long state = 0;
  unsigned long progress = 0;
  long errorCode = 0;
  int used = 0;
  if (std::sscanf(reply.c_str(), "%lu, %lu, %ld%n", &state, &progress, &errorCode, &used) != 3) {
    return false;
  }
  const std::string rest = reply.substr(static_cast<std::size_t>(used));
  if (rest.find_first_not_of("\r\n") != std::string::npos || state > 0xffffffffUL ||
      progress > 0xffffffffUL) {
    return false;
  }
  *stats = {static_cast<uint32_t>(state), static_cast<uint32_t>(progress),
            static_cast<int32_t>(errorCode)};
  return true;
}

Outcome UpdateWatch::observe(const UpdateStats& stats) {
  switch (stats.state) {
    case eINSTALLATIONFINISHED:
    case eINSTALLATIONFINISHEDCONFIRMED:
      return Outcome::kFinished;
    case eINSTALLATIONCANCELLED:
    case eINSTALLATIONFAILED:
    case eINSTALLATIONFAILEDCONFIRMED:
    case eINSTALLATIONREJECTED:
    case eINSTALLATIONREJECTEDCONFIRMED:
      return Outcome::kFailed;
    case eINVALID:
      if (!sawActivity_) {
        return Outcome::kRunning;
      }
      return stats.errorCode == 0 && stats.progress == 100 ? Outcome::kFinished : Outcome::kFailed;
    default:
      sawActivity_ = true;
      return Outcome::kRunning;
  }
}

std::string statusLine(const UpdateStats& stats) {
  constexpr int kWidth = 30;
  const uint32_t percent = stats.progress > 100 ? 100 : stats.progress;
  const int filled = static_cast<int>(percent) * kWidth / 100;
  char line[128];
  std::snprintf(line, sizeof line, "%-32s [%s%s] %3u%%", hmiStateName(stats.state),
                std::string(static_cast<std::size_t>(filled), '#').c_str(),
                std::string(static_cast<std::size_t>(kWidth - filled), '-').c_str(), percent);
  return line;
}

LineConnection::~LineConnection() {
  close();
}

bool LineConnection::connect(const std::string& host, uint16_t port, std::string* error) {
  close();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
      (ntohl(address.sin_addr.s_addr) >> 24) != 127) {
    *error = "only loopback IPv4 addresses (127.0.0.0/8) are allowed: " + host;
    return false;
  }
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    *error = "cannot connect to " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
    close();
    return false;
  }
  return true;
}

bool LineConnection::exchange(const std::string& request, std::string* reply, int replyTimeoutMs) {
  const std::string line = request + "\n";
  if (fd_ < 0 || ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL) != ssize_t(line.size())) {
    close();
    return false;
  }
  for (;;) {
    const std::size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      *reply = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return true;
    }
    pollfd ready{fd_, POLLIN, 0};
    char chunk[512];
    const int polled = ::poll(&ready, 1, replyTimeoutMs);
    if (polled < 0 && errno == EINTR) {
      continue;
    }
    const ssize_t n = polled == 1 ? ::recv(fd_, chunk, sizeof chunk, 0) : -1;
    if (n <= 0 || pending_.size() > 4096) {
      close();
      return false;
    }
    pending_.append(chunk, static_cast<std::size_t>(n));
  }
}

void LineConnection::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  pending_.clear();
}

int runStart(const Options& options, std::ostream& out, std::ostream& err) {
  LineConnection connection;
  std::string error;
  if (!connection.connect(options.host, options.port, &error)) {
    err << "orvane-laptop: " << error << "\n";
    return kExitNoService;
  }
  std::string reply;
  if (!connection.exchange(options.url, &reply)) {
    err << "orvane-laptop: no reply (the text must contain an IPv4 address)\n";
    return kExitNoService;
  }
  out << reply << "\n";
  return reply == "0, 0, 0" ? kExitFinished : kExitFailed;
}

int runWatch(const Options& options, std::ostream& out, std::ostream& err) {
  auto& clock = kel::vxp3::minfw::clock();
  const auto deadline = clock.now() + std::chrono::seconds(options.timeoutS);
  LineConnection connection;
  UpdateWatch watch;
  std::string error;
  bool lineOpen = false;  // a status line waits for its end
  auto endLine = [&] {
    if (lineOpen) {
      out << "\n";
      lineOpen = false;
    }
  };
  for (;;) {
    std::string reply;
    // The service drops a connection that stays idle too long: one reconnect is normal.
    const bool answered = (connection.isOpen() && connection.exchange("Update_stats", &reply)) ||
                          (connection.connect(options.host, options.port, &error) &&
                           connection.exchange("Update_stats", &reply));
    if (!answered) {
      endLine();
      err << "orvane-laptop: " << (error.empty() ? "the service does not answer" : error) << "\n";
      return kExitNoService;
    }
    UpdateStats stats;
    if (!parseStats(reply, &stats)) {
      endLine();
      err << "orvane-laptop: unexpected reply [" << reply << "]\n";
    } else {
      out << "\r" << statusLine(stats) << std::flush;
      lineOpen = true;
      const Outcome outcome = watch.observe(stats);
      if (outcome != Outcome::kRunning) {
        endLine();
        if (outcome == Outcome::kFinished) {
          out << "Update finished\n";
          return kExitFinished;
        }
        out << "Update ended in " << hmiStateName(stats.state) << ", error code " << stats.errorCode
            << "\n";
        return kExitFailed;
      }
    }
    if (options.timeoutS > 0 && clock.now() >= deadline) {
      endLine();
      err << "orvane-laptop: no end of the update within " << options.timeoutS << " s\n";
      return kExitNoService;
    }
    kel::vxp3::minfw::sleepMs(options.intervalMs);
  }
}

}  // namespace orv::laptop

#include "interfaces/notebook/notebook_service.h"

#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <vector>

#include "interfaces/notebook/socket_handler.h"
#include "minfw/clock.h"
#include "minfw/log.h"

namespace kel::nodbox::diag::orv {

namespace {

constexpr const char* kTag = "notebook";

const std::regex& ipv4Expression() {
  static const std::regex expression(
      R"(((([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])\.){3}([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])))");
  return expression;
}

std::string warn(const std::string& message) {
  return ::kel::vxp3::minfw::cat("warn:0|msg:", message);
}

}  // namespace

NotebookService::NotebookService(const std::string& ip, uint16_t port,
                                 std::chrono::milliseconds receiveTimeout)
    : ip_(ip), port_(port), socket_(std::make_shared<SocketHandler>(receiveTimeout)) {
  MLOG_INFO(kTag, "Created Notebook service with ip address [", ip, "]and port [", port, "]");
}

NotebookService::~NotebookService() {
  stop();
}

bool NotebookService::start() {
  std::lock_guard<std::mutex> lock(lifecycleMutex_);
  if (started_) {
    MLOG_WARN(kTag, "Notebook service already started");
    return false;
  }
  if (!validateIpAndPort().empty() || !makeSocket()) {
    return false;
  }
  started_ = true;
  running_ = true;
  worker_ = std::thread([this] { run(); });
  return true;
}

void NotebookService::stop() {
  std::lock_guard<std::mutex> lock(lifecycleMutex_);
  running_ = false;
  socket_->interrupt();
  if (worker_.joinable()) {
    worker_.join();
  }
  socket_->closeAll();
}

bool NotebookService::makeSocket() {
  if (!validateIpAndPort().empty()) {
    return false;
  }
  return socket_->makeServerSocket(ip_, port_);
}

std::shared_ptr<SocketI> NotebookService::getSocketHandler() {
  return socket_;
}

void NotebookService::run() {
  pthread_setname_np(pthread_self(), "orv-notebook");
  MLOG_DEBUG(kTag, "In thread loop with ID [", static_cast<long>(::syscall(SYS_gettid)), "]");
  while (running_) {
    auto socket = getSocketHandler();
    if (!socket) {
      MLOG_ERROR(kTag, "Invalid socket. Null value.");
      return;
    }
    if (socket->acceptSocketConnection()) {
      receiveData();
      socket->closeClient();
    }
    if (!running_) {
      break;
    }
    // Also keeps a failing accept (no descriptors left, say) from spinning.
    ::kel::vxp3::minfw::sleepMs(1000);
  }
}

void NotebookService::receiveData() {
  auto socket = getSocketHandler();
  if (!socket) {
    MLOG_ERROR(kTag, "Invalid socket. Null value.");
    return;
  }
  std::vector<char> buffer;
  int idleReceives = 0;
  for (;;) {
    const ssize_t count = socket->receiveDataSocket(buffer);
    if (count == 0) {
      MLOG_DEBUG(kTag, "Client closed the connection");
      return;
    }
    if (count < 0) {
      const int error = errno;
      MLOG_ERROR(kTag, "Error occurred while retrieving over the socket.");
      if (error == EINTR ||
          ((error == EAGAIN || error == EWOULDBLOCK) && ++idleReceives < kMaxIdleReceives)) {
        continue;
      }
      MLOG_ERROR(kTag, "Error receiving data: ", std::strerror(error));
      return;
    }
    idleReceives = 0;
    const std::string text(buffer.data(), static_cast<std::size_t>(count));
    MLOG_INFO(kTag, "Read bytes: [", text, "]");
    // Requests are lines: a client that writes several at once (nc from a pipe) gets one
    // reply per line. A text without a line feed is one request.
    std::size_t begin = 0;
    while (begin < text.size()) {
      const std::size_t end = text.find('\n', begin);
      const std::size_t next = end == std::string::npos ? text.size() : end + 1;
      const std::string request = text.substr(begin, next - begin);
      begin = next;
      const std::string reply = answer(request);
      if (!reply.empty()) {
        socket->sendDataSocket(reply + "\n");
      }
    }
    MLOG_DEBUG(kTag, "Done receiving data.");
  }
}

std::string NotebookService::answer(const std::string& request) {
  try {
    if (checkIpAddress(request)) {
      MLOG_INFO(kTag, "Found IP message");
      return startUpdateProcess(request);
    }
    if (request.find("Update_stats") != std::string::npos) {
      return responseWithUpdateStats();
    }
  } catch (const std::regex_error& e) {
    return warn(::kel::vxp3::minfw::cat("Invalid regex: [", e.what(), "]"));
  } catch (const std::exception& e) {
    return warn(::kel::vxp3::minfw::cat("Exception caught: [", e.what(), "]"));
  } catch (...) {
    return warn("Exception caught: [unknown]");
  }
  return "";
}

std::string NotebookService::responseWithUpdateStats() {
  bool bound = true;
  if (!mUpdateState) {
    MLOG_ERROR(kTag, "ORV state signal path not bound!");
    bound = false;
  }
  if (!mUpdateProgress) {
    MLOG_ERROR(kTag, "mUpdateProgress state signal path not bound!");
    bound = false;
  }
  if (!mUpdateErrorCode) {
    MLOG_ERROR(kTag, "mUpdateErrorCode signal path not bound!");
    bound = false;
  }
  if (!bound) {
    return warn("Update stats not available");
  }
  // In this order: a reader of the three values may rely on it.
  const uint32_t state = mUpdateState();
  const uint32_t progress = mUpdateProgress();
  const int32_t errorCode = mUpdateErrorCode();
  const std::string reply = ::kel::vxp3::minfw::cat(state, ", ", progress, ", ", errorCode);
  MLOG_INFO(kTag, "LUM state and progress:: ", reply);
  return reply;
}

std::string NotebookService::startUpdateProcess(const std::string& text) {
  if (!mStartUpdate) {
    MLOG_ERROR(kTag, "Signal path not bound");
    return "1, 1, 1";
  }
  std::string path = text;
  while (!path.empty() && (path.back() == '\n' || path.back() == '\r')) {
    path.pop_back();
  }
  if (!mStartUpdate(path)) {
    MLOG_ERROR(kTag, "Start of the update refused for [", path, "]");
    return "1, 1, 1";
  }
  return "0, 0, 0";
}

bool NotebookService::checkIpAddress(const std::string& text) {
  if (std::regex_search(text, ipv4Expression())) {
    return true;
  }
  MLOG_DEBUG(kTag, "Regex doesn't match to the value '", text, "'");
  return false;
}

std::string NotebookService::validateIpAndPort() {
  if (ip_.empty() || port_ == 0) {
    MLOG_ERROR(kTag, "Ip address [", ip_, "] or port number is empty.");
    MLOG_ERROR(kTag, "Ip address or port number is empty.");
    return warn("Ip address or port number is empty.");
  }
  if (!checkIpAddress(ip_)) {
    MLOG_ERROR(kTag, "Ip address invalid.");
    return warn(::kel::vxp3::minfw::cat("Invalid Ip: [", ip_, "]"));
  }
  return "";
}

}  // namespace kel::nodbox::diag::orv

#pragma once
// NotebookService: the workshop laptop's line protocol on a loopback TCP port. A laptop sends
// either a text that contains an IPv4 address (the address of an update medium, e.g.
// "http://127.0.0.1:8080/medium"), which starts an update through the start path, or
// "Update_stats", answered with "<HMI state>, <progress>, <error code>". Every reply ends with
// "\n". One client is served at a time; each line of a receive (up to 1024 bytes) is one
// request, and so is a text without a line feed.
//
// The service reaches the rest of the system only through the four signal paths below, bound
// before start() and only read afterwards.
//
// Threading: start() and stop() may be called from any thread (lifecycleMutex_ guards the
// worker handle); the signal paths are called on the worker thread "orv-notebook". The socket
// handler is shared with that worker; its own mutex guards its descriptors.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "interfaces/notebook/socket_i.h"

namespace kel::nodbox::diag::orv {

class NotebookService {
 public:
  // An idle client is dropped after kMaxIdleReceives receive timeouts in a row.
  static constexpr std::chrono::milliseconds kDefaultReceiveTimeout{10000};
  static constexpr int kMaxIdleReceives = 3;

  NotebookService(const std::string& ip, uint16_t port,
                  std::chrono::milliseconds receiveTimeout = kDefaultReceiveTimeout);
  virtual ~NotebookService();
  NotebookService(const NotebookService&) = delete;
  NotebookService& operator=(const NotebookService&) = delete;

  // Validates the address, makes the socket and starts the worker; false when any step fails.
  // One start per object: after stop() the service stays down.
  virtual bool start();
  // Wakes the worker out of accept or receive, joins it and closes the sockets. Idempotent.
  virtual void stop();
  // Idempotent; false when the address is invalid or the socket cannot be bound.
  virtual bool makeSocket();
  virtual std::shared_ptr<SocketI> getSocketHandler();

  // Serves the connected client until it closes, errs or stays idle too long.
  virtual void receiveData();
  std::string responseWithUpdateStats();
  // Hands `text` without its trailing CR/LF to the start path: "0, 0, 0" once the path has taken
  // it, "1, 1, 1" when the path is unbound or refuses it.
  std::string startUpdateProcess(const std::string& text);
  // True when `text` contains a dotted IPv4 address.
  bool checkIpAddress(const std::string& text);
  // "" when address and port are usable, otherwise the error reply.
  std::string validateIpAndPort();

  // Signal paths.
  std::function<uint32_t()> mUpdateState;
  std::function<uint32_t()> mUpdateProgress;
  std::function<int32_t()> mUpdateErrorCode;
  // True when the medium is taken; the acknowledgement is sent only after it returns.
  std::function<bool(const std::string& mediumPath)> mStartUpdate;

 private:
  void run();
  // The reply to one request line; "" when there is none. Never throws.
  std::string answer(const std::string& request);

  const std::string ip_;
  const uint16_t port_;
  const std::shared_ptr<SocketI> socket_;
  std::atomic<bool> running_{false};
  std::mutex lifecycleMutex_;  // guards worker_ and started_
  std::thread worker_;
  bool started_ = false;
};

}  // namespace kel::nodbox::diag::orv

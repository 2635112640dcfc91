#pragma once
// Worker: one named thread that runs posted tasks in order.
//
// The binding runs user code (discovery handlers, receive handlers, method handlers) here, never
// on its I/O thread, so a handler that blocks on a future answered by the I/O thread cannot
// deadlock the transport.
//
// Threading: post() is thread-safe; the mutex guards the queue and the stop flag. Tasks run on
// the worker's own thread. Tasks still queued at destruction are dropped unrun.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace platform::someip {

class Worker {
 public:
  explicit Worker(std::string name);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void post(std::function<void()> task);
  // Ends the thread after the task that runs now; later posts are dropped.
  void stop();
  bool onWorkerThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  void run();

  const std::string name_;
  std::mutex mutex_;  // guards queue_ and stopping_
  std::condition_variable cv_;
  std::deque<std::function<void()>> queue_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace platform::someip

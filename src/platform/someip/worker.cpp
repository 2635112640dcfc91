#include "platform/someip/worker.h"

#include <pthread.h>

namespace platform::someip {

Worker::Worker(std::string name) : name_(std::move(name)) {
  thread_ = std::thread([this] { run(); });
}

Worker::~Worker() {
  stop();
}

void Worker::post(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
      return;
    queue_.push_back(std::move(task));
  }
  cv_.notify_one();
}

void Worker::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  cv_.notify_one();
  if (thread_.joinable() && !onWorkerThread())
    thread_.join();
}

void Worker::run() {
  pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) {
        // Dropped tasks may own answers (responders, promises): release them here, unlocked.
        auto dropped = std::move(queue_);
        lock.unlock();
        dropped.clear();
        return;
      }
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    task();
  }
}

}  // namespace platform::someip

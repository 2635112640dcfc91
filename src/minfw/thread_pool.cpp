#include "minfw/thread_pool.h"

#include <pthread.h>

#include <chrono>
#include <exception>

#include "minfw/clock.h"
#include "minfw/log.h"

namespace kel::vxp3::minfw {

namespace {
constexpr const char* kTag = "GLOBAL";
constexpr auto kIdleWait = std::chrono::milliseconds(500);
}  // namespace

ThreadPool::ThreadPool(int size, const std::string& name)
    : size_(size > 0 ? size : 1),
      busy_(std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(size_))) {
  for (int i = 0; i < size_; ++i)
    busy_[i].store(false);
  threads_.reserve(static_cast<std::size_t>(size_));
  for (int i = 0; i < size_; ++i) {
    threads_.emplace_back([this, i] { worker(i); });
    const std::string threadName = (name + "-" + std::to_string(i)).substr(0, 15);
    pthread_setname_np(threads_.back().native_handle(), threadName.c_str());
  }
}

ThreadPool::~ThreadPool() {
  stop_.store(true);
  {
    // Taking the mutex orders the notification after a worker's check of stop_.
    std::lock_guard<std::mutex> lock(mutex_);
  }
  wake_.notify_all();
  for (auto& t : threads_) {
    if (t.joinable())
      t.join();
  }
}

void ThreadPool::enqueue(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
    queued_.store(tasks_.size());
  }
  wake_.notify_one();
}

std::size_t ThreadPool::pending() const {
  std::size_t count = queued_.load();
  for (int i = 0; i < size_; ++i)
    count += busy_[i].load() ? 1 : 0;
  return count;
}

void ThreadPool::drain() const {
  std::size_t count = pending();
  if (count < 1)
    return;
  MLOG_INFO(kTag, "Waiting on threadPool, size=", count);
  while (count >= 1) {
    sleepMs(500);
    count = pending();
    MLOG_INFO(kTag, "threadPool, size=", count);
  }
  MLOG_INFO(kTag, "Waiting on threadPool done");
}

void ThreadPool::worker(int index) {
  while (!stop_.load()) {
    while (!stop_.load()) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (tasks_.empty())
        break;
      std::function<void()> task = std::move(tasks_.front());
      busy_[index].store(true);
      tasks_.pop_front();
      queued_.store(tasks_.size());
      lock.unlock();
      try {
        task();
      } catch (const std::exception& e) {
        // A task that throws is a programming error; keep the worker for the tasks behind it.
        MLOG_FATAL(kTag, "Task ended with an exception: ", e.what());
      } catch (...) {
        MLOG_FATAL(kTag, "Task ended with an unknown exception");
      }
      busy_[index].store(false);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (!stop_.load() && tasks_.empty())
      wake_.wait_for(lock, kIdleWait);
  }
}

}  // namespace kel::vxp3::minfw

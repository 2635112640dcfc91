#pragma once
// ThreadPool: a small first-in, first-out work queue.
//
// With one worker (what the update logic asks for) tasks never overlap and run strictly in
// enqueue order; a task may enqueue further tasks, which run after everything queued before them.
// Destruction stops the workers: a running task is waited for, tasks still queued are dropped.
//
// Threading: enqueue() and pending() are thread-safe. `mutex_` guards `tasks_`; the busy flags
// and the queued count are atomics so that pending() reads them without the mutex (it is an
// estimate while workers run). Must not be destroyed from one of its own tasks.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kel::vxp3::minfw {

class ThreadPool {
 public:
  // Starts `size` workers, named "<name>-<index>" (cut to the 15 characters a thread name holds).
  explicit ThreadPool(int size, const std::string& name = "pool");
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void enqueue(std::function<void()> task);

  // Running plus queued tasks.
  std::size_t pending() const;

  // Blocks until pending() is 0, logging the count every 500 ms (through the clock seam).
  // Logs nothing when nothing is pending. There is no upper bound on the wait.
  void drain() const;

  // True once destruction has begun; a long-running task polls it to end early.
  bool stopping() const { return stop_.load(); }

  int size() const { return size_; }

 private:
  void worker(int index);

  const int size_;
  std::atomic<bool> stop_{false};
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::atomic<std::size_t> queued_{0};  // tasks_.size(), readable without the mutex
  std::unique_ptr<std::atomic<bool>[]> busy_;
  std::vector<std::thread> threads_;
};

}  // namespace kel::vxp3::minfw

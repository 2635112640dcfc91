#pragma once
// HandoverMutex: a mutex that another thread than the locking one may unlock.
//
// A call that is issued on one thread and answered on another (a request whose answer arrives
// on a middleware receive thread) holds it from the request until the answer, and whoever
// completes the call unlocks it. std::mutex forbids that; this one is a flag guarded by a mutex,
// with the waiters on a condition variable. Not recursive, not fair.
//
// Threading: thread-safe. lock() blocks while the mutex is held; unlock() is called once per
// lock(), from any thread. The owner may destroy it as soon as it has locked it itself: unlock()
// touches nothing after it has let the next one in.

#include <condition_variable>
#include <mutex>

namespace kel::vxp3::minfw {

class HandoverMutex {
 public:
  HandoverMutex() = default;
  HandoverMutex(const HandoverMutex&) = delete;
  HandoverMutex& operator=(const HandoverMutex&) = delete;

  void lock() {
    std::unique_lock<std::mutex> lock(mutex_);
    free_.wait(lock, [this] { return !held_; });
    held_ = true;
  }
  // Notifies with the mutex held, so that a waiter that gets in (and may destroy this object)
  // cannot do so before the notification is done.
  void unlock() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    free_.notify_one();
  }

 private:
  std::mutex mutex_;  // guards held_
  std::condition_variable free_;
  bool held_ = false;
};

}  // namespace kel::vxp3::minfw

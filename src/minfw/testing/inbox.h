#pragma once
// Inbox: what callbacks on other threads saw, as text entries, for a test to wait on.
// Threading: thread-safe; `mutex_` guards the entries.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace kel::vxp3::minfw::testing {

class Inbox {
 public:
  void add(std::string entry) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entries_.push_back(std::move(entry));
    }
    changed_.notify_all();
  }

  // Waits until `entry` has arrived `times` times in all; false after `limit`.
  bool waitFor(const std::string& entry, std::chrono::milliseconds limit = std::chrono::seconds(20),
               std::size_t times = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return countLocked(entry) >= times; });
  }

  std::size_t count(const std::string& entry) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return countLocked(entry);
  }

  std::vector<std::string> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  std::size_t countLocked(const std::string& entry) const {
    return std::count(entries_.begin(), entries_.end(), entry);
  }

  mutable std::mutex mutex_;  // guards entries_
  std::condition_variable changed_;
  std::vector<std::string> entries_;
};

}  // namespace kel::vxp3::minfw::testing

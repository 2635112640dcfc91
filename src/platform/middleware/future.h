#pragma once
// Future<T> and Promise<T>: the answer of an asynchronous operation, a value or an error.
//
// A Promise sets its result once; the matching Future waits for it with or without a time limit
// and reads it as often as it likes. A Promise that is destroyed without a result gives the
// error kBrokenPromise, so a waiter never hangs on an abandoned answer. A Future may carry one
// continuation (then()), run by the thread that sets the result, or at once if it is set.
//
// Timed waits measure time on the clock seam (minfw::clock()), so tests drive time-outs in
// virtual time; with the system clock the wait is a plain condition-variable wait.
//
// Threading: thread-safe. Promise and Future share one state (the one place the answer is
// handed between threads); its mutex guards the result and the continuation. A Future object
// itself, like a Promise object, is used by one thread at a time.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/middleware/result.h"

namespace platform::middleware {

enum class FutureStatus { kReady, kTimeout };

namespace detail {

// Waits on `cv` (with `lock` held) until `ready()` or until `timeout` has passed on the clock
// seam. Returns ready().
bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
             const std::function<bool()>& ready, std::chrono::milliseconds timeout);

template <typename T>
class SharedState {
 public:
  using Continuation = std::function<void(const Result<T>&)>;

  // False if a result was already set.
  bool set(Result<T> result) {
    Continuation continuation;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (result_)
        return false;
      result_.emplace(std::move(result));
      continuation = std::move(continuation_);
    }
    cv_.notify_all();
    // The result never changes once set, so it is read here without the mutex.
    if (continuation)
      continuation(*result_);
    return true;
  }

  bool ready() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return result_.has_value();
  }

  // True while a continuation waits for the result.
  bool continued() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<bool>(continuation_);
  }

  void wait() const {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return result_.has_value(); });
  }

  FutureStatus waitFor(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return detail::waitFor(
               lock, cv_, [this] { return result_.has_value(); }, timeout)
               ? FutureStatus::kReady
               : FutureStatus::kTimeout;
  }

  Result<T> get() const {
    wait();
    return *result_;
  }

  void then(Continuation continuation) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!result_) {
        continuation_ = std::move(continuation);
        return;
      }
    }
    continuation(*result_);
  }

 private:
  mutable std::mutex mutex_;  // guards result_ and continuation_
  mutable std::condition_variable cv_;
  std::optional<Result<T>> result_;
  Continuation continuation_;
};

}  // namespace detail

template <typename T>
class Future {
 public:
  Future() = default;
  explicit Future(std::shared_ptr<detail::SharedState<T>> state) : state_(std::move(state)) {}

  // A future that is ready at once.
  static Future ready(Result<T> result) {
    auto state = std::make_shared<detail::SharedState<T>>();
    state->set(std::move(result));
    return Future(std::move(state));
  }

  bool valid() const { return state_ != nullptr; }
  bool is_ready() const { return state_ && state_->ready(); }

  // Waits without time limit. An invalid future returns at once.
  void wait() const {
    if (state_)
      state_->wait();
  }
  // Waits at most `timeout`; an invalid future reports kReady (get() then gives an error).
  FutureStatus wait_for(std::chrono::milliseconds timeout) const {
    return state_ ? state_->waitFor(timeout) : FutureStatus::kReady;
  }
  // Waits for the result and returns it (as often as asked).
  Result<T> get() const {
    if (!state_)
      return Result<T>::fromError(ErrorCode::kWrongState, "invalid future");
    return state_->get();
  }
  // Runs `continuation` with the result: now if it is set, else on the thread that sets it.
  void then(std::function<void(const Result<T>&)> continuation) {
    if (state_)
      state_->then(std::move(continuation));
    else
      continuation(Result<T>::fromError(ErrorCode::kWrongState, "invalid future"));
  }

 private:
  std::shared_ptr<detail::SharedState<T>> state_;
};

template <typename T>
class PromiseBase {
 public:
  PromiseBase() : state_(std::make_shared<detail::SharedState<T>>()) {}
  PromiseBase(PromiseBase&&) noexcept = default;
  PromiseBase& operator=(PromiseBase&& other) noexcept {
    if (this != &other) {
      abandon();
      state_ = std::move(other.state_);
    }
    return *this;
  }
  PromiseBase(const PromiseBase&) = delete;
  PromiseBase& operator=(const PromiseBase&) = delete;
  ~PromiseBase() { abandon(); }

  Future<T> get_future() const { return Future<T>(state_); }
  // False if the result was already set.
  bool set_error(ErrorCode code, std::string message = {}) {
    return state_ && state_->set(Result<T>::fromError(code, std::move(message)));
  }
  bool set_result(Result<T> result) { return state_ && state_->set(std::move(result)); }
  // True while some future still refers to the answer, or a continuation waits for it (its
  // future may be gone).
  bool awaited() const { return state_ && (state_.use_count() > 1 || state_->continued()); }

 private:
  void abandon() {
    if (state_)
      state_->set(Result<T>::fromError(ErrorCode::kBrokenPromise, "promise dropped unanswered"));
  }

 protected:
  std::shared_ptr<detail::SharedState<T>> state_;
};

template <typename T>
class Promise : public PromiseBase<T> {
 public:
  bool set_value(T value) { return this->state_ && this->state_->set(Result<T>(std::move(value))); }
};

template <>
class Promise<void> : public PromiseBase<void> {
 public:
  bool set_value() { return state_ && state_->set(Result<void>()); }
};

}  // namespace platform::middleware

#pragma once
// Results of middleware operations: a value or an error code with a text for the log.
//
// Threading: plain values; a Result is used by one thread at a time.

#include <optional>
#include <string>
#include <utility>

namespace platform::middleware {

enum class ErrorCode {
  kOk = 0,
  kTimeout,              // no answer in time
  kServiceNotAvailable,  // the service is not (or no longer) reachable
  kNetworkError,         // the connection broke while the call was pending
  kMalformedMessage,     // a payload could not be read
  kUnknownService,       // the peer does not offer the service
  kUnknownMethod,        // the peer does not implement the method
  kRemoteError,          // the peer answered with an error
  kBrokenPromise,        // the answering side dropped its promise without answering
  kNotConfigured,        // the host configuration names no such interface or member
  kWrongState,           // the operation does not fit the object's state
};

// "ok", "timeout", ...
std::string toString(ErrorCode code);

struct Error {
  ErrorCode code = ErrorCode::kOk;
  std::string message;
};

template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}      // NOLINT: implicit like a return value
  Result(Error error) : error_(std::move(error)) {}  // NOLINT
  static Result fromError(ErrorCode code, std::string message = {}) {
    return Result(Error{code, std::move(message)});
  }

  bool hasValue() const { return value_.has_value(); }
  explicit operator bool() const { return hasValue(); }
  const T& value() const& { return *value_; }
  T& value() & { return *value_; }
  T&& value() && { return std::move(*value_); }
  ErrorCode error() const { return hasValue() ? ErrorCode::kOk : error_.code; }
  const std::string& errorMessage() const { return error_.message; }

 private:
  std::optional<T> value_;
  Error error_;
};

template <>
class Result<void> {
 public:
  Result() = default;
  Result(Error error) : ok_(false), error_(std::move(error)) {}  // NOLINT
  static Result fromError(ErrorCode code, std::string message = {}) {
    return Result(Error{code, std::move(message)});
  }

  bool hasValue() const { return ok_; }
  explicit operator bool() const { return ok_; }
  ErrorCode error() const { return ok_ ? ErrorCode::kOk : error_.code; }
  const std::string& errorMessage() const { return error_.message; }

 private:
  bool ok_ = true;
  Error error_;
};

}  // namespace platform::middleware

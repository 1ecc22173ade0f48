// Result<T>: a value or the reason there is none. The one way our own seams
// report failure (opening a store, reaching the session bus, a transport that
// got no reply). Where an interface's shape is fixed by the system (a
// framework completion handler, a host-link request that returns none), that
// shape stays.
//
// A Failure carries an HTTP-like status and an error code where the failure
// came from, or will go to, the wire (halvo-hostd's replies), and always a
// text for people. Plain values; any thread.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace hvfp {

struct Failure {
  int status = 400;
  int code = 1;
  std::string message;
};

inline Failure fail(int status, int code, std::string message) {
  return Failure{status, code, std::move(message)};
}
// A failure that never reaches the wire: only its text matters.
inline Failure fail(std::string message) { return Failure{0, 0, std::move(message)}; }

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Failure f) : failure_(std::move(f)) {}
  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  T& value() { return *value_; }
  const T& value() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  const Failure& failure() const { return failure_; }

 private:
  std::optional<T> value_;
  Failure failure_;
};

// Success without a value.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Failure f) : failed_(true), failure_(std::move(f)) {}
  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  const Failure& failure() const { return failure_; }

 private:
  bool failed_ = false;
  Failure failure_;
};

}  // namespace hvfp

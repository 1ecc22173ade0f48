// Failure values shared by the host's modules: every refusal the host sends
// to a client carries an HTTP-like status, a nonzero error code and a text.
// Plain values; any thread.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace hvfp::hostd {

// Error codes of the host's replies. Stable numbers: clients match on them.
enum ErrorCode : int {
  kBadRequest = 1,       // missing key, wrong type, unknown type
  kNotFound = 2,         // no such item, mount, session reservation
  kNameTaken = 3,        // a live item with that name exists in the folder
  kBadName = 4,          // empty, ".", "..", contains "/" or NUL, too long
  kAlreadyGone = 5,      // deletion of an item already in the trash: the deletion is done
  kRootRefused = 6,      // mount roots cannot be trashed, renamed or moved
  kIntoItself = 7,       // a folder moved into itself or a descendant
  kCrossMount = 8,       // moves between mounts are refused
  kNotFolder = 9,        // parent is a file, or download of a folder
  kNotInTrash = 10,      // restore of a live item
  kHashMismatch = 11,    // contents do not match the announced SHA-1 or size
  kStorage = 12,         // disk or database failure
  kSessionUnknown = 13,  // upload session unknown or expired
  kServerDown = 14,      // the named upload server is not running
  kIncomplete = 15,      // close of a session that has not received every byte
  kInjected = 99,        // a fault injected through ctl without a code of its own
};

struct Failure {
  int status = 400;
  int code = kBadRequest;
  std::string message;
};

template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Failure f) : failure_(std::move(f)) {}
  bool ok() const { return value_.has_value(); }
  T& value() { return *value_; }
  const T& value() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  const Failure& failure() const { return failure_; }

 private:
  std::optional<T> value_;
  Failure failure_;
};

inline Failure fail(int status, int code, std::string message) {
  return Failure{status, code, std::move(message)};
}

}  // namespace hvfp::hostd

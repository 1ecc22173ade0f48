// Error: the platform's error object, carried as a value.
//
// Failures travel as results; an Error is copied freely and owns its texts.
// Codes are bare numbers of NSCocoaErrorDomain (3072 cancelled, 513 refused,
// 3328 not confirmed, 4610 lookup failed, 5120 transfer/upload failure).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace hvfp {

inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";

namespace ErrorCode {
inline constexpr int64_t Cancelled = 3072;
inline constexpr int64_t NoWritePermission = 513;
inline constexpr int64_t FeatureUnsupported = 3328;
inline constexpr int64_t LookupFailed = 4610;
inline constexpr int64_t CloudNetworkFailure = 5120;
}  // namespace ErrorCode

struct Error {
  using UserInfoValue = std::variant<int64_t, std::string>;

  std::string domain = NSCocoaErrorDomain;
  int64_t code = 0;
  std::map<std::string, UserInfoValue> userInfo;

  static Error cocoa(int64_t code) { return Error{NSCocoaErrorDomain, code, {}}; }
  bool operator==(const Error&) const = default;
};

}  // namespace hvfp

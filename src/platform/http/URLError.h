// Errors of the URL loading system: domain "NSURLErrorDomain" with the
// platform's codes, so the tasks above see the same numbers they would see on
// the platform. Values; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Error.h"

namespace hvfp {

inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

namespace URLErrorCode {
inline constexpr int64_t Unknown = -1;
inline constexpr int64_t Cancelled = -999;
inline constexpr int64_t BadURL = -1000;
inline constexpr int64_t TimedOut = -1001;
inline constexpr int64_t UnsupportedURL = -1002;
inline constexpr int64_t CannotFindHost = -1003;
inline constexpr int64_t CannotConnectToHost = -1004;
inline constexpr int64_t NetworkConnectionLost = -1005;
inline constexpr int64_t HTTPTooManyRedirects = -1007;
inline constexpr int64_t BadServerResponse = -1011;
inline constexpr int64_t FileDoesNotExist = -1100;
inline constexpr int64_t DataLengthExceedsMaximum = -1103;
inline constexpr int64_t SecureConnectionFailed = -1200;
inline constexpr int64_t ServerCertificateUntrusted = -1202;
inline constexpr int64_t CannotCreateFile = -3000;
inline constexpr int64_t CannotWriteToFile = -3003;
}  // namespace URLErrorCode

inline Error urlError(int64_t code, std::string description, const std::string& url = {}) {
  Error error{NSURLErrorDomain, code, {}};
  error.userInfo[NSLocalizedDescriptionKey] = std::move(description);
  if (!url.empty()) error.userInfo[NSURLErrorFailingURLStringErrorKey] = url;
  return error;
}

}  // namespace hvfp

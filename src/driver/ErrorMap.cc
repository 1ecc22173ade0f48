#include "driver/ErrorMap.h"

#include <cerrno>

#include "platform/Log.h"

namespace hvfp::driver {

int errnoFor(const Error& error) {
  if (error.domain == NSCocoaErrorDomain) {
    switch (error.code) {
      case ErrorCode::LookupFailed:
        return ENOENT;
      case ErrorCode::NoWritePermission:
        return EACCES;
      case ErrorCode::Cancelled:
        return ECANCELED;
      case ErrorCode::CloudNetworkFailure:
      case ErrorCode::FeatureUnsupported:
        return EIO;
      default:
        break;
    }
  }
  log("driver: unexpected error {} {}, reported as EIO", error.domain, error.code);
  return EIO;
}

}  // namespace hvfp::driver

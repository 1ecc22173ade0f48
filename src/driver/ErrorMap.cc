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

std::string failureText(const Error& error) {
  std::string out;
  if (auto code = error.userInfo.find("error"); code != error.userInfo.end()) {
    out += "error ";
    if (auto* n = std::get_if<int64_t>(&code->second)) out += std::to_string(*n);
    if (auto* t = std::get_if<std::string>(&code->second)) out += *t;
    out += ' ';
  }
  if (auto message = error.userInfo.find("message"); message != error.userInfo.end())
    if (auto* t = std::get_if<std::string>(&message->second); t && !t->empty())
      out += "\"" + *t + "\" ";
  return out + "(" + error.domain + " " + std::to_string(error.code) + ")";
}

}  // namespace hvfp::driver

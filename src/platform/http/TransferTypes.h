// The records of a transfer: what to send, where an upload's body comes from,
// what came back. Plain values, copied freely; any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Error.h"

namespace hvfp {

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

// First value of the header `name` (case-insensitive) in `fields`, if any.
std::optional<std::string> headerValue(const HeaderFields& fields, std::string_view name);

struct TransferRequest {
  TransferRequest() = default;
  TransferRequest(std::string url, std::string method = "GET")
      : url(std::move(url)), method(std::move(method)) {}

  std::string url;  // http or https; no proxy is ever used
  std::string method = "GET";
  // Sent in this order, after the connection's own "Host" and "Accept".
  // "Expect: 100-continue" is never sent: a body streams right after the head.
  HeaderFields headers;
  // The transfer fails with a time-out when nothing moves for this long,
  // connecting included. Zero: no limit.
  std::chrono::seconds timeoutInterval{60};

  // Replaces the value of a header already set (case-insensitive, keeping
  // its place) or appends the header.
  void setValue(std::string value, const std::string& field);
};

// The body of an upload: `length` bytes of the file at `path` from `offset`.
// The file is opened when the transfer starts and read as the bytes go out.
// A "Content-Length" header, when the request names one, must say `length`.
struct BodyFileRange {
  std::filesystem::path path;
  uint64_t offset = 0;
  uint64_t length = 0;
};

struct DownloadOptions {
  // Hash the body as it is written, for the caller to compare with the
  // content hash it expects (TransferTask::receivedSHA1()).
  bool computeSHA1 = false;
};

struct TransferResponse {
  long statusCode = 0;
  HeaderFields headers;                // as received, in order
  int64_t expectedContentLength = -1;  // the announced "Content-Length"; -1 when none

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return headerValue(headers, name);
  }
};

// A reply body is kept in memory up to this size (JSON error bodies and the
// like); an upload whose reply is larger fails with DataLengthExceedsMaximum.
inline constexpr size_t kMaxReplyBody = size_t{4} << 20;

// How a task ended, handed to the delegate once per task.
struct TransferCompletion {
  // The last response head received, if any. Present with an error too: a
  // server that answers an upload before reading its body gives both.
  std::optional<TransferResponse> response;
  // Upload: the reply body. Download: the body went to the file; it is kept
  // here as well (its first kMaxReplyBody bytes) only when the status is not
  // 2xx, so an error reply can be read after the file is gone.
  std::string body;
  std::optional<Error> error;  // domain NSURLErrorDomain; none on success
};

}  // namespace hvfp

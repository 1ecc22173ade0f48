// SharedSession: the blocking GET of the host query channel.
//
// Each calling thread keeps one libcurl easy handle of its own, so its
// loopback connection to the host stays alive between queries. A transfer
// gives up after 60 s without progress. A reply of any HTTP status is
// delivered with its body as text; no connection, a time-out, a body that is
// not UTF-8 or one larger than kMaxBody is a failure whose status is the
// HTTP status seen (0 when none) and whose message says why.
#pragma once

#include <cstddef>
#include <string>

#include "platform/Result.h"

namespace hvfp {

struct HttpReply {
  long status = 0;
  std::string body;
};

class SharedSession {
 public:
  // A hostile host must not be able to exhaust memory with one reply.
  static constexpr size_t kMaxBody = size_t{256} << 20;

  static Result<HttpReply> get(const std::string& url);
};

}  // namespace hvfp

// SharedSession: the blocking GET of the host query channel.
//
// Each calling thread keeps one libcurl easy handle of its own, so its
// loopback connection to the host stays alive between queries. A transfer
// gives up after stallLimit() (60 s) without progress. A reply of any HTTP
// status is delivered with its body as text; no connection, a time-out, a
// body that is not UTF-8 or one larger than the caller's limit is a failure
// whose status is the HTTP status seen (0 when none) and whose message says
// why. A body over the limit is not read to its end: the transfer stops as
// soon as the limit is passed. Any thread.
#pragma once

#include <chrono>
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

  // `maxBody` above kMaxBody counts as kMaxBody.
  static Result<HttpReply> get(const std::string& url, size_t maxBody = kMaxBody);

  // How long a query may go without receiving a byte. Fixed in the product;
  // tests shorten it (whole seconds, at least 1). Takes effect for queries
  // that start afterwards.
  static std::chrono::seconds stallLimit();
  static void setStallLimit(std::chrono::seconds limit);
};

}  // namespace hvfp

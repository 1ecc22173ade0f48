// SharedSession: the blocking GET of the host query channel.
//
// Each calling thread keeps one libcurl easy handle of its own, so its
// loopback connection to the host stays alive between queries. A transfer
// gives up after 60 s without progress. The reply body comes back as text;
// every failure (no connection, time-out, a body that is not UTF-8 or larger
// than kMaxBody) gives the empty text, as the channel's callers expect.
// lastOutcome() tells the calling thread how its last query ended, for
// callers that must tell "no host" from "empty answer" (the console).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace hvfp {

struct QueryOutcome {
  bool delivered = false;  // a complete HTTP reply arrived
  long httpStatus = 0;     // 0 without a reply
  std::string failure;     // why nothing usable came, empty when delivered
};

class SharedSession {
 public:
  // A hostile host must not be able to exhaust memory with one reply.
  static constexpr size_t kMaxBody = size_t{256} << 20;

  static std::string get(const std::string& url);
  static QueryOutcome lastOutcome();
  // How many queries this thread has made; tells whether lastOutcome() is
  // about a query made since some earlier moment.
  static uint64_t queriesMade();
};

}  // namespace hvfp

// HTTP/1.1 on plain sockets, for the servers that must decide exactly what
// reaches the wire: halvo-hostd's upload servers (early replies from the head
// alone, cut connections) and the tests' loopback server (scripted, broken
// and dribbled replies). Reading and parsing a request head, reading a body
// of known length in bounded chunks, writing replies, listening, and the two
// ways of ending a connection early.
//
// Plain functions, plus one RequestReader per connection that belongs to the
// thread serving that connection. Every call retries on EINTR. Depends on the
// standard library and POSIX only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace hvfp::wire {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct RequestHead {
  std::string method;
  std::string target;  // as sent: path and query
  std::string path;    // the target up to "?"
  std::string query;   // the raw text after "?", not decoded
  Headers headers;     // in arrival order; values without surrounding blanks

  // The first header of that name (case-insensitive), or null.
  const std::string* header(std::string_view name) const;
};

bool equalsIgnoreCase(std::string_view a, std::string_view b);
// Digits only, at most 19 of them (so no overflow); nothing else accepted.
std::optional<uint64_t> parseDecimal(std::string_view text);
// The head without its closing blank line; std::nullopt when the request
// line or a header line is malformed.
std::optional<RequestHead> parseHead(std::string_view head);

// Sends all of `data`; false once the peer is gone or the send timed out.
bool sendAll(int fd, std::string_view data);
// One recv(): bytes read, 0 at the end of the stream, -1 on error or timeout.
ssize_t receiveSome(int fd, char* buffer, size_t size);

// Reads the requests of one connection in turn. Bytes that arrive after a
// head or body stay buffered for the next request.
class RequestReader {
 public:
  enum class Head { Ok, Closed, TooLarge };
  using Sink = std::function<bool(const char* data, size_t size)>;

  RequestReader(int fd, size_t maxHead) : fd_(fd), maxHead_(maxHead) {}

  // The next head, without its blank line. Closed when the peer ended or
  // failed first; TooLarge when it exceeds maxHead.
  Head readHead(std::string& head);
  // Hands the next `length` body bytes to `sink`, at most `chunk` at a
  // time, so a body of any size needs at most `chunk` bytes of memory. false
  // when the peer ended or failed first, or the sink refused.
  bool readBody(uint64_t length, size_t chunk, const Sink& sink);
  // The whole body as a string; for bodies known to be small.
  bool readBody(uint64_t length, std::string& body);

 private:
  int fd_;
  size_t maxHead_;
  std::string buffered_;
};

const char* reasonPhrase(int status);
// Status line, the given headers and the blank line.
std::string replyHead(int status, const Headers& headers);
// A whole reply: Content-Type, Content-Length and Connection, then `body`.
std::string replyText(int status, std::string_view contentType, std::string_view body,
                      bool keepAlive);

// Ends a connection after an early reply while the client may still be
// sending: the write side is shut first and what arrives is discarded for at
// most `limit` or `maxDiscard` bytes, so that closing does not turn into a
// reset that destroys the reply before the client reads it. Does not close.
void lingeringClose(int fd, std::chrono::milliseconds limit, uint64_t maxDiscard);
// Makes the coming close() reset the connection instead of ending it.
void resetOnClose(int fd);

struct Listening {
  int fd = -1;    // -1 when listening failed
  int port = 0;   // the port actually bound (port 0 picks a free one)
  int error = 0;  // errno of the step that failed
};
// A TCP listener on an IPv4 address, close-on-exec, with SO_REUSEADDR.
Listening listenOn(const std::string& address, int port, int backlog);

}  // namespace hvfp::wire

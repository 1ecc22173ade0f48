// LoopbackServer: an in-process HTTP/1.1 server on 127.0.0.1 for protocol
// tests. It binds a free port, records every request exactly as it arrived
// (method, raw target and query text, headers, body) and answers with
// scripted replies: a status and body, after a delay, or a connection dropped
// without an answer; a body cut short of its Content-Length, dribbled out in
// pieces with pauses, or generated as it is sent. Connections are kept alive
// like a real server's.
//
// Written on plain sockets (the shared HTTP wire code) rather than an HTTP
// library so a test controls what reaches the wire, including replies that
// never come. Thread-safe: one thread accepts, one thread serves each
// connection; tests read the record from their own thread. The destructor
// ends pauses and delays at once.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace hvfp::test {

struct RecordedRequest {
  std::string method;
  std::string target;  // as sent: path and query
  std::string path;
  std::string query;  // the raw text after "?", not decoded
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // First header of that name (case-insensitive), if any.
  std::optional<std::string> header(std::string_view name) const;
};

struct ScriptedReply {
  ScriptedReply() = default;
  ScriptedReply(int status, std::string body, std::chrono::milliseconds delay = {},
                bool drop = false)
      : status(status), body(std::move(body)), delay(delay), drop(drop) {}
  static ScriptedReply dropped() { return ScriptedReply(0, "", {}, true); }
  // The full Content-Length of `body` is announced, `after` bytes are sent,
  // then the connection closes.
  static ScriptedReply truncated(int status, std::string body, size_t after);
  // `body` in pieces of `chunk` bytes, with `pause` before every piece but
  // the first; a client can cancel or stop reading in between.
  static ScriptedReply dribbled(int status, std::string body, size_t chunk,
                                std::chrono::milliseconds pause);
  // `size` bytes of LoopbackServer::pattern() starting at pattern position
  // `offset`, made as they are sent (any size, little memory). Status 200,
  // Content-Type application/octet-stream.
  static ScriptedReply generated(uint64_t size, uint64_t offset = 0);
  // `size` bytes that `produce(offset, length)` makes piece by piece as they
  // are sent (exactly `length` bytes each time), in pieces of up to 64 KiB:
  // a reply of any size that is never held whole. Content-Type JSON.
  using Producer = std::function<std::string(uint64_t offset, size_t length)>;
  static ScriptedReply streamed(int status, uint64_t size, Producer produce);

  int status = 200;
  std::string body = "{}";
  std::chrono::milliseconds delay{0};
  bool drop = false;  // close the connection instead of answering
  std::vector<std::pair<std::string, std::string>> headers;
  std::string contentType = "application/json";
  // Only this many body bytes are sent, then the connection closes; the
  // Content-Length still announces the whole body.
  std::optional<uint64_t> truncateAfter;
  size_t chunkSize = 0;                     // > 0: the body goes out in pieces this large...
  std::chrono::milliseconds chunkPause{0};  // ...with this pause between them
  // Instead of `body`: this many pattern bytes, from position patternOffset.
  std::optional<uint64_t> generatedSize;
  uint64_t patternOffset = 0;
  Producer producer;  // with generatedSize: makes the bytes instead of the pattern
};

class LoopbackServer {
 public:
  using Handler = std::function<ScriptedReply(const RecordedRequest&)>;

  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // Replies handed out in order; when none is queued the handler (if set)
  // or the default reply answers.
  void enqueue(ScriptedReply reply);
  void setDefault(ScriptedReply reply);
  void setHandler(Handler handler);

  std::vector<RecordedRequest> requests() const;
  std::vector<std::string> queries() const;
  size_t requestCount() const;
  // Blocks until `n` requests were recorded or `timeout` passed.
  bool waitForRequests(size_t n, std::chrono::milliseconds timeout) const;

  // Replies whose body the client stopped taking before its end (it closed
  // or reset the connection); truncated replies do not count.
  size_t unfinishedReplies() const;
  // Blocks until `n` replies were left unfinished or `timeout` passed.
  bool waitForUnfinishedReplies(size_t n, std::chrono::milliseconds timeout) const;

  // The bytes of generated bodies: byte i of the pattern depends only on i,
  // so a test can check any range it received.
  static std::string pattern(uint64_t offset, size_t size);

 private:
  void acceptLoop();
  void serve(int fd);
  ScriptedReply replyFor(const RecordedRequest& request);
  // false when the connection is to end after this reply.
  bool sendReply(int fd, const ScriptedReply& reply);
  // Waits, unless the server is being destroyed; false then.
  bool pause(std::chrono::milliseconds duration);

  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::condition_variable stopped_;
  std::vector<RecordedRequest> requests_;
  std::deque<ScriptedReply> queue_;
  ScriptedReply default_;
  Handler handler_;
  std::vector<std::thread> connections_;
  std::vector<int> openFds_;
  size_t unfinished_ = 0;
};

}  // namespace hvfp::test

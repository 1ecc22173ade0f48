// LoopbackServer: an in-process HTTP/1.1 server on 127.0.0.1 for protocol
// tests. It binds a free port, records every request exactly as it arrived
// (method, raw target and query text, headers, body) and answers with
// scripted replies: a status and body, after a delay, or a connection dropped
// without an answer. Connections are kept alive like a real server's.
//
// Written on plain sockets rather than an HTTP library so a test controls
// what reaches the wire, including replies that never come. Thread-safe: one
// thread accepts, one thread serves each connection; tests read the record
// from their own thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
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

  int status = 200;
  std::string body = "{}";
  std::chrono::milliseconds delay{0};
  bool drop = false;  // close the connection instead of answering
  std::vector<std::pair<std::string, std::string>> headers;
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

 private:
  void acceptLoop();
  void serve(int fd);
  ScriptedReply replyFor(const RecordedRequest& request);

  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;

  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::vector<RecordedRequest> requests_;
  std::deque<ScriptedReply> queue_;
  ScriptedReply default_;
  Handler handler_;
  std::vector<std::thread> connections_;
  std::vector<int> openFds_;
};

}  // namespace hvfp::test

// StatusServer: a running mount's answer to `halvofp status`, on a Unix
// stream socket in the domain's cache folder ("status.sock", mode 0600).
// A client connects; the server writes one JSON document and closes. It
// reads nothing from the client.
//
// The socket is bound under a passing name and renamed into place, so a
// socket a killed mount left is replaced whole and no client ever sees a
// file with looser modes. One that still answers belongs to a live mount of
// the same domain: start() then fails and leaves it alone. The socket is
// removed when the server stops, unless another server replaced it since.
// Paths longer than a socket address holds are reached through the
// folder's descriptor (/proc/self/fd/N/...).
//
// The document is built by `answer` on the server's thread, one client at
// a time; `tick` runs there about once a second, between clients. A client
// that does not read is given up after a bounded wait.
//
// Ownership: owns the socket, its file and the server thread, which the
// destructor stops and joins; `answer` and `tick` must stay callable until
// then. Threads: start() and the destructor from one thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/Result.h"

namespace hvfp::driver {

class StatusServer {
 public:
  using Answer = std::function<std::string()>;
  using Tick = std::function<void()>;

  static Result<std::unique_ptr<StatusServer>> start(const std::string& path, Answer answer,
                                                     Tick tick);
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  const std::string& path() const { return path_; }

 private:
  StatusServer(std::string path, int listener, int wake, ino_t inode, Answer answer, Tick tick);
  void serve();
  void answerOne(int client);

  const std::string path_;
  const int listener_;
  const int wake_;     // an eventfd: readable once the server is to stop
  const ino_t inode_;  // of the socket file, to remove only our own
  Answer answer_;
  Tick tick_;
  std::thread thread_;
};

// The document the server at `path` writes; a failure when nothing listens
// there or it does not answer within `bound`.
Result<std::string> askStatus(const std::string& path, std::chrono::milliseconds bound);

}  // namespace hvfp::driver

// One upload server: a small HTTP/1.1 server over POSIX sockets that takes
// PUT /upload_part pieces for the UploadSessions.
//
// Its own server rather than cpp-httplib because the piece protocol needs to
// answer 409/202 from the headers alone, before the body is read, and then
// cut the connection so the client's transfer fails with that status.
// Accepted pieces are streamed to disk in 1 MiB chunks; the connection stays
// open for the next piece. Faults armed for "piece" or "piece@<port>" apply.
//
// Owned by the Host. start()/stop() may come from any thread (they serialise
// on their own lock); the server runs one accept thread and one thread per
// connection. up(), port() and baseUrl() may be read from any thread.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "Faults.h"
#include "Outcome.h"
#include "Uploads.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::hostd {

class UploadServer {
 public:
  UploadServer(std::string bindAddress, int port, UploadSessions& sessions, FaultTable& faults,
               bool quiet);
  ~UploadServer();

  // Listens on the port (0 picks a free one, kept for later restarts).
  Result<void> start();
  // Closes the listener and every connection; sessions stay.
  void stop();
  bool up() const { return up_; }
  int port() const { return port_; }
  std::string baseUrl() const;

 private:
  // One client connection and the thread serving it. `fd` is -1 once the
  // thread closed it; both it and `done` change under connMutex_.
  struct Connection {
    int fd = -1;
    std::thread thread;
    std::atomic<bool> done{false};
  };
  struct Exchange;
  struct PieceRequest;

  void acceptLoop(int listenFd);
  void admit(int fd);
  void serve(Connection& conn, int fd);
  void handle(Exchange& ex, const std::string& head);
  std::optional<PieceRequest> validate(Exchange& ex, const std::string& head);
  // Applies the fault armed for the next piece. true when it answered (or
  // cut) the request; otherwise `shape` says how the body is to be read.
  bool injectFault(Exchange& ex, const PieceRequest& piece, BodyShape& shape);
  void receive(Exchange& ex, const PieceRequest& piece, const BodyShape& shape);
  // Sleeps in short steps; false when the server stopped meanwhile.
  bool pause(int ms) const;
  void reap(bool all);

  const std::string bind_;
  std::atomic<int> port_;
  UploadSessions& sessions_;
  FaultTable& faults_;
  const bool quiet_;
  std::atomic<bool> up_{false};

  Mutex lifecycleMutex_;
  int listenFd_ GUARDED_BY(lifecycleMutex_) = -1;
  std::thread acceptThread_ GUARDED_BY(lifecycleMutex_);

  Mutex connMutex_;
  std::list<std::unique_ptr<Connection>> conns_ GUARDED_BY(connMutex_);
};

}  // namespace hvfp::hostd

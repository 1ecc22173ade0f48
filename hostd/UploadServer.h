// One upload server: a small HTTP/1.1 server over POSIX sockets that takes
// PUT /upload_part pieces for the UploadSessions.
//
// Its own server rather than cpp-httplib because the piece protocol needs to
// answer 409/202 from the headers alone, before the body is read, and then
// cut the connection so the client's transfer fails with that status.
// Accepted pieces are streamed to disk in 1 MiB chunks; the connection stays
// open for the next piece.
//
// Owned by the Host. start()/stop() from one controlling thread; the server
// runs one accept thread and one thread per connection. up() and port() may
// be read from any thread.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Faults.h"
#include "Uploads.h"

namespace hvfp::hostd {

class UploadServer {
 public:
  UploadServer(std::string bindAddress, int port, UploadSessions& sessions, FaultTable& faults,
               bool quiet);
  ~UploadServer();

  // Listens on the port (0 picks a free one, kept for later restarts).
  bool start(std::string* why);
  // Closes the listener and every connection; sessions stay.
  void stop();
  bool up() const { return up_; }
  int port() const { return port_; }
  std::string baseUrl() const;

 private:
  struct Connection {
    int fd = -1;
    std::thread thread;
    std::atomic<bool> done{false};
  };
  void acceptLoop();
  void serve(Connection& conn);
  void reap(bool all);

  std::string bind_;
  std::atomic<int> port_;
  UploadSessions& sessions_;
  FaultTable& faults_;
  bool quiet_;
  std::atomic<bool> up_{false};
  int listenFd_ = -1;
  std::thread acceptThread_;
  std::mutex connMutex_;
  std::list<std::unique_ptr<Connection>> conns_;
};

}  // namespace hvfp::hostd

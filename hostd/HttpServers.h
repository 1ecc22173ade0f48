// The host's cpp-httplib servers: the query server (GET /provider), the
// download server (GET /blob/<sha1>, with Range) and the admin endpoint that
// `halvo-hostd ctl` talks to (GET /ctl/<command>?...).
//
// Each server owns its httplib::Server objects and their listening threads.
// start()/stop()/move() are called from the Host's controlling threads (main
// and the admin handler, serialised by the Host); request handlers run on
// httplib's worker threads and only touch the shared handlers they were given.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Blobs.h"
#include "Faults.h"
#include "Queries.h"
#include "platform/ThreadAnnotations.h"

namespace httplib {
class Server;
}

namespace hvfp::hostd {

// One httplib::Server listening on one port in its own thread. Handlers that
// wait (delays, slow bodies) watch stopping() so that stop() is not held up.
class Listener {
 public:
  Listener();
  ~Listener();
  Result<void> start(const std::string& bind, int port);
  void stop();
  int port() const { return port_; }
  httplib::Server& server() { return *server_; }
  const std::atomic<bool>& stopping() const { return stopping_; }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  int port_ = 0;
};

class QueryServer {
 public:
  QueryServer(std::string bind, QueryHandler& handler, bool quiet);
  ~QueryServer();
  Result<void> start(int port);
  // Starts listening on `port` first, then runs `announce` with the new port,
  // then closes the old listener, so a client is never left without one.
  Result<void> move(int port, const std::function<void(int)>& announce);
  void stop();
  int port();

 private:
  std::unique_ptr<Listener> make();

  std::string bind_;
  QueryHandler& handler_;
  bool quiet_;
  Mutex mutex_;
  std::unique_ptr<Listener> current_ GUARDED_BY(mutex_);
};

class DownloadServer {
 public:
  DownloadServer(std::string bind, BlobStore& blobs, FaultTable& faults, bool quiet);
  ~DownloadServer();
  Result<void> start(int port);
  void stop();
  int port() const;
  std::string urlOf(std::string_view sha1) const;

 private:
  std::string bind_;
  BlobStore& blobs_;
  FaultTable& faults_;
  bool quiet_;
  std::unique_ptr<Listener> listener_;
};

// Answers one admin command from its query pairs.
using AdminCommand = std::function<Reply(const std::string& command, const Params& params)>;

class AdminServer {
 public:
  AdminServer(std::string bind, AdminCommand command, bool quiet);
  ~AdminServer();
  Result<void> start(int port);
  void stop();
  int port() const;

 private:
  std::string bind_;
  AdminCommand command_;
  bool quiet_;
  std::unique_ptr<Listener> listener_;
};

}  // namespace hvfp::hostd

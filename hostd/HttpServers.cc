#include "HttpServers.h"

#include <fcntl.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "platform/Log.h"

namespace hvfp::hostd {

namespace {

constexpr size_t kChunk = 1 << 20;
constexpr int kMaxDelayMs = 60000;

Params toParams(const httplib::Request& req) {
  return Params(req.params.begin(), req.params.end());
}

// Sleeps in short steps; false when the listener began stopping meanwhile.
bool pause(int ms, const std::atomic<bool>& stopping) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!stopping) {
    auto left = until - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return true;
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(50)));
  }
  return false;
}

// Copies up to `size` body bytes from `offset` into `out`; the count, or <= 0.
using Fill = std::function<ssize_t(char* out, size_t size, size_t offset)>;

// Sends a body in steps of at most 1 MiB, or as a Cut or Slow fault shapes
// it. A provider that returns false makes httplib close the connection, so a
// cut body leaves the client short of the Content-Length it was promised.
httplib::ContentProvider shapedBody(Fill fill, BodyShape shape, const std::atomic<bool>& stopping) {
  auto sent = std::make_shared<uint64_t>(0);
  return [fill = std::move(fill), shape, sent, &stopping](size_t offset, size_t length,
                                                          httplib::DataSink& sink) {
    if (shape.cutAfter && *sent >= *shape.cutAfter) return false;
    if (shape.pauseMs > 0 && !pause(shape.pauseMs, stopping)) return false;
    size_t n = std::min(length, shape.step > 0 ? shape.step : kChunk);
    if (shape.cutAfter) n = static_cast<size_t>(std::min<uint64_t>(n, *shape.cutAfter - *sent));
    std::vector<char> buf(n);
    ssize_t got = fill(buf.data(), n, offset);
    if (got <= 0) return false;
    *sent += static_cast<uint64_t>(got);
    return sink.write(buf.data(), static_cast<size_t>(got));
  };
}

// Sends the head and then closes the connection without a body: the client
// sees its transfer cut short.
void dropConnection(httplib::Response& res) {
  res.status = 200;
  res.set_content_provider(64, "application/json",
                           [](size_t, size_t, httplib::DataSink&) { return false; });
}

void sendReply(const Reply& r, httplib::Response& res, const std::atomic<bool>& stopping) {
  if (r.delayMs > 0 && !pause(r.delayMs, stopping)) return dropConnection(res);
  if (r.drop) return dropConnection(res);
  res.status = r.status;
  if (r.shape.plain()) return res.set_content(r.body, "application/json");
  auto body = std::make_shared<const std::string>(r.body);
  auto fill = [body](char* out, size_t size, size_t offset) -> ssize_t {
    size_t n = offset < body->size() ? std::min(size, body->size() - offset) : 0;
    std::memcpy(out, body->data() + offset, n);
    return static_cast<ssize_t>(n);
  };
  res.set_content_provider(body->size(), "application/json", shapedBody(fill, r.shape, stopping));
}

}  // namespace

Listener::Listener() : server_(std::make_unique<httplib::Server>()) {
  // Every endpoint takes GET queries; a body is never needed, and without a
  // limit the library would read any size of one into memory first.
  server_->set_payload_max_length(64 * 1024);
  // Small replies on kept-alive connections: without this each waits for
  // the peer's delayed acknowledgement. The library's own worker pool stays:
  // a larger pool built here from its header mixed up requests between
  // workers (the packaged library is compiled separately from that header).
  server_->set_tcp_nodelay(true);
  // Each idle kept-alive connection holds one of the library's few workers
  // (one per core, at least 8); a client with more threads than that, each
  // keeping its own connection, would otherwise wait the library's default
  // of 5 s for one to be let go.
  server_->set_keep_alive_timeout(1);
}

Listener::~Listener() { stop(); }

Result<void> Listener::start(const std::string& bind, int port) {
  bool bound = port == 0 ? (port_ = server_->bind_to_any_port(bind.c_str())) > 0
                         : server_->bind_to_port(bind.c_str(), port);
  if (!bound) return fail("cannot listen on " + bind + ":" + std::to_string(port));
  if (port != 0) port_ = port;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() is a no-op until the accept loop runs, so a listener stopped right
  // after starting would otherwise never end.
  for (int i = 0; i < 5000 && !server_->is_running(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return {};
}

void Listener::stop() {
  stopping_ = true;
  if (!thread_.joinable()) return;
  server_->stop();
  thread_.join();
}

QueryServer::QueryServer(std::string bind, QueryHandler& handler, bool quiet)
    : bind_(std::move(bind)), handler_(handler), quiet_(quiet) {}

QueryServer::~QueryServer() { stop(); }

std::unique_ptr<Listener> QueryServer::make() {
  auto listener = std::make_unique<Listener>();
  Listener* self = listener.get();
  listener->server().Get("/provider",
                         [this, self](const httplib::Request& req, httplib::Response& res) {
                           Params params = toParams(req);
                           Reply r = handler_.handle(params);
                           sendReply(r, res, self->stopping());
                           if (!quiet_)
                             log("GET /provider type={} status={}", QueryHandler::typeOf(params),
                                 r.drop ? std::string("dropped") : std::to_string(r.status));
                         });
  listener->server().set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty())
      res.set_content(errorReply(fail(res.status, kNotFound, "no such path")), "application/json");
  });
  return listener;
}

Result<void> QueryServer::start(int port) {
  MutexLock lock(mutex_);
  auto l = make();
  if (auto started = l->start(bind_, port); !started.ok()) return started;
  current_ = std::move(l);
  return {};
}

Result<void> QueryServer::move(int port, const std::function<void(int)>& announce) {
  std::unique_ptr<Listener> old;
  int newPort = 0;
  {
    MutexLock lock(mutex_);
    auto l = make();
    if (auto started = l->start(bind_, port); !started.ok()) return started;
    newPort = l->port();
    old = std::move(current_);
    current_ = std::move(l);
  }
  announce(newPort);
  if (old) old->stop();
  return {};
}

void QueryServer::stop() {
  MutexLock lock(mutex_);
  if (current_) current_->stop();
  current_.reset();
}

int QueryServer::port() {
  MutexLock lock(mutex_);
  return current_ ? current_->port() : 0;
}

DownloadServer::DownloadServer(std::string bind, BlobStore& blobs, FaultTable& faults, bool quiet)
    : bind_(std::move(bind)), blobs_(blobs), faults_(faults), quiet_(quiet) {}

DownloadServer::~DownloadServer() { stop(); }

namespace {

// The reply a fault without a body shape gives instead of the blob.
void faultReply(const Fault& f, httplib::Response& res) {
  res.status = f.status;
  if (f.kind == FaultKind::NotJson)
    res.set_content("<html>trouble</html>", "text/html");
  else if (f.body.empty() && f.kind != FaultKind::Body)
    res.set_content(
        errorReply(fail(f.status, f.errorCode, f.message.empty() ? "injected fault" : f.message)),
        "application/json");
  else
    res.set_content(f.body, "application/json");
}

}  // namespace

Result<void> DownloadServer::start(int port) {
  listener_ = std::make_unique<Listener>();
  const std::atomic<bool>& stopping = listener_->stopping();
  listener_->server().Get(R"(/blob/([0-9a-f]{40}))", [this, &stopping](const httplib::Request& req,
                                                                       httplib::Response& res) {
    std::string hash = req.matches[1];
    auto logLine = [&](const std::string& status) {
      if (!quiet_)
        log("GET /blob/{} range={} status={}", hash, req.get_header_value("Range"), status);
    };
    BodyShape shape;
    if (auto f = faults_.take("blob")) {
      bool late = f->kind != FaultKind::Slow && f->delayMs > 0 &&
                  !pause(std::min(f->delayMs, kMaxDelayMs), stopping);
      if (late || f->kind == FaultKind::Drop || f->kind == FaultKind::Reset) {
        dropConnection(res);
        return logLine("dropped");
      }
      if (f->kind == FaultKind::Cut || f->kind == FaultKind::Slow) {
        shape = BodyShape::of(*f);
      } else if (f->kind != FaultKind::Delay) {
        faultReply(*f, res);
        return logLine(std::to_string(res.status));
      }
    }
    int fd = ::open(blobs_.pathOf(hash).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      res.status = 404;
      res.set_content(errorReply(fail(404, kNotFound, "no such blob")), "application/json");
      return logLine("404");
    }
    off_t size = ::lseek(fd, 0, SEEK_END);
    auto shared = std::make_shared<int>(fd);
    auto fill = [shared](char* out, size_t n, size_t offset) {
      return ::pread(*shared, out, n, static_cast<off_t>(offset));
    };
    // Streamed in 1 MiB reads; httplib cuts the range and answers 206.
    res.set_content_provider(static_cast<size_t>(size), "application/octet-stream",
                             shapedBody(fill, shape, stopping),
                             [shared](bool) { ::close(*shared); });
    logLine(req.ranges.empty() ? "200" : "206");
  });
  return listener_->start(bind_, port);
}

void DownloadServer::stop() {
  if (listener_) listener_->stop();
}

int DownloadServer::port() const { return listener_ ? listener_->port() : 0; }

std::string DownloadServer::urlOf(std::string_view sha1) const {
  return "http://" + bind_ + ":" + std::to_string(port()) + "/blob/" + std::string(sha1);
}

AdminServer::AdminServer(std::string bind, AdminCommand command, bool quiet)
    : bind_(std::move(bind)), command_(std::move(command)), quiet_(quiet) {}

AdminServer::~AdminServer() { stop(); }

Result<void> AdminServer::start(int port) {
  listener_ = std::make_unique<Listener>();
  listener_->server().Get(R"(/ctl/([a-z0-9-]+))",
                          [this](const httplib::Request& req, httplib::Response& res) {
                            std::string cmd = req.matches[1];
                            Reply r = command_(cmd, toParams(req));
                            res.status = r.status;
                            res.set_content(r.body, "application/json");
                            if (!quiet_) log("GET /ctl/{} status={}", cmd, r.status);
                          });
  return listener_->start(bind_, port);
}

void AdminServer::stop() {
  if (listener_) listener_->stop();
}

int AdminServer::port() const { return listener_ ? listener_->port() : 0; }

}  // namespace hvfp::hostd

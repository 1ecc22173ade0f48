#include "HttpServers.h"

#include <fcntl.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>

#include "platform/Log.h"

namespace hvfp::hostd {

namespace {

constexpr size_t kChunk = 1 << 20;

Params toParams(const httplib::Request& req) {
  return Params(req.params.begin(), req.params.end());
}

// Sends the head and then closes the connection without a body: the client
// sees its transfer cut short.
void dropConnection(httplib::Response& res) {
  res.status = 200;
  res.set_content_provider(64, "application/json",
                           [](size_t, size_t, httplib::DataSink&) { return false; });
}

void sendReply(const Reply& r, httplib::Response& res) {
  if (r.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(r.delayMs));
  if (r.drop) return dropConnection(res);
  res.status = r.status;
  res.set_content(r.body, "application/json");
}

}  // namespace

Listener::Listener(std::unique_ptr<httplib::Server> server) : server_(std::move(server)) {}

namespace {

// Every endpoint takes GET queries; a body is never needed, and without a
// limit the library would read any size of one into memory first.
std::unique_ptr<httplib::Server> makeServer() {
  auto server = std::make_unique<httplib::Server>();
  server->set_payload_max_length(64 * 1024);
  return server;
}

}  // namespace

Listener::~Listener() { stop(); }

bool Listener::start(const std::string& bind, int port, std::string* why) {
  bool bound = port == 0 ? (port_ = server_->bind_to_any_port(bind.c_str())) > 0
                         : server_->bind_to_port(bind.c_str(), port);
  if (!bound) {
    if (why) *why = "cannot listen on " + bind + ":" + std::to_string(port);
    return false;
  }
  if (port != 0) port_ = port;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() is a no-op until the accept loop runs, so a listener stopped right
  // after starting would otherwise never end.
  for (int i = 0; i < 5000 && !server_->is_running(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

void Listener::stop() {
  if (!thread_.joinable()) return;
  server_->stop();
  thread_.join();
}

QueryServer::QueryServer(std::string bind, QueryHandler& handler, bool quiet)
    : bind_(std::move(bind)), handler_(handler), quiet_(quiet) {}

QueryServer::~QueryServer() { stop(); }

std::unique_ptr<Listener> QueryServer::make() {
  auto server = makeServer();
  server->Get("/provider", [this](const httplib::Request& req, httplib::Response& res) {
    Params params = toParams(req);
    Reply r = handler_.handle(params);
    sendReply(r, res);
    if (!quiet_)
      log("GET /provider type={} status={}", QueryHandler::typeOf(params),
          r.drop ? std::string("dropped") : std::to_string(r.status));
  });
  server->set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty())
      res.set_content(errorReply(fail(res.status, kNotFound, "no such path")), "application/json");
  });
  return std::make_unique<Listener>(std::move(server));
}

bool QueryServer::start(int port, std::string* why) {
  std::lock_guard lock(mutex_);
  auto l = make();
  if (!l->start(bind_, port, why)) return false;
  current_ = std::move(l);
  return true;
}

bool QueryServer::move(int port, const std::function<void(int)>& announce, std::string* why) {
  std::unique_ptr<Listener> old;
  int newPort = 0;
  {
    std::lock_guard lock(mutex_);
    auto l = make();
    if (!l->start(bind_, port, why)) return false;
    newPort = l->port();
    old = std::move(current_);
    current_ = std::move(l);
  }
  announce(newPort);
  if (old) old->stop();
  return true;
}

void QueryServer::stop() {
  std::lock_guard lock(mutex_);
  if (current_) current_->stop();
  current_.reset();
}

int QueryServer::port() {
  std::lock_guard lock(mutex_);
  return current_ ? current_->port() : 0;
}

DownloadServer::DownloadServer(std::string bind, BlobStore& blobs, FaultTable& faults, bool quiet)
    : bind_(std::move(bind)), blobs_(blobs), faults_(faults), quiet_(quiet) {}

DownloadServer::~DownloadServer() { stop(); }

bool DownloadServer::start(int port, std::string* why) {
  auto server = makeServer();
  server->Get(
      R"(/blob/([0-9a-f]{40}))", [this](const httplib::Request& req, httplib::Response& res) {
        std::string hash = req.matches[1];
        auto logLine = [&](const std::string& status) {
          if (!quiet_)
            log("GET /blob/{} range={} status={}", hash, req.get_header_value("Range"), status);
        };
        if (auto f = faults_.take("blob")) {
          Reply r;
          r.delayMs = std::min(f->delayMs, 60000);
          r.drop = f->kind == FaultKind::Drop || f->kind == FaultKind::Reset;
          r.status = f->status;
          r.body = f->kind == FaultKind::NotJson ? "<html>trouble</html>" : f->body;
          if (f->kind != FaultKind::Delay) {
            sendReply(r, res);
            return logLine(r.drop ? "dropped" : std::to_string(r.status));
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(r.delayMs));
        }
        int fd = ::open(blobs_.pathOf(hash).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
          res.status = 404;
          res.set_content(errorReply(fail(404, kNotFound, "no such blob")), "application/json");
          return logLine("404");
        }
        off_t size = ::lseek(fd, 0, SEEK_END);
        auto shared = std::make_shared<int>(fd);
        // Streamed in 1 MiB reads; httplib cuts the range and answers 206.
        res.set_content_provider(
            static_cast<size_t>(size), "application/octet-stream",
            [shared](size_t offset, size_t length, httplib::DataSink& sink) {
              std::vector<char> buf(std::min(length, kChunk));
              ssize_t n = ::pread(*shared, buf.data(), buf.size(), static_cast<off_t>(offset));
              if (n <= 0) return false;
              return sink.write(buf.data(), static_cast<size_t>(n));
            },
            [shared](bool) { ::close(*shared); });
        logLine(req.ranges.empty() ? "200" : "206");
      });
  listener_ = std::make_unique<Listener>(std::move(server));
  return listener_->start(bind_, port, why);
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

bool AdminServer::start(int port, std::string* why) {
  auto server = makeServer();
  server->Get(R"(/ctl/([a-z0-9-]+))", [this](const httplib::Request& req, httplib::Response& res) {
    std::string cmd = req.matches[1];
    Reply r = command_(cmd, toParams(req));
    res.status = r.status;
    res.set_content(r.body, "application/json");
    if (!quiet_) log("GET /ctl/{} status={}", cmd, r.status);
  });
  listener_ = std::make_unique<Listener>(std::move(server));
  return listener_->start(bind_, port, why);
}

void AdminServer::stop() {
  if (listener_) listener_->stop();
}

int AdminServer::port() const { return listener_ ? listener_->port() : 0; }

}  // namespace hvfp::hostd

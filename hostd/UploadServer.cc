#include "UploadServer.h"

#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <vector>

#include "platform/Log.h"

namespace hvfp::hostd {

namespace {

constexpr size_t kMaxHead = 16 * 1024;
constexpr size_t kChunk = 1 << 20;
constexpr uint64_t kMaxPiece = 256ull << 20;
constexpr int kIdleSeconds = 60;
constexpr size_t kMaxConnections = 64;

struct Request {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  // lowercase names
  const std::string* header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? nullptr : &it->second;
  }
};

std::string lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return std::string(s);
}

std::optional<uint64_t> parseNumber(std::string_view s) {
  if (s.empty() || s.size() > 19) return std::nullopt;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  return v;
}

std::optional<Request> parseHead(std::string_view head) {
  Request req;
  auto lineEnd = head.find("\r\n");
  auto line = head.substr(0, lineEnd);
  auto sp1 = line.find(' ');
  auto sp2 = line.rfind(' ');
  if (sp1 == line.npos || sp2 == sp1) return std::nullopt;
  req.method = std::string(line.substr(0, sp1));
  req.path = std::string(line.substr(sp1 + 1, sp2 - sp1 - 1));
  if (auto q = req.path.find('?'); q != std::string::npos) req.path.resize(q);
  size_t pos = lineEnd == head.npos ? head.size() : lineEnd + 2;
  while (pos < head.size()) {
    auto end = head.find("\r\n", pos);
    if (end == head.npos) end = head.size();
    auto h = head.substr(pos, end - pos);
    auto colon = h.find(':');
    if (colon == h.npos) return std::nullopt;
    req.headers[lower(std::string(h.substr(0, colon)))] = trim(h.substr(colon + 1));
    pos = end + 2;
  }
  return req;
}

const char* reason(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 202:
      return "Accepted";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 409:
      return "Conflict";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 431:
      return "Request Header Fields Too Large";
    default:
      return status >= 500 ? "Server Error" : "Status";
  }
}

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool sendReply(int fd, int status, std::string_view body, bool keepAlive) {
  std::string out = fmt::format(
      "HTTP/1.1 {} {}\r\nContent-Type: application/json\r\nContent-Length: {}\r\n"
      "Connection: {}\r\n\r\n",
      status, reason(status), body.size(), keepAlive ? "keep-alive" : "close");
  out.append(body);
  return sendAll(fd, out);
}

// After an early reply the client may still be sending its piece. Closing
// at once could turn into a reset that destroys the reply before the client
// reads it, so the write side is shut first and the rest is discarded for a
// bounded time.
void lingeringClose(int fd) {
  ::shutdown(fd, SHUT_WR);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::vector<char> sink(64 * 1024);
  uint64_t discarded = 0;
  while (std::chrono::steady_clock::now() < deadline && discarded < kMaxPiece) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    ssize_t n = ::recv(fd, sink.data(), sink.size(), 0);
    if (n <= 0) break;
    discarded += static_cast<uint64_t>(n);
  }
}

void resetClose(int fd) {
  linger l{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

std::string errorBody(int code, std::string_view msg) {
  return fmt::format(R"({{"error_code":{},"error_msg":"{}"}})", code, msg);
}

// Reads until the blank line that ends the head; `buf` keeps what follows.
enum class HeadResult { Ok, Closed, TooLarge };
HeadResult readHead(int fd, std::string& buf, std::string& head) {
  for (;;) {
    auto end = buf.find("\r\n\r\n");
    if (end != std::string::npos) {
      if (end > kMaxHead) return HeadResult::TooLarge;
      head = buf.substr(0, end);
      buf.erase(0, end + 4);
      return HeadResult::Ok;
    }
    if (buf.size() > kMaxHead) return HeadResult::TooLarge;
    char tmp[4096];
    ssize_t n = ::recv(fd, tmp, sizeof tmp, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return HeadResult::Closed;
    buf.append(tmp, static_cast<size_t>(n));
  }
}

}  // namespace

UploadServer::UploadServer(std::string bindAddress, int port, UploadSessions& sessions,
                           FaultTable& faults, bool quiet)
    : bind_(std::move(bindAddress)),
      port_(port),
      sessions_(sessions),
      faults_(faults),
      quiet_(quiet) {}

UploadServer::~UploadServer() { stop(); }

std::string UploadServer::baseUrl() const {
  return fmt::format("http://{}:{}", bind_, port_.load());
}

bool UploadServer::start(std::string* why) {
  if (up_) return true;
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port_.load()));
  if (::inet_pton(AF_INET, bind_.c_str(), &addr.sin_addr) != 1 ||
      ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0) {
    if (why)
      *why = fmt::format("upload server cannot listen on {}:{}: {}", bind_, port_.load(),
                         strerror(errno));
    ::close(fd);
    return false;
  }
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  listenFd_ = fd;
  up_ = true;
  acceptThread_ = std::thread([this] { acceptLoop(); });
  return true;
}

void UploadServer::stop() {
  if (!up_.exchange(false)) return;
  if (acceptThread_.joinable()) acceptThread_.join();
  ::close(listenFd_);
  listenFd_ = -1;
  reap(true);
}

void UploadServer::reap(bool all) {
  std::list<std::unique_ptr<Connection>> finished;
  {
    std::lock_guard lock(connMutex_);
    for (auto it = conns_.begin(); it != conns_.end();) {
      if (all && (*it)->fd >= 0) ::shutdown((*it)->fd, SHUT_RDWR);
      if (all || (*it)->done) {
        finished.push_back(std::move(*it));
        it = conns_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& c : finished) c->thread.join();
}

void UploadServer::acceptLoop() {
  while (up_) {
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) {
      reap(false);
      continue;
    }
    reap(false);  // finished connections must not count against the limit below
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors: the listener stays readable, so pause rather
      // than spin until a connection ends.
      if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    timeval tv{kIdleSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    std::lock_guard lock(connMutex_);
    // One thread per connection, so their number is bounded: a client
    // holding many idle connections must not exhaust the host's threads.
    if (conns_.size() >= kMaxConnections) {
      ::close(fd);
      continue;
    }
    auto conn = std::make_unique<Connection>();
    conn->fd = fd;
    Connection* raw = conn.get();
    try {
      raw->thread = std::thread([this, raw] { serve(*raw); });
    } catch (const std::system_error&) {
      ::close(fd);
      continue;
    }
    conns_.push_back(std::move(conn));
  }
}

void UploadServer::serve(Connection& conn) {
  int fd = conn.fd;
  std::string buf;
  for (bool keep = true; keep && up_;) {
    std::string head;
    auto hr = readHead(fd, buf, head);
    if (hr == HeadResult::Closed) break;
    int status = 0;
    std::string rangeText;
    auto reply = [&](int st, std::string_view body, bool keepAlive) {
      status = st;
      sendReply(fd, st, body, keepAlive);
      keep = keepAlive;
      if (!keepAlive) lingeringClose(fd);
    };
    [&] {
      if (hr == HeadResult::TooLarge)
        return reply(431, errorBody(kBadRequest, "header too large"), false);
      auto req = parseHead(head);
      if (!req) return reply(400, errorBody(kBadRequest, "malformed request"), false);
      if (req->method != "PUT") return reply(405, errorBody(kBadRequest, "only PUT"), false);
      if (req->path != "/upload_part")
        return reply(404, errorBody(kNotFound, "no such path"), false);
      auto te = req->header("transfer-encoding");
      auto cl = req->header("content-length");
      auto length = cl ? parseNumber(*cl) : std::nullopt;
      if (te || !length)
        return reply(411, errorBody(kBadRequest, "Content-Length required"), false);
      if (*length > kMaxPiece) return reply(413, errorBody(kBadRequest, "piece too large"), false);
      auto session = req->header("x-tb-upload-session");
      auto range = req->header("x-tb-upload-range");
      if (range) rangeText = *range;
      std::string id = session ? *session : "";
      if (auto f = faults_.take("piece")) {
        if (f->delayMs > 0)
          std::this_thread::sleep_for(std::chrono::milliseconds(std::min(f->delayMs, 60000)));
        switch (f->kind) {
          case FaultKind::Delay:
            break;
          case FaultKind::Reset:
            status = -1;
            keep = false;
            resetClose(fd);
            return;
          case FaultKind::Drop:
            status = -1;
            keep = false;
            lingeringClose(fd);
            return;
          case FaultKind::Expect409: {
            uint64_t expect =
                f->expect >= 0 ? static_cast<uint64_t>(f->expect) : sessions_.currentOffset(id);
            return reply(409, fmt::format(R"({{"error_code":40900,"expect":{}}})", expect), false);
          }
          case FaultKind::Done202:
            return reply(202, R"({"status_code":202})", false);
          case FaultKind::Status:
            return reply(f->status, f->body.empty() ? errorBody(f->errorCode, f->message) : f->body,
                         false);
          case FaultKind::Body:
            return reply(f->status, f->body, false);
          case FaultKind::NotJson:
            return reply(f->status, "<html>upload server trouble</html>", false);
        }
      }
      auto dash = rangeText.find('-');
      auto first = dash == std::string::npos
                       ? std::nullopt
                       : parseNumber(std::string_view(rangeText).substr(0, dash));
      auto last = dash == std::string::npos
                      ? std::nullopt
                      : parseNumber(std::string_view(rangeText).substr(dash + 1));
      if (!session || !first || !last || *last < *first || *last - *first + 1 != *length)
        return reply(400, errorBody(kBadRequest, "bad x-tb-upload-session or x-tb-upload-range"),
                     false);
      std::unique_ptr<PieceWriter> writer;
      auto v = sessions_.beginPiece(port_, id, *first, *last, &writer);
      switch (v.kind) {
        case PieceVerdict::UnknownSession:
          return reply(401, errorBody(40100, "unknown upload session"), false);
        case PieceVerdict::BadRange:
          return reply(400, errorBody(kBadRequest, "range outside the file"), false);
        case PieceVerdict::Complete:
          return reply(202, fmt::format(R"({{"status_code":202,"offset":{}}})", v.expect), false);
        case PieceVerdict::WrongOffset:
          return reply(409, fmt::format(R"({{"error_code":40900,"expect":{}}})", v.expect), false);
        case PieceVerdict::Accept:
          break;
      }
      auto expect = req->header("expect");
      if (expect && lower(*expect) == "100-continue") sendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
      uint64_t left = *length;
      size_t take = static_cast<size_t>(std::min<uint64_t>(left, buf.size()));
      if (take > 0 && !writer->write(buf.data(), take))
        return reply(500, errorBody(kStorage, "write failed"), false);
      buf.erase(0, take);
      left -= take;
      std::vector<char> chunk(static_cast<size_t>(std::min<uint64_t>(left, kChunk)));
      while (left > 0) {
        ssize_t n = ::recv(fd, chunk.data(),
                           static_cast<size_t>(std::min<uint64_t>(left, chunk.size())), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          status = -1;
          keep = false;
          return;  // the writer cuts the partial piece back
        }
        if (!writer->write(chunk.data(), static_cast<size_t>(n)))
          return reply(500, errorBody(kStorage, "write failed"), false);
        left -= static_cast<uint64_t>(n);
      }
      auto offset = writer->commit();
      writer.reset();
      if (!offset) return reply(401, errorBody(40100, "the session ended during the piece"), false);
      auto connection = req->header("connection");
      bool clientKeeps = !(connection && lower(*connection) == "close");
      reply(200, fmt::format(R"({{"status_code":200,"offset":{}}})", *offset), clientKeeps);
    }();
    if (!quiet_)
      log("PUT /upload_part port={} range={} status={}", port_.load(), rangeText, status);
  }
  std::lock_guard lock(connMutex_);
  ::close(fd);
  conn.fd = -1;
  conn.done = true;
}

}  // namespace hvfp::hostd

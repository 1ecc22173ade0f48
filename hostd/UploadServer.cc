#include "UploadServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <system_error>

#include "HttpWire.h"
#include "platform/Log.h"
#include "records/Json.h"

namespace hvfp::hostd {

namespace {

using Head = wire::RequestReader::Head;

constexpr size_t kMaxHead = 16 * 1024;
constexpr size_t kChunk = 1 << 20;
constexpr uint64_t kMaxPiece = 256ull << 20;
constexpr int kIdleSeconds = 60;
constexpr size_t kMaxConnections = 64;
constexpr int kMaxDelayMs = 60000;
constexpr auto kLinger = std::chrono::seconds(2);

std::string errorBody(int code, std::string_view msg) {
  std::string out;
  JsonWriter(out)
      .beginObject()
      .key("error_code")
      .value(code)
      .key("error_msg")
      .value(msg)
      .endObject();
  return out;
}

std::string expectBody(uint64_t expect) {
  std::string out;
  JsonWriter(out)
      .beginObject()
      .key("error_code")
      .value(40900)
      .key("expect")
      .value(expect)
      .endObject();
  return out;
}

// Inclusive at both ends. The default is empty: no valid range.
struct ByteRange {
  uint64_t first = 1;
  uint64_t last = 0;
  bool empty() const { return last < first; }
  uint64_t length() const { return empty() ? 0 : last - first + 1; }
};

// "first-last"; empty when the text is not that.
ByteRange parseRange(std::string_view text) {
  auto dash = text.find('-');
  if (dash == std::string_view::npos) return {};
  auto first = wire::parseDecimal(text.substr(0, dash));
  auto last = wire::parseDecimal(text.substr(dash + 1));
  if (!first || !last) return {};
  return ByteRange{*first, *last};
}

}  // namespace

// One request on one connection and how it ended, for the log line.
struct UploadServer::Exchange {
  enum class HangUp { Linger, Reset, Close };

  Exchange(int fd, wire::RequestReader& reader, Head head) : fd(fd), reader(reader), head(head) {}

  int fd;
  wire::RequestReader& reader;
  Head head;
  int status = 0;     // -1: the connection ended without a reply
  std::string range;  // x-tb-upload-range as sent
  bool keepAlive = false;

  void reply(int st, std::string_view body, bool keep) {
    status = st;
    keepAlive = keep;
    wire::sendAll(fd, wire::replyText(st, "application/json", body, keep));
    // The client may still be sending the piece this reply refuses.
    if (!keep) wire::lingeringClose(fd, kLinger, kMaxPiece);
  }
  // Ends the connection without a reply. Linger: the client reads the end
  // of the stream; Reset: it gets a reset; Close: unread bytes make it a
  // reset as soon as the client sends more.
  void hangUp(HangUp how) {
    status = -1;
    keepAlive = false;
    if (how == HangUp::Linger) wire::lingeringClose(fd, kLinger, kMaxPiece);
    if (how == HangUp::Reset) wire::resetOnClose(fd);
  }
};

// A piece whose headers passed every check.
struct UploadServer::PieceRequest {
  std::string session;
  ByteRange range;
  bool expectContinue = false;
  bool clientKeepsAlive = true;
  uint64_t length() const { return range.length(); }
};

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

Result<void> UploadServer::start() {
  MutexLock lock(lifecycleMutex_);
  if (up_) return {};
  auto l = wire::listenOn(bind_, port_, 64);
  if (l.fd < 0)
    return fail(fmt::format("upload server cannot listen on {}:{}: {}", bind_, port_.load(),
                            std::strerror(l.error)));
  port_ = l.port;
  listenFd_ = l.fd;
  up_ = true;
  acceptThread_ = std::thread([this, fd = l.fd] { acceptLoop(fd); });
  return {};
}

void UploadServer::stop() {
  MutexLock lock(lifecycleMutex_);
  if (!up_.exchange(false)) return;
  if (acceptThread_.joinable()) acceptThread_.join();
  ::close(listenFd_);
  listenFd_ = -1;
  reap(true);
}

bool UploadServer::pause(int ms) const {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (up_) {
    auto left = until - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return true;
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(50)));
  }
  return false;
}

void UploadServer::reap(bool all) {
  std::list<std::unique_ptr<Connection>> finished;
  {
    MutexLock lock(connMutex_);
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

void UploadServer::acceptLoop(int listenFd) {
  while (up_) {
    pollfd p{listenFd, POLLIN, 0};
    int ready = ::poll(&p, 1, 100);
    reap(false);  // finished connections must not count against the limit
    if (ready <= 0) continue;
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors: the listener stays readable, so pause rather
      // than spin until a connection ends.
      if (errno == EMFILE || errno == ENFILE)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    admit(fd);
  }
}

void UploadServer::admit(int fd) {
  timeval tv{kIdleSeconds, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  MutexLock lock(connMutex_);
  // One thread per connection, so their number is bounded: a client
  // holding many idle connections must not exhaust the host's threads.
  if (conns_.size() >= kMaxConnections) {
    ::close(fd);
    return;
  }
  auto conn = std::make_unique<Connection>();
  conn->fd = fd;
  Connection* raw = conn.get();
  try {
    raw->thread = std::thread([this, raw, fd] { serve(*raw, fd); });
  } catch (const std::system_error&) {
    ::close(fd);
    return;
  }
  conns_.push_back(std::move(conn));
}

void UploadServer::serve(Connection& conn, int fd) {
  wire::RequestReader reader(fd, kMaxHead);
  for (bool keep = true; keep && up_;) {
    std::string head;
    auto h = reader.readHead(head);
    if (h == Head::Closed) break;
    Exchange ex{fd, reader, h};
    handle(ex, head);
    keep = ex.keepAlive;
    if (!quiet_)
      log("PUT /upload_part port={} range={} status={}", port_.load(), ex.range, ex.status);
  }
  MutexLock lock(connMutex_);
  ::close(fd);
  conn.fd = -1;
  conn.done = true;
}

void UploadServer::handle(Exchange& ex, const std::string& head) {
  auto piece = validate(ex, head);
  if (!piece) return;
  BodyShape shape;
  if (injectFault(ex, *piece, shape)) return;
  receive(ex, *piece, shape);
}

std::optional<UploadServer::PieceRequest> UploadServer::validate(Exchange& ex,
                                                                 const std::string& head) {
  auto refuse = [&ex](int status, int code, std::string_view msg) {
    ex.reply(status, errorBody(code, msg), false);
    return std::nullopt;
  };
  if (ex.head == Head::TooLarge) return refuse(431, kBadRequest, "header too large");
  auto req = wire::parseHead(head);
  if (!req) return refuse(400, kBadRequest, "malformed request");
  if (req->method != "PUT") return refuse(405, kBadRequest, "only PUT");
  if (req->path != "/upload_part") return refuse(404, kNotFound, "no such path");
  auto cl = req->header("content-length");
  auto announced = cl ? wire::parseDecimal(*cl) : std::nullopt;
  if (req->header("transfer-encoding") || !announced)
    return refuse(411, kBadRequest, "Content-Length required");
  const uint64_t length = announced.value_or(0);
  if (length > kMaxPiece) return refuse(413, kBadRequest, "piece too large");
  if (auto r = req->header("x-tb-upload-range")) ex.range = *r;
  auto session = req->header("x-tb-upload-session");
  const ByteRange range = parseRange(ex.range);
  if (!session || range.empty() || range.length() != length)
    return refuse(400, kBadRequest, "bad x-tb-upload-session or x-tb-upload-range");
  PieceRequest piece{*session, range};
  auto expect = req->header("expect");
  piece.expectContinue = expect && wire::equalsIgnoreCase(*expect, "100-continue");
  auto connection = req->header("connection");
  piece.clientKeepsAlive = !(connection && wire::equalsIgnoreCase(*connection, "close"));
  return piece;
}

bool UploadServer::injectFault(Exchange& ex, const PieceRequest& piece, BodyShape& shape) {
  auto f = faults_.take("piece@" + std::to_string(port_.load()));
  if (!f) f = faults_.take("piece");
  if (!f) return false;
  if (f->kind != FaultKind::Slow && f->delayMs > 0 && !pause(std::min(f->delayMs, kMaxDelayMs))) {
    ex.hangUp(Exchange::HangUp::Close);
    return true;
  }
  switch (f->kind) {
    case FaultKind::Delay:
      return false;
    case FaultKind::Cut:
    case FaultKind::Slow:
      shape = BodyShape::of(*f);
      return false;
    case FaultKind::Reset:
      ex.hangUp(Exchange::HangUp::Reset);
      return true;
    case FaultKind::Drop:
      ex.hangUp(Exchange::HangUp::Linger);
      return true;
    case FaultKind::Expect409:
      ex.reply(409,
               expectBody(f->expect >= 0 ? static_cast<uint64_t>(f->expect)
                                         : sessions_.currentOffset(piece.session)),
               false);
      return true;
    case FaultKind::Done202:
      ex.reply(202, R"({"status_code":202})", false);
      return true;
    case FaultKind::Status:
      ex.reply(f->status, f->body.empty() ? errorBody(f->errorCode, f->message) : f->body, false);
      return true;
    case FaultKind::Body:
      ex.reply(f->status, f->body, false);
      return true;
    case FaultKind::NotJson:
      ex.reply(f->status, "<html>upload server trouble</html>", false);
      return true;
  }
  return false;
}

void UploadServer::receive(Exchange& ex, const PieceRequest& piece, const BodyShape& shape) {
  std::unique_ptr<PieceWriter> writer;
  auto v = sessions_.beginPiece(port_, piece.session, piece.range.first, piece.range.last, &writer);
  switch (v.kind) {
    case PieceVerdict::UnknownSession:
      return ex.reply(401, errorBody(40100, "unknown upload session"), false);
    case PieceVerdict::BadRange:
      return ex.reply(400, errorBody(kBadRequest, "range outside the file"), false);
    case PieceVerdict::Complete:
      return ex.reply(202, fmt::format(R"({{"status_code":202,"offset":{}}})", v.expect), false);
    case PieceVerdict::WrongOffset:
      return ex.reply(409, expectBody(v.expect), false);
    case PieceVerdict::Accept:
      break;
  }
  if (piece.expectContinue) wire::sendAll(ex.fd, "HTTP/1.1 100 Continue\r\n\r\n");
  uint64_t wanted = std::min(piece.length(), shape.cutAfter.value_or(piece.length()));
  bool stored = true;
  bool read = ex.reader.readBody(wanted, shape.step > 0 ? shape.step : kChunk,
                                 [&](const char* data, size_t size) {
                                   if (shape.pauseMs > 0 && !pause(shape.pauseMs)) return false;
                                   stored = writer->write(data, size);
                                   return stored;
                                 });
  if (!stored) return ex.reply(500, errorBody(kStorage, "write failed"), false);
  // A broken transfer leaves nothing: the writer cuts the partial piece back.
  if (!read || wanted < piece.length()) return ex.hangUp(Exchange::HangUp::Close);
  auto offset = writer->commit();
  writer.reset();
  // A cut at or past the end keeps the piece and loses only its reply.
  if (shape.cutAfter) return ex.hangUp(Exchange::HangUp::Close);
  if (!offset) return ex.reply(401, errorBody(40100, "the session ended during the piece"), false);
  ex.reply(200, fmt::format(R"({{"status_code":200,"offset":{}}})", *offset),
           piece.clientKeepsAlive);
}

}  // namespace hvfp::hostd

#include "support/ContentServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "HttpWire.h"

namespace hvfp::test {
namespace {

using Kind = PieceReply::Kind;

std::string head(int status, size_t length) {
  return wire::replyHead(
      status, {{"Content-Type", "application/json"}, {"Content-Length", std::to_string(length)}});
}

}  // namespace

std::string contentBytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251 + seed) & 0xff);
  return bytes;
}

ContentServer::ContentServer() {
  auto listening = wire::listenOn("127.0.0.1", 0, 128);
  if (listening.fd < 0) std::abort();  // no loopback: these tests cannot run
  listenFd_ = listening.fd;
  port_ = listening.port;
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

ContentServer::~ContentServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  }
  ::shutdown(listenFd_, SHUT_RDWR);
  acceptThread_.join();
  ::close(listenFd_);
  for (auto& t : connections_) t.join();
}

int ContentServer::connectionsAccepted() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

void ContentServer::enqueue(PieceReply reply) {
  std::lock_guard lock(mutex_);
  script_.push_back(std::move(reply));
}

void ContentServer::setGate(bool open) {
  std::lock_guard lock(mutex_);
  gateOpen_ = open;
}

std::vector<ContentRequest> ContentServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<std::string> ContentServer::targets() const {
  std::vector<std::string> out;
  for (const auto& r : requests()) out.push_back(r.target);
  return out;
}

std::vector<ContentRequest> ContentServer::pieces() const {
  std::vector<ContentRequest> out;
  for (const auto& r : requests())
    if (r.method == "PUT") out.push_back(r);
  return out;
}

std::vector<std::string> ContentServer::ranges() const {
  std::vector<std::string> out;
  for (const auto& r : pieces()) out.push_back(r.range);
  return out;
}

std::string ContentServer::contents() const {
  std::lock_guard lock(mutex_);
  return contents_;
}

bool ContentServer::waitForPieces(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return static_cast<size_t>(std::count_if(requests_.begin(), requests_.end(),
                                             [](auto& r) { return r.method == "PUT"; })) >= n;
  });
}

bool ContentServer::waitForHangUp(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return hungUp_; });
}

void ContentServer::acceptLoop() {
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    ++accepted_;
    open_.push_back(fd);
    connections_.emplace_back([this, fd] { serve(fd); });
  }
}

void ContentServer::serve(int fd) {
  wire::RequestReader reader(fd, 64 * 1024);
  for (std::string text; reader.readHead(text) == wire::RequestReader::Head::Ok;) {
    auto parsed = wire::parseHead(text);
    if (!parsed) break;
    ContentRequest request{parsed->method, parsed->target, parsed->headers, "", ""};
    if (auto range = parsed->header("x-tb-upload-range")) request.range = *range;
    const std::string* length = parsed->header("Content-Length");
    if (request.method == "PUT") {
      if (!put(fd, reader, request, wire::parseDecimal(length ? *length : "0").value_or(0))) break;
    } else {
      record(request);
      if (!get(fd, request.target)) break;
    }
  }
  std::lock_guard lock(mutex_);
  std::erase(open_, fd);
  ::close(fd);
}

bool ContentServer::get(int fd, const std::string& target) {
  std::vector<size_t> n;
  for (size_t pos = target.find('/', 1); pos != std::string::npos; pos = target.find('/', pos + 1))
    n.push_back(std::strtoul(target.c_str() + pos + 1, nullptr, 10));
  if (target.starts_with("/bytes/") && !n.empty()) {
    std::string bytes = contentBytes(n[0], n.size() > 1 ? static_cast<unsigned>(n[1]) : 0);
    return wire::sendAll(fd, head(200, bytes.size()) + bytes);
  }
  if (target.starts_with("/status/") && !n.empty())
    return wire::sendAll(fd, head(static_cast<int>(n[0]), std::strlen(kStatusBody)) + kStatusBody);
  if (n.size() < 2 || !(target.starts_with("/short/") || target.starts_with("/gated/")))
    return wire::sendAll(fd, head(400, 0));
  const std::string bytes = contentBytes(n[0]);
  if (!wire::sendAll(fd, head(200, bytes.size()) + bytes.substr(0, n[1]))) return false;
  if (target.starts_with("/short/") || !hold(fd, true, true)) return false;
  return wire::sendAll(fd, std::string_view(bytes).substr(n[1]));
}

bool ContentServer::put(int fd, wire::RequestReader& reader, ContentRequest& request,
                        uint64_t length) {
  PieceReply reply;
  {
    std::lock_guard lock(mutex_);
    if (!script_.empty()) {
      reply = std::move(script_.front());
      script_.pop_front();
    }
  }
  if (reply.kind == Kind::Early || reply.kind == Kind::EarlyLinger) {
    record(request);
    wire::sendAll(fd, wire::replyText(reply.status, "application/json", reply.body, false));
    if (reply.kind == Kind::EarlyLinger) wire::lingeringClose(fd, std::chrono::minutes(1), ~0ull);
    return false;
  }
  if (reply.kind == Kind::Hold) {
    record(request);
    hold(fd, false, true);
    return false;
  }
  if (request.target.starts_with("/gated/") && !hold(fd, true, false)) return false;
  const bool whole = reader.readBody(length, request.body);
  if (whole && reply.kind == Kind::Accept && !request.range.empty()) {
    std::lock_guard lock(mutex_);
    const size_t first = std::strtoull(request.range.c_str(), nullptr, 10);
    if (contents_.size() < first + length) contents_.resize(first + length);
    contents_.replace(first, length, request.body);
  }
  record(request);
  if (!whole) return false;
  if (reply.kind == Kind::Accept) reply.body = R"({"status_code":200})";
  const size_t announced = reply.body.size() + (reply.kind == Kind::Failing ? 100 : 0);
  return wire::sendAll(fd, head(reply.status, announced) + reply.body) &&
         reply.kind != Kind::Failing;
}

// Holds the connection until the gate opens (or for good); false once the
// client hung up or the server stops. With `discard` what arrives is dropped,
// so that a hang-up is not queued behind a body nobody reads.
bool ContentServer::hold(int fd, bool untilGate, bool discard) {
  for (char sink[65536];;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return false;
      if (untilGate && gateOpen_) return true;
    }
    pollfd p{fd, static_cast<short>(discard ? POLLIN : POLLRDHUP), 0};
    if (::poll(&p, 1, 20) <= 0) continue;
    if (discard && !(p.revents & (POLLHUP | POLLERR)) &&
        wire::receiveSome(fd, sink, sizeof sink) > 0)
      continue;
    std::lock_guard lock(mutex_);
    hungUp_ = true;
    changed_.notify_all();
    return false;
  }
}

void ContentServer::record(const ContentRequest& request) {
  std::lock_guard lock(mutex_);
  requests_.push_back(request);
  changed_.notify_all();
}

}  // namespace hvfp::test

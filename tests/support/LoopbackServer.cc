#include "support/LoopbackServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "HttpWire.h"

namespace hvfp::test {
namespace {

constexpr size_t kMaxHeader = 64 * 1024;
constexpr size_t kBodyStep = 64 * 1024;

RecordedRequest recorded(wire::RequestHead head) {
  RecordedRequest r;
  r.method = std::move(head.method);
  r.target = std::move(head.target);
  r.path = std::move(head.path);
  r.query = std::move(head.query);
  r.headers = std::move(head.headers);
  return r;
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [k, v] : headers)
    if (wire::equalsIgnoreCase(k, name)) return v;
  return std::nullopt;
}

ScriptedReply ScriptedReply::truncated(int status, std::string body, size_t after) {
  ScriptedReply r(status, std::move(body));
  r.truncateAfter = after;
  return r;
}

ScriptedReply ScriptedReply::dribbled(int status, std::string body, size_t chunk,
                                      std::chrono::milliseconds pause) {
  ScriptedReply r(status, std::move(body));
  r.chunkSize = std::max<size_t>(chunk, 1);
  r.chunkPause = pause;
  return r;
}

ScriptedReply ScriptedReply::generated(uint64_t size, uint64_t offset) {
  ScriptedReply r(200, "");
  r.contentType = "application/octet-stream";
  r.generatedSize = size;
  r.patternOffset = offset;
  return r;
}

ScriptedReply ScriptedReply::streamed(int status, uint64_t size, Producer produce) {
  ScriptedReply r(status, "");
  r.generatedSize = size;
  r.producer = std::move(produce);
  return r;
}

std::string LoopbackServer::pattern(uint64_t offset, size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    uint64_t x = (offset + i) * 0x9E3779B97F4A7C15ull;
    out[i] = static_cast<char>((x >> 32) ^ (x >> 56));
  }
  return out;
}

LoopbackServer::LoopbackServer() {
  auto l = wire::listenOn("127.0.0.1", 0, 128);
  if (l.fd < 0) std::abort();  // a test environment without loopback cannot run these tests
  listenFd_ = l.fd;
  port_ = l.port;
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  ::shutdown(listenFd_, SHUT_RDWR);
  ::close(listenFd_);
  acceptThread_.join();
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    for (int fd : openFds_) ::shutdown(fd, SHUT_RDWR);
    threads.swap(connections_);
  }
  for (auto& t : threads) t.join();
}

void LoopbackServer::enqueue(ScriptedReply reply) {
  std::lock_guard lock(mutex_);
  queue_.push_back(std::move(reply));
}

void LoopbackServer::setDefault(ScriptedReply reply) {
  std::lock_guard lock(mutex_);
  default_ = std::move(reply);
}

void LoopbackServer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<std::string> LoopbackServer::queries() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& r : requests_) out.push_back(r.query);
  return out;
}

size_t LoopbackServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool LoopbackServer::waitForRequests(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return recorded_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
}

size_t LoopbackServer::unfinishedReplies() const {
  std::lock_guard lock(mutex_);
  return unfinished_;
}

bool LoopbackServer::waitForUnfinishedReplies(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return recorded_.wait_for(lock, timeout, [&] { return unfinished_ >= n; });
}

bool LoopbackServer::pause(std::chrono::milliseconds duration) {
  if (duration.count() <= 0) return !stopping_;
  std::unique_lock lock(mutex_);
  return !stopped_.wait_for(lock, duration, [&] { return stopping_.load(); });
}

void LoopbackServer::acceptLoop() {
  while (!stopping_) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (stopping_) return;
      continue;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    openFds_.push_back(fd);
    connections_.emplace_back([this, fd] { serve(fd); });
  }
}

ScriptedReply LoopbackServer::replyFor(const RecordedRequest& request) {
  std::unique_lock lock(mutex_);
  requests_.push_back(request);
  recorded_.notify_all();
  if (!queue_.empty()) {
    ScriptedReply r = std::move(queue_.front());
    queue_.pop_front();
    return r;
  }
  if (handler_) {
    Handler h = handler_;
    lock.unlock();
    return h(request);
  }
  return default_;
}

bool LoopbackServer::sendReply(int fd, const ScriptedReply& reply) {
  const uint64_t total = reply.generatedSize.value_or(reply.body.size());
  wire::Headers headers{{"Content-Type", reply.contentType},
                        {"Content-Length", std::to_string(total)}};
  headers.insert(headers.end(), reply.headers.begin(), reply.headers.end());
  std::string head = wire::replyHead(reply.status, headers);
  const bool plain = !reply.truncateAfter && reply.chunkSize == 0 && !reply.generatedSize;
  if (plain) return wire::sendAll(fd, head + reply.body);
  if (!wire::sendAll(fd, head)) return false;
  const uint64_t limit = std::min(total, reply.truncateAfter.value_or(total));
  const size_t step = reply.chunkSize > 0 ? reply.chunkSize : kBodyStep;
  std::string piece;
  for (uint64_t sent = 0; sent < limit;) {
    if (sent > 0 && !pause(reply.chunkPause)) return false;
    auto n = static_cast<size_t>(std::min<uint64_t>(step, limit - sent));
    if (reply.producer)
      piece = reply.producer(sent, n);
    else if (reply.generatedSize)
      piece = pattern(reply.patternOffset + sent, n);
    else
      piece = reply.body.substr(static_cast<size_t>(sent), n);
    if (!wire::sendAll(fd, piece)) {
      std::lock_guard lock(mutex_);
      ++unfinished_;
      recorded_.notify_all();
      return false;
    }
    sent += n;
  }
  return limit == total;  // a truncated body ends its connection
}

void LoopbackServer::serve(int fd) {
  wire::RequestReader reader(fd, kMaxHeader);
  for (;;) {
    std::string head;
    if (reader.readHead(head) != wire::RequestReader::Head::Ok) break;
    auto parsed = wire::parseHead(head);
    if (!parsed) break;
    uint64_t length = 0;
    if (auto cl = parsed->header("Content-Length")) length = wire::parseDecimal(*cl).value_or(0);
    RecordedRequest request = recorded(std::move(*parsed));
    if (!reader.readBody(length, request.body)) break;
    ScriptedReply reply = replyFor(request);
    if (!pause(reply.delay) || reply.drop) break;
    if (!sendReply(fd, reply)) break;
    auto connection = request.header("Connection");
    if (connection && wire::equalsIgnoreCase(*connection, "close")) break;
  }
  ::shutdown(fd, SHUT_RDWR);
  std::lock_guard lock(mutex_);
  // The descriptor is closed here, under the lock, so the destructor never
  // shuts down a number the system already gave to someone else.
  openFds_.erase(std::remove(openFds_.begin(), openFds_.end(), fd), openFds_.end());
  ::close(fd);
}

}  // namespace hvfp::test

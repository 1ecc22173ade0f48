#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdlib>
#include <stdexcept>

namespace hvfp::test {
namespace {

constexpr size_t kMaxHeader = 64 * 1024;

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Reads one request's head into `head`, leaving any extra bytes in `buffer`.
bool readHead(int fd, std::string& buffer, std::string& head) {
  for (;;) {
    size_t end = buffer.find("\r\n\r\n");
    if (end != std::string::npos) {
      head = buffer.substr(0, end);
      buffer.erase(0, end + 4);
      return true;
    }
    if (buffer.size() > kMaxHeader) return false;
    char chunk[4096];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

bool readBody(int fd, std::string& buffer, size_t length, std::string& body) {
  while (buffer.size() < length) {
    char chunk[65536];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<size_t>(n));
  }
  body = buffer.substr(0, length);
  buffer.erase(0, length);
  return true;
}

RecordedRequest parseHead(const std::string& head) {
  RecordedRequest r;
  size_t lineEnd = head.find("\r\n");
  std::string line = head.substr(0, lineEnd);
  size_t sp1 = line.find(' ');
  size_t sp2 = line.find(' ', sp1 + 1);
  r.method = line.substr(0, sp1);
  r.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
  size_t q = r.target.find('?');
  r.path = r.target.substr(0, q);
  if (q != std::string::npos) r.query = r.target.substr(q + 1);
  size_t pos = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
  while (pos < head.size()) {
    size_t next = head.find("\r\n", pos);
    if (next == std::string::npos) next = head.size();
    std::string h = head.substr(pos, next - pos);
    size_t colon = h.find(':');
    if (colon != std::string::npos) {
      size_t v = colon + 1;
      while (v < h.size() && h[v] == ' ') ++v;
      r.headers.emplace_back(h.substr(0, colon), h.substr(v));
    }
    pos = next + 2;
  }
  return r;
}

std::string statusLine(int status) {
  return "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [k, v] : headers)
    if (equalsIgnoreCase(k, name)) return v;
  return std::nullopt;
}

LoopbackServer::LoopbackServer() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listenFd_, 128) != 0) {
    std::abort();  // a test environment without loopback cannot run these tests
  }
  socklen_t len = sizeof addr;
  ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
  stopping_ = true;
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

void LoopbackServer::serve(int fd) {
  std::string buffer;
  for (;;) {
    std::string head;
    if (!readHead(fd, buffer, head)) break;
    RecordedRequest request = parseHead(head);
    size_t length = 0;
    if (auto cl = request.header("Content-Length"))
      length = std::strtoull(cl->c_str(), nullptr, 10);
    if (!readBody(fd, buffer, length, request.body)) break;
    ScriptedReply reply = replyFor(request);
    if (reply.delay.count() > 0) std::this_thread::sleep_for(reply.delay);
    if (reply.drop) break;
    std::string out = statusLine(reply.status);
    out +=
        "Content-Type: application/json\r\nContent-Length: " + std::to_string(reply.body.size()) +
        "\r\n";
    for (const auto& [k, v] : reply.headers) out += k + ": " + v + "\r\n";
    out += "\r\n";
    out += reply.body;
    if (!sendAll(fd, out)) break;
    auto connection = request.header("Connection");
    if (connection && equalsIgnoreCase(*connection, "close")) break;
  }
  ::shutdown(fd, SHUT_RDWR);
  std::lock_guard lock(mutex_);
  // The descriptor is closed here, under the lock, so the destructor never
  // shuts down a number the system already gave to someone else.
  openFds_.erase(std::remove(openFds_.begin(), openFds_.end(), fd), openFds_.end());
  ::close(fd);
}

}  // namespace hvfp::test

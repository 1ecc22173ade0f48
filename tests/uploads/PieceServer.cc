#include "uploads/PieceServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace hvfp::test {
namespace {

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool receive(int fd, std::string& buffer) {
  char chunk[65536];
  ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
  if (n <= 0) return false;
  buffer.append(chunk, static_cast<size_t>(n));
  return true;
}

std::string reply(int status, const std::string& body, size_t announced) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Scripted\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(announced) + "\r\n\r\n" + body;
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

PieceServer::PieceServer() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      ::listen(listenFd_, 64) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    std::abort();  // no loopback: these tests cannot run
  port_ = ntohs(addr.sin_port);
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

PieceServer::~PieceServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  }
  ::shutdown(listenFd_, SHUT_RDWR);
  acceptThread_.join();
  ::close(listenFd_);
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    threads.swap(connections_);
  }
  for (auto& t : threads) t.join();
}

void PieceServer::enqueue(PieceReply reply) {
  std::lock_guard lock(mutex_);
  script_.push_back(std::move(reply));
}

std::vector<RecordedPiece> PieceServer::pieces() const {
  std::lock_guard lock(mutex_);
  return pieces_;
}

std::vector<std::string> PieceServer::ranges() const {
  std::vector<std::string> out;
  for (const auto& piece : pieces()) out.push_back(piece.range);
  return out;
}

std::string PieceServer::contents() const {
  std::lock_guard lock(mutex_);
  return contents_;
}

bool PieceServer::waitForPieces(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return pieces_.size() >= n; });
}

bool PieceServer::waitForHangUp(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return hungUp_; });
}

void PieceServer::acceptLoop() {
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    open_.push_back(fd);
    connections_.emplace_back([this, fd] { serve(fd); });
  }
}

void PieceServer::serve(int fd) {
  std::string buffer;
  for (;;) {
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos)
      if (!receive(fd, buffer)) goto done;
    {
      std::string head = buffer.substr(0, end);
      buffer.erase(0, end + 4);
      if (!answer(fd, buffer, head)) break;
    }
  }
done:
  std::lock_guard lock(mutex_);
  std::erase(open_, fd);
  ::close(fd);
}

// Answers one piece; false when the connection is done.
bool PieceServer::answer(int fd, std::string& buffer, const std::string& head) {
  RecordedPiece piece;
  size_t pos = head.find("\r\n");
  piece.requestLine = head.substr(0, pos);
  uint64_t length = 0;
  while (pos != std::string::npos) {
    size_t next = head.find("\r\n", pos + 2);
    std::string line = head.substr(pos + 2, next == std::string::npos ? next : next - pos - 2);
    size_t colon = line.find(':');
    std::string name = line.substr(0, colon);
    std::string value = line.substr(std::min(line.size(), colon + 2));
    if (lower(name) == "content-length") length = std::stoull(value);
    if (lower(name) == "x-tb-upload-range") piece.range = value;
    piece.headers.emplace_back(name, value);
    pos = next;
  }
  PieceReply script;
  {
    std::lock_guard lock(mutex_);
    if (!script_.empty()) {
      script = std::move(script_.front());
      script_.pop_front();
    }
  }
  if (script.kind == PieceReply::Kind::Hold) {
    {
      std::lock_guard lock(mutex_);
      pieces_.push_back(piece);
      changed_.notify_all();
    }
    // The body is taken and dropped, so the client's hang-up is not queued
    // behind bytes nobody reads.
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 20) > 0) {
        char sink[65536];
        if (::recv(fd, sink, sizeof sink, 0) <= 0) break;
      }
      std::lock_guard lock(mutex_);
      if (stopping_) return false;
    }
    std::lock_guard lock(mutex_);
    hungUp_ = true;
    changed_.notify_all();
    return false;
  }
  while (buffer.size() < length)
    if (!receive(fd, buffer)) break;
  piece.received = std::min<uint64_t>(buffer.size(), length);
  std::string body = buffer.substr(0, piece.received);
  buffer.erase(0, piece.received);
  {
    std::lock_guard lock(mutex_);
    if (script.kind == PieceReply::Kind::Accept && piece.received == length) {
      uint64_t first = std::stoull(piece.range);
      if (contents_.size() < first + length) contents_.resize(first + length);
      contents_.replace(first, length, body);
    }
    pieces_.push_back(piece);
    changed_.notify_all();
  }
  if (piece.received < length) return false;
  switch (script.kind) {
    case PieceReply::Kind::Accept:
      return sendAll(fd, reply(200, "{\"status_code\":200}", 19));
    case PieceReply::Kind::Late:
      return sendAll(fd, reply(script.status, script.body, script.body.size()));
    case PieceReply::Kind::Failing:
      sendAll(fd, reply(script.status, script.body, script.body.size() + 100));
      return false;
    default:
      return false;
  }
}

}  // namespace hvfp::test

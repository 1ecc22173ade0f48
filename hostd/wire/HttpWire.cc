#include "HttpWire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

namespace hvfp::wire {

namespace {

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

}  // namespace

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

const std::string* RequestHead::header(std::string_view name) const {
  for (const auto& [k, v] : headers)
    if (equalsIgnoreCase(k, name)) return &v;
  return nullptr;
}

std::optional<uint64_t> parseDecimal(std::string_view text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  return v;
}

std::optional<RequestHead> parseHead(std::string_view head) {
  RequestHead req;
  auto lineEnd = head.find("\r\n");
  auto line = head.substr(0, lineEnd);
  auto sp1 = line.find(' ');
  auto sp2 = line.rfind(' ');
  if (sp1 == line.npos || sp2 == sp1 || sp1 == 0) return std::nullopt;
  req.method = std::string(line.substr(0, sp1));
  req.target = std::string(line.substr(sp1 + 1, sp2 - sp1 - 1));
  auto q = req.target.find('?');
  req.path = req.target.substr(0, q);
  if (q != std::string::npos) req.query = req.target.substr(q + 1);
  size_t pos = lineEnd == head.npos ? head.size() : lineEnd + 2;
  while (pos < head.size()) {
    auto end = head.find("\r\n", pos);
    if (end == head.npos) end = head.size();
    auto h = head.substr(pos, end - pos);
    auto colon = h.find(':');
    if (colon == h.npos || colon == 0) return std::nullopt;
    req.headers.emplace_back(std::string(h.substr(0, colon)),
                             std::string(trimmed(h.substr(colon + 1))));
    pos = end + 2;
  }
  return req;
}

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

ssize_t receiveSome(int fd, char* buffer, size_t size) {
  for (;;) {
    ssize_t n = ::recv(fd, buffer, size, 0);
    if (n < 0 && errno == EINTR) continue;
    return n < 0 ? -1 : n;
  }
}

RequestReader::Head RequestReader::readHead(std::string& head) {
  for (;;) {
    auto end = buffered_.find("\r\n\r\n");
    if (end != std::string::npos) {
      if (end > maxHead_) return Head::TooLarge;
      head = buffered_.substr(0, end);
      buffered_.erase(0, end + 4);
      return Head::Ok;
    }
    if (buffered_.size() > maxHead_) return Head::TooLarge;
    char tmp[4096];
    ssize_t n = receiveSome(fd_, tmp, sizeof tmp);
    if (n <= 0) return Head::Closed;
    buffered_.append(tmp, static_cast<size_t>(n));
  }
}

bool RequestReader::readBody(uint64_t length, size_t chunk, const Sink& sink) {
  chunk = std::max<size_t>(chunk, 1);
  size_t early = static_cast<size_t>(std::min<uint64_t>(length, buffered_.size()));
  // What came with the head is handed on in the same bounded pieces.
  for (size_t done = 0; done < early;) {
    size_t n = std::min(chunk, early - done);
    if (!sink(buffered_.data() + done, n)) return false;
    done += n;
  }
  buffered_.erase(0, early);
  uint64_t left = length - early;
  std::vector<char> buf(static_cast<size_t>(std::min<uint64_t>(left, chunk)));
  while (left > 0) {
    ssize_t n =
        receiveSome(fd_, buf.data(), static_cast<size_t>(std::min<uint64_t>(left, buf.size())));
    if (n <= 0) return false;
    if (!sink(buf.data(), static_cast<size_t>(n))) return false;
    left -= static_cast<uint64_t>(n);
  }
  return true;
}

bool RequestReader::readBody(uint64_t length, std::string& body) {
  body.clear();
  return readBody(length, 64 * 1024, [&body](const char* data, size_t size) {
    body.append(data, size);
    return true;
  });
}

const char* reasonPhrase(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 202:
      return "Accepted";
    case 206:
      return "Partial Content";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
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
    case 416:
      return "Range Not Satisfiable";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return status >= 500 ? "Server Error" : "Status";
  }
}

std::string replyHead(int status, const Headers& headers) {
  std::string out = "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) + "\r\n";
  for (const auto& [k, v] : headers) out += k + ": " + v + "\r\n";
  out += "\r\n";
  return out;
}

std::string replyText(int status, std::string_view contentType, std::string_view body,
                      bool keepAlive) {
  std::string out = replyHead(status, {{"Content-Type", std::string(contentType)},
                                       {"Content-Length", std::to_string(body.size())},
                                       {"Connection", keepAlive ? "keep-alive" : "close"}});
  out.append(body);
  return out;
}

void lingeringClose(int fd, std::chrono::milliseconds limit, uint64_t maxDiscard) {
  ::shutdown(fd, SHUT_WR);
  auto deadline = std::chrono::steady_clock::now() + limit;
  std::vector<char> sink(64 * 1024);
  uint64_t discarded = 0;
  while (std::chrono::steady_clock::now() < deadline && discarded < maxDiscard) {
    pollfd p{fd, POLLIN, 0};
    int ready = ::poll(&p, 1, 100);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    ssize_t n = receiveSome(fd, sink.data(), sink.size());
    if (n <= 0) break;
    discarded += static_cast<uint64_t>(n);
  }
}

void resetOnClose(int fd) {
  linger l{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

Listening listenOn(const std::string& address, int port, int backlog) {
  Listening out;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (::inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) {
    out.error = EINVAL;
    return out;
  }
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    out.error = errno;
    return out;
  }
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  socklen_t len = sizeof addr;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, backlog) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    out.error = errno;
    ::close(fd);
    return out;
  }
  out.fd = fd;
  out.port = ntohs(addr.sin_port);
  return out;
}

}  // namespace hvfp::wire

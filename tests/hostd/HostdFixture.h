// Shared helpers for the halvo-hostd tests: a temporary root, an in-process
// Host on free loopback ports, and small readers for JSON replies.
// Each test owns its fixture; nothing here is shared between threads.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "Host.h"
#include "records/Json.h"

namespace hvfp::hostd::test {

class TempRoot {
 public:
  TempRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "hostd-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline int64_t intOf(const JsonValue& v, std::string_view key) {
  auto m = v.find(key);
  if (!m) return -999999;
  if (auto i = std::get_if<int64_t>(&m->storage())) return *i;
  if (auto u = std::get_if<uint64_t>(&m->storage())) return static_cast<int64_t>(*u);
  return -999999;
}

inline std::string strOf(const JsonValue& v, std::string_view key) {
  auto m = v.find(key);
  return m && m->string() ? *m->string() : std::string("<absent>");
}

// A copy, so that it may be taken from a temporary reply.
inline JsonArray listOf(const JsonValue& v) {
  auto m = v.find("list");
  return m && m->array() ? *m->array() : JsonArray{};
}

struct RawReply {
  int status = 0;  // 0: no reply at all
  std::string body;
  size_t announced = 0;   // its Content-Length
  bool complete = false;  // the whole announced body arrived
};

// One raw client connection, so that early replies and closed connections are
// visible; every wait is bounded.
class RawConn {
 public:
  explicit RawConn(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);  // else send() fails
    timeval tv{5, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~RawConn() { ::close(fd_); }
  bool send(const std::string& data) {
    return ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL) == ssize_t(data.size());
  }

  RawReply reply() {
    std::string buf;
    char tmp[4096];
    size_t headEnd;
    while ((headEnd = buf.find("\r\n\r\n")) == std::string::npos) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) return {};
      buf.append(tmp, size_t(n));
    }
    RawReply r{std::stoi(buf.substr(9, 3)), buf.substr(headEnd + 4)};
    auto cl = buf.find("Content-Length: ");
    r.announced = cl == std::string::npos ? 0 : std::stoul(buf.substr(cl + 16));
    while (r.body.size() < r.announced) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) break;
      r.body.append(tmp, size_t(n));
    }
    r.complete = r.body.size() == r.announced;
    return r;
  }
  // Reads the head and at least `n` body bytes (or what comes before the
  // end), then stops reading.
  RawReply partialReply(size_t n) {
    RawReply r;
    std::string buf;
    char tmp[4096];
    size_t headEnd;
    while ((headEnd = buf.find("\r\n\r\n")) == std::string::npos || buf.size() < headEnd + 4 + n) {
      ssize_t got = ::recv(fd_, tmp, sizeof tmp, 0);
      if (got <= 0) break;
      buf.append(tmp, size_t(got));
    }
    if (headEnd == std::string::npos) return r;
    r.status = std::stoi(buf.substr(9, 3));
    r.body = buf.substr(headEnd + 4);
    return r;
  }

  // The server closed its side: a read gives EOF or an error within 5 s.
  bool closedByPeer() {
    char tmp[256];
    for (int i = 0; i < 50; ++i) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
  }

 private:
  int fd_ = -1;
};

inline std::string pieceHead(const std::string& session, uint64_t first, uint64_t last,
                             size_t length) {
  return "PUT /upload_part HTTP/1.1\r\nHost: 127.0.0.1\r\nx-tb-upload-session: " + session +
         "\r\nx-tb-upload-range: " + std::to_string(first) + "-" + std::to_string(last) +
         "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// A GET sent on its own connection, and what came back.
inline RawReply rawGet(int port, const std::string& target, const std::string& headers = "") {
  RawConn c(port);
  c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n");
  return c.reply();
}

inline int portOf(const std::string& url) { return std::stoi(url.substr(url.rfind(':') + 1)); }
inline std::string enc(const std::string& s) { return httplib::detail::encode_query_param(s); }
// type=create of `webpath` in `mount`: a folder when `filehash` is empty.
inline std::string createQuery(const std::string& webpath, const std::string& filehash = "",
                               size_t size = 0, int mount = 1) {
  return "type=create&webpath=" + enc(webpath) + "&filehash=" + filehash +
         "&filesize=" + std::to_string(size) +
         "&createtime=1&lasttime=2&mount_id=" + std::to_string(mount) +
         "&dir=" + (filehash.empty() ? "1" : "0");
}

// The parsed reply object of a GET (null when there is none or it is not JSON).
inline JsonValue getJson(httplib::Client& client, const std::string& path) {
  auto res = client.Get(path);
  auto v = res ? objectFromJSONString(res->body) : std::nullopt;
  return v ? *v : JsonValue();
}

// A Host on free ports, without a bus, with a second upload server.
class HostFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    HostConfig c{.root = root_.path(),
                 .port = 0,
                 .uploadPorts = {0, 0},
                 .downloadPort = 0,
                 .adminPort = 0,
                 .useBus = false,
                 .quiet = true,
                 .seed = "sample"};
    configure(c);
    host_ = std::make_unique<Host>(c);
    auto started = host_->start();
    ASSERT_TRUE(started.ok()) << started.failure().message;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", host_->queryPort());
    admin_ = std::make_unique<httplib::Client>("127.0.0.1", host_->adminPort());
  }
  void TearDown() override {
    if (host_) host_->stop();
  }
  virtual void configure(HostConfig&) {}

  JsonValue query(const std::string& q) { return getJson(*client_, "/provider?" + q); }
  JsonValue ctl(const std::string& cmd, const std::string& q) {
    return getJson(*admin_, "/ctl/" + cmd + "?" + q);
  }
  // The live child of a mount's folder with that name, via "files".
  JsonValue child(int64_t mount, const std::string& folder, const std::string& name) {
    auto v = query("type=files&uuidhash=" + folder + "&mount_id=" + std::to_string(mount));
    for (auto& e : listOf(v))
      if (strOf(e, "filename") == name) return e;
    return JsonValue();
  }
  JsonValue create(const std::string& webpath, const std::string& filehash = "", size_t size = 0,
                   int mount = 1) {
    return query(createQuery(webpath, filehash, size, mount));
  }
  std::string uploadUrl(size_t i) { return host_->uploadUrls().at(i); }

  TempRoot root_;
  std::unique_ptr<Host> host_;
  std::unique_ptr<httplib::Client> client_, admin_;
};

}  // namespace hvfp::hostd::test

// The upload path end to end over real sockets: create, session steps
// relayed to the named upload server, and PUT /upload_part pieces sent with
// a raw client so that early replies and closed connections are visible.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Digest.h"
#include "HostdFixture.h"

namespace hvfp::hostd::test {
namespace {

struct RawReply {
  int status = 0;
  std::string body;
};

// One client connection; every wait is bounded.
class RawConn {
 public:
  explicit RawConn(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    timeval tv{5, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~RawConn() { ::close(fd_); }
  bool connected() const { return connected_; }
  bool send(const std::string& data) { return ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL) == ssize_t(data.size()); }

  RawReply reply() {
    std::string buf;
    char tmp[4096];
    size_t headEnd;
    while ((headEnd = buf.find("\r\n\r\n")) == std::string::npos) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) return {};
      buf.append(tmp, size_t(n));
    }
    RawReply r;
    r.status = std::stoi(buf.substr(9, 3));
    auto cl = buf.find("Content-Length: ");
    size_t length = cl == std::string::npos ? 0 : std::stoul(buf.substr(cl + 16));
    r.body = buf.substr(headEnd + 4);
    while (r.body.size() < length) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) break;
      r.body.append(tmp, size_t(n));
    }
    return r;
  }

  // The server closed its side: a read gives EOF or a reset within 5 s.
  bool closedByPeer() {
    char tmp[256];
    for (int i = 0; i < 50; ++i) {
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
      if (n < 0 && errno != EAGAIN && errno != EINTR) return true;
    }
    return false;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

std::string pieceHead(const std::string& session, uint64_t first, uint64_t last, size_t length) {
  return "PUT /upload_part HTTP/1.1\r\nHost: 127.0.0.1\r\nx-tb-upload-session: " + session +
         "\r\nx-tb-upload-range: " + std::to_string(first) + "-" + std::to_string(last) +
         "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

class HostdPieces : public HostFixture {
 protected:
  // Announces `name` in mount 1 with these contents; returns the uuid hash.
  std::string announce(const std::string& name, const std::string& contents, std::string hash = "") {
    if (hash.empty()) hash = sha1Hex(contents);
    auto r = query("type=create&webpath=" + enc(name) + "&filehash=" + hash + "&filesize=" +
                   std::to_string(contents.size()) + "&createtime=1&lasttime=2&mount_id=1&dir=0");
    EXPECT_EQ(intOf(r, "state"), 0);
    return strOf(r, "hash");
  }
  JsonValue init(const std::string& server, const std::string& name, const std::string& uuid,
                 const std::string& contents, std::string hash = "") {
    if (hash.empty()) hash = sha1Hex(contents);
    return query("type=uploadinit&host=" + enc(server) + "&filename=" + enc(name) + "&pathhash=" + uuid +
                 "&filehash=" + hash + "&storagepoint=hostd-local&cookie=&filesize=" +
                 std::to_string(contents.size()) + "&mount_id=1");
  }
  JsonValue step(const std::string& type, const std::string& server, const std::string& session,
                 const std::string& extra = "") {
    return query("type=" + type + "&host=" + enc(server) + "&session=" + session + "&cookie=" + extra);
  }
  int portOf(const std::string& url) { return std::stoi(url.substr(url.rfind(':') + 1)); }
};

TEST_F(HostdPieces, InOrderPiecesCloseIntoAStoredFile) {
  std::string data = "0123456789abcdefghij";
  std::string uuid = announce("pieces.txt", data);
  std::string server = uploadUrl(0);
  auto opened = init(server, "pieces.txt", uuid, data);
  ASSERT_EQ(intOf(opened, "status_code"), 200);
  EXPECT_GT(intOf(opened, "piecelen"), 0);
  std::string session = strOf(opened, "session");
  RawConn c(portOf(server));
  ASSERT_TRUE(c.connected());
  ASSERT_TRUE(c.send(pieceHead(session, 0, 9, 10) + data.substr(0, 10)));
  auto first = c.reply();
  EXPECT_EQ(first.status, 200);
  ASSERT_TRUE(c.send(pieceHead(session, 10, 19, 10) + data.substr(10)));  // same connection
  EXPECT_EQ(c.reply().status, 200);
  EXPECT_EQ(intOf(step("uploadreq", server, session), "offset"), 20);
  auto done = step("uploadfinish", server, session, "&filesize=20");
  EXPECT_EQ(intOf(done, "status_code"), 200);
  EXPECT_EQ(strOf(done, "hash"), uuid);
  auto item = child(1, "", "pieces.txt");
  EXPECT_EQ(strOf(item, "filehash"), sha1Hex(data));
  std::ifstream blob(host_->blobs().pathOf(sha1Hex(data)));
  std::string stored((std::istreambuf_iterator<char>(blob)), {});
  EXPECT_EQ(stored, data);
}

TEST_F(HostdPieces, OutOfOrderPieceGets409WithExpectAndTheConnectionCloses) {
  std::string data(100, 'x');
  std::string uuid = announce("ooo.bin", data);
  std::string server = uploadUrl(0);
  std::string session = strOf(init(server, "ooo.bin", uuid, data), "session");
  RawConn c(portOf(server));
  ASSERT_TRUE(c.send(pieceHead(session, 50, 99, 50) + data.substr(0, 5)));  // most of the body unsent
  auto r = c.reply();
  EXPECT_EQ(r.status, 409);
  auto body = objectFromJSONString(r.body);
  ASSERT_TRUE(body);
  EXPECT_EQ(intOf(*body, "error_code"), 40900);
  EXPECT_EQ(intOf(*body, "expect"), 0);
  EXPECT_TRUE(c.closedByPeer());
  EXPECT_EQ(intOf(step("uploadreq", server, session), "offset"), 0);
}

TEST_F(HostdPieces, PieceForACompleteSessionGets202AndCloses) {
  std::string data = "complete";
  std::string uuid = announce("c.txt", data);
  std::string server = uploadUrl(1);
  std::string session = strOf(init(server, "c.txt", uuid, data), "session");
  {
    RawConn c(portOf(server));
    c.send(pieceHead(session, 0, 7, 8) + data);
    EXPECT_EQ(c.reply().status, 200);
  }
  RawConn again(portOf(server));
  again.send(pieceHead(session, 0, 7, 8));
  EXPECT_EQ(again.reply().status, 202);
  EXPECT_TRUE(again.closedByPeer());
}

TEST_F(HostdPieces, BrokenPieceIsCutBackAndResumes) {
  std::string data(64, 'q');
  std::string uuid = announce("broken.bin", data);
  std::string server = uploadUrl(0);
  std::string session = strOf(init(server, "broken.bin", uuid, data), "session");
  {
    RawConn c(portOf(server));
    c.send(pieceHead(session, 0, 63, 64) + data.substr(0, 30));  // then the client vanishes
  }
  // Eventually the server notices; the session keeps none of the half piece.
  for (int i = 0; i < 100 && intOf(step("uploadreq", server, session), "offset") != 0; ++i) usleep(20000);
  RawConn c(portOf(server));
  c.send(pieceHead(session, 0, 63, 64) + data);
  EXPECT_EQ(c.reply().status, 200);
  EXPECT_EQ(intOf(step("uploadfinish", server, session, "&filesize=64"), "status_code"), 200);
}

TEST_F(HostdPieces, CloseWithWrongDigestOrSizeIs409) {
  std::string data = "actual bytes";
  std::string claimed = sha1Hex("announced bytes");
  std::string uuid = announce("lie.txt", data, claimed);
  std::string server = uploadUrl(0);
  std::string session = strOf(init(server, "lie.txt", uuid, data, claimed), "session");
  RawConn c(portOf(server));
  c.send(pieceHead(session, 0, data.size() - 1, data.size()) + data);
  EXPECT_EQ(c.reply().status, 200);
  auto size = step("uploadfinish", server, session, "&filesize=3");
  EXPECT_EQ(intOf(size, "status_code"), 409);
  auto digest = step("uploadfinish", server, session, "&filesize=" + std::to_string(data.size()));
  EXPECT_EQ(intOf(digest, "status_code"), 409);
  EXPECT_EQ(intOf(digest, "error_code"), kHashMismatch);
  EXPECT_TRUE(child(1, "", "lie.txt").isNull());
  EXPECT_EQ(intOf(step("uploadreq", server, session), "status_code"), 401);
}

TEST_F(HostdPieces, SessionStepsTellServersAndSessionsApart) {
  std::string data = "abc";
  std::string uuid = announce("s.txt", data);
  const std::string a = uploadUrl(0), b = uploadUrl(1);
  std::string session = strOf(init(a, "s.txt", uuid, data), "session");
  EXPECT_EQ(intOf(step("uploadreq", b, session), "status_code"), 401);  // other server
  EXPECT_EQ(intOf(step("uploadreq", a, "nosuchsession"), "status_code"), 401);
  EXPECT_EQ(intOf(step("uploadreq", "http://127.0.0.1:1", session), "status_code"), 503);
  ctl("upload-down", "port=" + std::to_string(portOf(a)));
  EXPECT_EQ(intOf(step("uploadreq", a, session), "status_code"), 503);
  EXPECT_EQ(intOf(init(a, "s.txt", uuid, data), "status_code"), 503);
  ctl("upload-up", "port=" + std::to_string(portOf(a)));
  EXPECT_EQ(intOf(step("uploadreq", a, session), "status_code"), 200);
  // A second opening on the same server resumes the same session.
  EXPECT_EQ(strOf(init(a, "s.txt", uuid, data), "session"), session);
  EXPECT_EQ(intOf(step("uploadabort", a, session), "status_code"), 200);
  EXPECT_EQ(intOf(step("uploadreq", a, session), "status_code"), 401);
  RawConn c(portOf(a));
  c.send(pieceHead(session, 0, 2, 3) + data);
  EXPECT_EQ(c.reply().status, 401);
}

TEST_F(HostdPieces, OpeningWhenTheContentsAreStoredIs202AndCreatesTheItem) {
  std::string data = "arrived meanwhile";
  std::string uuid = announce("late.txt", data);
  ASSERT_TRUE(host_->blobs().put(data).ok());
  auto r = init(uploadUrl(0), "late.txt", uuid, data);
  EXPECT_EQ(intOf(r, "status_code"), 202);
  EXPECT_EQ(strOf(child(1, "", "late.txt"), "uuidhash"), uuid);
}

TEST_F(HostdPieces, ANewVersionKeepsTheItemsHash) {
  auto readme = child(1, "", "README.txt");
  std::string data = "Welcome, version two.\n";
  std::string uuid = announce("README.txt", data);
  EXPECT_EQ(uuid, strOf(readme, "uuidhash"));
  std::string session = strOf(init(uploadUrl(0), "README.txt", uuid, data), "session");
  RawConn c(portOf(uploadUrl(0)));
  c.send(pieceHead(session, 0, data.size() - 1, data.size()) + data);
  EXPECT_EQ(c.reply().status, 200);
  step("uploadfinish", uploadUrl(0), session, "&filesize=" + std::to_string(data.size()));
  auto now = child(1, "", "README.txt");
  EXPECT_EQ(strOf(now, "uuidhash"), uuid);
  EXPECT_EQ(strOf(now, "filehash"), sha1Hex(data));
}

TEST_F(HostdPieces, MalformedPiecesAreRefused) {
  std::string data = "0123456789";
  std::string uuid = announce("m.txt", data);
  std::string session = strOf(init(uploadUrl(0), "m.txt", uuid, data), "session");
  int port = portOf(uploadUrl(0));
  auto statusOf = [&](const std::string& request) {
    RawConn c(port);
    c.send(request);
    return c.reply().status;
  };
  EXPECT_EQ(statusOf(pieceHead(session, 0, 9, 5) + "01234"), 400);              // range vs length
  EXPECT_EQ(statusOf(pieceHead(session, 0, 99, 100)), 400);                     // past the end
  EXPECT_EQ(statusOf("PUT /upload_part HTTP/1.1\r\nx-tb-upload-session: " + session + "\r\n\r\n"), 411);
  EXPECT_EQ(statusOf("GET /upload_part HTTP/1.1\r\n\r\n"), 405);
  EXPECT_EQ(statusOf("PUT /upload_part HTTP/1.1\r\nX: " + std::string(20000, 'a') + "\r\n\r\n"), 431);
  EXPECT_EQ(statusOf("PUT /upload_part HTTP/1.1\r\nContent-Length: 99999999999999\r\n\r\n"), 413);
}

}  // namespace
}  // namespace hvfp::hostd::test

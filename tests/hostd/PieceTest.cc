// The upload path end to end over real sockets: create, session steps
// relayed to the named upload server, and PUT /upload_part pieces sent with
// a raw client so that early replies and closed connections are visible.
#include "Digest.h"
#include "HostdFixture.h"

namespace hvfp::hostd::test {
namespace {

struct Upload {
  std::string uuid, session;
};

class HostdPieces : public HostFixture {
 protected:
  JsonValue init(const std::string& server, const std::string& name, const std::string& uuid,
                 const std::string& contents, const std::string& hash) {
    return query("type=uploadinit&host=" + enc(server) + "&filename=" + enc(name) +
                 "&pathhash=" + uuid + "&filehash=" + hash +
                 "&storagepoint=hostd-local&cookie=&filesize=" + std::to_string(contents.size()) +
                 "&mount_id=1");
  }
  // Announces `name` in mount 1 with these contents (claimed to hash to
  // `hash`) and opens a session for it on `server`.
  Upload open(const std::string& server, const std::string& name, const std::string& contents,
              std::string hash = "") {
    if (hash.empty()) hash = sha1Hex(contents);
    auto made = create(name, hash, contents.size());
    EXPECT_EQ(intOf(made, "state"), 0);
    return {strOf(made, "hash"),
            strOf(init(server, name, strOf(made, "hash"), contents, hash), "session")};
  }
  JsonValue step(const std::string& type, const std::string& server, const std::string& session,
                 const std::string& extra = "") {
    return query("type=" + type + "&host=" + enc(server) + "&session=" + session +
                 "&cookie=" + extra);
  }
  JsonValue finish(const std::string& server, const std::string& session, size_t size) {
    return step("uploadfinish", server, session, "&filesize=" + std::to_string(size));
  }
  // The status of one piece sent on a connection of its own.
  int put(const std::string& server, const std::string& session, uint64_t first,
          const std::string& bytes) {
    RawConn c(portOf(server));
    c.send(pieceHead(session, first, first + bytes.size() - 1, bytes.size()) + bytes);
    return c.reply().status;
  }
};

TEST_F(HostdPieces, InOrderPiecesCloseIntoAStoredFile) {
  std::string data = "0123456789abcdefghij", server = uploadUrl(0);
  auto made = create("pieces.txt", sha1Hex(data), data.size());
  auto opened = init(server, "pieces.txt", strOf(made, "hash"), data, sha1Hex(data));
  ASSERT_EQ(intOf(opened, "status_code"), 200);
  EXPECT_GT(intOf(opened, "piecelen"), 0);
  std::string session = strOf(opened, "session");
  RawConn c(portOf(server));
  ASSERT_TRUE(c.send(pieceHead(session, 0, 9, 10) + data.substr(0, 10)));
  EXPECT_EQ(c.reply().status, 200);
  ASSERT_TRUE(c.send(pieceHead(session, 10, 19, 10) + data.substr(10)));  // same connection
  EXPECT_EQ(c.reply().status, 200);
  EXPECT_EQ(intOf(step("uploadreq", server, session), "offset"), 20);
  auto done = finish(server, session, 20);
  EXPECT_EQ(intOf(done, "status_code"), 200);
  EXPECT_EQ(strOf(done, "hash"), strOf(made, "hash"));
  EXPECT_EQ(strOf(child(1, "", "pieces.txt"), "filehash"), sha1Hex(data));
  std::ifstream blob(host_->blobs().pathOf(sha1Hex(data)));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(blob), {}), data);
}

TEST_F(HostdPieces, OutOfOrderPieceGets409WithExpectAndTheConnectionCloses) {
  std::string data(100, 'x'), server = uploadUrl(0);
  auto up = open(server, "ooo.bin", data);
  RawConn c(portOf(server));
  ASSERT_TRUE(c.send(pieceHead(up.session, 50, 99, 50) + data.substr(0, 5)));  // most unsent
  auto r = c.reply();
  EXPECT_EQ(r.status, 409);
  auto body = objectFromJSONString(r.body);
  ASSERT_TRUE(body);
  EXPECT_EQ(intOf(*body, "error_code"), 40900);
  EXPECT_EQ(intOf(*body, "expect"), 0);
  EXPECT_TRUE(c.closedByPeer());
  EXPECT_EQ(intOf(step("uploadreq", server, up.session), "offset"), 0);
}

TEST_F(HostdPieces, PieceForACompleteSessionGets202AndCloses) {
  std::string data = "complete", server = uploadUrl(1);
  auto up = open(server, "c.txt", data);
  EXPECT_EQ(put(server, up.session, 0, data), 200);
  RawConn again(portOf(server));
  again.send(pieceHead(up.session, 0, 7, 8));
  EXPECT_EQ(again.reply().status, 202);
  EXPECT_TRUE(again.closedByPeer());
}

TEST_F(HostdPieces, BrokenPieceIsCutBackAndResumes) {
  std::string data(64, 'q'), server = uploadUrl(0);
  auto up = open(server, "broken.bin", data);
  RawConn(portOf(server)).send(pieceHead(up.session, 0, 63, 64) + data.substr(0, 30));
  // Until the server notices the vanished client the half piece is still in
  // progress and a new one is refused; after that the session has kept none
  // of it and the whole piece is taken from offset 0.
  int status = 0;
  for (int i = 0; i < 100 && (status = put(server, up.session, 0, data)) != 200; ++i) usleep(20000);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(intOf(finish(server, up.session, 64), "status_code"), 200);
}

TEST_F(HostdPieces, CloseWithWrongDigestOrSizeIs409) {
  std::string data = "actual bytes", server = uploadUrl(0);
  auto up = open(server, "lie.txt", data, sha1Hex("announced bytes"));
  EXPECT_EQ(put(server, up.session, 0, data), 200);
  EXPECT_EQ(intOf(finish(server, up.session, 3), "status_code"), 409);
  auto digest = finish(server, up.session, data.size());
  EXPECT_EQ(intOf(digest, "status_code"), 409);
  EXPECT_EQ(intOf(digest, "error_code"), kHashMismatch);
  EXPECT_TRUE(child(1, "", "lie.txt").isNull());
  EXPECT_EQ(intOf(step("uploadreq", server, up.session), "status_code"), 401);
}

TEST_F(HostdPieces, SessionStepsTellServersAndSessionsApart) {
  std::string data = "abc";
  const std::string a = uploadUrl(0), b = uploadUrl(1);
  auto up = open(a, "s.txt", data);
  auto statusOf = [&](const std::string& server, const std::string& session) {
    return intOf(step("uploadreq", server, session), "status_code");
  };
  EXPECT_EQ(statusOf(b, up.session), 401);  // other server
  EXPECT_EQ(statusOf(a, "nosuchsession"), 401);
  EXPECT_EQ(statusOf("http://127.0.0.1:1", up.session), 503);
  ctl("upload-down", "port=" + std::to_string(portOf(a)));
  EXPECT_EQ(statusOf(a, up.session), 503);
  EXPECT_EQ(intOf(init(a, "s.txt", up.uuid, data, sha1Hex(data)), "status_code"), 503);
  ctl("upload-up", "port=" + std::to_string(portOf(a)));
  EXPECT_EQ(statusOf(a, up.session), 200);
  // A second opening on the same server resumes the same session.
  EXPECT_EQ(strOf(init(a, "s.txt", up.uuid, data, sha1Hex(data)), "session"), up.session);
  EXPECT_EQ(intOf(step("uploadabort", a, up.session), "status_code"), 200);
  EXPECT_EQ(statusOf(a, up.session), 401);
  EXPECT_EQ(put(a, up.session, 0, data), 401);
}

TEST_F(HostdPieces, OpeningStoredContentsIs202AndANewVersionKeepsTheItemsHash) {
  std::string data = "arrived meanwhile";
  auto made = create("late.txt", sha1Hex(data), data.size());
  ASSERT_TRUE(host_->blobs().put(data).ok());
  auto r = init(uploadUrl(0), "late.txt", strOf(made, "hash"), data, sha1Hex(data));
  EXPECT_EQ(intOf(r, "status_code"), 202);
  EXPECT_EQ(strOf(child(1, "", "late.txt"), "uuidhash"), strOf(made, "hash"));

  std::string readme = strOf(child(1, "", "README.txt"), "uuidhash");
  std::string two = "Welcome, version two.\n";
  auto up = open(uploadUrl(0), "README.txt", two);
  EXPECT_EQ(up.uuid, readme);
  EXPECT_EQ(put(uploadUrl(0), up.session, 0, two), 200);
  finish(uploadUrl(0), up.session, two.size());
  auto now = child(1, "", "README.txt");
  EXPECT_EQ(strOf(now, "uuidhash"), readme);
  EXPECT_EQ(strOf(now, "filehash"), sha1Hex(two));
}

// Each piece fault as the client sees it, and what the session kept of the
// piece (a fresh session per case).
TEST_F(HostdPieces, PieceFaultsAsAClientSeesThemAndWhatTheSessionKeeps) {
  const std::string data = "0123456789", a = uploadUrl(0);
  const std::string other = std::to_string(portOf(uploadUrl(1)));
  struct Case {
    std::string fault;
    int status;  // 0: no reply, the connection ended
    int offset;
    std::string bodyHas;
  };
  const Case cases[] = {
      {"target=piece&kind=status&status=500&code=7", 500, 0, R"("error_code":7)"},
      {"target=piece@" + std::to_string(portOf(a)) + "&kind=status&status=503", 503, 0, ""},
      {"target=piece&kind=expect&expect=4096", 409, 0, R"({"error_code":40900,"expect":4096})"},
      {"target=piece&kind=complete", 202, 0, ""},
      {"target=piece&kind=notjson", 500, 0, "<html>"},
      {"target=piece&kind=reset", 0, 0, ""},
      {"target=piece&kind=drop", 0, 0, ""},
      {"target=piece&kind=cut&after=4", 0, 0, ""},
      {"target=piece&kind=cut&after=10", 0, 10, ""},  // kept; only its reply is lost
      {"target=piece&kind=slow&chunk=3&delay=5", 200, 10, R"("offset":10)"},
      {"target=piece&kind=delay&delay=20", 200, 10, ""},
      {"target=piece@" + other + "&kind=status", 200, 10, ""},  // another server's
  };
  int n = 0;
  for (const auto& c : cases) {
    auto up = open(a, "fault" + std::to_string(n++) + ".bin", data);
    ctl("fault", c.fault);
    RawConn conn(portOf(a));
    conn.send(pieceHead(up.session, 0, 9, 10) + data);
    auto r = conn.reply();
    EXPECT_EQ(r.status, c.status) << c.fault;
    EXPECT_NE(r.body.find(c.bodyHas), std::string::npos) << c.fault << ": " << r.body;
    EXPECT_EQ(intOf(step("uploadreq", a, up.session), "offset"), c.offset) << c.fault;
    ctl("clear-faults", "");
  }
}

TEST_F(HostdPieces, AnUploadServerCanRefuseEveryPieceUntilCleared) {
  const std::string data = "abcdef", a = uploadUrl(0), b = uploadUrl(1);
  const std::string target = "piece@" + std::to_string(portOf(a));
  auto status = ctl("fault", "target=" + target + "&kind=status&status=500&count=-1");
  EXPECT_EQ(intOf(*status.find("faults"), target), -1);
  auto onA = open(a, "a.bin", data), onB = open(b, "b.bin", data);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(put(a, onA.session, 0, data), 500);
  EXPECT_EQ(put(b, onB.session, 0, data), 200);
  ctl("clear-faults", "");
  EXPECT_EQ(put(a, onA.session, 0, data), 200);
}

TEST_F(HostdPieces, MalformedPiecesAreRefused) {
  auto up = open(uploadUrl(0), "m.txt", "0123456789");
  const std::string put = "PUT /upload_part HTTP/1.1\r\n";
  const std::pair<std::string, int> cases[] = {
      {pieceHead(up.session, 0, 9, 5) + "01234", 400},  // range vs length
      {pieceHead(up.session, 0, 99, 100), 400},         // past the end
      {put + "x-tb-upload-session: " + up.session + "\r\n\r\n", 411},
      {"GET /upload_part HTTP/1.1\r\n\r\n", 405},
      {put + "X: " + std::string(20000, 'a') + "\r\n\r\n", 431},
      {put + "Content-Length: 99999999999999\r\n\r\n", 413},
  };
  for (const auto& [request, status] : cases) {
    RawConn c(portOf(uploadUrl(0)));
    c.send(request);
    EXPECT_EQ(c.reply().status, status) << request.substr(0, 80);
  }
}

}  // namespace
}  // namespace hvfp::hostd::test

// The loopback test server's scripted bodies as a raw client receives them:
// cut short of their Content-Length, dribbled, generated. Both it and the
// upload servers speak through the same wire code.
#include "HostdFixture.h"
#include "support/LoopbackServer.h"

namespace hvfp::hostd::test {
namespace {

using ::hvfp::test::LoopbackServer;
using ::hvfp::test::ScriptedReply;
using namespace std::chrono_literals;

TEST(LoopbackReplies, ScriptedBodiesReachTheClientAsScripted) {
  LoopbackServer server;
  const std::string body = LoopbackServer::pattern(7, 1000);
  auto generatedRange = ScriptedReply::generated(10, 500);
  generatedRange.status = 206;
  auto generatedCut = ScriptedReply::generated(300000);
  generatedCut.truncateAfter = 70000;
  struct Case {
    ScriptedReply reply;
    int status;
    size_t announced;
    std::string received;
    bool complete;
  };
  const Case cases[] = {
      {ScriptedReply(404, body), 404, 1000, body, true},
      {ScriptedReply::truncated(200, body, 100), 200, 1000, body.substr(0, 100), false},
      {ScriptedReply::truncated(200, body, 0), 200, 1000, "", false},
      {ScriptedReply::dribbled(200, body, 64, 2ms), 200, 1000, body, true},
      {ScriptedReply::generated((1 << 20) + 7), 200, (1 << 20) + 7,
       LoopbackServer::pattern(0, (1 << 20) + 7), true},
      {generatedRange, 206, 10, LoopbackServer::pattern(500, 10), true},
      {generatedCut, 200, 300000, LoopbackServer::pattern(0, 70000), false},
  };
  size_t n = 0;
  for (const auto& c : cases) {
    server.enqueue(c.reply);
    auto r = rawGet(server.port(), "/case" + std::to_string(n));
    EXPECT_EQ(r.status, c.status) << n;
    EXPECT_EQ(r.announced, c.announced) << n;
    EXPECT_TRUE(r.body == c.received) << n << ": " << r.body.size() << " bytes";
    EXPECT_EQ(r.complete, c.complete) << n;
    ++n;
  }
  ASSERT_EQ(server.requestCount(), n);
  EXPECT_EQ(server.requests().back().path, "/case" + std::to_string(n - 1));
  EXPECT_EQ(server.unfinishedReplies(), 0u);  // cut bodies were meant to be cut
}

TEST(LoopbackReplies, AClientThatStopsReadingADribbledBodyIsNoticed) {
  LoopbackServer server;
  server.enqueue(ScriptedReply::dribbled(200, std::string(100000, 'x'), 1000, 5ms));
  {
    RawConn c(server.port());
    c.send("GET /slow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_EQ(c.partialReply(1500).status, 200);
  }  // closed midway
  EXPECT_TRUE(server.waitForUnfinishedReplies(1, 10s));
  server.enqueue({200, "next"});
  EXPECT_EQ(rawGet(server.port(), "/next").body, "next");
}

}  // namespace
}  // namespace hvfp::hostd::test

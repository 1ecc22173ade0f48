#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "hostlink/HalvoProviderClient.h"
#include "hostlink/NSStringExpand.h"
#include "platform/http/SharedSession.h"
#include "support/LoopbackServer.h"

namespace hvfp {
namespace {

using test::LoopbackServer;
using test::ScriptedReply;

TEST(HostlinkEncoding, UrlEncodedExamples) {
  EXPECT_EQ(urlEncoded("a b.c/d~e_f-g"), "a%20b%2Ec%2Fd~e_f-g");
  EXPECT_EQ(urlEncoded("%"), "%25");
  EXPECT_EQ(urlEncoded("é"), "%C3%A9");
  EXPECT_EQ(urlEncoded("+&="), "%2B%26%3D");
  EXPECT_EQ(urlEncoded(""), "");
  EXPECT_EQ(urlEncoded(";/?:@&=+$,!'()*.~"), "%3B%2F%3F%3A%40%26%3D%2B%24%2C%21%27%28%29%2A%2E~");
  EXPECT_EQ(urlEncoded("文件 1.txt"), "%E6%96%87%E4%BB%B6%201%2Etxt");
  EXPECT_EQ(urlEncoded(std::string("a\0b", 3)), "a%00b");
}

TEST(HostlinkQueryList, PairsKeepFirstPlaceAndLastValue) {
  QueryList list;
  addValueForString(list, "type", "files");
  addValueForString(list, "uuidhash", "a/b");
  addValueForInteger(list, "mount_id", 12);
  addValueForString(list, "type", "links");
  EXPECT_EQ(getKeyByString(list), "type=links&uuidhash=a%2Fb&mount_id=12");
}

TEST(HostlinkQueryList, ValueFormats) {
  QueryList list;
  addValueForInteger(list, "n", -5);
  addValueForULongLong(list, "u", UINT64_MAX);
  addValueForString(list, "absent", std::optional<std::string>());
  EXPECT_EQ(getKeyByString(list), "n=-5&u=18446744073709551615&absent=");
  EXPECT_EQ(getKeyByString({}), "");
}

TEST(HostlinkStringHelpers, PathRules) {
  EXPECT_EQ(getFilename("docs/report.txt"), "report.txt");
  EXPECT_EQ(getExt("docs/report.txt"), "txt");
  EXPECT_EQ(getExt("docs/README"), "");
  EXPECT_EQ(getExt("docs/report.final.PDF"), "PDF");
  EXPECT_EQ(getExt(".bashrc"), "");
  EXPECT_EQ(getExt("a."), "");
  EXPECT_EQ(getFilename("a//b/"), "b");
  EXPECT_EQ(getFilename("/"), "/");
  EXPECT_EQ(getFilename(""), "");
  EXPECT_EQ(getParent("a/b/c"), "a/b");
  EXPECT_EQ(getParent("/a"), "/");
  EXPECT_EQ(getParent("a"), "");
  EXPECT_EQ(sha1HexDigest(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1HexDigest("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

class HostlinkChannel : public ::testing::Test {
 protected:
  void SetUp() override { client.setNPort(server.port()); }
  std::string get(const std::string& url) { return client.syncRequest(url); }
  LoopbackServer server;
  HalvoProviderClient client;
};

TEST_F(HostlinkChannel, UrlIsHostPortProviderAndQuery) {
  client.setNPort(24753);
  QueryList list;
  addValueForString(list, "type", "links");
  EXPECT_EQ(client.urlFor(list), "http://127.0.0.1:24753/provider?type=links");
  EXPECT_EQ(client.urlFor({}), "http://127.0.0.1:24753/provider?");
}

TEST_F(HostlinkChannel, SendsExactQueryAndReturnsBody) {
  server.enqueue({200, R"({"list":[]})"});
  QueryList list;
  addValueForString(list, "type", "files");
  addValueForString(list, "uuidhash", "a/b");
  addValueForInteger(list, "mount_id", 12);
  EXPECT_EQ(client.syncRequestByArray(list), R"({"list":[]})");
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].target, "/provider?type=files&uuidhash=a%2Fb&mount_id=12");
  EXPECT_TRUE(requests[0].body.empty());
}

// The channel gives its callers text only; the client keeps how each query
// ended, numbered, for callers that must tell "no host" from "no answer".
TEST_F(HostlinkChannel, FailuresGiveEmptyTextAndTheOutcomeSaysWhy) {
  const std::string url = server.baseUrl() + "/provider?type=links";
  int gonePort;
  {
    LoopbackServer gone;
    gonePort = gone.port();
  }
  struct Case {
    std::optional<ScriptedReply> reply;  // none: nothing listens
    std::string body;
    bool delivered;
    long status;
    std::string failure;  // "*": any reason
  };
  Case cases[] = {
      // First, on a fresh connection: curl retries a request whose reused
      // connection closes unanswered.
      {ScriptedReply::dropped(), "", false, 0, "*"},
      {ScriptedReply{500, R"({"status_code":500,"error_msg":"down"})"},
       R"({"status_code":500,"error_msg":"down"})", true, 500, ""},
      {ScriptedReply{200, "\xff\xfe not text"}, "", false, 200, "reply is not UTF-8"},
      {ScriptedReply{200, std::string(SharedSession::kMaxBody + 1, ' ')}, "", false, 200,
       "reply larger than 256 MiB"},
      {std::nullopt, "", false, 0, "*"},
  };
  EXPECT_EQ(client.lastOutcome().number, 0u);
  uint64_t number = 0;
  for (auto& c : cases) {
    SCOPED_TRACE(c.failure + std::to_string(c.status));
    if (c.reply) server.enqueue(std::move(*c.reply));
    EXPECT_EQ(get(c.reply ? url : "http://127.0.0.1:" + std::to_string(gonePort) + "/provider?"),
              c.body);
    QueryOutcome outcome = client.lastOutcome();
    EXPECT_EQ(outcome.number, ++number);
    EXPECT_EQ(outcome.delivered, c.delivered);
    EXPECT_EQ(outcome.httpStatus, c.status);
    if (c.failure == "*")
      EXPECT_NE(outcome.failure, "");
    else
      EXPECT_EQ(outcome.failure, c.failure);
  }
}

TEST_F(HostlinkChannel, ManyThreadsEachGetTheirOwnReply) {
  server.setHandler([](const test::RecordedRequest& r) { return ScriptedReply{200, r.query}; });
  constexpr int kThreads = 16, kEach = 20;
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        QueryList list;
        addValueForString(list, "type", "fileinfo");
        addValueForInteger(list, "mount_id", t * 1000 + i);
        if (client.syncRequestByArray(list) != getKeyByString(list)) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(server.requestCount(), size_t{kThreads * kEach});
}

}  // namespace
}  // namespace hvfp

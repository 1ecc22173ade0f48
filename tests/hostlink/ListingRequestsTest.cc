#include <gtest/gtest.h>

#include <functional>

#include "hostlink/HalvoProviderClient.h"
#include "support/LoopbackServer.h"

namespace hvfp {
namespace {

using test::LoopbackServer;

class HostlinkListing : public ::testing::Test {
 protected:
  void SetUp() override { client.setNPort(server.port()); }
  std::string onlyQuery() {
    auto q = server.queries();
    EXPECT_EQ(q.size(), 1u);
    return q.empty() ? std::string() : q.back();
  }
  HalvoProviderClient client;
  LoopbackServer server;
};

// Each request's exact query: values as text, signed and unsigned numbers in
// full, identifiers split at their first "/".
TEST_F(HostlinkListing, QueriesOnTheWire) {
  struct Case {
    std::function<void(HalvoProviderClient&)> request;
    std::string query;
  };
  auto files = [](std::string id) {
    return [id](HalvoProviderClient& c) {
      uint64_t cursor = 7;  // never sent by a folder listing
      c.getFiles(id, cursor);
    };
  };
  auto changes = [](uint64_t from) {
    return [from](HalvoProviderClient& c) {
      uint64_t cursor = from;
      c.getChangeFiles(cursor);
    };
  };
  const Case cases[] = {
      {[](HalvoProviderClient& c) { c.getLinks(); }, "type=links"},
      {[](HalvoProviderClient& c) { c.getTrash(); }, "type=trash"},
      {files("12/ab34"), "type=files&uuidhash=ab34&mount_id=12"},
      {files("12"), "type=files&uuidhash=&mount_id=12"},
      {files("-3/x"), "type=files&uuidhash=x&mount_id=-3"},
      {changes(0), "type=changefiles&lasttime=0"},
      {changes(uint64_t{1} << 63), "type=changefiles&lasttime=9223372036854775808"},
      {[](HalvoProviderClient& c) { c.getFileInfo("12"); }, "type=fileinfo&uuidhash=&mount_id=12"},
      {[](HalvoProviderClient& c) { c.getDownloadInfo("5/aa/bb"); },
       "type=download&uuidhash=aa%2Fbb&mount_id=5"},
  };
  for (const Case& c : cases) {
    c.request(client);
    EXPECT_EQ(server.queries().back(), c.query);
  }
  EXPECT_EQ(server.requestCount(), std::size(cases));
}

// Provisional identifiers never reach the host and leave the cursor alone.
TEST_F(HostlinkListing, ProvisionalIdentifiersAreNotSent) {
  uint64_t cursor = 5;
  EXPECT_TRUE(client.getFiles("__fp/fs/1", cursor).empty());
  EXPECT_EQ(client.getFileInfo("__fp/fs/7"), nullptr);
  EXPECT_EQ(client.getDownloadInfo("__fp/fs/7"), nullptr);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(cursor, 5u);
}

// Folder and change listings, each starting from cursor 9: the records in
// reply order, and the cursor after. Only a JSON object moves the cursor.
TEST_F(HostlinkListing, RecordsAndCursorByReply) {
  struct Case {
    bool change;  // getChangeFiles, else getFiles
    std::string reply;
    std::vector<std::string> hashes;
    uint64_t cursor;
  };
  const std::string two = R"({"list":[{"uuidhash":"b"},{"uuidhash":"a"}],)";
  const Case cases[] = {
      {false, two + R"("lasttime":1700000000})", {"b", "a"}, 1700000000},
      {false, R"({"error_code":5})", {}, 0},
      {false, "", {}, 9},
      {false, "null", {}, 9},
      {false, R"({"list":{"a":1},"lasttime":4})", {}, 4},
      {true, two + R"("lasttime":"42"})", {"b", "a"}, 42},
      {true, "", {}, 9},
      {true, "[1]", {}, 9},
      {true, R"({"list":[]})", {}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE((c.change ? "changes " : "files ") + c.reply);
    server.enqueue({200, c.reply});
    uint64_t cursor = 9;
    auto records = c.change ? client.getChangeFiles(cursor) : client.getFiles("3/x", cursor);
    std::vector<std::string> hashes;
    for (const auto& r : records) hashes.push_back(r->strUuidHash.value_or("-"));
    EXPECT_EQ(hashes, c.hashes);
    EXPECT_EQ(cursor, c.cursor);
  }
}

TEST_F(HostlinkListing, LinksAreMountRootFolders) {
  server.enqueue({200, R"({"list":[{"filename":"Docs","mount_id":3,"root":0,"dir":0}]})"});
  auto links = client.getLinks();
  EXPECT_EQ(onlyQuery(), "type=links");
  ASSERT_EQ(links.size(), 1u);
  EXPECT_TRUE(links[0]->bRoot);
  EXPECT_TRUE(links[0]->bDir);
}

TEST_F(HostlinkListing, TrashQuery) {
  server.enqueue({200, R"({"list":[{"status":7}]})"});
  EXPECT_EQ(client.getTrash().size(), 1u);
  EXPECT_EQ(onlyQuery(), "type=trash");
}

TEST_F(HostlinkListing, Lookups) {
  server.enqueue({404, R"({"status_code":404,"error_code":2,"filename":"x"})"});
  auto missing = client.getFileInfo("12");
  EXPECT_EQ(onlyQuery(), "type=fileinfo&uuidhash=&mount_id=12");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->nStatusCode, 404);
  EXPECT_EQ(missing->nStatus, -1);

  server.enqueue({200, R"([{"filehash":"f"}])"});
  EXPECT_EQ(client.getDownloadInfo("5/aa/bb"), nullptr);
  EXPECT_EQ(server.queries().back(), "type=download&uuidhash=aa%2Fbb&mount_id=5");

  server.enqueue({200, R"({"status_code":200,"filehash":"f","uris":["http://h/x"]})"});
  auto open = client.getDownloadInfo("5/aa");
  ASSERT_TRUE(open);
  EXPECT_EQ(open->urlArray, std::vector<std::string>{"http://h/x"});
}

}  // namespace
}  // namespace hvfp

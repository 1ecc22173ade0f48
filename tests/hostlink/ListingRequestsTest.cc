#include <gtest/gtest.h>

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

TEST_F(HostlinkListing, FolderListingKeepsOrderAndTakesCursor) {
  server.enqueue(
      {200,
       R"({"list":[{"filename":"b","uuidhash":"2"},{"filename":"a","uuidhash":"1"}],"lasttime":1700000000})"});
  uint64_t cursor = 7;
  auto records = client.getFiles("12/ab34", cursor);
  EXPECT_EQ(onlyQuery(), "type=files&uuidhash=ab34&mount_id=12");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]->strFileName, "b");
  EXPECT_EQ(records[1]->strFileName, "a");
  EXPECT_EQ(cursor, 1700000000u);
}

TEST_F(HostlinkListing, MountRootAndProvisionalIdentifiers) {
  uint64_t cursor = 0;
  client.getFiles("12", cursor);
  EXPECT_EQ(onlyQuery(), "type=files&uuidhash=&mount_id=12");
  cursor = 5;
  EXPECT_TRUE(client.getFiles("__fp/fs/1", cursor).empty());
  EXPECT_EQ(client.getFileInfo("__fp/fs/7"), nullptr);
  EXPECT_EQ(client.getDownloadInfo("__fp/fs/7"), nullptr);
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(cursor, 5u);
}

TEST_F(HostlinkListing, CursorRules) {
  uint64_t cursor = 9;
  server.enqueue({200, R"({"error_code":5})"});
  EXPECT_TRUE(client.getFiles("3/x", cursor).empty());
  EXPECT_EQ(cursor, 0u);  // an object without "lasttime" resets the cursor

  cursor = 9;
  server.enqueue({200, ""});
  EXPECT_TRUE(client.getFiles("3/x", cursor).empty());
  server.enqueue({200, "null"});
  EXPECT_TRUE(client.getFiles("3/x", cursor).empty());
  server.enqueue({200, R"({"list":{"a":1},"lasttime":4})"});
  EXPECT_TRUE(client.getFiles("3/x", cursor).empty());
  EXPECT_EQ(cursor, 4u);
}

TEST_F(HostlinkListing, ChangeListingSendsCursor) {
  server.enqueue({200, R"({"list":[{"uuidhash":"h","status":7}],"lasttime":"42"})"});
  uint64_t cursor = 0;
  auto records = client.getChangeFiles(cursor);
  EXPECT_EQ(onlyQuery(), "type=changefiles&lasttime=0");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]->nStatus, 7);
  EXPECT_EQ(cursor, 42u);
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

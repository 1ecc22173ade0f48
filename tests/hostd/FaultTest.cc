// Fault injection through the admin endpoint, and requests a hostile or
// broken client could send: every one gets a JSON error, none a crash.
#include "HostdFixture.h"

namespace hvfp::hostd::test {
namespace {

using HostdFaults = HostFixture;
using HostdBadRequests = HostFixture;

std::string rawBody(httplib::Client& c, const std::string& q) {
  auto res = c.Get(("/provider?" + q).c_str());
  return res ? res->body : "<no reply>";
}

TEST_F(HostdFaults, StatusFaultsLastForTheirCountThenRepliesAreNormal) {
  auto armed = ctl("fault", "target=files&kind=status&status=503&code=42&msg=busy&count=2");
  EXPECT_EQ(intOf(*armed.find("faults"), "files"), 2);
  for (int i = 0; i < 2; ++i) {
    auto v = query("type=files&uuidhash=&mount_id=1");
    EXPECT_EQ(intOf(v, "status_code"), 503);
    EXPECT_EQ(intOf(v, "error_code"), 42);
    EXPECT_EQ(strOf(v, "error_msg"), "busy");
  }
  EXPECT_EQ(intOf(query("type=files&uuidhash=&mount_id=1"), "status_code"), 200);
  EXPECT_EQ(intOf(query("type=links"), "status_code"), 200);  // other types untouched
}

TEST_F(HostdFaults, BodyNotJsonDelayAndDrop) {
  ctl("fault", "target=links&kind=body&body=" + enc(R"({"list":[]})"));
  EXPECT_EQ(rawBody(*client_, "type=links"), R"({"list":[]})");
  ctl("fault", "target=links&kind=notjson");
  auto text = rawBody(*client_, "type=links");
  EXPECT_FALSE(objectFromJSONString(text).has_value()) << text;
  ctl("fault", "target=links&kind=delay&delay=200");
  EXPECT_EQ(listOf(query("type=links")).size(), 3u);
  ctl("fault", "target=links&kind=drop");
  auto dropped = client_->Get("/provider?type=links");
  EXPECT_TRUE(!dropped || dropped->body.empty());
  EXPECT_EQ(listOf(query("type=links")).size(), 3u);
}

TEST_F(HostdFaults, UploadStepFaultsApplyUntilCleared) {
  ctl("fault", "target=uploadfinish&kind=status&status=500&code=51300&count=5");
  auto v = query("type=uploadfinish&host=x&session=y&cookie=&filesize=1");
  EXPECT_EQ(intOf(v, "status_code"), 500);
  EXPECT_EQ(intOf(v, "error_code"), 51300);
  ctl("fault", "target=trash&kind=status&count=5");
  ctl("clear-faults", "");
  EXPECT_EQ(intOf(query("type=trash"), "status_code"), 200);
  EXPECT_NE(intOf(query("type=uploadfinish&host=x&session=y&cookie=&filesize=1"), "error_code"),
            51300);
}

TEST_F(HostdFaults, PieceFaults) {
  auto put = [&] {
    RawConn c(portOf(uploadUrl(0)));
    c.send(pieceHead("s", 0, 9, 10));
    return c.reply();
  };
  ctl("fault", "target=piece&kind=expect&expect=4096");
  auto r409 = put();
  EXPECT_EQ(r409.status, 409);
  EXPECT_NE(r409.body.find(R"({"error_code":40900,"expect":4096})"), std::string::npos);
  ctl("fault", "target=piece&kind=complete");
  EXPECT_EQ(put().status, 202);
  ctl("fault", "target=piece&kind=reset");
  EXPECT_EQ(put().status, 0);
  ctl("fault", "target=piece&kind=status&status=500&code=7");
  EXPECT_EQ(put().status, 500);
  EXPECT_EQ(put().status, 401);  // disarmed: unknown session
}

TEST_F(HostdFaults, DownloadFaultsAndUnknownFaultsOrCommands) {
  httplib::Client dl("127.0.0.1", host_->downloadPort());
  std::string path = "/blob/" + strOf(child(1, "", "README.txt"), "filehash");
  ctl("fault", "target=blob&kind=status&status=500&body=oops");
  auto bad = dl.Get(path.c_str());
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 500);
  EXPECT_EQ(dl.Get(path.c_str())->body, "Welcome to Docs.\n");
  EXPECT_EQ(intOf(ctl("fault", "target=files&kind=explode"), "status_code"), 400);
  EXPECT_NE(intOf(ctl("frobnicate", "mount=1&path=README.txt"), "status_code"), 200);
}

TEST_F(HostdBadRequests, EveryMalformedQueryGetsAJsonError) {
  const char* queries[] = {
      "",
      "type=",
      "type=nonsense",
      "type=files",
      "type=files&uuidhash=",
      "type=files&uuidhash=&mount_id=abc",
      "type=files&uuidhash=&mount_id=99999999999999999999999",
      "type=files&uuidhash=&mount_id=1.5",
      "type=changefiles&lasttime=-1",
      "type=fileinfo&mount_id=1",
      "type=download&uuidhash=&mount_id=1",
      "type=rename&uuidhash=x&mount_id=1",
      "type=remove&uuidhash=x&mount_id=1&parent_uuidhash=",
      "type=create&webpath=..&filehash=&filesize=0&createtime=0&lasttime=0&mount_id=1&dir=1",
      "type=create&webpath=%2Fabs&filehash=&filesize=0&createtime=0&lasttime=0&mount_id=1&dir=1",
      "type=create&webpath=a%2F%2Fb&filehash=&filesize=0&createtime=0&lasttime=0&mount_id=1&dir=1",
      "type=create&webpath=x&filehash=nothex&filesize=0&createtime=0&lasttime=0&mount_id=1&dir=0",
      "type=create&webpath=x&filehash=&filesize=0&createtime=0&lasttime=0&mount_id=77&dir=1",
      "type=uploadinit&host=h",
      "type=uploadreq&host=h&session=s",
      "type=addcache&path=relative&filehash=00",
      "type=updatestatus&uuidhash=x&mount_id=1&status=zz",
      "type=deletefile&uuidhash=&mount_id=1",
  };
  for (const char* q : queries) {
    auto text = rawBody(*client_, q);
    auto v = objectFromJSONString(text);
    ASSERT_TRUE(v && v->isObject()) << q << " -> " << text;
    EXPECT_NE(intOf(*v, "status_code"), 200) << q;
    EXPECT_NE(intOf(*v, "error_code"), 0) << q;
    EXPECT_NE(strOf(*v, "error_msg"), "<absent>") << q;
  }
  EXPECT_EQ(intOf(query("type=links"), "status_code"), 200);  // still serving
}

TEST_F(HostdBadRequests, NamesNeverEscapeTheRoot) {
  for (const char* path : {"../../escape", "a/../../escape", ".."}) create(path);
  EXPECT_FALSE(std::filesystem::exists(root_.path().parent_path() / "escape"));
  EXPECT_FALSE(std::filesystem::exists(root_.path() / "escape"));
  auto piece = rawBody(
      *client_, "type=uploadreq&host=http%3A%2F%2F127.0.0.1%3A1&session=..%2F..%2Fx&cookie=");
  EXPECT_NE(piece.find("status_code"), std::string::npos);
}

}  // namespace
}  // namespace hvfp::hostd::test

// Fault injection through the admin endpoint, and requests a hostile or
// broken client could send: every one gets a JSON error, none a crash.
#include "Digest.h"
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

TEST_F(HostdFaults, EachUploadStepCanBeMadeToFailForItsCount) {
  std::string hash = sha1Hex("three");
  const std::pair<const char*, std::string> steps[] = {
      {"create", createQuery("steps.bin", hash, 5)},
      {"uploadinit", "type=uploadinit&host=" + enc(uploadUrl(0)) +
                         "&filename=steps.bin&pathhash=x&filehash=" + hash +
                         "&storagepoint=hostd-local&cookie=&filesize=5&mount_id=1"},
      {"uploadreq", "type=uploadreq&host=" + enc(uploadUrl(0)) + "&session=s&cookie="},
      {"uploadfinish", "type=uploadfinish&host=x&session=y&cookie=&filesize=1"},
      {"uploadabort", "type=uploadabort&host=" + enc(uploadUrl(0)) + "&session=s&cookie="},
  };
  for (const auto& [type, q] : steps) {
    ctl("fault", std::string("target=") + type + "&kind=status&status=503&code=51300&count=2");
    for (int i = 0; i < 2; ++i) {
      auto v = query(q);
      EXPECT_EQ(intOf(v, "status_code"), 503) << type;
      EXPECT_EQ(intOf(v, "error_code"), 51300) << type;
    }
    EXPECT_NE(intOf(query(q), "error_code"), 51300) << type;  // used up
  }
  ctl("fault", "target=trash&kind=status&count=5");
  ctl("fault", "target=uploadfinish&kind=status&count=-1");
  ctl("clear-faults", "");
  EXPECT_EQ(intOf(query("type=trash"), "status_code"), 200);
  EXPECT_EQ(intOf(query(steps[3].second), "error_code"), kServerDown);
}

// What a client reading the whole reply sees while a fault is armed: blobs
// from the download server, and query replies.
TEST_F(HostdFaults, CutSlowAndFailedTransfersAsAClientSeesThem) {
  auto made = ctl("add-file", "mount=1&name=big.bin&size=100000&seed=7");
  const std::string blob = "/blob/" + strOf(made, "filehash");
  const int dl = host_->downloadPort(), q = host_->queryPort();
  const std::string whole = rawGet(dl, blob).body;
  const std::string links = rawGet(q, "/provider?type=links").body;
  ASSERT_EQ(whole.size(), 100000u);
  struct Case {
    std::string fault;
    int port;
    std::string target, headers;
    int status;
    std::string body;  // exactly what arrives
    bool complete;     // all of the announced Content-Length arrived
  };
  const Case cases[] = {
      {"target=blob&kind=status&status=503&code=7", dl, blob, "", 503,
       R"({"error_code":7,"error_msg":"injected fault","status_code":503})", true},
      {"target=blob&kind=cut&after=1000", dl, blob, "", 200, whole.substr(0, 1000), false},
      {"target=blob&kind=cut&after=5", dl, blob, "Range: bytes=10-\r\n", 206, whole.substr(10, 5),
       false},
      {"target=blob&kind=slow&chunk=16384&delay=5", dl, blob, "", 200, whole, true},
      {"target=blob&kind=delay&delay=20", dl, blob, "", 200, whole, true},
      {"target=blob&kind=drop", dl, blob, "", 200, "", false},
      {"target=links&kind=cut&after=10", q, "/provider?type=links", "", 200, links.substr(0, 10),
       false},
      {"target=links&kind=slow&chunk=7&delay=1", q, "/provider?type=links", "", 200, links, true},
  };
  for (const auto& c : cases) {
    ctl("fault", c.fault);
    auto r = rawGet(c.port, c.target, c.headers);
    EXPECT_EQ(r.status, c.status) << c.fault;
    EXPECT_EQ(r.body.size(), c.body.size()) << c.fault;
    EXPECT_TRUE(r.body == c.body) << c.fault;
    EXPECT_EQ(r.complete, c.complete) << c.fault;
  }
  EXPECT_TRUE(ctl("status", "").find("faults")->object()->empty());
  EXPECT_TRUE(rawGet(dl, blob).body == whole);
}

TEST_F(HostdFaults, AClientMayAbandonASlowDownloadAndTheServerGoesOn) {
  auto made = ctl("add-file", "mount=1&name=slow.bin&size=200000");
  const std::string blob = "/blob/" + strOf(made, "filehash");
  ctl("fault", "target=blob&kind=slow&chunk=1000&delay=20&count=2");
  {
    RawConn c(host_->downloadPort());
    c.send("GET " + blob + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    auto r = c.partialReply(1500);
    EXPECT_EQ(r.status, 200);
    EXPECT_LT(r.body.size(), 200000u);
  }  // closed midway
  auto slow = rawGet(host_->downloadPort(), blob, "Range: bytes=199000-\r\n");
  EXPECT_EQ(slow.status, 206);
  EXPECT_TRUE(slow.complete);
  EXPECT_EQ(slow.body.size(), 1000u);
  EXPECT_EQ(rawGet(host_->downloadPort(), blob).body.size(), 200000u);
}

TEST_F(HostdFaults, UnknownFaultsAndCommandsAreRefused) {
  EXPECT_EQ(intOf(ctl("fault", "target=files&kind=explode"), "status_code"), 400);
  EXPECT_EQ(intOf(ctl("fault", "kind=status"), "status_code"), 400);
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

// The upload task against a scripted host and an upload server of our own:
// the exact queries and piece headers on the wire, the bytes that arrive,
// how piece replies and session-step replies steer the upload, the server
// rotation, and what the framework's handler receives.
#include <atomic>
#include <thread>

#include "uploads/UploadFixture.h"

namespace hvfp::test {
namespace {

constexpr uint64_t MiB = 1048576;

std::string range(uint64_t first, uint64_t last) {
  return std::to_string(first) + "-" + std::to_string(last);
}

// Runs `task` on a thread of its own while sampling the progress, so a count
// that falls back by more than one piece is seen.
class ProgressWatch {
 public:
  explicit ProgressWatch(std::shared_ptr<Progress> progress)
      : progress_(std::move(progress)), thread_([this] { watch(); }) {}
  ~ProgressWatch() {
    stop_ = true;
    thread_.join();
  }
  int64_t worstDrop() const { return worstDrop_; }

 private:
  void watch() {
    int64_t last = 0;
    while (!stop_) {
      int64_t now = progress_->completedUnitCount();
      worstDrop_ = std::max(worstDrop_.load(), last - now);
      last = now;
      std::this_thread::sleep_for(100us);
    }
  }
  std::shared_ptr<Progress> progress_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> worstDrop_{0};
  std::thread thread_;
};

TEST_F(UploadTest, AFileGoesUpWithTheExactQueriesPiecesAndReport) {
  const std::string data = bytes(2500000);
  auto t = fileTask(data, 131);
  EXPECT_EQ(progress->totalUnitCount(), 2500000);
  t->main();

  const std::string h = sha1(data), server = enc(pieces.url());
  EXPECT_EQ(host.queries(),
            (Lines{"type=create&webpath=a%2Ebin&filehash=" + h +
                       "&filesize=2500000&createtime=100&lasttime=200&mount_id=12&dir=0",
                   "type=uploadinit&host=" + server + "&filename=a%2Ebin&pathhash=h1&filehash=" +
                       h + "&storagepoint=sp&cookie=&filesize=2500000&mount_id=12",
                   "type=uploadreq&host=" + server + "&session=s1&cookie=",
                   "type=uploadfinish&host=" + server + "&session=s1&cookie=&filesize=2500000",
                   "type=addcache&path=" + enc(stagingPath("a.bin")) + "&filehash=" + h}));

  auto sent = pieces.pieces();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].requestLine, "PUT /upload_part HTTP/1.1");
  using Headers = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(Headers(sent[2].headers.begin() + 2, sent[2].headers.end()),
            (Headers{{"x-tb-upload-session", "s1"},
                     {"x-tb-upload-range", "2097152-2499999"},
                     {"Content-Length", "402848"}}));
  EXPECT_EQ(pieces.ranges(),
            (Lines{range(0, MiB - 1), range(MiB, 2 * MiB - 1), "2097152-2499999"}));
  EXPECT_EQ(pieces.contents(), data);

  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_FALSE(r.error);
  ASSERT_TRUE(r.item);
  EXPECT_EQ(r.item->itemIdentifier(), "12/h1");
  EXPECT_EQ(r.item->parentItemIdentifier(), "12");
  EXPECT_EQ(r.item->filename(), "a.bin");
  EXPECT_EQ(r.item->documentSize(), 2500000u);
  EXPECT_EQ(r.pending, 130u);  // contents done; name and date still to go
  EXPECT_EQ(progress->completedUnitCount(), 2500000);
  EXPECT_EQ(stagedFiles(), 0u);

  // The two optional headers follow the length, in this order, once set.
  client.userAgentString = "Halvo/6.2";
  client.languageWithRequestString = "zh-Hans";
  fileTask("x")->main();
  auto last = pieces.pieces().back().headers;
  EXPECT_EQ(Headers(last.begin() + 2, last.end()), (Headers{{"x-tb-upload-session", "s1"},
                                                            {"x-tb-upload-range", "0-0"},
                                                            {"Content-Length", "1"},
                                                            {"User-Agent", "Halvo/6.2"},
                                                            {"Accept-Language", "zh-Hans"}}));
}

TEST_F(UploadTest, PieceLengthGrowsWithTheFileAndResumesWhereTheServerSays) {
  const std::pair<uint64_t, uint64_t> lengths[] = {{0, MiB},
                                                   {10485759, MiB},
                                                   {10485760, 4 * MiB},
                                                   {104857599, 4 * MiB},
                                                   {104857600, 8 * MiB},
                                                   {1073741823, 8 * MiB},
                                                   {1073741824, 10 * MiB}};
  for (auto [size, piece] : lengths) EXPECT_EQ(UploadTask::getSendSize(size), piece) << size;

  const std::string data = bytes(15000000);
  fileTask(data)->main();
  EXPECT_EQ(pieces.ranges(),
            (Lines{"0-4194303", "4194304-8388607", "8388608-12582911", "12582912-14999999"}));
  EXPECT_EQ(pieces.pieces().back().headers.back().second, "2417088");
  EXPECT_EQ(pieces.contents(), data);

  host.script("uploadreq", {ScriptedReply(200, R"({"status_code":200,"offset":5000000})")});
  fileTask(data)->main();
  EXPECT_EQ(pieces.ranges()[4], "5000000-9194303");
  EXPECT_FALSE(taken().error);
}

// How the replies to single pieces steer the pieces that follow. A 3 MiB
// file goes in three 1 MiB pieces; every case ends with the close.
struct PieceCase {
  std::string name;
  std::vector<PieceReply> replies;
  Lines ranges;
};

class PieceReplies : public UploadTest, public ::testing::WithParamInterface<PieceCase> {};

TEST_P(PieceReplies, SteerTheOffset) {
  for (const auto& reply : GetParam().replies) pieces.enqueue(reply);
  auto t = fileTask(bytes(3 * MiB));
  {
    ProgressWatch watch(progress);
    t->main();
    EXPECT_LE(watch.worstDrop(), static_cast<int64_t>(MiB));
  }
  EXPECT_EQ(pieces.ranges(), GetParam().ranges);
  EXPECT_EQ(host.types().at(host.types().size() - 2), "uploadfinish");
  EXPECT_FALSE(taken().error);  // the close was answered 200: the host decides
  EXPECT_EQ(progress->completedUnitCount(), static_cast<int64_t>(3 * MiB));
}

const std::string k0 = range(0, MiB - 1), k1 = range(MiB, 2 * MiB - 1),
                  k2 = range(2 * MiB, 3 * MiB - 1);
const std::string kWantsPiece2 = R"({"error_code":40900,"expect":2097152})";

INSTANTIATE_TEST_SUITE_P(
    Upload, PieceReplies,
    ::testing::Values(
        PieceCase{"WrongOffsetMovesToTheServersOffset",
                  {PieceReply::failing(409, kWantsPiece2)},
                  {k0, k2}},
        PieceCase{"ConflictWithAnotherCodeSendsAgain",
                  {PieceReply::failing(409, R"({"error_code":40901,"expect":2097152})")},
                  {k0, k0, k1, k2}},
        PieceCase{"OffsetOutsideTheFileSendsAgain",
                  {PieceReply::failing(409, R"({"error_code":40900,"expect":99999999})")},
                  {k0, k0, k1, k2}},
        PieceCase{"ServerWantsBytesAgain",
                  {PieceReply::accept(), PieceReply::accept(),
                   PieceReply::failing(409, R"({"error_code":40900,"expect":0})")},
                  {k0, k1, k2, k0, k1, k2}},
        PieceCase{"CompleteEndsThePieces", {PieceReply::failing(202, "{}")}, {k0}},
        PieceCase{"AnswerWithoutTransportErrorCountsAsSent",
                  {PieceReply::late(409, kWantsPiece2)},
                  {k0, k1, k2}},
        PieceCase{"FiveFailuresInARowEndThePieces",
                  std::vector<PieceReply>(5, PieceReply::failing(500, "{}")),
                  {k0, k0, k0, k0, k0}},
        PieceCase{
            "FailuresBrokenBySuccessGoOn",
            {PieceReply::failing(500, "{}"), PieceReply::failing(500, "{}"),
             PieceReply::failing(500, "{}"), PieceReply::failing(500, "{}"), PieceReply::accept(),
             PieceReply::failing(500, "{}"), PieceReply::failing(500, "{}"),
             PieceReply::failing(500, "{}"), PieceReply::failing(500, "{}")},
            {k0, k0, k0, k0, k0, k1, k1, k1, k1, k1, k2}}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, AFailedPieceWithAReplyIsLogged) {
  pieces.enqueue(PieceReply::failing(409, kWantsPiece2));
  pieces.enqueue(PieceReply::failing(500, std::string("\xff\xfe", 2)));
  fileTask(bytes(3 * MiB))->main();
  Lines lines;
  for (auto& line : takeCapturedLog())
    if (line.starts_with("url=")) lines.push_back(line.substr(0, line.find(",time=")));
  EXPECT_EQ(lines, (Lines{"url=" + pieces.url() + ",httpcode=409,ret=" + kWantsPiece2,
                          "url=" + pieces.url() + ",httpcode=500,ret=(null)"}));
}

// Replies to the session steps, by query type, and what follows them. The
// file is 100 bytes: one piece.
struct StepCase {
  std::string name;
  std::map<std::string, std::vector<ScriptedReply>> script;
  Lines types;
  std::string outcome;  // "item", or the upload error's user information
  Lines ranges = {"0-99"};
};

class SessionSteps : public UploadTest, public ::testing::WithParamInterface<StepCase> {};

TEST_P(SessionSteps, DecideTheOutcome) {
  for (const auto& [type, replies] : GetParam().script) host.script(type, replies);
  fileTask(bytes(100), 1)->main();
  Lines types = host.types();
  EXPECT_EQ(types, GetParam().types);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.pending, 0u);
  if (GetParam().outcome == "item") {
    EXPECT_FALSE(r.error) << r.info();
    EXPECT_TRUE(r.item);
  } else {
    EXPECT_EQ(r.code(), 5120);
    EXPECT_EQ(r.info(), GetParam().outcome);
  }
  EXPECT_EQ(pieces.ranges(), GetParam().ranges);
  EXPECT_EQ(stagedFiles(), 0u);
}

ScriptedReply json(const std::string& body) { return ScriptedReply(200, body); }
std::vector<ScriptedReply> times(int n, const std::string& body) {
  return std::vector<ScriptedReply>(n, json(body));
}

INSTANTIATE_TEST_SUITE_P(
    Upload, SessionSteps,
    ::testing::Values(
        StepCase{"OpeningRefusedFiveTimes",
                 {{"uploadinit", times(5, R"({"status_code":400})")}},
                 {"create", "uploadinit", "uploadinit", "uploadinit", "uploadinit", "uploadinit"},
                 "error=7 message=",
                 {}},
        StepCase{"OpeningRefusedWithTheHostsCode",
                 {{"uploadinit",
                   times(5, R"({"status_code":400,"error_code":4001,"error_msg":"bad name"})")}},
                 {"create", "uploadinit", "uploadinit", "uploadinit", "uploadinit", "uploadinit"},
                 "error=4001 message=bad name",
                 {}},
        StepCase{"OpeningFindsTheFileComplete",
                 {{"uploadinit", {json(R"({"status_code":202})")}}},
                 {"create", "uploadinit", "addcache"},
                 "item",
                 {}},
        StepCase{"RangeQueryReopensALostSession",
                 {{"uploadreq", {json(R"({"status_code":401})")}}},
                 {"create", "uploadinit", "uploadreq", "uploadinit", "uploadreq", "uploadfinish",
                  "addcache"},
                 "item"},
        StepCase{"RangeQueryRefusedFiveTimes",
                 {{"uploadreq", times(5, R"({"status_code":400})")}},
                 {"create", "uploadinit", "uploadreq", "uploadreq", "uploadreq", "uploadreq",
                  "uploadreq"},
                 "error=10 message=",
                 {}},
        StepCase{"CloseFindsTheSessionShort",
                 {{"uploadfinish",
                   {json(R"({"status_code":409,"error_code":40901,"error_msg":"short"})")}}},
                 {"create", "uploadinit", "uploadreq", "uploadfinish"},
                 "error=40901 message=short"},
        StepCase{"CloseStorageFailure",
                 {{"uploadfinish",
                   {json(R"({"status_code":500,"error_code":51300,"error_msg":"disk"})")}}},
                 {"create", "uploadinit", "uploadreq", "uploadfinish"},
                 "error=51300 message=disk"},
        StepCase{"CloseUnansweredFiveTimes",
                 {{"uploadfinish", times(5, "not json")}},
                 {"create", "uploadinit", "uploadreq", "uploadfinish", "uploadfinish",
                  "uploadfinish", "uploadfinish", "uploadfinish"},
                 "error=12 message="},
        StepCase{"CloseFailureMovesToTheNextAttemptWhichResumes",
                 {{"uploadfinish", {json(R"({"status_code":503})")}},
                  {"uploadreq",
                   {json(R"({"status_code":200,"offset":0})"),
                    json(R"({"status_code":200,"offset":50})")}}},
                 {"create", "uploadinit", "uploadreq", "uploadfinish", "uploadinit", "uploadreq",
                  "uploadfinish", "addcache"},
                 "item",
                 {"0-99", "50-99"}}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, ServersTakeTurnsCacheFirstAndTheTurnsAreBounded) {
  const std::string a = "http://127.0.0.1:9/a", b = "http://127.0.0.1:9/b";
  host.setDefault("create", json(createReply({b}, {a})));
  host.setDefault("uploadinit", ScriptedReply(200, R"({"status_code":503})"));
  fileTask(bytes(100))->main();
  Lines servers;
  for (auto& q : host.queriesOf("uploadinit"))
    servers.push_back(q.substr(21, q.find('&', 21) - 21));
  EXPECT_EQ(servers, (Lines{enc(a), enc(b), enc(a), enc(a), enc(b), enc(a), enc(a), enc(b), enc(a),
                            enc(a)}));
  EXPECT_EQ(taken().info(), "error=24 message=上传服务器无响应");

  // A turn that succeeds ends the rotation; the pieces go to its server.
  host.setDefault("create", json(createReply({pieces.url()}, {a})));
  host.script("uploadinit", {ScriptedReply(200, R"({"status_code":400,"error_code":40309})"),
                             json(R"({"status_code":200,"session":"s2"})")});
  fileTask(bytes(100))->main();
  EXPECT_EQ(pieces.pieces().at(0).headers.at(2).second, "s2");
  EXPECT_FALSE(taken().error);
}

// Pauses are seen by what does not happen: while a step pauses, the host
// hears nothing more of it, until the cancellation ends the pause.
struct PauseCase {
  std::string name;
  std::string type;
  ScriptedReply reply;
  std::chrono::milliseconds UploadTask::Timing::*pause;
  bool aborts;  // a session was open: the cancellation abandons it
};

class Pauses : public UploadTest, public ::testing::WithParamInterface<PauseCase> {};

TEST_P(Pauses, HoldTheStepUntilCancelled) {
  host.setDefault(GetParam().type, GetParam().reply);
  auto t = fileTask(bytes(100));
  t->timing.*GetParam().pause = 1h;
  std::thread runner([&] { t->main(); });
  for (auto give = std::chrono::steady_clock::now() + kPatience;
       host.queriesOf(GetParam().type).empty() && std::chrono::steady_clock::now() < give;)
    std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(host.queriesOf(GetParam().type).size(), 1u);
  progress->cancel();
  runner.join();
  EXPECT_EQ(host.queriesOf(GetParam().type).size(), 1u);
  EXPECT_EQ(host.queriesOf("uploadabort").size(), GetParam().aborts ? 1u : 0u);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.code(), 3072);
  EXPECT_EQ(r.pending, 0u);
  EXPECT_EQ(stagedFiles(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Upload, Pauses,
    ::testing::Values(PauseCase{"OpeningRetry", "uploadinit", json(R"({"status_code":400})"),
                                &UploadTask::Timing::stepPause, false},
                      PauseCase{"RangeQueryRetry", "uploadreq", json(R"({"status_code":400})"),
                                &UploadTask::Timing::stepPause, true},
                      PauseCase{"CloseRetry", "uploadfinish", json("{}"),
                                &UploadTask::Timing::closePause, true},
                      PauseCase{"NextServer", "uploadinit", json(R"({"status_code":503})"),
                                &UploadTask::Timing::firstTurnPause, false}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, CancellingStopsThePieceAndAbandonsTheSession) {
  pieces.enqueue(PieceReply::hold());
  auto t = fileTask(bytes(3 * MiB));
  std::thread runner([&] { t->main(); });
  ASSERT_TRUE(pieces.waitForPieces(1, kPatience));
  progress->cancel();
  EXPECT_TRUE(pieces.waitForHangUp(kPatience));
  runner.join();
  EXPECT_EQ(host.types(), (Lines{"create", "uploadinit", "uploadreq", "uploadabort"}));
  EXPECT_EQ(host.queriesOf("uploadabort").at(0),
            "type=uploadabort&host=" + enc(pieces.url()) + "&session=s1&cookie=");
  EXPECT_EQ(pieces.pieces().size(), 1u);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.code(), 3072);
  EXPECT_TRUE(r.error->userInfo.empty());
  EXPECT_EQ(stagedFiles(), 0u);
}

// What the create reply says, and what the framework then receives.
struct CreateCase {
  std::string name;
  bool dir;
  ScriptedReply reply;
  Lines types;
  std::string outcome;  // the item's identifier and parent, or the error's user information
};

class CreateReplies : public UploadTest, public ::testing::WithParamInterface<CreateCase> {};

TEST_P(CreateReplies, DecideTheReport) {
  host.setDefault("create", GetParam().reply);
  auto t = GetParam().dir ? task("__fp/d", "12", 0, true, "Docs", std::nullopt, 131)
                          : fileTask(bytes(100), 131);
  t->main();
  EXPECT_EQ(host.types(), GetParam().types);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.pending, 130u);
  std::string outcome =
      r.item ? r.item->itemIdentifier() + " in " + r.item->parentItemIdentifier().value_or("?")
             : r.info();
  EXPECT_EQ(outcome, GetParam().outcome);
  if (r.item && !GetParam().dir) {
    EXPECT_EQ(host.queriesOf("addcache").at(0),
              "type=addcache&path=" + enc(stagingPath("a.bin")) + "&filehash=" + sha1(bytes(100)));
  }
  EXPECT_TRUE(pieces.pieces().empty());
  EXPECT_EQ(stagedFiles(), 0u);
}

const std::string kFolder = R"({"status_code":200,"hash":"f1","up_hash":"","fullpath":"Docs"})";

INSTANTIATE_TEST_SUITE_P(
    Upload, CreateReplies,
    ::testing::Values(
        CreateCase{
            "FolderUnderTheMountRoot", true, json(kFolder), {"create", "addcache"}, "12/f1 in 12"},
        CreateCase{"FolderUnderAFolder",
                   true,
                   json(R"({"status_code":200,"hash":"f1","up_hash":"u1","fullpath":"P/Docs"})"),
                   {"create", "addcache"},
                   "12/f1 in 12/u1"},
        CreateCase{"FolderRefused",
                   true,
                   json(R"({"status_code":403,"error_code":40301,"error_msg":"no"})"),
                   {"create"},
                   "error=40301 message=no"},
        CreateCase{"FolderHashWithASlash",
                   true,
                   json(R"({"status_code":200,"hash":"f/1","fullpath":"Docs"})"),
                   {"create"},
                   "error=0"},
        CreateCase{"FolderPathLeavingTheMount",
                   true,
                   json(R"({"status_code":200,"hash":"f1","fullpath":"../Docs"})"),
                   {"create"},
                   "error=0"},
        CreateCase{"FolderReplyNotJson", true, json("<html>"), {"create"}, "error=0 message="},
        CreateCase{"FileAlreadyInTheCloud",
                   false,
                   json(UploadTest::createReply({}, {}, "h9", 1)),
                   {"create", "addcache"},
                   "12/h9 in 12"},
        CreateCase{"FileWithoutServers",
                   false,
                   json(UploadTest::createReply({})),
                   {"create"},
                   "error=23 message=无服务器地址"},
        CreateCase{"FileWithUnusableServers",
                   false,
                   json(R"({"status_code":200,"hash":"h1","fullpath":"a.bin",)"
                        R"("uploads":["ftp://x",5,"/etc/passwd",""],"cache_uploads":{}})"),
                   {"create"},
                   "error=23 message=无服务器地址"},
        CreateCase{"FileRefused",
                   false,
                   json(R"({"status_code":409,"error_code":40902,"error_msg":"exists"})"),
                   {"create"},
                   "error=40902 message=exists"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, StateOneWithoutAHashStillUploads) {
  host.setDefault("create", json(createReply({pieces.url()}, {}, "", 1)));
  fileTask(bytes(100))->main();
  EXPECT_EQ(host.types(), (Lines{"create", "uploadinit", "uploadreq", "uploadfinish"}));
  EXPECT_EQ(pieces.ranges(), Lines{"0-99"});
  // Without a hash of its own the item cannot be named.
  EXPECT_EQ(taken().info(), "error=25 message=上传失败");
}

// Local trouble: nothing or little reaches the host.
struct LocalCase {
  std::string name;
  std::function<std::shared_ptr<UploadTask>(UploadTest&)> make;
  Lines types;
  std::string outcome;
};

class LocalFailures : public UploadTest, public ::testing::WithParamInterface<LocalCase> {};

TEST_P(LocalFailures, AreReported) {
  GetParam().make(*this)->main();
  EXPECT_EQ(host.types(), GetParam().types);
  EXPECT_EQ(taken().info(), GetParam().outcome);
  EXPECT_EQ(stagedFiles(), 0u);
}

const std::string kReadFailure = "error=13 message=文件读取失败";

INSTANTIATE_TEST_SUITE_P(
    Upload, LocalFailures,
    ::testing::Values(LocalCase{"NoContents",
                                [](UploadTest& t) {
                                  return t.task("i", "12", 5, false, "a", std::nullopt);
                                },
                                {},
                                kReadFailure},
                      LocalCase{"ContentsMissing",
                                [](UploadTest& t) {
                                  auto& f = t;
                                  return f.task("i", "12", 5, false, "a",
                                                (f.dir / "gone").string());
                                },
                                {},
                                kReadFailure},
                      LocalCase{"ContentsAreAFolder",
                                [](UploadTest& t) {
                                  auto& f = t;
                                  return f.task("i", "12", 5, false, "a", f.dir.string());
                                },
                                {},
                                kReadFailure},
                      LocalCase{"NoTemporaryDirectory",
                                [](UploadTest& t) {
                                  auto& f = t;
                                  f.client.setStrTempPath("");
                                  return f.fileTask("abc");
                                },
                                {},
                                kReadFailure},
                      LocalCase{"DeclaredSizeDiffers",
                                [](UploadTest& t) { return t.fileTask(bytes(100), 1, 99); },
                                {"create"},
                                "error=5 message=打开文件失败"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, TheParentGivesMountAndPath) {
  // A folder made in the domain is found by what is made inside it before
  // the host knows it; a second task for the same folder changes nothing.
  auto folder = task("__fp/f/1", "12", 0, true, "New", std::nullopt);
  auto again = task("__fp/f/1", "3", 0, true, "Other", std::nullopt);
  host.script(
      "fileinfo",
      {json(R"({"status_code":200,"error_code":0,"webpath":"Docs/Sub","mount_id":12})"), json("")});
  struct {
    std::string parent;
    std::string create;  // the webpath and mount of the create query
  } cases[] = {
      {"__fp/f/1", "webpath=New%2Fa%2Ebin&"},
      {"12/p1", "webpath=Docs%2FSub%2Fa%2Ebin&"},
      {"12/p2", "webpath=&"},
      {"7", "webpath=a%2Ebin&"},
  };
  const std::string mounts[] = {"mount_id=12&", "mount_id=12&", "mount_id=12&", "mount_id=7&"};
  for (size_t i = 0; i < std::size(cases); ++i) {
    writeFile(dir / "a.bin", "x");
    task("__fp/x", cases[i].parent, 1, false, "a.bin", (dir / "a.bin").string())->main();
    std::string q = host.queriesOf("create").back();
    EXPECT_NE(q.find(cases[i].create), std::string::npos) << q;
    EXPECT_NE(q.find(mounts[i]), std::string::npos) << q;
  }
  EXPECT_EQ(host.queriesOf("fileinfo"), (Lines{"type=fileinfo&uuidhash=p1&mount_id=12",
                                               "type=fileinfo&uuidhash=p2&mount_id=12"}));

  // The folder itself is created under its own path.
  host.setDefault("create", json(kFolder));
  folder->main();
  again->main();
  task("__fp/f/2", "__fp/f/1", 0, true, "Sub", std::nullopt)->main();
  EXPECT_EQ(host.queriesOf("create").back(),
            "type=create&webpath=New%2FSub&filehash=&filesize=0&createtime=100&lasttime=200&"
            "mount_id=12&dir=1");
}

}  // namespace
}  // namespace hvfp::test

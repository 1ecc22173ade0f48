// The upload task against a scripted host and an upload server of our own:
// the exact queries and piece headers on the wire, the bytes that arrive,
// how piece replies and session-step replies steer the upload, the server
// rotation, and what the framework's handler receives.
#include <atomic>
#include <functional>
#include <thread>

#include "uploads/UploadFixture.h"

namespace hvfp::test {
namespace {

constexpr uint64_t MiB = 1048576;
using Headers = std::vector<std::pair<std::string, std::string>>;

std::string range(uint64_t first, uint64_t last) {
  return std::to_string(first) + "-" + std::to_string(last);
}
// A sequence as one line of words, so a table row states it in one line.
std::string joined(const Lines& lines) {
  std::string out;
  for (const auto& line : lines) out += (out.empty() ? "" : " ") + line;
  return out;
}
ScriptedReply json(const std::string& body) { return ScriptedReply(200, body); }
// Host replies scripted by query type, in order.
struct Script : std::map<std::string, std::vector<ScriptedReply>> {
  Script& then(const std::string& type, const std::string& body, size_t n = 1) {
    (*this)[type].insert((*this)[type].end(), n, json(body));
    return *this;
  }
};
Script on(const std::string& type, const std::string& body, size_t n = 1) {
  return Script().then(type, body, n);
}

// Samples the progress on a thread of its own while it lives, so a count
// that falls back by more than one piece is seen.
class ProgressWatch {
 public:
  explicit ProgressWatch(std::shared_ptr<Progress> progress)
      : thread_([this, progress] {
          for (int64_t last = 0, now; !stop_; last = now) {
            now = progress->completedUnitCount();
            worstDrop_ = std::max(worstDrop_.load(), last - now);
            std::this_thread::sleep_for(100us);
          }
        }) {}
  ~ProgressWatch() {
    stop_ = true;
    thread_.join();
  }
  int64_t worstDrop() const { return worstDrop_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> worstDrop_{0};
  std::thread thread_;
};

TEST_F(UploadTest, AFileGoesUpWithTheExactQueriesPiecesAndReport) {
  const std::string data = contentBytes(2500000);
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
  EXPECT_EQ(sent[0].method + " " + sent[0].target, "PUT /upload_part");
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

  const std::string data = contentBytes(15000000);
  fileTask(data)->main();
  EXPECT_EQ(joined(pieces.ranges()),
            "0-4194303 4194304-8388607 8388608-12582911 12582912-14999999");
  EXPECT_EQ(pieces.pieces().back().headers.back().second, "2417088");
  EXPECT_EQ(pieces.contents(), data);

  host.script("uploadreq", {json(R"({"status_code":200,"offset":5000000})")});
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
  auto t = fileTask(contentBytes(3 * MiB));
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
const PieceReply kFailing = PieceReply::failing(500, "{}");

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
        PieceCase{"FiveFailuresInARowEndThePieces", std::vector(5, kFailing), Lines(5, k0)},
        PieceCase{"FailuresBrokenBySuccessGoOn",
                  {kFailing, kFailing, kFailing, kFailing, PieceReply::accept(), kFailing, kFailing,
                   kFailing, kFailing},
                  {k0, k0, k0, k0, k0, k1, k1, k1, k1, k1, k2}}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, AFailedPieceWithAReplyIsLogged) {
  pieces.enqueue(PieceReply::failing(409, kWantsPiece2));
  pieces.enqueue(PieceReply::failing(500, std::string("\xff\xfe", 2)));
  fileTask(contentBytes(3 * MiB))->main();
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
  std::string types;
  std::string outcome;  // "item", or the upload error's user information
  std::string ranges;
  Script script;
};

class SessionSteps : public UploadTest, public ::testing::WithParamInterface<StepCase> {};

TEST_P(SessionSteps, DecideTheOutcome) {
  for (const auto& [type, replies] : GetParam().script) host.script(type, replies);
  fileTask(contentBytes(100), 1)->main();
  EXPECT_EQ(joined(host.types()), GetParam().types);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.pending, 0u);
  EXPECT_EQ(r.item ? "item" : r.info(), GetParam().outcome);
  EXPECT_EQ(r.code(), GetParam().outcome == "item" ? 0 : 5120);
  EXPECT_EQ(joined(pieces.ranges()), GetParam().ranges);
  EXPECT_EQ(stagedFiles(), 0u);
}

const std::string kOpenFive = "create uploadinit uploadinit uploadinit uploadinit uploadinit";
const std::string kOneAttempt = "create uploadinit uploadreq uploadfinish";
const std::string kRefused = R"({"status_code":400})";

INSTANTIATE_TEST_SUITE_P(
    Upload, SessionSteps,
    ::testing::Values(
        StepCase{"OpeningRefusedFiveTimes", kOpenFive, "error=7 message=", "",
                 on("uploadinit", kRefused, 5)},
        StepCase{
            "OpeningRefusedWithTheHostsCode", kOpenFive, "error=4001 message=bad name", "",
            on("uploadinit", R"({"status_code":400,"error_code":4001,"error_msg":"bad name"})", 5)},
        StepCase{"OpeningFindsTheFileComplete", "create uploadinit addcache", "item", "",
                 on("uploadinit", R"({"status_code":202})")},
        StepCase{"RangeQueryReopensALostSession",
                 "create uploadinit uploadreq uploadinit uploadreq uploadfinish addcache", "item",
                 "0-99", on("uploadreq", R"({"status_code":401})")},
        StepCase{"RangeQueryRefusedFiveTimes",
                 "create uploadinit uploadreq uploadreq uploadreq uploadreq uploadreq",
                 "error=10 message=", "", on("uploadreq", kRefused, 5)},
        StepCase{
            "CloseFindsTheSessionShort", kOneAttempt, "error=40901 message=short", "0-99",
            on("uploadfinish", R"({"status_code":409,"error_code":40901,"error_msg":"short"})")},
        StepCase{
            "CloseStorageFailure", kOneAttempt, "error=51300 message=disk", "0-99",
            on("uploadfinish", R"({"status_code":500,"error_code":51300,"error_msg":"disk"})")},
        StepCase{"CloseUnansweredFiveTimes",
                 kOneAttempt + " uploadfinish uploadfinish uploadfinish uploadfinish",
                 "error=12 message=", "0-99", on("uploadfinish", "not json", 5)},
        StepCase{"CloseFailureMovesToTheNextAttemptWhichResumes",
                 kOneAttempt + " uploadinit uploadreq uploadfinish addcache", "item", "0-99 50-99",
                 on("uploadfinish", R"({"status_code":503})")
                     .then("uploadreq", R"({"status_code":200,"offset":0})")
                     .then("uploadreq", R"({"status_code":200,"offset":50})")}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, ServersTakeTurnsCacheFirstAndTheTurnsAreBounded) {
  const std::string a = "http://127.0.0.1:9/a", b = "http://127.0.0.1:9/b";
  host.setDefault("create", json(createReply({b}, {a})));
  host.setDefault("uploadinit", json(R"({"status_code":503})"));
  fileTask(contentBytes(100))->main();
  Lines servers;
  for (auto& q : host.queriesOf("uploadinit")) {
    std::string server = q.substr(21, q.find('&', 21) - 21);
    servers.push_back(server == enc(a) ? "a" : server == enc(b) ? "b" : server);
  }
  EXPECT_EQ(joined(servers), "a b a a b a a b a a");
  EXPECT_EQ(taken().info(), "error=24 message=上传服务器无响应");

  // A turn that succeeds ends the rotation; the pieces go to its server.
  host.setDefault("create", json(createReply({pieces.url()}, {a})));
  host.script("uploadinit", {json(R"({"status_code":400,"error_code":40309})"),
                             json(R"({"status_code":200,"session":"s2"})")});
  fileTask(contentBytes(100))->main();
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
  const PauseCase& c = GetParam();
  host.setDefault(c.type, c.reply);
  auto t = fileTask(contentBytes(100));
  t->timing.*c.pause = 1h;
  std::thread runner([&] { t->main(); });
  for (auto give = std::chrono::steady_clock::now() + kPatience;
       host.queriesOf(c.type).empty() && std::chrono::steady_clock::now() < give;)
    std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(host.queriesOf(c.type).size(), 1u);
  progress->cancel();
  runner.join();
  EXPECT_EQ(host.queriesOf(c.type).size(), 1u);
  EXPECT_EQ(host.queriesOf("uploadabort").size(), c.aborts ? 1u : 0u);
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
  auto t = fileTask(contentBytes(3 * MiB));
  std::thread runner([&] { t->main(); });
  ASSERT_TRUE(pieces.waitForPieces(1, kPatience));
  progress->cancel();
  EXPECT_TRUE(pieces.waitForHangUp(kPatience));
  runner.join();
  EXPECT_EQ(host.queries().back(),
            "type=uploadabort&host=" + enc(pieces.url()) + "&session=s1&cookie=");
  EXPECT_EQ(joined(host.types()), "create uploadinit uploadreq uploadabort");
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
  std::string reply;
  std::string types;
  std::string outcome;  // the item's identifier and parent, or the error's user information
  std::string ranges = "";
};

class CreateReplies : public UploadTest, public ::testing::WithParamInterface<CreateCase> {};

TEST_P(CreateReplies, DecideTheReport) {
  const CreateCase& c = GetParam();
  host.setDefault("create", json(c.reply));
  auto t = c.dir ? task("__fp/d", "12", 0, true, "Docs", std::nullopt, 131)
                 : fileTask(contentBytes(100), 131);
  t->main();
  EXPECT_EQ(joined(host.types()), c.types);
  Report r = taken();
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.pending, 130u);
  EXPECT_EQ(r.item
                ? r.item->itemIdentifier() + " in " + r.item->parentItemIdentifier().value_or("?")
                : r.info(),
            c.outcome);
  if (r.item && !c.dir) {
    EXPECT_EQ(host.queriesOf("addcache").at(0), "type=addcache&path=" + enc(stagingPath("a.bin")) +
                                                    "&filehash=" + sha1(contentBytes(100)));
  }
  EXPECT_EQ(joined(pieces.ranges()), c.ranges);
  EXPECT_EQ(stagedFiles(), 0u);
}

const std::string kFolder = R"({"status_code":200,"hash":"f1","up_hash":"","fullpath":"Docs"})";
const std::string kNoServers = "error=23 message=无服务器地址";

INSTANTIATE_TEST_SUITE_P(
    Upload, CreateReplies,
    ::testing::Values(
        CreateCase{"FolderUnderTheMountRoot", true, kFolder, "create addcache", "12/f1 in 12"},
        CreateCase{"FolderUnderAFolder", true,
                   R"({"status_code":200,"hash":"f1","up_hash":"u1","fullpath":"P/Docs"})",
                   "create addcache", "12/f1 in 12/u1"},
        CreateCase{"FolderRefused", true,
                   R"({"status_code":403,"error_code":40301,"error_msg":"no"})", "create",
                   "error=40301 message=no"},
        CreateCase{"FolderHashWithASlash", true,
                   R"({"status_code":200,"hash":"f/1","fullpath":"Docs"})", "create", "error=0"},
        CreateCase{"FolderPathLeavingTheMount", true,
                   R"({"status_code":200,"hash":"f1","fullpath":"../Docs"})", "create", "error=0"},
        CreateCase{"FolderReplyNotJson", true, "<html>", "create", "error=0 message="},
        CreateCase{"FileAlreadyInTheCloud", false, UploadTest::createReply({}, {}, "h9", 1),
                   "create addcache", "12/h9 in 12"},
        CreateCase{"FileWithoutServers", false, UploadTest::createReply({}), "create", kNoServers},
        CreateCase{"FileWithUnusableServers", false,
                   R"({"status_code":200,"hash":"h1","fullpath":"a.bin",)"
                   R"("uploads":["ftp://x",5,"/etc/passwd",""],"cache_uploads":{}})",
                   "create", kNoServers},
        CreateCase{"FileRefused", false,
                   R"({"status_code":409,"error_code":40902,"error_msg":"exists"})", "create",
                   "error=40902 message=exists"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadTest, StateOneWithoutAHashStillUploads) {
  host.setDefault("create", json(createReply({pieces.url()}, {}, "", 1)));
  fileTask(contentBytes(100))->main();
  EXPECT_EQ(joined(host.types()), "create uploadinit uploadreq uploadfinish");
  EXPECT_EQ(pieces.ranges(), Lines{"0-99"});
  // Without a hash of its own the item cannot be named.
  EXPECT_EQ(taken().info(), "error=25 message=上传失败");
}

// Local trouble: nothing or little reaches the host.
TEST_F(UploadTest, LocalFailuresAreReported) {
  const std::string kReadFailure = "error=13 message=文件读取失败";
  struct Case {
    std::string name;
    std::function<std::shared_ptr<UploadTask>()> make;
    std::string types, outcome;
  };
  auto contents = [this](std::optional<std::string> path) {
    return [this, path] { return task("i", "12", 5, false, "a", path); };
  };
  const Case cases[] = {
      {"no contents", contents(std::nullopt), "", kReadFailure},
      {"contents missing", contents((dir / "gone").string()), "", kReadFailure},
      {"contents are a folder", contents(dir.string()), "", kReadFailure},
      {"declared size differs", [this] { return fileTask(contentBytes(100), 1, 99); }, "create",
       "error=5 message=打开文件失败"},
      {"no temporary directory",  // last: the client keeps it
       [this] {
         client.setStrTempPath("");
         return fileTask("abc");
       },
       "", kReadFailure},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t before = host.queries().size();
    c.make()->main();
    Lines types = host.types();
    EXPECT_EQ(joined(Lines(types.begin() + long(before), types.end())), c.types);
    EXPECT_EQ(taken().info(), c.outcome);
    EXPECT_EQ(stagedFiles(), 0u);
  }
}

TEST_F(UploadTest, TheParentGivesMountAndPath) {
  // A folder made in the domain is found by what is made inside it before
  // the host knows it; a second task for the same folder changes nothing.
  auto folder = task("__fp/f/1", "12", 0, true, "New", std::nullopt);
  auto again = task("__fp/f/1", "3", 0, true, "Other", std::nullopt);
  host.script(
      "fileinfo",
      {json(R"({"status_code":200,"error_code":0,"webpath":"Docs/Sub","mount_id":12})"), json("")});
  struct {
    std::string parent, webpath, mount;  // of the create query
  } cases[] = {
      {"__fp/f/1", "webpath=New%2Fa%2Ebin&", "mount_id=12&"},
      {"12/p1", "webpath=Docs%2FSub%2Fa%2Ebin&", "mount_id=12&"},
      {"12/p2", "webpath=&", "mount_id=12&"},
      {"7", "webpath=a%2Ebin&", "mount_id=7&"},
  };
  for (const auto& c : cases) {
    writeFile(dir / "a.bin", "x");
    task("__fp/x", c.parent, 1, false, "a.bin", (dir / "a.bin").string())->main();
    std::string q = host.queriesOf("create").back();
    EXPECT_NE(q.find(c.webpath), std::string::npos) << q;
    EXPECT_NE(q.find(c.mount), std::string::npos) << q;
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

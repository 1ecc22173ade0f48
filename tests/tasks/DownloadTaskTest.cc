// Content fetches end to end: the extension's fetch against a scripted host
// and a content server that misbehaves on request, checked by what the
// framework's handler receives, the host queries on the wire and the files
// left in the domain's temporary directory.
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "digest/NSDataExpand.h"
#include "extension/ExtensionFixture.h"
#include "hostlink/NSStringExpand.h"
#include "platform/dispatch/MainQueue.h"
#include "records/Json.h"
#include "support/ChildProcess.h"
#include "support/ContentServer.h"
#include "tasks/DownloadTask.h"

namespace hvfp::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Hang guard only: every wait normally ends in milliseconds.
constexpr auto kPatience = 60s;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Report {
  std::optional<std::string> path;
  NSFileProviderItemRef item;
  std::optional<Error> error;
};

// Every call the framework's handler gets.
class Reports {
 public:
  NSFileProviderFetchHandler handler(const std::shared_ptr<Reports>& self) {
    return [self](std::optional<std::string> path, NSFileProviderItemRef item,
                  std::optional<Error> error) {
      std::lock_guard lock(self->mutex_);
      self->all_.push_back({std::move(path), std::move(item), std::move(error)});
      self->changed_.notify_all();
    };
  }
  Report first() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return !all_.empty(); });
    return all_.empty() ? Report{} : all_.front();
  }
  size_t count() {
    std::lock_guard lock(mutex_);
    return all_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Report> all_;
};

const std::string kDownloadQuery = "type=download&uuidhash=ab&mount_id=5";
const std::string kStatusQuery = "type=updatestatus&uuidhash=ab&mount_id=5&status=3";
const std::string kLookupQuery = "type=fileinfo&uuidhash=ab&mount_id=5";
const std::string kItemRecord =
    R"({"status_code":200,"filename":"song.bin","mount_id":5,"uuidhash":"ab",)"
    R"("up_hash":"u","filehash":"f","filesize":1,"status":0})";

// The download information the host gives.
std::string info(const std::string& hash, uint64_t size, const Lines& uris,
                 const std::string& fullpath = "") {
  std::string out = R"({"status_code":200,"filehash":")" + hash + R"(","filesize":)" +
                    std::to_string(size) + R"(,"fullpath":")" + fullpath + R"(","uris":[)";
  for (size_t i = 0; i < uris.size(); ++i) out += (i ? ",\"" : "\"") + uris[i] + "\"";
  return out + "]}";
}

class Download : public ExtensionTest {
 protected:
  void SetUp() override {
    ExtensionTest::SetUp();
    tmp = client.strTempPath();
    localFile = fs::path(tmp).parent_path() / "held-by-host.bin";
    std::ofstream(localFile) << "held";
    server.setHandler([this](const RecordedRequest& r) {
      std::lock_guard lock(hostMutex_);
      if (r.query.starts_with("type=download")) return downloadReply;
      if (r.query.starts_with("type=fileinfo")) return ScriptedReply(200, itemReply);
      return ScriptedReply(200, "{}");
    });
  }
  void answerDownload(ScriptedReply reply, std::string item = kItemRecord) {
    std::lock_guard lock(hostMutex_);
    downloadReply = std::move(reply);
    itemReply = std::move(item);
  }
  void emptyTmp() {
    fs::remove_all(tmp);
    fs::create_directories(tmp);
  }

  struct Fetch {
    std::shared_ptr<Progress> progress;
    std::shared_ptr<Reports> reports = std::make_shared<Reports>();
  };
  Fetch fetch() {
    Fetch f;
    f.progress = extension->fetchContentsForItemWithIdentifier("5/ab", std::nullopt, {},
                                                               f.reports->handler(f.reports));
    return f;
  }
  // Until the queue and the transfer callbacks have nothing left to do.
  void settle() {
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
    MainQueue::shared().drain();
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
  }
  Lines tmpFiles() const {
    Lines names;
    for (const auto& e : fs::directory_iterator(tmp)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  template <typename Done>
  static bool waitFor(Done done) {
    for (auto until = std::chrono::steady_clock::now() + kPatience;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(1ms))
      if (done()) return true;
    return false;
  }

  ContentServer content;
  std::string tmp;
  fs::path localFile;

 private:
  std::mutex hostMutex_;
  ScriptedReply downloadReply;
  std::string itemReply;
};

enum class Ends { LocalFile, Copy, Failure };

TEST_F(Download, EachAnswerOfHostAndServerEndsInOneReport) {
  const std::string good = contentBytes(3000, 1), hash = sha1HexDigest(good);
  struct Case {
    std::string name;
    std::string reply;  // to the download query
    Ends ends;
    int64_t code = 0;          // of the error reported, when it fails
    std::string fetched = "";  // what the content server was asked for
    std::string itemReply = kItemRecord;
    const char* domain = NSCocoaErrorDomain;
  };
  auto at = [&](const std::string& target) { return content.url(target); };
  const std::string local = localFile.string(), bytes = at("/bytes/3000/1");
  const std::string first = "/bytes/3000/1",
                    refused = "http://127.0.0.1:" + std::to_string(unusedLoopbackPort()) + first;
  const Ends fails = Ends::Failure, copies = Ends::Copy, serves = Ends::LocalFile;
  const std::vector<Case> cases = {
      {"the host's own file, not the addresses", info(hash, 4, {bytes}, local), serves},
      {"the host's file, not confirmed afterwards", info(hash, 4, {}, local), serves, 0, "",
       "not json"},
      {"a relative local path", info(hash, 4, {bytes}, "a/b"), fails, 5120},
      {"a local path to nothing", info(hash, 4, {}, local + ".gone"), fails, 5120},
      {"a local path to a folder", info(hash, 4, {}, tmp), fails, 5120},
      {"the first of three addresses", info(hash, 3000, {bytes, at("/bytes/3000/2"), "nonsense"}),
       copies, 0, first},
      {"a hash that is the host's own name, not a digest", info("Abc123", 3000, {bytes}), copies, 0,
       first},
      {"the item not confirmed afterwards", info(hash, 3000, {bytes}), copies, 0, first,
       R"({"status_code":404})"},
      {"an error status from the first address", info(hash, 3000, {at("/status/404"), bytes}),
       fails, 5120, "/status/404"},
      {"a redirect to nowhere", info(hash, 3000, {at("/status/302")}), fails, 5120, "/status/302"},
      {"a refused connection", info(hash, 3000, {refused}), fails,
       URLErrorCode::CannotConnectToHost, "", kItemRecord, NSURLErrorDomain},
      {"a body short of its Content-Length", info(hash, 3000, {at("/short/3000/1000")}), fails,
       5120, "/short/3000/1000"},
      {"a body short of the declared size", info("abc", 4000, {bytes}), fails, 5120, first},
      {"a body longer than the declared size", info("abc", 2000, {bytes}), fails, 5120, first},
      {"bytes of another digest", info(sha1HexDigest(contentBytes(3000, 2)), 3000, {bytes}), fails,
       5120, first},
      {"a hash climbing out of the folder", info("../x", 3000, {bytes}), fails, 5120},
      {"a hash naming a subfolder", info("a/b", 3000, {bytes}), fails, 5120},
      {"a hash with a dot", info("a.b", 3000, {bytes}), fails, 5120},
      {"a hash too long for a name", info(std::string(129, 'a'), 3000, {bytes}), fails, 5120},
      {"no hash", info("", 3000, {bytes}), fails, 5120},
      {"no address", info(hash, 3000, {}), fails, 5120},
      {"addresses that are not a list", R"({"status_code":200,"filehash":"ab","uris":"http://x/"})",
       fails, 5120},
      {"an address that is not http", info(hash, 3000, {"file:///etc/passwd"}), fails, 5120},
      {"an empty reply", "", fails, 4610},
      {"a reply that is not JSON", "<html>", fails, 4610},
      {"a reply that is a list", "[]", fails, 4610},
      {"a reply whose status is not 200",
       R"({"status_code":404,"filehash":"ab","uris":["http://x/"]})", fails, 4610},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    emptyTmp();
    answerDownload({200, c.reply}, c.itemReply);
    const size_t hostBefore = server.requestCount(), contentBefore = content.targets().size();

    Fetch f = fetch();
    Report r = f.reports->first();
    settle();

    EXPECT_EQ(f.reports->count(), 1u);
    Lines queries = server.queries();
    queries.erase(queries.begin(), queries.begin() + long(hostBefore));
    Lines fetched = content.targets();
    fetched.erase(fetched.begin(), fetched.begin() + long(contentBefore));
    EXPECT_EQ(fetched, c.fetched.empty() ? Lines{} : Lines{c.fetched});
    if (c.ends == Ends::Failure) {
      EXPECT_EQ(r.path, std::nullopt);
      EXPECT_EQ(r.item, nullptr);
      ASSERT_TRUE(r.error);
      EXPECT_EQ(r.error->domain, c.domain);
      EXPECT_EQ(r.error->code, c.code);
      EXPECT_EQ(queries, Lines{kDownloadQuery});
      EXPECT_EQ(tmpFiles(), Lines{}) << "nothing is left behind";
      continue;
    }
    EXPECT_EQ(r.error, std::nullopt);
    if (c.ends == Ends::LocalFile) {
      EXPECT_EQ(r.path, local);
      EXPECT_EQ(queries, (Lines{kDownloadQuery, kStatusQuery, kLookupQuery}));
      EXPECT_EQ(tmpFiles(), Lines{});
    } else {
      std::string hash(*objectFromJSONString(c.reply)->find("filehash")->string());
      std::string copy = tmp + "/" + hash;
      EXPECT_EQ(r.path, copy);
      EXPECT_EQ(queries, (Lines{kDownloadQuery,
                                "type=addcache&path=" + urlEncoded(copy) + "&filehash=" + hash,
                                kStatusQuery, kLookupQuery}));
      EXPECT_EQ(tmpFiles(), Lines{hash});
      EXPECT_TRUE(readFile(copy) == good);
      EXPECT_EQ(f.progress->totalUnitCount(), int64_t(good.size()));
      EXPECT_EQ(f.progress->completedUnitCount(), int64_t(good.size()));
    }
    ASSERT_EQ(r.item != nullptr, c.itemReply == kItemRecord);
    if (r.item) {
      EXPECT_EQ(r.item->itemIdentifier(), "5/ab");
      EXPECT_EQ(r.item->filename(), "song.bin");
    }
  }
}

TEST_F(Download, TheSameContentsTwiceMakeOneCopyThatStays) {
  const std::string bytes = contentBytes(200000, 7);
  const std::string hash = sha1HexDigest(bytes);
  answerDownload({200, info(hash, bytes.size(), {content.url("/bytes/200000/7")})});
  const std::string copy = tmp + "/" + hash;
  auto inode = [&] {
    struct stat st {};
    ::stat(copy.c_str(), &st);
    return st.st_ino;
  };

  Fetch a = fetch(), b = fetch();
  EXPECT_EQ(a.reports->first().path, copy);
  EXPECT_EQ(b.reports->first().path, copy);
  settle();
  const ino_t kept = inode();
  Fetch c = fetch();
  EXPECT_EQ(c.reports->first().path, copy);
  settle();

  EXPECT_EQ(content.targets().size(), 3u);
  EXPECT_EQ(tmpFiles(), Lines{hash});
  EXPECT_EQ(inode(), kept) << "the copy a reader may hold open is not replaced";
  EXPECT_TRUE(readFile(copy) == bytes);
  EXPECT_EQ(a.reports->count() + b.reports->count() + c.reports->count(), 3u);
}

// Cancelling answers at once, stops what runs and leaves no file behind,
// wherever the fetch is when it comes.
TEST_F(Download, CancellingAnswersOnceAndStopsTheWork) {
  const std::string gated = content.url("/gated/4000000/1000000");
  {
    SCOPED_TRACE("mid-transfer");
    answerDownload({200, info("abc", 4000000, {gated})});
    Fetch f = fetch();
    waitFor([&] { return f.progress->completedUnitCount() > 0; });
    f.progress->cancel();
    Report r = f.reports->first();
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, ErrorCode::Cancelled);
    EXPECT_TRUE(content.waitForHangUp(kPatience)) << "the transfer stops";
    EXPECT_TRUE(waitFor([&] { return tmpFiles().empty(); })) << "its partial file goes";
    settle();
    EXPECT_EQ(f.reports->count(), 1u);
    EXPECT_EQ(server.queries(), Lines{kDownloadQuery});
  }
  {
    SCOPED_TRACE("while the host is asked");
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    server.setHandler([&, released](const RecordedRequest&) {
      released.wait();
      return ScriptedReply(200, info("abc", 4000000, {gated}));
    });
    Fetch f = fetch();
    ASSERT_TRUE(server.waitForRequests(2, kPatience));
    f.progress->cancel();
    Report r = f.reports->first();  // before the host has answered
    release.set_value();
    settle();
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, ErrorCode::Cancelled);
    EXPECT_EQ(f.reports->count(), 1u);
    EXPECT_EQ(content.targets(), Lines{"/gated/4000000/1000000"}) << "no second transfer";
    EXPECT_EQ(tmpFiles(), Lines{});
  }
}

// Pausing holds the running transfer, or keeps one that has not started
// from starting; resuming carries on to the same bytes. Once reported, the
// task and its session are let go.
TEST_F(Download, PauseHoldsTheTransferAndResumeFinishesIt) {
  const std::string bytes = contentBytes(4000000);
  const std::string hash = sha1HexDigest(bytes);
  answerDownload({200, info(hash, bytes.size(), {content.url("/gated/4000000/1000000")})});
  for (bool beforeStart : {true, false}) {
    SCOPED_TRACE(beforeStart ? "paused before the start" : "paused mid-transfer");
    emptyTmp();
    content.setGate(false);
    auto reports = std::make_shared<Reports>();
    auto progress = Progress::make();
    auto task = std::make_shared<DownloadTask>(client, extension->mTaskQueue(), "5/ab");
    std::weak_ptr<DownloadTask> watch = task;
    task->setMProgress(progress);
    task->setDownloadHandler(reports->handler(reports));
    if (beforeStart) progress->pause();
    extension->mTaskQueue().addOperation(task);
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
    ASSERT_TRUE(task->downloadTask());
    if (!beforeStart) {
      ASSERT_TRUE(waitFor([&] { return progress->completedUnitCount() > 0; }));
      progress->pause();
    }
    EXPECT_EQ(task->downloadTask()->state(), TransferTask::State::Suspended);
    EXPECT_EQ(progress->totalUnitCount(), int64_t(bytes.size()));
    content.setGate(true);
    progress->resume();

    Report r = reports->first();
    settle();
    EXPECT_EQ(r.path, tmp + "/" + hash);
    EXPECT_TRUE(readFile(tmp + "/" + hash) == bytes);
    EXPECT_EQ(progress->completedUnitCount(), int64_t(bytes.size()));
    task.reset();
    EXPECT_TRUE(watch.expired());
  }
}

}  // namespace
}  // namespace hvfp::test

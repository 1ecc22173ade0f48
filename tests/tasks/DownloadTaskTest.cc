// Content fetches end to end: the extension's fetch against a scripted host
// and a content server that misbehaves on request, checked by what the
// framework's handler receives, the host queries on the wire and the files
// left in the domain's temporary directory.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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
#include "tasks/DownloadTask.h"

namespace hvfp::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Hang guard only: every wait normally ends in milliseconds.
constexpr auto kPatience = 60s;

std::string body(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251 + seed) & 0xff);
  return bytes;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Bodies for the download side, put on the wire as each case needs:
//   GET /bytes/N/S   200 with body(N, S)
//   GET /status/C    status C with a short text body
//   GET /short/N/M   announces body(N, 0), sends its first M bytes, hangs up
//   GET /gated/N/M   announces body(N, 0), sends M bytes, the rest once open()
//                    is called; notes a client that hangs up while it waits
class ContentServer {
 public:
  ContentServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listenFd_, 64) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      ADD_FAILURE() << "cannot listen";
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~ContentServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
    }
    ::shutdown(listenFd_, SHUT_RDWR);
    acceptor_.join();
    ::close(listenFd_);
    for (auto& t : connections_) t.join();
  }

  std::string url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
  }
  Lines targets() const {
    std::lock_guard lock(mutex_);
    return targets_;
  }
  void open() { setGate(true); }
  void shut() { setGate(false); }
  bool waitForHangUp() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return hungUp_; });
  }

 private:
  void setGate(bool open) {
    std::lock_guard lock(mutex_);
    gateOpen_ = open;
  }

  void acceptLoop() {
    for (;;) {
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      std::lock_guard lock(mutex_);
      if (stopping_) {
        ::close(fd);
        return;
      }
      open_.push_back(fd);
      connections_.emplace_back([this, fd] { serve(fd); });
    }
  }

  static bool sendAll(int fd, std::string_view data) {
    while (!data.empty()) {
      ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }
  static bool head(int fd, int status, size_t length) {
    return sendAll(fd, "HTTP/1.1 " + std::to_string(status) +
                           " X\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
  }

  // Waits for open(); false when the client hung up first.
  bool waitForGate(int fd) {
    for (;;) {
      {
        std::lock_guard lock(mutex_);
        if (gateOpen_ || stopping_) return true;
      }
      pollfd p{fd, POLLRDHUP, 0};
      if (::poll(&p, 1, 20) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR))) {
        std::lock_guard lock(mutex_);
        hungUp_ = true;
        changed_.notify_all();
        return false;
      }
    }
  }

  // Answers one request; false when the connection is done.
  bool answer(int fd, const std::string& target) {
    std::vector<size_t> n;
    for (size_t pos = target.find('/', 1); pos != std::string::npos;
         pos = target.find('/', pos + 1))
      n.push_back(std::stoul(target.substr(pos + 1)));
    if (target.starts_with("/bytes/")) {
      std::string b = body(n[0], static_cast<unsigned>(n[1]));
      return head(fd, 200, b.size()) && sendAll(fd, b);
    }
    if (target.starts_with("/status/")) return head(fd, int(n[0]), 4) && sendAll(fd, "nope");
    std::string b = body(n[0], 0);
    if (!head(fd, 200, b.size()) || !sendAll(fd, std::string_view(b).substr(0, n[1]))) return false;
    if (target.starts_with("/short/") || !waitForGate(fd)) return false;
    return sendAll(fd, std::string_view(b).substr(n[1]));
  }

  void serve(int fd) {
    std::string buffer;
    for (;;) {
      size_t end;
      while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        char chunk[4096];
        ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
        if (got <= 0) goto done;
        buffer.append(chunk, static_cast<size_t>(got));
      }
      std::string first = buffer.substr(0, buffer.find("\r\n"));
      buffer.erase(0, end + 4);
      std::string target = first.substr(first.find(' ') + 1);
      target.resize(target.find(' '));
      {
        std::lock_guard lock(mutex_);
        targets_.push_back(target);
      }
      if (!answer(fd, target)) break;
    }
  done:
    std::lock_guard lock(mutex_);
    std::erase(open_, fd);
    ::close(fd);
  }

  int listenFd_ = -1;
  int port_ = 0;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false, gateOpen_ = false, hungUp_ = false;
  std::vector<int> open_;
  std::vector<std::thread> connections_;
  Lines targets_;
};

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

  struct Fetch {
    std::shared_ptr<Progress> progress;
    std::shared_ptr<Reports> reports = std::make_shared<Reports>();
  };
  Fetch fetch(const std::string& identifier = "5/ab") {
    Fetch f;
    f.progress = extension->fetchContentsForItemWithIdentifier(identifier, std::nullopt, {},
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
  bool waitForEmptyTmp() const {
    for (auto until = std::chrono::steady_clock::now() + kPatience;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(5ms))
      if (tmpFiles().empty()) return true;
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
  const std::string good = body(3000, 1);
  const std::string goodHash = sha1HexDigest(good);
  const std::string refused =
      "http://127.0.0.1:" + std::to_string(unusedLoopbackPort()) + "/bytes/3000/1";
  struct Case {
    std::string name;
    std::string reply;  // to the download query
    Ends ends;
    int64_t code = 0;  // of the error reported, when it fails
    const char* domain = NSCocoaErrorDomain;
    Lines fetched;     // what the content server was asked for
    std::string copy;  // the bytes handed over, for a copy
    std::string itemReply = kItemRecord;
  };
  auto fails = [](std::string name, std::string reply, int64_t code, Lines fetched = {},
                  const char* domain = NSCocoaErrorDomain) {
    return Case{
        std::move(name), std::move(reply), Ends::Failure, code, domain, std::move(fetched), "",
        kItemRecord};
  };
  auto copies = [&](std::string name, std::string reply, Lines fetched,
                    std::string item = kItemRecord) {
    return Case{std::move(name),    std::move(reply),   Ends::Copy, 0,
                NSCocoaErrorDomain, std::move(fetched), good,       std::move(item)};
  };
  auto serves = [](std::string name, std::string reply, std::string item = kItemRecord) {
    return Case{std::move(name), std::move(reply), Ends::LocalFile, 0, NSCocoaErrorDomain, {}, "",
                std::move(item)};
  };
  const std::string local = localFile.string();
  const std::string bytes = content.url("/bytes/3000/1");
  const std::vector<Case> cases = {
      serves("the host's own file, not the addresses", info(goodHash, 4, {bytes}, local)),
      serves("the host's file, not confirmed afterwards", info(goodHash, 4, {}, local), "not json"),
      fails("a relative local path", info(goodHash, 4, {bytes}, "a/b"), 5120),
      fails("a local path to nothing", info(goodHash, 4, {}, local + ".gone"), 5120),
      fails("a local path to a folder", info(goodHash, 4, {}, tmp), 5120),
      copies("the first of three addresses",
             info(goodHash, 3000, {bytes, content.url("/bytes/3000/2"), "nonsense"}),
             {"/bytes/3000/1"}),
      copies("a hash that is the host's own name, not a digest", info("Abc123", 3000, {bytes}),
             {"/bytes/3000/1"}),
      copies("the item not confirmed afterwards", info(goodHash, 3000, {bytes}), {"/bytes/3000/1"},
             R"({"status_code":404})"),
      fails("an error status from the first address",
            info(goodHash, 3000, {content.url("/status/404"), bytes}), 5120, {"/status/404"}),
      fails("a redirect to nowhere", info(goodHash, 3000, {content.url("/status/302")}), 5120,
            {"/status/302"}),
      fails("a refused connection", info(goodHash, 3000, {refused}),
            URLErrorCode::CannotConnectToHost, {}, NSURLErrorDomain),
      fails("a body short of its Content-Length",
            info(goodHash, 3000, {content.url("/short/3000/1000")}), 5120, {"/short/3000/1000"}),
      fails("a body short of the declared size", info("abc", 4000, {bytes}), 5120,
            {"/bytes/3000/1"}),
      fails("a body longer than the declared size", info("abc", 2000, {bytes}), 5120,
            {"/bytes/3000/1"}),
      fails("bytes of another digest", info(sha1HexDigest(body(3000, 2)), 3000, {bytes}), 5120,
            {"/bytes/3000/1"}),
      fails("a hash climbing out of the folder", info("../x", 3000, {bytes}), 5120),
      fails("a hash naming a subfolder", info("a/b", 3000, {bytes}), 5120),
      fails("a hash with a dot", info("a.b", 3000, {bytes}), 5120),
      fails("a hash too long for a name", info(std::string(129, 'a'), 3000, {bytes}), 5120),
      fails("no hash", info("", 3000, {bytes}), 5120),
      fails("no address", info(goodHash, 3000, {}), 5120),
      fails("addresses that are not a list",
            R"({"status_code":200,"filehash":"ab","uris":"http://x/"})", 5120),
      fails("an address that is not http", info(goodHash, 3000, {"file:///etc/passwd"}), 5120),
      fails("an empty reply", "", 4610),
      fails("a reply that is not JSON", "<html>", 4610),
      fails("a reply that is a list", "[]", 4610),
      fails("a reply whose status is not 200",
            R"({"status_code":404,"filehash":"ab","uris":["http://x/"]})", 4610),
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(tmp);
    fs::create_directories(tmp);
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
    EXPECT_EQ(fetched, c.fetched);
    const bool confirmed = c.itemReply == kItemRecord;
    switch (c.ends) {
      case Ends::LocalFile:
        EXPECT_EQ(r.path, local);
        EXPECT_EQ(r.error, std::nullopt);
        EXPECT_EQ(queries, (Lines{kDownloadQuery, kStatusQuery, kLookupQuery}));
        EXPECT_EQ(tmpFiles(), Lines{});
        break;
      case Ends::Copy: {
        auto json = objectFromJSONString(c.reply);
        std::string hash(*json->find("filehash")->string());
        std::string copy = tmp + "/" + hash;
        EXPECT_EQ(r.path, copy);
        EXPECT_EQ(r.error, std::nullopt);
        EXPECT_EQ(queries, (Lines{kDownloadQuery,
                                  "type=addcache&path=" + urlEncoded(copy) + "&filehash=" + hash,
                                  kStatusQuery, kLookupQuery}));
        EXPECT_EQ(tmpFiles(), Lines{hash});
        EXPECT_TRUE(readFile(copy) == c.copy);
        EXPECT_EQ(f.progress->totalUnitCount(), int64_t(c.copy.size()));
        EXPECT_EQ(f.progress->completedUnitCount(), int64_t(c.copy.size()));
        break;
      }
      case Ends::Failure:
        EXPECT_EQ(r.path, std::nullopt);
        EXPECT_EQ(r.item, nullptr);
        ASSERT_TRUE(r.error);
        EXPECT_EQ(r.error->domain, c.domain);
        EXPECT_EQ(r.error->code, c.code);
        EXPECT_EQ(queries, Lines{kDownloadQuery});
        EXPECT_EQ(tmpFiles(), Lines{}) << "nothing is left behind";
        break;
    }
    if (c.ends != Ends::Failure) {
      ASSERT_EQ(r.item != nullptr, confirmed);
      if (r.item) {
        EXPECT_EQ(r.item->itemIdentifier(), "5/ab");
        EXPECT_EQ(r.item->filename(), "song.bin");
      }
    }
  }
}

TEST_F(Download, TheSameContentsTwiceMakeOneCopyThatStays) {
  const std::string bytes = body(200000, 7);
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
    for (auto until = std::chrono::steady_clock::now() + kPatience;
         f.progress->completedUnitCount() == 0 && std::chrono::steady_clock::now() < until;)
      std::this_thread::sleep_for(1ms);
    f.progress->cancel();
    Report r = f.reports->first();
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, ErrorCode::Cancelled);
    EXPECT_TRUE(content.waitForHangUp()) << "the transfer stops";
    EXPECT_TRUE(waitForEmptyTmp()) << "its partial file goes";
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
  const std::string bytes = body(4000000, 0);
  const std::string hash = sha1HexDigest(bytes);
  answerDownload({200, info(hash, bytes.size(), {content.url("/gated/4000000/1000000")})});
  for (bool beforeStart : {true, false}) {
    SCOPED_TRACE(beforeStart ? "paused before the start" : "paused mid-transfer");
    fs::remove_all(tmp);
    fs::create_directories(tmp);
    content.shut();
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
      while (progress->completedUnitCount() == 0) std::this_thread::sleep_for(1ms);
      progress->pause();
    }
    EXPECT_EQ(task->downloadTask()->state(), TransferTask::State::Suspended);
    EXPECT_EQ(progress->totalUnitCount(), int64_t(bytes.size()));
    content.open();
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

// The transfer session against a loopback server that does to the wire what
// each case needs, checked by what reaches the server and what the delegate
// is told: bytes, digest and file of a download, range and headers of an
// upload, errors, cancellation, suspension, connection reuse, and the
// delegate let go once the session is done.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/MainQueue.h"
#include "platform/http/TransferSession.h"
#include "support/ChildProcess.h"
#include "support/ContentServer.h"

namespace hvfp {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::contentBytes;
using test::ContentServer;
using test::PieceReply;
using Calls = std::vector<std::string>;

// Hang guard only: every wait below normally ends in milliseconds.
constexpr auto kPatience = 60s;
constexpr const char* kReply201 = R"({"status_code":201})";
constexpr const char* kReply409 = R"({"error_code":40900,"expect":8388608})";

std::string sha1Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha1(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

size_t filesIn(const fs::path& dir) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

struct TempDir {
  fs::path path;
  TempDir() {
    std::string name = (fs::temp_directory_path() / "transfer-test-XXXXXX").string();
    path = ::mkdtemp(name.data());
  }
  ~TempDir() { fs::remove_all(path); }
};

// ---- a delegate that writes down everything it is told ----------------------

struct TaskLog {
  Calls calls;  // "progress", "finish", "complete", in order
  int64_t progressSum = 0, lastTotal = 0, lastExpected = 0;
  bool totalsAddUp = true;          // each step equals the growth of the total
  std::optional<std::string> file;  // contents at didFinishDownloadingToURL
  std::optional<std::string> sha1AtFinish;
  std::optional<TransferCompletion> completion;
  int completions = 0;
};

class Recorder : public TransferSessionDelegate {
 public:
  // Runs on the delegate queue at each progress report; set before any task runs.
  std::function<void(TransferTask&)> onProgress;
  std::optional<fs::path> moveInto;  // keep finished downloads here

  void didWriteData(TransferSession&, TransferTask& task, int64_t step, int64_t total,
                    int64_t expected) override {
    progress(task, step, total, expected);
  }
  void didSendBodyData(TransferSession&, TransferTask& task, int64_t step, int64_t total,
                       int64_t expected) override {
    progress(task, step, total, expected);
  }
  void didFinishDownloadingToURL(TransferSession&, TransferTask& task,
                                 const fs::path& location) override {
    std::lock_guard lock(mutex_);
    TaskLog& log = logs_[task.taskIdentifier()];
    log.calls.push_back("finish");
    log.file = readFile(location);
    log.sha1AtFinish = task.receivedSHA1();
    if (moveInto) fs::rename(location, *moveInto / std::to_string(task.taskIdentifier()));
  }
  void didCompleteWithError(TransferSession&, TransferTask& task,
                            const TransferCompletion& completion) override {
    {
      std::lock_guard lock(mutex_);
      TaskLog& log = logs_[task.taskIdentifier()];
      log.calls.push_back("complete");
      log.completion = completion;
      ++log.completions;
      ++completed_;
    }
    changed_.notify_all();
  }

  bool waitForCompletions(int n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return completed_ >= n; });
  }
  bool waitForProgress(uint64_t task) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return logs_[task].lastTotal > 0; });
  }
  TaskLog log(uint64_t task) {
    std::lock_guard lock(mutex_);
    return logs_[task];
  }

 private:
  void progress(TransferTask& task, int64_t step, int64_t total, int64_t expected) {
    {
      std::lock_guard lock(mutex_);
      TaskLog& log = logs_[task.taskIdentifier()];
      if (log.calls.empty() || log.calls.back() != "progress") log.calls.push_back("progress");
      log.totalsAddUp = log.totalsAddUp && step > 0 && total == log.lastTotal + step;
      log.progressSum += step;
      log.lastTotal = total;
      log.lastExpected = expected;
    }
    changed_.notify_all();
    if (onProgress) onProgress(task);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<uint64_t, TaskLog> logs_;
  int completed_ = 0;
};

const Calls kDownloaded = {"progress", "finish", "complete"};

struct BodyFile {
  TempDir dir;
  fs::path path = dir.path / "staging";
  std::string bytes;
  explicit BodyFile(size_t size) : bytes(contentBytes(size, 7)) {
    std::ofstream(path, std::ios::binary) << bytes;
  }
};

TransferRequest pieceRequest(const std::string& url, uint64_t offset, uint64_t length) {
  TransferRequest request{url, "PUT"};
  request.setValue("3f2a-session", "x-tb-upload-session");
  request.setValue(fmt::format("{}-{}", offset, offset + length - 1), "x-tb-upload-range");
  request.setValue(std::to_string(length), "Content-Length");
  request.setValue("halvofp/1.0", "User-Agent");
  request.setValue("de-CH", "Accept-Language");
  request.setValue("sid=abc; lang=de", "Cookie");
  return request;
}

// A session, its recorder and what is left of the recorder once the session
// has let it go.
struct Harness {
  TempDir tmp;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::weak_ptr<Recorder> watch = recorder;
  std::shared_ptr<TransferSession> session =
      TransferSession::sessionWithConfiguration({tmp.path}, recorder);

  std::shared_ptr<TransferTask> download(const std::string& url, bool sha1 = true,
                                         bool resume = true) {
    auto task = session->downloadTaskWithRequest({url}, {.computeSHA1 = sha1});
    if (resume) task->resume();
    return task;
  }
  std::shared_ptr<TransferTask> upload(const std::string& url, const fs::path& file,
                                       uint64_t offset, uint64_t length) {
    auto task =
        session->uploadTaskWithRequest(pieceRequest(url, offset, length), {file, offset, length});
    task->resume();
    return task;
  }
  TaskLog log(const std::shared_ptr<TransferTask>& task) {
    return recorder->log(task->taskIdentifier());
  }

  // The session must drop its delegate once invalidated and done.
  bool delegateReleased() {
    session->finishTasksAndInvalidate();
    recorder.reset();
    MainQueue::shared().drain();
    return watch.expired();
  }
};

// Runs one small download to its end: by then the engine has carried out
// every command sent before it.
void engineBarrier(ContentServer& server) {
  Harness h;
  h.download(server.url("/bytes/10"));
  ASSERT_TRUE(h.recorder->waitForCompletions(1));
}

int64_t errorCode(const TaskLog& log) {
  return log.completion && log.completion->error ? log.completion->error->code : 0;
}

// ---- downloads ---------------------------------------------------------------

TEST(TransferDownload, DeliversExactBytesWithTheirDigest) {
  ContentServer server;
  struct Case {
    size_t size;
    bool sha1 = true, moveAway = false;  // the delegate keeps the file
  };
  // Bodies are written in 1 MiB blocks: sizes around and on a block's end.
  for (Case c : {Case{0}, Case{1}, Case{100000}, Case{2 << 20}, Case{3 * 1024 * 1024 + 7},
                 Case{2000000, false, true}}) {
    SCOPED_TRACE(c.size);
    TempDir kept;
    Harness h;
    if (c.moveAway) h.recorder->moveInto = kept.path;
    auto task = h.download(server.url("/bytes/" + std::to_string(c.size)), c.sha1);
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.log(task);
    const std::string expected = contentBytes(c.size);
    const auto size = static_cast<int64_t>(c.size);

    EXPECT_EQ(log.calls, (size ? kDownloaded : Calls{"finish", "complete"}));
    EXPECT_TRUE(log.file == expected);
    EXPECT_EQ(log.sha1AtFinish, c.sha1 ? std::optional(sha1Hex(expected)) : std::nullopt);
    EXPECT_TRUE(log.totalsAddUp);
    EXPECT_EQ(log.progressSum, size);
    EXPECT_EQ(log.lastExpected, size);
    EXPECT_FALSE(log.completion->error);
    EXPECT_EQ(log.completion->response->statusCode, 200);
    EXPECT_TRUE(log.completion->body.empty());  // a 2xx body only goes to the file
    EXPECT_EQ(task->countOfBytesReceived(), size);
    EXPECT_EQ(task->countOfBytesExpectedToReceive(), size);
    EXPECT_EQ(task->state(), TransferTask::State::Completed);
    const fs::path away = kept.path / std::to_string(task->taskIdentifier());
    EXPECT_EQ(fs::exists(away), c.moveAway);
    EXPECT_TRUE(!c.moveAway || readFile(away) == expected);
    EXPECT_EQ(filesIn(h.tmp.path), 0u) << "the file not moved away is removed";
    EXPECT_TRUE(h.delegateReleased());
  }
}

TEST(TransferDownload, ErrorStatusIsAResponseAndBrokenTransfersAreErrors) {
  ContentServer server;
  struct Case {
    std::string url;
    std::chrono::seconds timeout;
    int64_t code;
    long status;
    std::string body;
    int64_t received, expected;
  };
  const auto n404 = static_cast<int64_t>(std::string_view(ContentServer::kStatusBody).size());
  const std::string refused =
      "http://127.0.0.1:" + std::to_string(test::unusedLoopbackPort()) + "/x";
  const Case cases[] = {
      {server.url("/status/404"), 60s, 0, 404, ContentServer::kStatusBody, n404, n404},
      {server.url("/short/100000/40000"), 60s, URLErrorCode::NetworkConnectionLost, 200, "", 40000,
       100000},
      {server.url("/gated/1000/0"), 1s, URLErrorCode::TimedOut, 200, "", 0, 1000},
      {refused, 60s, URLErrorCode::CannotConnectToHost, 0, "", 0, -1},
      {"ftp://127.0.0.1/x", 60s, URLErrorCode::UnsupportedURL, 0, "", 0, -1},
      {"http://[::1/x", 60s, URLErrorCode::BadURL, 0, "", 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    Harness h;
    auto request = TransferRequest{c.url};
    request.timeoutInterval = c.timeout;
    auto task = h.session->downloadTaskWithRequest(request);
    task->resume();
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.log(task);
    EXPECT_EQ(errorCode(log), c.code);
    if (c.code) {
      EXPECT_EQ(log.calls, (c.received ? Calls{"progress", "complete"} : Calls{"complete"}));
      EXPECT_EQ(log.completion->error->domain, "NSURLErrorDomain");
      EXPECT_EQ(log.completion->error->userInfo.at(NSURLErrorFailingURLStringErrorKey),
                Error::UserInfoValue(c.url));
      EXPECT_FALSE(
          std::get<std::string>(log.completion->error->userInfo.at(NSLocalizedDescriptionKey))
              .empty());
      EXPECT_FALSE(log.file);
    } else {
      EXPECT_EQ(log.calls, kDownloaded);
      EXPECT_EQ(log.file, c.body);  // delivered like any body; the caller judges the status
    }
    EXPECT_EQ(log.completion->response ? log.completion->response->statusCode : 0, c.status);
    EXPECT_EQ(log.completion->body, c.body);
    EXPECT_EQ(task->countOfBytesReceived(), c.received);
    EXPECT_EQ(task->countOfBytesExpectedToReceive(), c.expected);
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(filesIn(h.tmp.path), 0u);
    EXPECT_TRUE(h.delegateReleased());
  }
}

// A task cancelled while it runs, one cancelled before it started and those
// ended by invalidateAndCancel: each completes once with "cancelled" and no
// file; commands that come later change nothing.
TEST(TransferDownload, CancelledTasksCompleteOnceAndLeaveNoFile) {
  ContentServer server;
  Harness h;
  const std::string gated = server.url("/gated/4000000/1000000");
  auto running = h.download(gated, true, false);
  auto idle = h.download(server.url("/bytes/10"), true, false);
  h.recorder->onProgress = [id = running->taskIdentifier()](TransferTask& task) {
    if (task.taskIdentifier() == id) task.cancel();
  };
  running->resume();
  idle->cancel();
  ASSERT_TRUE(h.recorder->waitForCompletions(2));
  const std::vector tasks = {running, idle, h.download(gated), h.download(gated)};
  for (size_t i = 2; i < tasks.size(); ++i)
    ASSERT_TRUE(h.recorder->waitForProgress(tasks[i]->taskIdentifier()));
  h.session->invalidateAndCancel();
  EXPECT_EQ(h.session->downloadTaskWithRequest({server.url("/bytes/1")}), nullptr);
  ASSERT_TRUE(h.recorder->waitForCompletions(4));
  for (auto& task : tasks) {
    task->resume();
    task->suspend();
    task->cancel();
  }
  engineBarrier(server);
  MainQueue::shared().drain();
  for (auto& task : tasks) {
    TaskLog log = h.log(task);
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(errorCode(log), URLErrorCode::Cancelled);
    EXPECT_FALSE(log.file);
    EXPECT_EQ(task->state(), TransferTask::State::Completed);
  }
  EXPECT_EQ(h.log(running).calls, (Calls{"progress", "complete"}));
  EXPECT_EQ(h.log(idle).calls, Calls{"complete"});
  EXPECT_EQ(filesIn(h.tmp.path), 0u);
  EXPECT_TRUE(h.delegateReleased());
}

// ---- uploads -----------------------------------------------------------------

TEST(TransferUpload, SendsTheFileRangeWithHeadersInOrder) {
  ContentServer server;
  BodyFile file(5 * 1024 * 1024);
  const uint64_t offset = 12345, length = 3 * 1024 * 1024 + 1;
  server.enqueue(PieceReply::late(201, kReply201));
  Harness h;
  auto task = h.upload(server.url("/upload_part"), file.path, offset, length);
  ASSERT_TRUE(h.recorder->waitForCompletions(1));

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "PUT");
  EXPECT_EQ(requests[0].target, "/upload_part");
  HeaderFields wire = {{"Host", "127.0.0.1:" + std::to_string(server.port())},
                       {"Accept", "*/*"},
                       {"x-tb-upload-session", "3f2a-session"},
                       {"x-tb-upload-range", "12345-3158073"},
                       {"Content-Length", "3145729"},
                       {"User-Agent", "halvofp/1.0"},
                       {"Accept-Language", "de-CH"},
                       {"Cookie", "sid=abc; lang=de"}};
  EXPECT_EQ(requests[0].headers, wire);
  EXPECT_TRUE(requests[0].body == file.bytes.substr(offset, length));

  TaskLog log = h.log(task);
  EXPECT_EQ(log.calls, (Calls{"progress", "complete"}));
  EXPECT_FALSE(log.completion->error);
  EXPECT_EQ(log.completion->response->statusCode, 201);
  EXPECT_EQ(log.completion->body, kReply201);
  EXPECT_TRUE(log.totalsAddUp);
  EXPECT_EQ(log.progressSum, static_cast<int64_t>(length));
  EXPECT_EQ(log.lastExpected, static_cast<int64_t>(length));
  EXPECT_EQ(task->countOfBytesSent(), static_cast<int64_t>(length));
  EXPECT_TRUE(h.delegateReleased());
}

// An answer that comes before the body was taken is an error that keeps the
// reply, whether the server closes at once or drains the body first; a body
// file that cannot be read is an error of its own.
TEST(TransferUpload, EarlyAnswersAndUnreadableFilesFail) {
  ContentServer server;
  const uint64_t length = 8 * 1024 * 1024;
  BodyFile file(length);
  struct Case {
    std::string name;
    std::optional<PieceReply> reply;
    fs::path path;
    uint64_t offset, length;
    int64_t code;
  };
  std::vector<Case> cases;
  for (int round = 0; round < 3; ++round)
    for (bool linger : {false, true})
      cases.push_back({linger ? "lingering" : "closing", PieceReply::early(409, kReply409, linger),
                       file.path, 0, length, URLErrorCode::NetworkConnectionLost});
  cases.push_back(
      {"missing", std::nullopt, file.dir.path / "missing", 0, 10, URLErrorCode::FileDoesNotExist});
  cases.push_back({"short", std::nullopt, file.path, length - 100, 200, URLErrorCode::Unknown});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.reply) server.enqueue(*c.reply);
    Harness h;
    auto task = h.upload(server.url("/upload_part"), c.path, c.offset, c.length);
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.log(task);
    EXPECT_EQ(errorCode(log), c.code);
    EXPECT_EQ(log.completions, 1);
    if (c.reply) {
      ASSERT_TRUE(log.completion->response);
      EXPECT_EQ(log.completion->response->statusCode, 409);
      EXPECT_EQ(log.completion->body, kReply409);
    }
    EXPECT_TRUE(h.delegateReleased());
  }
}

// ---- the engine --------------------------------------------------------------

// Suspended, a task moves no bytes even once its peer is ready; resumed, it
// ends with every byte in place.
TEST(TransferEngine, SuspendedTaskMovesNoBytesAndResumesWhereItWas) {
  const size_t size = 8 * 1024 * 1024;
  BodyFile file(size);
  for (bool upload : {false, true}) {
    SCOPED_TRACE(upload ? "upload" : "download");
    ContentServer server;
    Harness h;
    auto task = upload ? h.upload(server.url("/gated/upload_part"), file.path, 0, size)
                       : h.download(server.url(fmt::format("/gated/{}/1000000", size)));
    auto moved = [&] { return upload ? task->countOfBytesSent() : task->countOfBytesReceived(); };
    ASSERT_TRUE(h.recorder->waitForProgress(task->taskIdentifier()));
    task->suspend();
    engineBarrier(server);
    int64_t held = moved();
    server.setGate(true);  // from now on the peer takes or sends the rest
    engineBarrier(server);
    engineBarrier(server);
    EXPECT_EQ(moved(), held);
    EXPECT_LT(held, static_cast<int64_t>(size));
    EXPECT_EQ(task->state(), TransferTask::State::Suspended);

    task->resume();
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.log(task);
    EXPECT_FALSE(log.completion->error);
    EXPECT_TRUE(log.totalsAddUp);
    EXPECT_EQ(log.progressSum, static_cast<int64_t>(size));
    if (upload) {
      EXPECT_TRUE(server.pieces().back().body == file.bytes);
      EXPECT_EQ(log.completion->response->statusCode, 200);
    } else {
      EXPECT_TRUE(log.file == contentBytes(size));
      EXPECT_EQ(log.sha1AtFinish, sha1Hex(contentBytes(size)));
    }
  }
}

TEST(TransferEngine, KeepsTheConnectionFromOneTaskToTheNext) {
  ContentServer server;
  BodyFile file(100000);
  for (int i = 0; i < 3; ++i) {
    Harness h;  // a session per transfer, as the tasks use them
    if (i < 2)
      h.download(server.url("/bytes/200000"));
    else
      h.upload(server.url("/upload_part"), file.path, 0, 100000);
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
  }
  EXPECT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(server.connectionsAccepted(), 1);
}

TEST(TransferEngine, ManyConcurrentTasksEachCompleteOnce) {
  ContentServer server;
  BodyFile file(1000000);
  Harness h;
  std::map<uint64_t, size_t> downloads;  // task -> size
  std::map<uint64_t, uint64_t> uploads;  // task -> offset
  std::vector<std::shared_ptr<TransferTask>> tasks;
  for (size_t i = 0; i < 25; ++i) {
    size_t size = 1000 + i * 37000;
    tasks.push_back(h.download(server.url("/bytes/" + std::to_string(size))));
    downloads[tasks.back()->taskIdentifier()] = size;
    tasks.push_back(h.upload(server.url("/upload_part"), file.path, i * 20000, 20000));
    uploads[tasks.back()->taskIdentifier()] = i * 20000;
  }
  ASSERT_TRUE(h.recorder->waitForCompletions(50));
  for (const auto& [id, size] : downloads) {
    TaskLog log = h.recorder->log(id);
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(log.calls, kDownloaded);
    EXPECT_FALSE(log.completion->error);
    EXPECT_TRUE(log.file == contentBytes(size)) << size;
  }
  std::map<std::string, std::string> bodies;  // range -> bytes received
  for (const auto& r : server.pieces()) bodies[r.range] = r.body;
  for (const auto& [id, offset] : uploads) {
    TaskLog log = h.recorder->log(id);
    EXPECT_EQ(log.completions, 1);
    EXPECT_FALSE(log.completion->error);
    EXPECT_TRUE(bodies[fmt::format("{}-{}", offset, offset + 19999)] ==
                file.bytes.substr(offset, 20000));
  }
  tasks.clear();
  EXPECT_TRUE(h.delegateReleased());
  EXPECT_EQ(filesIn(h.tmp.path), 0u);
}

TEST(TransferEngine, DroppedUnstartedTaskDoesNotHoldTheDelegate) {
  Harness h;
  auto task = h.session->downloadTaskWithRequest({"http://127.0.0.1:9/never"});
  h.session->finishTasksAndInvalidate();
  task.reset();
  EXPECT_TRUE(h.delegateReleased());
}

}  // namespace
}  // namespace hvfp

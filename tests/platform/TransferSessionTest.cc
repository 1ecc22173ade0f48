#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/MainQueue.h"
#include "platform/http/TransferSession.h"

namespace hvfp {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Hang guard only: every wait below normally ends in milliseconds.
constexpr auto kPatience = 60s;

std::string pattern(size_t size, unsigned seed = 0) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251 + seed) & 0xff);
  return bytes;
}

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

// ---- a server that does to the wire exactly what a case needs ---------------
//
// GET  /bytes/N        200 with pattern(N)
// GET  /status/404     404 with a JSON body
// GET  /short/N/M      announces N bytes, sends M, closes
// GET  /gated/N/M      announces N, sends M, waits for openGate(), sends the rest
// PUT  /upload_part    reads the body, answers 201 with a JSON body
// PUT  /gated/upload_part   the same once openGate() was called
// PUT  /early/close    answers 409 from the head and closes at once, unread body and all
// PUT  /early/linger   the same, but half-closes and discards the body before closing
class WireServer {
 public:
  struct Request {
    std::string method, target;
    HeaderFields headers;  // in wire order
    std::string body;
  };
  static constexpr const char* kReply409 = R"({"error_code":40900,"expect":8388608})";
  static constexpr const char* kReply404 = R"({"error_code":404,"error_msg":"no such blob"})";
  static constexpr const char* kReply201 = R"({"status_code":201})";

  WireServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      ADD_FAILURE() << "cannot listen";
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }

  ~WireServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      gateOpen_ = true;
      for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
    }
    gate_.notify_all();
    ::shutdown(listenFd_, SHUT_RDWR);
    acceptor_.join();
    ::close(listenFd_);
    for (auto& t : connections_) t.join();
  }

  std::string url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
  }
  int port() const { return port_; }
  int connectionsAccepted() const { return accepted_.load(); }
  std::vector<Request> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  void openGate() {
    {
      std::lock_guard lock(mutex_);
      gateOpen_ = true;
    }
    gate_.notify_all();
  }

 private:
  void acceptLoop() {
    for (;;) {
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      std::lock_guard lock(mutex_);
      if (stopping_) {
        ::close(fd);
        return;
      }
      ++accepted_;
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

  static bool reply(int fd, int status, const std::string& body, bool close = false) {
    return sendAll(fd, fmt::format("HTTP/1.1 {} X\r\nContent-Length: {}\r\n{}\r\n{}", status,
                                   body.size(), close ? "Connection: close\r\n" : "", body));
  }

  bool readHead(int fd, std::string& buffer, Request& request) {
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
      char chunk[16384];
      ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return false;
      buffer.append(chunk, static_cast<size_t>(n));
    }
    std::string head = buffer.substr(0, end);
    buffer.erase(0, end + 4);
    size_t lineEnd = head.find("\r\n");
    std::string first = head.substr(0, lineEnd);
    request.method = first.substr(0, first.find(' '));
    request.target = first.substr(first.find(' ') + 1);
    request.target.resize(request.target.rfind(' '));
    for (size_t pos = lineEnd; pos != std::string::npos && pos < head.size();) {
      size_t next = head.find("\r\n", pos + 2);
      std::string line = head.substr(pos + 2, next == std::string::npos ? next : next - pos - 2);
      size_t colon = line.find(':');
      request.headers.emplace_back(line.substr(0, colon), line.substr(colon + 2));
      pos = next;
    }
    return true;
  }

  bool readBody(int fd, std::string& buffer, Request& request) {
    size_t length = std::stoul(headerValue(request.headers, "Content-Length").value_or("0"));
    while (buffer.size() < length) {
      char chunk[65536];
      ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return false;
      buffer.append(chunk, static_cast<size_t>(n));
    }
    request.body = buffer.substr(0, length);
    buffer.erase(0, length);
    return true;
  }

  void record(const Request& request) {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }

  void waitForGate() {
    std::unique_lock lock(mutex_);
    gate_.wait(lock, [&] { return gateOpen_; });
  }

  // Keeps the connection for the next request unless a route closes it.
  bool route(int fd, std::string& buffer, Request& request) {
    std::vector<size_t> n;
    for (size_t pos = request.target.find('/', 1); pos != std::string::npos;
         pos = request.target.find('/', pos + 1))
      if (std::isdigit(static_cast<unsigned char>(request.target[pos + 1])))
        n.push_back(std::stoul(request.target.substr(pos + 1)));
    const std::string& t = request.target;
    // Written down before the answer, so a client that has its answer finds it.
    if (t == "/upload_part" || t == "/gated/upload_part") {
      if (t.starts_with("/gated/")) waitForGate();
      bool whole = readBody(fd, buffer, request);
      record(request);
      return whole && reply(fd, 201, kReply201);
    }
    record(request);
    if (t.starts_with("/bytes/")) return reply(fd, 200, pattern(n[0]));
    if (t == "/status/404") return reply(fd, 404, kReply404);
    if (t.starts_with("/short/") || t.starts_with("/gated/")) {
      std::string body = pattern(n[0]);
      sendAll(fd, fmt::format("HTTP/1.1 200 OK\r\nContent-Length: {}\r\n\r\n", n[0]));
      sendAll(fd, std::string_view(body).substr(0, n[1]));
      if (t.starts_with("/short/")) return false;
      waitForGate();
      return sendAll(fd, std::string_view(body).substr(n[1]));
    }
    if (t.starts_with("/early/")) {
      reply(fd, 409, kReply409, true);
      if (t == "/early/linger") {
        ::shutdown(fd, SHUT_WR);
        char sink[65536];
        while (::recv(fd, sink, sizeof sink, 0) > 0) {
        }
      }
      return false;
    }
    return reply(fd, 400, "{}");
  }

  void serve(int fd) {
    std::string buffer;
    for (;;) {
      Request request;
      if (!readHead(fd, buffer, request)) break;
      if (!route(fd, buffer, request)) break;
    }
    std::lock_guard lock(mutex_);
    std::erase(open_, fd);
    ::close(fd);
  }

  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<int> accepted_{0};
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::condition_variable gate_;
  bool gateOpen_ = false;
  bool stopping_ = false;
  std::vector<int> open_;
  std::vector<std::thread> connections_;
  std::vector<Request> requests_;
};

// ---- a delegate that writes down everything it is told ----------------------

struct TaskLog {
  std::vector<std::string> calls;  // "progress", "finish", "complete", in order
  int64_t progressSum = 0;
  int64_t lastTotal = 0;
  int64_t lastExpected = 0;
  bool totalsAddUp = true;          // each step equals the growth of the total
  std::optional<std::string> file;  // contents at didFinishDownloadingToURL
  std::optional<std::string> sha1AtFinish;
  std::optional<TransferCompletion> completion;
  int completions = 0;
};

class Recorder : public TransferSessionDelegate {
 public:
  // Runs on the delegate queue at each progress report.
  std::function<void(TransferTask&, int64_t total)> onProgress;
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
  int completions() {
    std::lock_guard lock(mutex_);
    return completed_;
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
    if (onProgress) onProgress(task, total);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<uint64_t, TaskLog> logs_;
  int completed_ = 0;
};

const std::vector<std::string> kDownloaded = {"progress", "finish", "complete"};
const std::vector<std::string> kFailed = {"complete"};

// A session, its recorder and what is left of the recorder once the session
// has let it go.
struct Harness {
  TempDir tmp;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::weak_ptr<Recorder> watch = recorder;
  std::shared_ptr<TransferSession> session =
      TransferSession::sessionWithConfiguration({tmp.path}, recorder);

  std::shared_ptr<TransferTask> download(const std::string& url, bool sha1 = true) {
    auto task = session->downloadTaskWithRequest({url}, {.computeSHA1 = sha1});
    task->resume();
    return task;
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
void engineBarrier(WireServer& server) {
  Harness h;
  h.download(server.url("/bytes/10"));
  ASSERT_TRUE(h.recorder->waitForCompletions(1));
}

int64_t errorCode(const TaskLog& log) {
  return log.completion && log.completion->error ? log.completion->error->code : 0;
}

// ---- downloads ---------------------------------------------------------------

TEST(TransferDownload, DeliversExactBytesWithTheirDigest) {
  WireServer server;
  for (size_t size : {size_t{0}, size_t{1}, size_t{100000}, size_t{3} * 1024 * 1024 + 7}) {
    SCOPED_TRACE(size);
    Harness h;
    auto task = h.download(server.url("/bytes/" + std::to_string(size)));
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.recorder->log(task->taskIdentifier());
    std::string expected = pattern(size);

    EXPECT_EQ(log.calls, (size ? kDownloaded : std::vector<std::string>{"finish", "complete"}));
    ASSERT_TRUE(log.file);
    EXPECT_TRUE(*log.file == expected);
    EXPECT_EQ(log.sha1AtFinish, sha1Hex(expected));
    EXPECT_TRUE(log.totalsAddUp);
    EXPECT_EQ(log.progressSum, static_cast<int64_t>(size));
    EXPECT_EQ(log.lastExpected, size ? static_cast<int64_t>(size) : 0);
    EXPECT_FALSE(log.completion->error);
    EXPECT_EQ(log.completion->response->statusCode, 200);
    EXPECT_TRUE(log.completion->body.empty());  // a 2xx body only goes to the file
    EXPECT_EQ(task->countOfBytesReceived(), static_cast<int64_t>(size));
    EXPECT_EQ(task->countOfBytesExpectedToReceive(), static_cast<int64_t>(size));
    EXPECT_EQ(task->state(), TransferTask::State::Completed);
    EXPECT_EQ(filesIn(h.tmp.path), 0u) << "the file not moved away is removed";
    EXPECT_TRUE(h.delegateReleased());
  }
}

TEST(TransferDownload, FileMovedByTheDelegateStays) {
  WireServer server;
  TempDir kept;
  Harness h;
  h.recorder->moveInto = kept.path;
  auto task = h.download(server.url("/bytes/2000000"), false);
  ASSERT_TRUE(h.recorder->waitForCompletions(1));
  EXPECT_EQ(h.recorder->log(task->taskIdentifier()).sha1AtFinish, std::nullopt);
  EXPECT_TRUE(readFile(kept.path / std::to_string(task->taskIdentifier())) == pattern(2000000));
  EXPECT_EQ(filesIn(h.tmp.path), 0u);
}

int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

TEST(TransferDownload, ErrorStatusIsAResponseAndBrokenTransfersAreErrors) {
  WireServer server;
  struct Case {
    std::string url;
    std::chrono::seconds timeout;
    std::vector<std::string> calls;
    int64_t code;
    long status;
    std::string body;
    int64_t received, expected;
  };
  const int64_t n404 = static_cast<int64_t>(std::string_view(WireServer::kReply404).size());
  const std::string refused = "http://127.0.0.1:" + std::to_string(closedPort()) + "/x";
  const Case cases[] = {
      {server.url("/status/404"), 60s, kDownloaded, 0, 404, WireServer::kReply404, n404, n404},
      {server.url("/short/100000/40000"), 60s, kDownloaded, URLErrorCode::NetworkConnectionLost,
       200, "", 40000, 100000},
      {server.url("/gated/1000/0"), 1s, kFailed, URLErrorCode::TimedOut, 200, "", 0, 1000},
      {refused, 60s, kFailed, URLErrorCode::CannotConnectToHost, 0, "", 0, -1},
      {"ftp://127.0.0.1/x", 60s, kFailed, URLErrorCode::UnsupportedURL, 0, "", 0, -1},
      {"http://[::1/x", 60s, kFailed, URLErrorCode::BadURL, 0, "", 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    Harness h;
    auto request = TransferRequest{c.url};
    request.timeoutInterval = c.timeout;
    auto task = h.session->downloadTaskWithRequest(request);
    task->resume();
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.recorder->log(task->taskIdentifier());
    std::vector<std::string> calls = c.calls;
    if (c.code) std::erase(calls, "finish");
    EXPECT_EQ(log.calls, calls);
    EXPECT_EQ(errorCode(log), c.code);
    if (c.code) {
      EXPECT_EQ(log.completion->error->domain, "NSURLErrorDomain");
      EXPECT_EQ(log.completion->error->userInfo.at(NSURLErrorFailingURLStringErrorKey),
                Error::UserInfoValue(c.url));
      EXPECT_FALSE(
          std::get<std::string>(log.completion->error->userInfo.at(NSLocalizedDescriptionKey))
              .empty());
      EXPECT_FALSE(log.file);
    } else {
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
  server.openGate();
}

TEST(TransferDownload, CancelCompletesOnceWithCancelledAndLeavesNoFile) {
  WireServer server;
  Harness h;
  h.recorder->onProgress = [](TransferTask& task, int64_t) { task.cancel(); };
  auto running = h.download(server.url("/gated/4000000/1000000"));
  auto idle = h.session->downloadTaskWithRequest({server.url("/bytes/10")});
  idle->cancel();  // never resumed: still one report
  ASSERT_TRUE(h.recorder->waitForCompletions(2));
  // Late commands change nothing.
  for (auto& task : {running, idle}) {
    task->resume();
    task->suspend();
    task->cancel();
  }
  engineBarrier(server);
  MainQueue::shared().drain();
  for (auto& task : {running, idle}) {
    TaskLog log = h.recorder->log(task->taskIdentifier());
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(errorCode(log), URLErrorCode::Cancelled);
    EXPECT_FALSE(log.file);
    EXPECT_EQ(task->state(), TransferTask::State::Completed);
  }
  EXPECT_EQ(h.recorder->log(running->taskIdentifier()).calls,
            (std::vector<std::string>{"progress", "complete"}));
  EXPECT_EQ(filesIn(h.tmp.path), 0u);
  EXPECT_TRUE(h.delegateReleased());
  server.openGate();
}

TEST(TransferDownload, InvalidateAndCancelEndsEveryTask) {
  WireServer server;
  Harness h;
  std::vector<std::shared_ptr<TransferTask>> tasks;
  for (int i = 0; i < 3; ++i) tasks.push_back(h.download(server.url("/gated/3000000/1000")));
  for (auto& task : tasks) ASSERT_TRUE(h.recorder->waitForProgress(task->taskIdentifier()));
  h.session->invalidateAndCancel();
  EXPECT_EQ(h.session->downloadTaskWithRequest({server.url("/bytes/1")}), nullptr);
  ASSERT_TRUE(h.recorder->waitForCompletions(3));
  for (auto& task : tasks) {
    EXPECT_EQ(errorCode(h.recorder->log(task->taskIdentifier())), URLErrorCode::Cancelled);
  }
  EXPECT_EQ(filesIn(h.tmp.path), 0u);
  EXPECT_TRUE(h.delegateReleased());
  server.openGate();
}

// ---- uploads -----------------------------------------------------------------

struct BodyFile {
  TempDir dir;
  fs::path path = dir.path / "staging";
  std::string bytes;
  explicit BodyFile(size_t size) : bytes(pattern(size, 7)) {
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

TEST(TransferUpload, SendsTheFileRangeWithHeadersInOrder) {
  WireServer server;
  BodyFile file(5 * 1024 * 1024);
  const uint64_t offset = 12345, length = 3 * 1024 * 1024 + 1;
  Harness h;
  auto task = h.session->uploadTaskWithRequest(
      pieceRequest(server.url("/upload_part"), offset, length), {file.path, offset, length});
  task->resume();
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

  TaskLog log = h.recorder->log(task->taskIdentifier());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"progress", "complete"}));
  EXPECT_FALSE(log.completion->error);
  EXPECT_EQ(log.completion->response->statusCode, 201);
  EXPECT_EQ(log.completion->body, WireServer::kReply201);
  EXPECT_TRUE(log.totalsAddUp);
  EXPECT_EQ(log.progressSum, static_cast<int64_t>(length));
  EXPECT_EQ(log.lastExpected, static_cast<int64_t>(length));
  EXPECT_EQ(task->countOfBytesSent(), static_cast<int64_t>(length));
  EXPECT_TRUE(h.delegateReleased());
}

TEST(TransferUpload, AnswerBeforeTheBodyIsReadIsAnErrorThatKeepsTheReply) {
  WireServer server;
  const uint64_t length = 8 * 1024 * 1024;
  BodyFile file(length);
  for (const char* path : {"/early/close", "/early/linger"}) {
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(path);
      Harness h;
      auto task = h.session->uploadTaskWithRequest(pieceRequest(server.url(path), 0, length),
                                                   {file.path, 0, length});
      task->resume();
      ASSERT_TRUE(h.recorder->waitForCompletions(1));
      TaskLog log = h.recorder->log(task->taskIdentifier());
      EXPECT_EQ(errorCode(log), URLErrorCode::NetworkConnectionLost);
      ASSERT_TRUE(log.completion->response);
      EXPECT_EQ(log.completion->response->statusCode, 409);
      EXPECT_EQ(log.completion->body, WireServer::kReply409);
      EXPECT_EQ(log.completions, 1);
      EXPECT_TRUE(h.delegateReleased());
    }
  }
}

TEST(TransferUpload, UnreadableBodyFileFails) {
  WireServer server;
  BodyFile file(1000);
  struct Case {
    fs::path path;
    uint64_t offset, length;
    int64_t code;
  };
  for (const Case& c : {Case{file.dir.path / "missing", 0, 10, URLErrorCode::FileDoesNotExist},
                        Case{file.path, 900, 200, URLErrorCode::Unknown}}) {
    SCOPED_TRACE(c.path.string());
    Harness h;
    auto task = h.session->uploadTaskWithRequest(
        pieceRequest(server.url("/upload_part"), c.offset, c.length), {c.path, c.offset, c.length});
    task->resume();
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    EXPECT_EQ(errorCode(h.recorder->log(task->taskIdentifier())), c.code);
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
    WireServer server;
    Harness h;
    auto task =
        upload ? h.session->uploadTaskWithRequest(
                     pieceRequest(server.url("/gated/upload_part"), 0, size), {file.path, 0, size})
               : h.session->downloadTaskWithRequest(
                     {server.url(fmt::format("/gated/{}/1000000", size))}, {.computeSHA1 = true});
    auto moved = [&] { return upload ? task->countOfBytesSent() : task->countOfBytesReceived(); };
    task->resume();
    ASSERT_TRUE(h.recorder->waitForProgress(task->taskIdentifier()));
    task->suspend();
    engineBarrier(server);
    int64_t held = moved();
    server.openGate();  // from now on the peer takes or sends the rest
    engineBarrier(server);
    engineBarrier(server);
    EXPECT_EQ(moved(), held);
    EXPECT_LT(held, static_cast<int64_t>(size));
    EXPECT_EQ(task->state(), TransferTask::State::Suspended);

    task->resume();
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
    TaskLog log = h.recorder->log(task->taskIdentifier());
    EXPECT_FALSE(log.completion->error);
    EXPECT_TRUE(log.totalsAddUp);
    EXPECT_EQ(log.progressSum, static_cast<int64_t>(size));
    if (upload) {
      auto requests = server.requests();
      EXPECT_TRUE(requests.back().body == file.bytes);
      EXPECT_EQ(log.completion->response->statusCode, 201);
    } else {
      EXPECT_TRUE(log.file == pattern(size));
      EXPECT_EQ(log.sha1AtFinish, sha1Hex(pattern(size)));
    }
  }
}

TEST(TransferEngine, KeepsTheConnectionFromOneTaskToTheNext) {
  WireServer server;
  BodyFile file(100000);
  for (int i = 0; i < 2; ++i) {
    Harness h;  // a session per transfer, as the tasks use them
    h.download(server.url("/bytes/200000"));
    ASSERT_TRUE(h.recorder->waitForCompletions(1));
  }
  Harness h;
  auto upload = h.session->uploadTaskWithRequest(
      pieceRequest(server.url("/upload_part"), 0, 100000), {file.path, 0, 100000});
  upload->resume();
  ASSERT_TRUE(h.recorder->waitForCompletions(1));
  EXPECT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(server.connectionsAccepted(), 1);
}

TEST(TransferEngine, ManyConcurrentTasksEachCompleteOnce) {
  WireServer server;
  BodyFile file(1000000);
  Harness h;
  std::map<uint64_t, size_t> downloads;  // task -> size
  std::map<uint64_t, uint64_t> uploads;  // task -> offset
  std::vector<std::shared_ptr<TransferTask>> tasks;
  for (size_t i = 0; i < 25; ++i) {
    size_t size = 1000 + i * 37000;
    tasks.push_back(h.download(server.url("/bytes/" + std::to_string(size))));
    downloads[tasks.back()->taskIdentifier()] = size;
    uint64_t offset = i * 20000;
    tasks.push_back(h.session->uploadTaskWithRequest(
        pieceRequest(server.url("/upload_part"), offset, 20000), {file.path, offset, 20000}));
    tasks.back()->resume();
    uploads[tasks.back()->taskIdentifier()] = offset;
  }
  ASSERT_TRUE(h.recorder->waitForCompletions(50));
  for (const auto& [id, size] : downloads) {
    TaskLog log = h.recorder->log(id);
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(log.calls, kDownloaded);
    EXPECT_FALSE(log.completion->error);
    EXPECT_TRUE(log.file == pattern(size)) << size;
  }
  std::map<std::string, std::string> bodies;  // range -> bytes received
  for (const auto& r : server.requests())
    if (r.method == "PUT") bodies[*headerValue(r.headers, "x-tb-upload-range")] = r.body;
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

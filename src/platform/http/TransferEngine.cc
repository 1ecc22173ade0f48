#include "platform/http/TransferEngine.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/ThreadAnnotations.h"
#include "platform/http/DownloadFile.h"
#include "platform/http/URLError.h"

namespace hvfp::detail {
namespace {

// Large enough that a fast download costs few callbacks and writes.
constexpr long kBufferSize = 256 * 1024;
constexpr long kMaxRedirects = 16;
constexpr int kIdlePollMs = 1000;

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}

int64_t announcedLength(const HeaderFields& headers) {
  if (headerValue(headers, "Transfer-Encoding")) return -1;
  auto value = headerValue(headers, "Content-Length");
  if (!value || value->empty() || value->size() > 18) return -1;
  int64_t length = 0;
  for (char c : *value) {
    if (c < '0' || c > '9') return -1;
    length = length * 10 + (c - '0');
  }
  return length;
}

int64_t codeFor(CURLcode rc) {
  switch (rc) {
    case CURLE_URL_MALFORMAT:
      return URLErrorCode::BadURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return URLErrorCode::UnsupportedURL;
    case CURLE_COULDNT_RESOLVE_HOST:
      return URLErrorCode::CannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return URLErrorCode::CannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return URLErrorCode::TimedOut;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return URLErrorCode::NetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return URLErrorCode::HTTPTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_BAD_CONTENT_ENCODING:
      return URLErrorCode::BadServerResponse;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return URLErrorCode::SecureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return URLErrorCode::ServerCertificateUntrusted;
    default:
      return URLErrorCode::Unknown;
  }
}

// One running transfer; engine thread only.
struct Transfer {
  std::shared_ptr<TransferObserver> observer;
  const TransferSpec* spec = nullptr;  // owned by the observer
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  char errorText[CURL_ERROR_SIZE] = {};
  int fd = -1;                             // upload: the body's file
  std::unique_ptr<DownloadFile> download;  // download: where the body goes

  long headStatus = 0;  // of the response head being read
  HeaderFields headHeaders;
  std::optional<TransferResponse> response;
  std::string body;
  uint64_t bodyRead = 0;  // upload: bytes of the range handed to libcurl
  int64_t received = 0;
  int64_t sent = 0;
  std::optional<Error> failure;  // found by a callback; decides the outcome
  // Upload: the local end of the connection carrying the request, and what
  // was still unread on it when it was closed.
  std::string localEnd;
  std::string unread;

  bool isDownload() const { return spec->kind == TransferKind::Download; }
  const std::string& url() const { return spec->request.url; }

  ~Transfer() {
    if (headers) curl_slist_free_all(headers);
    if (easy) curl_easy_cleanup(easy);
    if (fd >= 0) ::close(fd);
  }
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  size_t n = size * count;
  std::string_view line(data, n);
  if (line.starts_with("HTTP/")) {
    auto space = line.find(' ');
    t->headStatus = 0;
    if (space != std::string_view::npos) {
      for (size_t i = space + 1; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i)
        t->headStatus = t->headStatus * 10 + (line[i] - '0');
    }
    t->headHeaders.clear();
    return n;
  }
  std::string_view text = trim(line);
  if (text.empty()) {  // the head is complete
    if (t->headStatus >= 200) {
      TransferResponse response{t->headStatus, std::move(t->headHeaders), 0};
      response.expectedContentLength = announcedLength(response.headers);
      t->response = std::move(response);
      t->body.clear();
      t->observer->transferDidReceiveResponse(*t->response);
    }
    t->headStatus = 0;  // trailers may follow; they are not a new head
    t->headHeaders.clear();
    return n;
  }
  if ((line.front() == ' ' || line.front() == '\t') && !t->headHeaders.empty()) {
    t->headHeaders.back().second.append(" ").append(text);
    return n;
  }
  auto colon = text.find(':');
  if (colon == std::string_view::npos) return n;
  t->headHeaders.emplace_back(std::string(trim(text.substr(0, colon))),
                              std::string(trim(text.substr(colon + 1))));
  return n;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  size_t n = size * count;
  if (!t->isDownload()) {
    if (t->body.size() + n > kMaxReplyBody) {
      t->failure = urlError(URLErrorCode::DataLengthExceedsMaximum,
                            "the reply body is larger than the transfer keeps", t->url());
      return 0;
    }
    t->body.append(data, n);
    t->received += static_cast<int64_t>(n);
    return n;
  }
  if (!t->download->append(data, n)) {
    t->failure = urlError(URLErrorCode::CannotWriteToFile, t->download->failure(), t->url());
    return 0;
  }
  long status = t->response ? t->response->statusCode : 0;
  if ((status < 200 || status > 299) && t->body.size() < kMaxReplyBody)
    t->body.append(data, std::min(n, kMaxReplyBody - t->body.size()));
  t->received += static_cast<int64_t>(n);
  t->observer->transferDidReceiveBytes(t->received);
  return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  uint64_t left = t->spec->body.length - t->bodyRead;
  if (left == 0) return 0;
  size_t want = static_cast<size_t>(std::min<uint64_t>(size * count, left));
  ssize_t n;
  do {
    n = ::pread(t->fd, buffer, want, static_cast<off_t>(t->spec->body.offset + t->bodyRead));
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    std::string why = n < 0 ? std::string(strerror(errno)) : "the file ends before the range";
    t->failure = urlError(URLErrorCode::Unknown, "cannot read the request body: " + why, t->url());
    return CURL_READFUNC_ABORT;
  }
  t->bodyRead += static_cast<uint64_t>(n);
  return static_cast<size_t>(n);
}

// libcurl rewinds the body to send it again after a redirect.
int onSeek(void* user, curl_off_t offset, int origin) {
  auto* t = static_cast<Transfer*>(user);
  if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > t->spec->body.length)
    return CURL_SEEKFUNC_CANTSEEK;
  t->bodyRead = static_cast<uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

int onUploadProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t sentNow) {
  auto* t = static_cast<Transfer*>(user);
  if (sentNow != t->sent) {
    t->sent = sentNow;
    t->observer->transferDidSendBytes(t->sent);
  }
  return 0;
}

std::string endpoint(std::string_view ip, int port) {
  return std::string(ip) + "|" + std::to_string(port);
}

std::string localEndOf(curl_socket_t fd) {
  sockaddr_storage addr{};
  socklen_t length = sizeof addr;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) return {};
  char ip[INET6_ADDRSTRLEN] = {};
  if (addr.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&addr);
    ::inet_ntop(AF_INET, &in->sin_addr, ip, sizeof ip);
    return endpoint(ip, ntohs(in->sin_port));
  }
  if (addr.ss_family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
    ::inet_ntop(AF_INET6, &in6->sin6_addr, ip, sizeof ip);
    return endpoint(ip, ntohs(in6->sin6_port));
  }
  return {};
}

// Before each request, on the connection it will use (new or kept).
int onRequestReady(void* user, char*, char* localIp, int, int localPort) {
  auto* t = static_cast<Transfer*>(user);
  t->localEnd = endpoint(localIp, localPort);
  return CURL_PREREQFUNC_OK;
}

// A reply that arrived on a connection libcurl gave up on (a server that
// answers an upload from its head and resets the connection makes libcurl's
// next send fail before it reads the reply). Its head goes through the same
// parser as libcurl's; its body is kept as far as it is announced.
void readUnreadReply(Transfer& t) {
  std::string_view rest = t.unread;
  if (!t.response) {
    size_t end = rest.find("\r\n\r\n");
    if (!rest.starts_with("HTTP/") || end == std::string_view::npos) return;
    std::string head(rest.substr(0, end + 4));
    rest.remove_prefix(end + 4);
    for (size_t pos = 0; pos < head.size();) {
      size_t next = head.find("\r\n", pos) + 2;
      onHeader(head.data() + pos, 1, next - pos, &t);
      pos = next;
    }
    if (!t.response) return;
  }
  size_t room = kMaxReplyBody - std::min(kMaxReplyBody, t.body.size());
  if (int64_t announced = t.response->expectedContentLength; announced >= 0)
    room = std::min(room, static_cast<size_t>(std::max<int64_t>(
                              0, announced - static_cast<int64_t>(t.body.size()))));
  t.body.append(rest.substr(0, room));
}

class Engine {
 public:
  Engine() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    thread_ = std::thread([this] { run(); });
  }

  // Runs at exit: the thread is joined, transfers still running are dropped.
  void stop() {
    {
      MutexLock lock(mutex_);
      if (stopping_) return;
      stopping_ = true;
      curl_multi_wakeup(multi_);
    }
    thread_.join();
    curl_multi_cleanup(multi_);
  }

  // libcurl closes a connection; engine thread, or the thread that stops it.
  void connectionClosing(curl_socket_t fd) {
    std::string localEnd;
    for (auto& [easy, t] : transfers_) {
      if (t->isDownload() || t->localEnd.empty()) continue;
      if (localEnd.empty()) localEnd = localEndOf(fd);
      if (t->localEnd != localEnd) continue;
      char chunk[65536];
      while (t->unread.size() < kMaxReplyBody + sizeof chunk) {
        ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n <= 0) break;
        t->unread.append(chunk, static_cast<size_t>(n));
      }
    }
  }

  void post(TransferCommand command, std::shared_ptr<TransferObserver> observer) {
    MutexLock lock(mutex_);
    if (stopping_) return;
    commands_.push_back({command, std::move(observer)});
    curl_multi_wakeup(multi_);
  }

 private:
  struct Command {
    TransferCommand command;
    std::shared_ptr<TransferObserver> observer;
  };

  void run() {
    for (;;) {
      std::deque<Command> commands;
      {
        MutexLock lock(mutex_);
        if (stopping_) break;
        commands.swap(commands_);
      }
      for (auto& c : commands) apply(c);
      int running = 0;
      curl_multi_perform(multi_, &running);
      collectFinished();
      curl_multi_poll(multi_, nullptr, 0, kIdlePollMs, nullptr);
    }
    for (auto& [easy, t] : transfers_) {
      curl_multi_remove_handle(multi_, easy);
      discardFile(*t);
    }
    transfers_.clear();
  }

  void apply(Command& c) {
    Transfer* t = find(c.observer.get());
    switch (c.command) {
      case TransferCommand::Start:
        if (!t) start(std::move(c.observer));
        break;
      case TransferCommand::Pause:
        if (t) curl_easy_pause(t->easy, CURLPAUSE_ALL);
        break;
      case TransferCommand::Resume:
        if (t) curl_easy_pause(t->easy, CURLPAUSE_CONT);
        break;
      case TransferCommand::Cancel:
        if (t) {
          finish(t->easy, CURLE_OK, true);
        } else {
          TransferOutcome outcome;
          outcome.completion.error = urlError(URLErrorCode::Cancelled, "cancelled",
                                              c.observer->transferSpec().request.url);
          c.observer->transferDidComplete(std::move(outcome));
        }
        break;
    }
  }

  Transfer* find(TransferObserver* observer) {
    auto it = byObserver_.find(observer);
    return it == byObserver_.end() ? nullptr : it->second;
  }

  void start(std::shared_ptr<TransferObserver> observer) {
    auto t = std::make_unique<Transfer>();
    t->observer = std::move(observer);
    t->spec = &t->observer->transferSpec();
    if (auto failure = openFile(*t); failure || !(t->easy = curl_easy_init())) {
      TransferOutcome outcome;
      outcome.completion.error =
          failure ? std::move(*failure)
                  : urlError(URLErrorCode::Unknown, "cannot make a transfer", t->url());
      discardFile(*t);
      t->observer->transferDidComplete(std::move(outcome));
      return;
    }
    configure(*t);
    if (curl_multi_add_handle(multi_, t->easy) != CURLM_OK) {
      TransferOutcome outcome;
      outcome.completion.error =
          urlError(URLErrorCode::Unknown, "cannot start a transfer", t->url());
      discardFile(*t);
      t->observer->transferDidComplete(std::move(outcome));
      return;
    }
    byObserver_[t->observer.get()] = t.get();
    CURL* easy = t->easy;
    transfers_.emplace(easy, std::move(t));
  }

  static std::optional<Error> openFile(Transfer& t) {
    const TransferSpec& spec = *t.spec;
    if (spec.kind == TransferKind::Upload) {
      t.fd = ::open(spec.body.path.c_str(), O_RDONLY | O_CLOEXEC);
      if (t.fd < 0)
        return urlError(
            URLErrorCode::FileDoesNotExist,
            "cannot open the request body " + spec.body.path.string() + ": " + strerror(errno),
            spec.request.url);
      return std::nullopt;
    }
    auto file = DownloadFile::create(spec.temporaryDirectory, spec.download.computeSHA1);
    if (!file)
      return urlError(URLErrorCode::CannotCreateFile, file.failure().message, spec.request.url);
    t.download = std::move(*file);
    return std::nullopt;
  }

  // A download's file goes with the transfer that failed.
  static void discardFile(Transfer& t) { t.download.reset(); }

  static int onCloseSocket(void* user, curl_socket_t fd) {
    static_cast<Engine*>(user)->connectionClosing(fd);
    return ::close(fd);
  }

  void configure(Transfer& t) {
    CURL* easy = t.easy;
    const TransferRequest& request = t.spec->request;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorText);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBufferSize);
    long timeout = static_cast<long>(request.timeoutInterval.count());
    if (timeout > 0) {
      curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, timeout);
      curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
      curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, timeout);
    }
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
    // A connection keeps the close callback of the transfer that opened it,
    // so it reaches the engine rather than that transfer.
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, onCloseSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);

    for (const auto& [name, value] : request.headers) {
      // "Name;" is how libcurl is told to send a header with an empty value.
      std::string line = value.empty() ? name + ";" : name + ": " + value;
      t.headers = curl_slist_append(t.headers, line.c_str());
    }
    t.headers = curl_slist_append(t.headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headers);

    if (t.isDownload()) {
      if (request.method == "GET")
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      else
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
      return;
    }
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kBufferSize);
    if (request.method != "PUT")
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(t.spec->body.length));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, onRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, &t);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, onSeek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, &t);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onUploadProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, onRequestReady);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, &t);
  }

  void collectFinished() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
      if (msg->msg == CURLMSG_DONE) finish(msg->easy_handle, msg->data.result, false);
    }
  }

  void finish(CURL* easy, CURLcode rc, bool cancelled) {
    auto it = transfers_.find(easy);
    if (it == transfers_.end()) return;
    std::unique_ptr<Transfer> t = std::move(it->second);
    transfers_.erase(it);
    byObserver_.erase(t->observer.get());
    curl_multi_remove_handle(multi_, easy);

    if (rc != CURLE_OK && !t->unread.empty()) readUnreadReply(*t);
    TransferOutcome outcome;
    outcome.completion.error = outcomeError(*t, rc, cancelled);
    outcome.completion.response = std::move(t->response);
    outcome.completion.body = std::move(t->body);
    outcome.bytesReceived = t->received;
    outcome.bytesSent = t->sent;
    if (outcome.completion.error) {
      discardFile(*t);
    } else if (t->isDownload()) {
      if (auto finished = t->download->finish(); !finished) {
        outcome.completion.error =
            urlError(URLErrorCode::CannotWriteToFile, finished.failure().message, t->url());
      } else {
        outcome.location = t->download->location();
        if (t->spec->download.computeSHA1) outcome.sha1 = std::move(*finished);
      }
    }
    t->observer->transferDidComplete(std::move(outcome));
  }

  static std::optional<Error> outcomeError(Transfer& t, CURLcode rc, bool cancelled) {
    if (cancelled) return urlError(URLErrorCode::Cancelled, "cancelled", t.url());
    if (t.failure) return t.failure;
    if (rc != CURLE_OK) {
      std::string text = t.errorText[0] ? t.errorText : curl_easy_strerror(rc);
      return urlError(codeFor(rc), text, t.url());
    }
    if (!t.isDownload()) {
      // A server may answer from the head alone and stop reading; libcurl
      // then stops sending and may call that success. The body did not all
      // arrive, so for the caller it is a lost connection that still has a
      // response.
      curl_off_t uploaded = 0;
      curl_easy_getinfo(t.easy, CURLINFO_SIZE_UPLOAD_T, &uploaded);
      if (static_cast<uint64_t>(uploaded) < t.spec->body.length)
        return urlError(URLErrorCode::NetworkConnectionLost,
                        "the server answered before the whole request body was sent", t.url());
    }
    return std::nullopt;
  }

  CURLM* multi_ = nullptr;
  std::thread thread_;
  Mutex mutex_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::deque<Command> commands_ GUARDED_BY(mutex_);
  // Engine thread only.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> transfers_;
  std::unordered_map<TransferObserver*, Transfer*> byObserver_;
};

// Stops the engine when the process exits, so its thread is joined rather
// than cut off; the engine itself stays, and commands sent later are dropped.
struct EngineStopper {
  Engine* engine;
  ~EngineStopper() { engine->stop(); }
};

Engine& engine() {
  static Engine* instance = [] {
    auto* e = new Engine;
    static EngineStopper stopper{e};
    return e;
  }();
  return *instance;
}

}  // namespace

void sendTransferCommand(TransferCommand command, std::shared_ptr<TransferObserver> observer) {
  engine().post(command, std::move(observer));
}

}  // namespace hvfp::detail

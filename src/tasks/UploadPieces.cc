// The pieces of an upload attempt: each one HTTP PUT straight to the upload
// server, its body read from the staging copy as it goes out, waited for on
// the task's thread and judged on the main queue when its transfer ends.
#include <sys/stat.h>

#include <algorithm>

#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "records/Json.h"
#include "records/JsonReading.h"
#include "tasks/UploadTask.h"

namespace hvfp {
namespace {

constexpr int kFailedPiecesInARow = 5;
constexpr int64_t kWrongOffset = 40900;
// What of an error body reaches the log.
constexpr size_t kMaxLoggedReply = 1024;

bool isUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    size_t extra;
    if (c < 0x80)
      extra = 0;
    else if (c >= 0xC2 && c <= 0xDF)
      extra = 1;
    else if ((c & 0xF0) == 0xE0)
      extra = 2;
    else if (c >= 0xF0 && c <= 0xF4)
      extra = 3;
    else
      return false;
    if (extra > text.size() - i - 1) return false;
    for (size_t k = 1; k <= extra; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    i += extra + 1;
  }
  return true;
}

// The reply as text for the log: the platform reads a body that is not
// UTF-8 as no text at all; a long one is cut at a character boundary.
std::string_view replyText(std::string_view body) {
  if (!isUtf8(body)) return kNullText;
  if (body.size() <= kMaxLoggedReply) return body;
  size_t cut = kMaxLoggedReply;
  while (cut > 0 && (static_cast<unsigned char>(body[cut]) & 0xC0) == 0x80) --cut;
  return body.substr(0, cut);
}

}  // namespace

uint64_t UploadTask::offset() const {
  MutexLock lock(lock_);
  return ullOffset;
}

UploadTask::Step UploadTask::sendPieces() {
  const uint64_t n = ullFilesize;
  if (n == 0) return Step::Done;
  int failures = 0;
  for (;;) {
    const uint64_t at = offset();
    if (at > n - 1 || failures >= kFailedPiecesInARow) return Step::Done;
    if (bExit) return Step::Stopped;
    const uint64_t length = std::min(getSendSize(n), n - at);
    if (sendPiece(length))
      failures = 0;
    else
      ++failures;
  }
}

bool UploadTask::sendPiece(uint64_t wanted) {
  // A copy that ends early sends what it has: range and length follow it.
  struct stat st {};
  const uint64_t at = offset();
  const uint64_t fileSize = ::fstat(pFileHandle_, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  const uint64_t size = at < fileSize ? std::min(wanted, fileSize - at) : 0;
  if (size == 0) return false;

  TransferRequest request(strUrl + "/upload_part", "PUT");
  request.setValue(strSession, "x-tb-upload-session");
  request.setValue(fmt::format("{}-{}", at, at + size - 1), "x-tb-upload-range");
  request.setValue(std::to_string(size), "Content-Length");
  if (!client().userAgentString.empty()) request.setValue(client().userAgentString, "User-Agent");
  if (!client().languageWithRequestString.empty())
    request.setValue(client().languageWithRequestString, "Accept-Language");
  if (strCookie && !strCookie->empty()) request.setValue(*strCookie, "Cookie");

  auto self = std::static_pointer_cast<UploadTask>(shared_from_this());
  auto session = TransferSession::sessionWithConfiguration({}, self);
  auto transfer = session->uploadTaskWithRequest(std::move(request), {strTemppath, at, size});
  // Every piece has a session of its own, let go once its transfer ends.
  session->finishTasksAndInvalidate();
  if (!transfer) return false;

  MutexLock lock(lock_);
  // Checked under the lock cancellation takes to reach the transfer: a
  // cancellation either sees this transfer or keeps it from starting.
  if (bExit) return false;
  ullSize = size;
  ullRead = 0;
  bSendPiece = false;
  pieceDone_ = false;
  uploadTask = transfer;
  pieceStart_ = std::chrono::steady_clock::now();
  // A pause that came first holds the piece until the resume.
  if (!mProgress() || !mProgress()->isPaused()) transfer->resume();
  wake_.wait(lock, [this]() REQUIRES(lock_) { return pieceDone_; });
  uploadTask.reset();
  return bSendPiece;
}

void UploadTask::didSendBodyData(TransferSession&, TransferTask& task, int64_t,
                                 int64_t totalBytesSent, int64_t) {
  MutexLock lock(lock_);
  if (uploadTask.get() != &task || pieceDone_) return;
  ullRead = std::min(static_cast<uint64_t>(std::max<int64_t>(totalBytesSent, 0)), ullSize);
  showProgress();
}

void UploadTask::didCompleteWithError(TransferSession&, TransferTask& task,
                                      const TransferCompletion& completion) {
  MutexLock lock(lock_);
  if (uploadTask.get() != &task || pieceDone_) return;
  judgePiece(completion);
  pieceDone_ = true;
  wake_.notify_all();
}

// Without a transport error the piece counts as sent whatever its status.
// A server that answers early for a small piece can still have refused it;
// then the close finds the session short and its reply decides, or the next
// attempt's range query gives the server's own offset.
void UploadTask::judgePiece(const TransferCompletion& completion) {
  ullRead = 0;
  if (!completion.error) {
    ullOffset += ullSize;
    bSendPiece = true;
    showProgress();
    return;
  }
  const long status = completion.response ? completion.response->statusCode : 0;
  const std::string& body = completion.body;
  if (!body.empty()) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - pieceStart_).count();
    log("url={},httpcode={},ret={},time={:f}", strUrl, status, replyText(body), elapsed);
  }
  if (!body.empty() && status == 409) {
    auto reply = dictionaryFromData(body);
    if (reply && reply->isObject() && readInteger(*reply, "error_code") == kWrongOffset) {
      // Only an offset inside the file is taken; anything else leaves the
      // piece to be sent again, and the close to find out.
      const int64_t expect = readInteger(*reply, "expect");
      if (expect >= 0 && static_cast<uint64_t>(expect) <= ullFilesize)
        ullOffset = static_cast<uint64_t>(expect);
    }
  } else if (status == 202) {  // the server holds the whole file
    ullOffset = ullFilesize;
  }
  showProgress();
}

// The bytes the server has confirmed plus those of the running piece. A
// piece that fails, or a server that wants bytes again, may pull the count
// back, but never by more than one piece below the highest count shown.
void UploadTask::showProgress() {
  const auto& progress = mProgress();
  if (!progress) return;
  const uint64_t confirmed = std::min(ullOffset, ullFilesize);
  const uint64_t truth = std::min(confirmed + ullRead, ullFilesize);
  const uint64_t piece = getSendSize(ullFilesize);
  const uint64_t floor = shownHighWater_ > piece ? shownHighWater_ - piece : 0;
  const uint64_t shown = std::max(truth, floor);
  shownHighWater_ = std::max(shownHighWater_, shown);
  progress->setCompletedUnitCount(static_cast<int64_t>(shown));
}

}  // namespace hvfp

// One upload attempt against one server, and the four session steps it
// drives through the host: opening the session, the range query, the close
// and the abort. Each step judges the host's reply by its own rules; a
// missing reply reads as status 0, error code 0 and empty texts.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "hostlink/HalvoProviderClient.h"
#include "hostlink/NSStringExpand.h"
#include "tasks/UploadTask.h"

namespace hvfp {
namespace {

constexpr int kStepRequests = 5;
constexpr const char* kOpenFileMessage = "打开文件失败";

int64_t statusOf(const RequestRet* reply) { return reply ? reply->nStatusCode : 0; }
int64_t errorCodeOf(const RequestRet* reply) { return reply ? reply->nErrorCode : 0; }

// The session and the cookie travel in piece headers: a value that could
// end a header line must not reach the wire.
bool isHeaderValue(std::string_view value) {
  for (char c : value)
    if (c == '\r' || c == '\n' || c == '\0') return false;
  return true;
}

}  // namespace

bool UploadTask::openFile() {
  closeFile();
  int fd;
  do {
    fd = ::open(strTemppath.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return false;
  pFileHandle_ = fd;
  struct stat st {};
  return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
         static_cast<uint64_t>(st.st_size) == ullFilesize;
}

void UploadTask::closeFile() {
  if (pFileHandle_ >= 0) ::close(pFileHandle_);
  pFileHandle_ = -1;
}

UploadTask::Step UploadTask::startUpload(const std::string& server) {
  bResetServer = false;
  strUrl = server;
  sessionOpen_ = false;
  if (!openFile()) {
    setError(kErrorOpenFile, kOpenFileMessage);
    return Step::Failed;
  }
  Step step = sendInit();
  if (step == Step::Done) step = sendReq();
  if (step == Step::Done) step = sendPieces();
  // The close runs however the pieces ended: its reply decides.
  if (step == Step::Done) step = sendFinish();
  if (step == Step::Stopped && sessionOpen_) sendAbort();
  closeFile();
  return step;
}

UploadTask::Step UploadTask::sendInit() {
  for (int request = 1; request <= kStepRequests; ++request) {
    if (bExit) return Step::Stopped;
    RetUploadInitRef reply =
        client().uploadInit(strUrl, getFilename(strWebpath), strUuidHash, strFilehash, ullFilesize,
                            nMountID, strStoragePoint, strCookie);
    const int64_t status = statusOf(reply.get());
    if (status == 200) keepCookie(*reply);
    if (status == 200 && !reply->session.empty() && isHeaderValue(reply->session.view())) {
      strSession = std::string(reply->session.view());
      sessionOpen_ = true;
      return Step::Done;
    }
    if (status == 202) {  // the server holds the whole file already
      setFinish();
      return Step::Complete;
    }
    if (status >= 500 || errorCodeOf(reply.get()) == 40309 || status == 0) {
      bResetServer = true;
      return Step::Failed;
    }
    if (request == kStepRequests) {
      reportStepFailure(reply.get(), kErrorInit);
      return Step::Failed;
    }
    if (!pause(timing.stepPause)) return Step::Stopped;
  }
  return Step::Failed;
}

UploadTask::Step UploadTask::sendReq() {
  for (int request = 1; request <= kStepRequests; ++request) {
    if (bExit) return Step::Stopped;
    RetUploadReqRef reply = client().uploadReq(strUrl, strSession, strCookie);
    const int64_t status = statusOf(reply.get());
    if (status == 200) {
      keepCookie(*reply);
      MutexLock lock(lock_);
      ullOffset = reply->offset;
      return Step::Done;
    }
    if (status == 401) {  // the session is gone: open another, then ask again
      Step reopened = sendInit();
      if (reopened != Step::Done) return reopened;
    }
    if (request == kStepRequests) {
      reportStepFailure(reply.get(), kErrorRange);
      return Step::Failed;
    }
    if (!pause(timing.stepPause)) return Step::Stopped;
  }
  return Step::Failed;
}

UploadTask::Step UploadTask::sendFinish() {
  for (int request = 1; request <= kStepRequests; ++request) {
    if (bExit) return Step::Stopped;
    RequestRetRef reply = client().uploadFinish(strUrl, strSession, ullFilesize, strCookie);
    const int64_t status = statusOf(reply.get());
    const int64_t code = errorCodeOf(reply.get());
    if (status == 200) {
      keepCookie(*reply);
      sessionOpen_ = false;
      setFinish();
      return Step::Complete;
    }
    if (status == 409 || (status >= 500 && code == 51300)) {
      setError(code, reply->strErrorMsg);
      return Step::Failed;
    }
    if (status >= 500) {
      bResetServer = true;
      return Step::Failed;
    }
    if (request == kStepRequests) {
      reportStepFailure(reply.get(), kErrorClose);
      return Step::Failed;
    }
    if (!pause(timing.closePause)) return Step::Stopped;
  }
  return Step::Failed;
}

bool UploadTask::sendAbort() {
  sessionOpen_ = false;
  RequestRetRef reply = client().uploadAbort(strUrl, strSession, strCookie);
  return statusOf(reply.get()) == 200;
}

void UploadTask::keepCookie(const RequestRet& reply) {
  if (!reply.strCookie.empty() && isHeaderValue(reply.strCookie.view()))
    strCookie = std::string(reply.strCookie.view());
}

void UploadTask::reportStepFailure(const RequestRet* reply, int64_t fallback) {
  if (reply && reply->nErrorCode > 0)
    setError(reply->nErrorCode, reply->strErrorMsg);
  else
    setError(fallback, "");
}

}  // namespace hvfp

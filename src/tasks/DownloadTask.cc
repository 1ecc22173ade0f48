#include "tasks/DownloadTask.h"

#include <fcntl.h>
#include <stdio.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"

namespace hvfp {
namespace {

constexpr int64_t kStatusAvailableLocally = 3;
constexpr size_t kMaxContentHash = 128;

bool isAlnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Only a hash in SHA-1's shape can be checked against the bytes; any other
// is the host's own name for the contents.
bool isSHA1Hex(const std::string& hash) {
  if (hash.size() != 40) return false;
  for (char c : hash)
    if (!isHexDigit(c)) return false;
  return true;
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
  size_t n = ::strlen(prefix);
  return text.size() > n && ::strncasecmp(text.c_str(), prefix, n) == 0;
}

bool isHttpAddress(const std::string& address) {
  return startsWithNoCase(address, "http://") || startsWithNoCase(address, "https://");
}

bool isRegularFile(const std::filesystem::path& path, bool followLinks) {
  std::error_code ec;
  auto status =
      followLinks ? std::filesystem::status(path, ec) : std::filesystem::symlink_status(path, ec);
  return !ec && std::filesystem::is_regular_file(status);
}

// Moves `from` to `to` unless `to` is already there: a copy of the same
// contents that an earlier download verified, which a reader may hold open.
// True when `to` is then a regular file.
bool moveIntoPlace(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EINVAL || errno == ENOSYS) {
    // A file system without RENAME_NOREPLACE: link(2) never replaces either.
    if (::link(from.c_str(), to.c_str()) == 0) {
      ::unlink(from.c_str());
      return true;
    }
  }
  return errno == EEXIST && isRegularFile(to, false);
}

}  // namespace

DownloadTask::DownloadTask(HalvoProviderClient& client, OperationQueue& followUpQueue,
                           std::string itemIdentifier)
    : HVTask(client), followUpQueue_(followUpQueue) {
  mItemIdentifier = std::move(itemIdentifier);
  downloadHandler_.setFallback([](auto& handler) {
    handler(std::nullopt, nullptr, Error::cocoa(ErrorCode::CloudNetworkFailure));
  });
}

bool DownloadTask::isSafeContentHash(const std::string& hash) {
  if (hash.empty() || hash.size() > kMaxContentHash) return false;
  for (char c : hash)
    if (!isAlnum(c)) return false;
  return true;
}

std::shared_ptr<TransferTask> DownloadTask::downloadTask() const {
  MutexLock lock(transferLock_);
  return downloadTask_;
}

void DownloadTask::body() {
  if (bExit) return;  // cancelled while queued, and answered then
  RetOpenRef info = client().getDownloadInfo(mItemIdentifier);
  if (!info || info->nStatusCode != 200) return fail(ErrorCode::LookupFailed);
  std::string hash(info->strFileHash.view());
  std::string fullPath(info->strFullPath.view());
  if (!isSafeContentHash(hash)) return fail(ErrorCode::CloudNetworkFailure);
  if (fullPath.empty() && info->urlArray.empty()) return fail(ErrorCode::CloudNetworkFailure);

  if (const auto& progress = mProgress())
    progress->setTotalUnitCount(static_cast<int64_t>(info->ullFileSize));
  strFilehash = hash;
  ullFilesize = info->ullFileSize;

  if (!fullPath.empty()) return answerFromLocalCopy(fullPath);
  startTransfer(info->urlArray.front());
}

void DownloadTask::answerFromLocalCopy(const std::string& fullPath) {
  std::filesystem::path path(fullPath);
  if (!path.is_absolute() || !isRegularFile(path, true))
    return fail(ErrorCode::CloudNetworkFailure);
  if (!downloadHandler_.isSet()) return;
  client().updateStauts(mItemIdentifier, kStatusAvailableLocally);
  report(fullPath, FileProviderItem::initWithItemIdentifier(mItemIdentifier, client()),
         std::nullopt);
}

void DownloadTask::startTransfer(const std::string& address) {
  tempPath_ = client().strTempPath();
  if (tempPath_.empty() || !isHttpAddress(address)) return fail(ErrorCode::CloudNetworkFailure);

  auto self = std::static_pointer_cast<DownloadTask>(shared_from_this());
  auto session = TransferSession::sessionWithConfiguration({tempPath_}, self);
  auto transfer = session->downloadTaskWithRequest(TransferRequest(address),
                                                   {.computeSHA1 = isSHA1Hex(strFilehash)});
  if (!transfer) return fail(ErrorCode::CloudNetworkFailure);
  {
    MutexLock lock(transferLock_);
    // Checked under the lock that cancellation takes to reach the transfer,
    // so a cancellation either sees this transfer or stops it from starting.
    if (!bExit) {
      downloadTask_ = transfer;
      // A pause that came first holds the transfer until the resume.
      if (!mProgress() || !mProgress()->isPaused()) transfer->resume();
      return;
    }
  }
  session->invalidateAndCancel();
}

void DownloadTask::didWriteData(TransferSession&, TransferTask& task, int64_t,
                                int64_t totalBytesWritten, int64_t) {
  if (const auto& progress = mProgress()) progress->setCompletedUnitCount(totalBytesWritten);
  // Bytes beyond the size the host gave cannot be these contents, and a
  // server that never ends its body must not fill the disk.
  if (totalBytesWritten > 0 && static_cast<uint64_t>(totalBytesWritten) > ullFilesize) {
    fail(ErrorCode::CloudNetworkFailure);
    task.cancel();
    return;
  }
  if (bExit) task.cancel();
}

bool DownloadTask::isWholeAndIntact(const TransferTask& task) const {
  auto response = task.response();
  if (!response || response->statusCode < 200 || response->statusCode > 299) return false;
  int64_t received = task.countOfBytesReceived();
  int64_t announced = task.countOfBytesExpectedToReceive();
  if (received < 0 || static_cast<uint64_t>(received) != ullFilesize) return false;
  if (announced >= 0 && received < announced) return false;
  if (!isSHA1Hex(strFilehash)) return true;
  auto digest = task.receivedSHA1();
  return digest && ::strcasecmp(digest->c_str(), strFilehash.c_str()) == 0;
}

void DownloadTask::didFinishDownloadingToURL(TransferSession&, TransferTask& task,
                                             const std::filesystem::path& location) {
  // Cancelled: already answered, and the copy goes with the transfer.
  if (bExit) return;
  if (!isWholeAndIntact(task)) return fail(ErrorCode::CloudNetworkFailure);
  std::string destination = tempPath_ + "/" + strFilehash;
  if (!moveIntoPlace(location, destination)) return fail(ErrorCode::CloudNetworkFailure);
  delivered_ = true;
  deliver(destination);
}

void DownloadTask::deliver(const std::string& path) {
  auto self = std::static_pointer_cast<DownloadTask>(shared_from_this());
  followUpQueue_.addOperationWithBlock([self, path] {
    try {
      self->client().addFileToCache(path, self->strFilehash);
      // Cancelled meanwhile: the framework has its answer and wants no more.
      if (!self->downloadHandler_.isSet()) return;
      self->client().updateStauts(self->mItemIdentifier, kStatusAvailableLocally);
      self->report(path,
                   FileProviderItem::initWithItemIdentifier(self->mItemIdentifier, self->client()),
                   std::nullopt);
    } catch (const std::exception& e) {
      log("task {} ended by exception: {}", self->mItemIdentifier, e.what());
      self->fail(ErrorCode::CloudNetworkFailure);
    }
  });
}

void DownloadTask::didCompleteWithError(TransferSession& session, TransferTask& task,
                                        const TransferCompletion& completion) {
  if (completion.error) {
    // A 2xx whose body broke off before its announced end is no contents,
    // whatever the connection did.
    auto response = completion.response;
    int64_t received = task.countOfBytesReceived();
    bool cutShort = completion.error->code != URLErrorCode::Cancelled && response &&
                    response->statusCode >= 200 && response->statusCode <= 299 &&
                    (received < response->expectedContentLength ||
                     static_cast<uint64_t>(received) < ullFilesize);
    if (cutShort)
      fail(ErrorCode::CloudNetworkFailure);
    else
      report(std::nullopt, nullptr, *completion.error);
  } else if (!delivered_) {
    fail(ErrorCode::CloudNetworkFailure);
  }
  session.finishTasksAndInvalidate();
}

void DownloadTask::report(std::optional<std::string> path, NSFileProviderItemRef item,
                          std::optional<Error> error) {
  downloadHandler_(std::move(path), std::move(item), std::move(error));
  releaseProgressHandlers();
}

void DownloadTask::failAfterException() {
  fail(ErrorCode::CloudNetworkFailure);
  exit();
  if (auto transfer = downloadTask()) transfer->cancel();
}

void DownloadTask::cancelled() {
  fail(ErrorCode::Cancelled);
  if (auto transfer = downloadTask()) transfer->cancel();
}

void DownloadTask::paused() {
  MutexLock lock(transferLock_);
  if (downloadTask_) downloadTask_->suspend();
}

void DownloadTask::resumed() {
  MutexLock lock(transferLock_);
  if (downloadTask_) downloadTask_->resume();
}

}  // namespace hvfp

// DownloadTask: delivers an item's contents for a content fetch. It asks the
// host where the contents are; a file the host holds locally is handed over
// as it is, anything else is downloaded from the first address the host
// names into the domain's temporary directory, under the content hash, and
// kept there for later fetches of the same contents.
//
// Every reply of the host and every byte from the network is untrusted: the
// content hash must be a plain file name, the host's local path an existing
// regular file, the address http or https, the response a 2xx, the body
// exactly as long as announced (a body that runs past that size is stopped
// there) and, for a SHA-1 content hash, of that digest. Anything else ends
// in NSCocoaErrorDomain 5120 with nothing left behind.
//
// Ownership: made with std::make_shared by the content fetch, which gives it
// its progress and the framework's handler and adds it to the task queue.
// While a transfer runs the task is its session's delegate, and so lives
// until the transfer has ended and the session let it go. The follow-up
// queue (the extension's task queue) must outlive every transfer.
//
// Threads: main() on a queue worker; the transfer callbacks on the main
// queue, which never blocks: host queries after a finished transfer run on
// the follow-up queue, and the handler is called from there. Progress
// handlers on the framework's threads. The running transfer is guarded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/ThreadAnnotations.h"
#include "platform/fileprovider/FileProvider.h"
#include "platform/http/TransferSession.h"
#include "tasks/HVTask.h"
#include "tasks/OnceHandler.h"

namespace hvfp {

class DownloadTask final : public HVTask, public TransferSessionDelegate {
 public:
  using Handler = NSFileProviderFetchHandler;

  // init: with the identifier of the item whose contents are wanted.
  DownloadTask(HalvoProviderClient& client, OperationQueue& followUpQueue,
               std::string itemIdentifier);

  // From the download information, once main() has read it.
  uint64_t ullFilesize = 0;
  std::string strFilehash;
  std::string strFilename;  // nothing fills or reads it

  // Called exactly once with (file path, item, none) or (none, none, error).
  void setDownloadHandler(Handler handler) { downloadHandler_.set(std::move(handler)); }
  // The running transfer, once main() has started one.
  std::shared_ptr<TransferTask> downloadTask() const EXCLUDES(transferLock_);

  // Whether `hash` may name a file: 1 to 128 characters of [0-9A-Za-z].
  static bool isSafeContentHash(const std::string& hash);

  // Transfer callbacks (main queue).
  void didWriteData(TransferSession& session, TransferTask& task, int64_t bytesWritten,
                    int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloadingToURL(TransferSession& session, TransferTask& task,
                                 const std::filesystem::path& location) override;
  void didCompleteWithError(TransferSession& session, TransferTask& task,
                            const TransferCompletion& completion) override;

 protected:
  void body() override;
  void failAfterException() override;
  void cancelled() override;
  void paused() override;
  void resumed() override;

 private:
  void answerFromLocalCopy(const std::string& fullPath);
  void startTransfer(const std::string& address);
  // The copy at `location` checks out against what the host announced.
  bool isWholeAndIntact(const TransferTask& task) const;
  // Hands a verified copy over from the follow-up queue.
  void deliver(const std::string& path);
  void report(std::optional<std::string> path, NSFileProviderItemRef item,
              std::optional<Error> error);
  void fail(int64_t code) { report(std::nullopt, nullptr, Error::cocoa(code)); }

  OperationQueue& followUpQueue_;
  OnceHandler<std::optional<std::string>, NSFileProviderItemRef, std::optional<Error>>
      downloadHandler_;
  std::string tempPath_;    // the directory the download is written in
  bool delivered_ = false;  // main queue only: a copy went to the follow-up queue

  mutable Mutex transferLock_;
  std::shared_ptr<TransferTask> downloadTask_ GUARDED_BY(transferLock_);
};

}  // namespace hvfp

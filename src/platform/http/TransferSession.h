// TransferSession: the URL session of downloads and upload pieces.
//
// A session is made with a delegate and the main queue as delegate queue;
// it makes tasks, which start suspended and run once resume() is called.
// Every task's callbacks reach the delegate on the main queue, in order:
//   download: didWriteData* then, without error, didFinishDownloadingToURL;
//   upload:   didSendBodyData*;
//   both, exactly once, last: didCompleteWithError.
// A download streams to a new file in the configuration's temporary
// directory; that file is removed after didFinishDownloadingToURL returns
// unless the delegate moved it, and at once on failure or cancellation. An
// upload reads its body from a file range as it goes out. The HTTP status is
// not judged: an error status is a response like any other.
//
// Ownership: the session holds its delegate until it has been invalidated
// and its tasks have completed; a running task holds its session. So a
// delegate that keeps its task stays alive until the session is invalidated:
// call finishTasksAndInvalidate() (or invalidateAndCancel()) on every session.
//
// Threads: every member may be called from any thread; the delegate is
// called on the delegate queue only and may call back into sessions and
// tasks. All transfers are driven by one process-wide thread (TransferEngine)
// whose connection cache keeps connections alive across sessions.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/ThreadAnnotations.h"
#include "platform/dispatch/MainQueue.h"
#include "platform/http/TransferEngine.h"
#include "platform/http/TransferTypes.h"
#include "platform/http/URLError.h"

namespace hvfp {

class TransferSession;
class TransferTask;

class TransferSessionDelegate {
 public:
  virtual ~TransferSessionDelegate() = default;

  // Download progress; `totalBytesExpectedToWrite` is -1 when the response
  // announced no length.
  virtual void didWriteData(TransferSession&, TransferTask&, int64_t /*bytesWritten*/,
                            int64_t /*totalBytesWritten*/, int64_t /*totalBytesExpectedToWrite*/) {}
  // The whole body is in the file at `location`. Move it away to keep it.
  virtual void didFinishDownloadingToURL(TransferSession&, TransferTask&,
                                         const std::filesystem::path& /*location*/) {}
  virtual void didSendBodyData(TransferSession&, TransferTask&, int64_t /*bytesSent*/,
                               int64_t /*totalBytesSent*/, int64_t /*totalBytesExpectedToSend*/) {}
  virtual void didCompleteWithError(TransferSession&, TransferTask&,
                                    const TransferCompletion& /*completion*/) {}
};

struct TransferSessionConfiguration {
  // Where downloads are written; the system's temporary directory when empty.
  std::filesystem::path temporaryDirectory;
};

class TransferTask : public std::enable_shared_from_this<TransferTask>,
                     private detail::TransferObserver {
 public:
  enum class State { Running, Suspended, Canceling, Completed };

  ~TransferTask() override;
  TransferTask(const TransferTask&) = delete;
  TransferTask& operator=(const TransferTask&) = delete;

  uint64_t taskIdentifier() const { return identifier_; }
  const TransferRequest& originalRequest() const { return spec_.request; }
  bool isDownload() const { return spec_.kind == detail::TransferKind::Download; }

  // Starts the task, or goes on where suspend() left it.
  void resume();
  // Holds the transfer where it is; the connection stays open.
  void suspend();
  // Stops the transfer; the task completes with URLErrorCode::Cancelled
  // unless it had already completed.
  void cancel();
  // Commands after completion are ignored.

  State state() const;
  // The last response head received, once one has arrived.
  std::optional<TransferResponse> response() const;
  int64_t countOfBytesReceived() const;           // body bytes so far
  int64_t countOfBytesExpectedToReceive() const;  // announced length, -1 unknown
  int64_t countOfBytesSent() const;
  int64_t countOfBytesExpectedToSend() const;
  // SHA-1 (lowercase hex) of the downloaded body, for a download made with
  // computeSHA1; set before didFinishDownloadingToURL is called.
  std::optional<std::string> receivedSHA1() const;

 private:
  friend class TransferSession;
  TransferTask(std::shared_ptr<TransferSession> session, uint64_t identifier,
               detail::TransferSpec spec);

  // Engine thread.
  const detail::TransferSpec& transferSpec() const override { return spec_; }
  void transferDidReceiveResponse(const TransferResponse& response) override;
  void transferDidReceiveBytes(int64_t totalReceived) override;
  void transferDidSendBytes(int64_t totalSent) override;
  void transferDidComplete(detail::TransferOutcome outcome) override;

  // Delegate queue.
  void deliverProgress(TransferSessionDelegate* delegate);
  void deliverCompletion(detail::TransferOutcome& outcome);

  void send(detail::TransferCommand command);
  // Engine thread: whether `total` bytes is worth a report to the delegate.
  bool progressDue(int64_t total);
  void queueProgress();

  const std::shared_ptr<TransferSession> session_;
  const uint64_t identifier_;
  const detail::TransferSpec spec_;

  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::Suspended;
  bool handedOver_ GUARDED_BY(mutex_) = false;  // the engine will report its end
  bool completed_ GUARDED_BY(mutex_) = false;
  std::optional<TransferResponse> response_ GUARDED_BY(mutex_);
  int64_t received_ GUARDED_BY(mutex_) = 0;
  int64_t expectedToReceive_ GUARDED_BY(mutex_) = -1;
  int64_t sent_ GUARDED_BY(mutex_) = 0;
  std::optional<std::string> sha1_ GUARDED_BY(mutex_);
  // At most one progress report waits on the delegate queue per task, so a
  // slow queue costs no memory whatever the transfer's size.
  bool progressQueued_ GUARDED_BY(mutex_) = false;
  int64_t progressReported_ GUARDED_BY(mutex_) = 0;
  // Engine thread only: the count last found due for a report, and when.
  struct {
    int64_t bytes = 0;
    std::chrono::steady_clock::time_point at{};
  } lastNoticed_;
};

class TransferSession : public std::enable_shared_from_this<TransferSession> {
 public:
  static std::shared_ptr<TransferSession> sessionWithConfiguration(
      TransferSessionConfiguration configuration, std::shared_ptr<TransferSessionDelegate> delegate,
      MainQueue& delegateQueue = MainQueue::shared());

  // A new suspended task; null once the session has been invalidated.
  std::shared_ptr<TransferTask> downloadTaskWithRequest(TransferRequest request,
                                                        DownloadOptions options = {});
  std::shared_ptr<TransferTask> uploadTaskWithRequest(TransferRequest request, BodyFileRange body);

  // No new tasks; once the tasks made so far have completed (or were dropped
  // without being resumed), the delegate is released on the delegate queue.
  void finishTasksAndInvalidate();
  // The same, cancelling every task not yet completed.
  void invalidateAndCancel();

  const TransferSessionConfiguration& configuration() const { return configuration_; }
  MainQueue& delegateQueue() const { return queue_; }
  // Null once released.
  std::shared_ptr<TransferSessionDelegate> delegate() const;

 private:
  friend class TransferTask;
  TransferSession(TransferSessionConfiguration configuration,
                  std::shared_ptr<TransferSessionDelegate> delegate, MainQueue& queue);

  std::shared_ptr<TransferTask> makeTask(detail::TransferSpec spec);
  // A task has completed or was dropped before it ever started.
  void taskEnded(uint64_t identifier, bool onDelegateQueue);
  void releaseDelegateIfDone(bool onDelegateQueue);

  const TransferSessionConfiguration configuration_;
  MainQueue& queue_;

  mutable Mutex mutex_;
  std::shared_ptr<TransferSessionDelegate> delegate_ GUARDED_BY(mutex_);
  bool invalidated_ GUARDED_BY(mutex_) = false;
  uint64_t nextIdentifier_ GUARDED_BY(mutex_) = 1;
  std::map<uint64_t, std::weak_ptr<TransferTask>> outstanding_ GUARDED_BY(mutex_);
};

}  // namespace hvfp

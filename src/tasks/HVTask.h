// HVTask: the base of the queued operations that carry the framework's
// fetches, creations and modifications to the host and the cloud. A task
// holds the identifiers it works on, the progress object the framework was
// handed, and (in each subclass) the framework's completion handler behind a
// OnceHandler.
//
// Ownership: made with std::make_shared by the extension, given its progress
// and handler, and added to a queue that holds it while main() runs. The
// handlers it installs on the progress hold it too, until it has reported;
// a download also lives on as its transfer session's delegate.
//
// Threads: main() runs once on a queue worker; the progress handlers run on
// the thread that cancels, pauses or resumes; transfer callbacks on the main
// queue. The identifiers and fields mask are set before the task is queued
// and never change; bExit is atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Progress.h"
#include "platform/dispatch/OperationQueue.h"

namespace hvfp {

class HalvoProviderClient;

class HVTask : public Operation, public std::enable_shared_from_this<HVTask> {
 public:
  explicit HVTask(HalvoProviderClient& client) : client_(client) {}

  // Stop request: polled by transfers and the upload's loops.
  std::atomic<bool> bExit{false};
  void exit() { bExit = true; }

  std::string mItemIdentifier;
  std::string mParentIdentifier;
  uint64_t nProviderItemFields = 0;

  const std::shared_ptr<Progress>& mProgress() const { return mProgress_; }
  // Stores the progress and installs the task's handlers on it: cancellation
  // sets bExit and reports the cancel error through the completion handler
  // (cancelled()), pausing and resuming reach paused() and resumed().
  virtual void setMProgress(std::shared_ptr<Progress> progress);

  // Runs the subclass's body; an exception that escapes it is logged and
  // reported as the task's failure, so no path leaves the handler uncalled.
  void main() final;

 protected:
  HalvoProviderClient& client() const { return client_; }

  virtual void body() = 0;
  virtual void failAfterException() = 0;
  // Reports the cancel error (3072) in the subclass's handler shape.
  virtual void cancelled() = 0;
  virtual void paused() {}
  virtual void resumed() {}
  // Called once the completion handler has been answered: the progress
  // handlers let go of the task, which then dies with its last owner.
  void releaseProgressHandlers();

 private:
  HalvoProviderClient& client_;
  std::shared_ptr<Progress> mProgress_;
};

}  // namespace hvfp

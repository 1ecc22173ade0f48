// OperationQueue: runs added operations concurrently, unordered.
//
// Each added operation starts on a free worker at once; when none is free a
// new worker is started, up to 64 (tasks block for long on host queries and
// transfers, so the queue grows rather than makes them wait). Owned by its
// creator; the destructor waits for running operations and joins the workers.
// addOperation may be called from any thread, including from an operation.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace hvfp {

class Operation {
 public:
  virtual ~Operation() = default;
  // The operation's body; runs once on a queue worker. An exception thrown out
  // of it is caught and logged by the queue.
  virtual void main() = 0;
};

class OperationQueue {
 public:
  static constexpr size_t kMaxWorkers = 64;

  OperationQueue() = default;
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  void addOperation(std::shared_ptr<Operation> op);
  void addOperationWithBlock(std::function<void()> block);
  // Blocks until nothing is queued or running.
  void waitUntilAllOperationsAreFinished();
  size_t operationCount() const;

 private:
  void workerLoop();

  bool isIdle() const REQUIRES(mutex_) { return pending_.empty() && running_ == 0; }

  mutable Mutex mutex_;
  std::condition_variable_any wake_;
  std::condition_variable_any idle_;
  std::deque<std::shared_ptr<Operation>> pending_ GUARDED_BY(mutex_);
  std::vector<std::thread> workers_ GUARDED_BY(mutex_);
  size_t freeWorkers_ GUARDED_BY(mutex_) = 0;
  size_t running_ GUARDED_BY(mutex_) = 0;
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace hvfp

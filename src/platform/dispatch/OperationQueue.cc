#include "platform/dispatch/OperationQueue.h"

#include <exception>

#include "platform/Log.h"

namespace hvfp {
namespace {

class BlockOperation final : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}
  void main() override { block_(); }

 private:
  std::function<void()> block_;
};

}  // namespace

OperationQueue::~OperationQueue() {
  std::vector<std::thread> workers;
  {
    MutexLock lock(mutex_);
    idle_.wait(lock, [&]() REQUIRES(mutex_) { return isIdle(); });
    stopping_ = true;
    workers = std::move(workers_);
  }
  wake_.notify_all();
  for (auto& t : workers) t.join();
}

void OperationQueue::addOperation(std::shared_ptr<Operation> op) {
  if (!op) return;
  MutexLock lock(mutex_);
  pending_.push_back(std::move(op));
  if (freeWorkers_ >= pending_.size() || workers_.size() >= kMaxWorkers) {
    wake_.notify_one();
    return;
  }
  workers_.emplace_back([this] { workerLoop(); });
}

void OperationQueue::addOperationWithBlock(std::function<void()> block) {
  addOperation(std::make_shared<BlockOperation>(std::move(block)));
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  MutexLock lock(mutex_);
  idle_.wait(lock, [&]() REQUIRES(mutex_) { return isIdle(); });
}

size_t OperationQueue::operationCount() const {
  MutexLock lock(mutex_);
  return pending_.size() + running_;
}

void OperationQueue::workerLoop() {
  MutexLock lock(mutex_);
  for (;;) {
    ++freeWorkers_;
    wake_.wait(lock, [&]() REQUIRES(mutex_) { return stopping_ || !pending_.empty(); });
    --freeWorkers_;
    if (pending_.empty()) return;  // stopping
    auto op = std::move(pending_.front());
    pending_.pop_front();
    ++running_;
    lock.unlock();
    try {
      op->main();
    } catch (const std::exception& e) {
      log("operation ended by exception: {}", e.what());
    } catch (...) {
      log("operation ended by exception");
    }
    op.reset();
    lock.lock();
    --running_;
    if (isIdle()) idle_.notify_all();
  }
}

}  // namespace hvfp

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
  {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [&] { return pending_.empty() && running_ == 0; });
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& t : workers_) t.join();
}

void OperationQueue::addOperation(std::shared_ptr<Operation> op) {
  if (!op) return;
  std::lock_guard lock(mutex_);
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
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [&] { return pending_.empty() && running_ == 0; });
}

size_t OperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return pending_.size() + running_;
}

void OperationQueue::workerLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++freeWorkers_;
    wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
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
    if (pending_.empty() && running_ == 0) idle_.notify_all();
  }
}

}  // namespace hvfp

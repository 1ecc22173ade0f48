#include "driver/ListAhead.h"

#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <utility>

#include "platform/Log.h"

namespace hvfp::driver {

ListAhead::ListAhead(Fill fill) : fill_(std::move(fill)) {}

ListAhead::~ListAhead() {
  std::vector<std::thread> threads;
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    queue_.clear();
    queued_.clear();
    threads.swap(threads_);
    wake_.notify_all();
  }
  for (auto& t : threads) t.join();
}

void ListAhead::want(const std::vector<uint64_t>& folders) {
  if (folders.empty()) return;
  MutexLock lock(mutex_);
  if (stopping_) return;
  // A folder of thousands of subfolders wishes for its first ones.
  for (size_t i = 0; i < folders.size() && i < kMaxQueued; ++i) {
    uint64_t folder = folders[i];
    if (!queued_.insert(folder).second) continue;
    queue_.push_back(folder);
    if (queue_.size() > kMaxQueued) {
      queued_.erase(queue_.front());
      queue_.pop_front();
    }
  }
  if (threads_.empty())
    for (size_t i = 0; i < kThreads; ++i) threads_.emplace_back([this] { run(); });
  wake_.notify_all();
}

void ListAhead::run() {
  // Behind the requests of whoever reads the folders: on a busy machine
  // their answers come first, and these run in the gaps.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNice);
  MutexLock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&]() REQUIRES(mutex_) { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    uint64_t folder = queue_.front();
    queue_.pop_front();
    queued_.erase(folder);
    lock.unlock();
    try {
      fill_(folder);
    } catch (const std::exception& e) {
      log("driver: listing ahead stopped by exception: {}", e.what());
    }
    lock.lock();
  }
}

}  // namespace hvfp::driver

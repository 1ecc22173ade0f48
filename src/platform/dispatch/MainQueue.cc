#include "platform/dispatch/MainQueue.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <thread>

#include "platform/Log.h"

namespace hvfp {

struct MainQueue::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> blocks;
  std::thread::id threadId;
};

MainQueue::MainQueue() : state_(new State) {
  // Lives for the whole process: the thread is detached and never stopped, so
  // late callbacks during exit still find their queue.
  std::thread([s = state_] {
    std::unique_lock lock(s->mutex);
    s->threadId = std::this_thread::get_id();
    for (;;) {
      s->wake.wait(lock, [&] { return !s->blocks.empty(); });
      auto block = std::move(s->blocks.front());
      s->blocks.pop_front();
      lock.unlock();
      try {
        block();
      } catch (const std::exception& e) {
        log("main queue block ended by exception: {}", e.what());
      } catch (...) {
        log("main queue block ended by exception");
      }
      block = nullptr;  // what it captured is released outside the lock
      lock.lock();
    }
  }).detach();
}

MainQueue& MainQueue::shared() {
  static MainQueue* queue = new MainQueue;
  return *queue;
}

void MainQueue::async(std::function<void()> block) {
  {
    std::lock_guard lock(state_->mutex);
    state_->blocks.push_back(std::move(block));
  }
  state_->wake.notify_one();
}

void MainQueue::drain() {
  std::promise<void> done;
  auto future = done.get_future();
  async([&done] { done.set_value(); });
  future.wait();
}

bool MainQueue::isCurrent() const {
  std::lock_guard lock(state_->mutex);
  return state_->threadId == std::this_thread::get_id();
}

}  // namespace hvfp

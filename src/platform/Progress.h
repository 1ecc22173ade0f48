// Progress: the progress object handed between the framework and a task.
//
// Shared (std::shared_ptr) by the framework call that made it and the task
// that reports through it. Counts and state may be read and changed from any
// thread. Handlers run on the thread that triggers the event, outside the
// object's lock, each at most once per event: a second cancel() does nothing,
// and a cancellation handler set after cancel() runs at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace hvfp {

class Progress {
 public:
  using Handler = std::function<void()>;

  static std::shared_ptr<Progress> make(int64_t totalUnitCount = -1) {
    auto p = std::make_shared<Progress>();
    p->setTotalUnitCount(totalUnitCount);
    return p;
  }

  int64_t totalUnitCount() const { return total_.load(); }
  void setTotalUnitCount(int64_t v) { total_.store(v); }
  int64_t completedUnitCount() const { return completed_.load(); }
  void setCompletedUnitCount(int64_t v) { completed_.store(v); }

  bool isCancelled() const;
  bool isPaused() const;

  void cancel();
  void pause();
  void resume();

  void setCancellationHandler(Handler h);
  void setPausingHandler(Handler h);
  void setResumingHandler(Handler h);

 private:
  mutable std::mutex mutex_;
  std::atomic<int64_t> total_{-1};
  std::atomic<int64_t> completed_{0};
  bool cancelled_ = false;
  bool paused_ = false;
  Handler onCancel_, onPause_, onResume_;
};

}  // namespace hvfp

#include "platform/Progress.h"

namespace hvfp {

bool Progress::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

bool Progress::isPaused() const {
  std::lock_guard lock(mutex_);
  return paused_;
}

void Progress::cancel() {
  Handler h;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    h = std::move(onCancel_);
  }
  if (h) h();
}

void Progress::pause() {
  Handler h;
  {
    std::lock_guard lock(mutex_);
    if (paused_ || cancelled_) return;
    paused_ = true;
    h = onPause_;
  }
  if (h) h();
}

void Progress::resume() {
  Handler h;
  {
    std::lock_guard lock(mutex_);
    if (!paused_) return;
    paused_ = false;
    h = onResume_;
  }
  if (h) h();
}

void Progress::setCancellationHandler(Handler h) {
  {
    std::lock_guard lock(mutex_);
    if (!cancelled_) {
      onCancel_ = std::move(h);
      return;
    }
  }
  if (h) h();
}

void Progress::setPausingHandler(Handler h) {
  std::lock_guard lock(mutex_);
  onPause_ = std::move(h);
}

void Progress::setResumingHandler(Handler h) {
  std::lock_guard lock(mutex_);
  onResume_ = std::move(h);
}

}  // namespace hvfp

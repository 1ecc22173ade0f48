#include "tasks/HVTask.h"

#include <exception>

#include "platform/Log.h"

namespace hvfp {

void HVTask::setMProgress(std::shared_ptr<Progress> progress) {
  mProgress_ = std::move(progress);
  if (!mProgress_) return;
  std::shared_ptr<HVTask> self = shared_from_this();
  mProgress_->setPausingHandler([self] { self->paused(); });
  mProgress_->setResumingHandler([self] { self->resumed(); });
  // Last: a progress already cancelled runs this at once.
  mProgress_->setCancellationHandler([self] {
    self->exit();
    self->cancelled();
  });
}

void HVTask::releaseProgressHandlers() {
  if (!mProgress_) return;
  mProgress_->setPausingHandler(nullptr);
  mProgress_->setResumingHandler(nullptr);
  mProgress_->setCancellationHandler(nullptr);
}

void HVTask::main() {
  try {
    body();
    return;
  } catch (const std::exception& e) {
    log("task {} ended by exception: {}", mItemIdentifier, e.what());
  } catch (...) {
    log("task {} ended by exception", mItemIdentifier);
  }
  failAfterException();
}

}  // namespace hvfp

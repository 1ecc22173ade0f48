#include "platform/http/TransferSession.h"

#include <strings.h>

#include <system_error>
#include <utility>

namespace hvfp {

std::optional<std::string> headerValue(const HeaderFields& fields, std::string_view name) {
  for (const auto& [field, value] : fields) {
    if (field.size() == name.size() && ::strncasecmp(field.data(), name.data(), name.size()) == 0)
      return value;
  }
  return std::nullopt;
}

void TransferRequest::setValue(std::string value, const std::string& field) {
  for (auto& [name, old] : headers) {
    if (::strcasecmp(name.c_str(), field.c_str()) == 0) {
      old = std::move(value);
      return;
    }
  }
  headers.emplace_back(field, std::move(value));
}

// ---- TransferTask ----------------------------------------------------------

TransferTask::TransferTask(std::shared_ptr<TransferSession> session, uint64_t identifier,
                           detail::TransferSpec spec)
    : session_(std::move(session)), identifier_(identifier), spec_(std::move(spec)) {}

TransferTask::~TransferTask() {
  bool handedOver;
  {
    MutexLock lock(mutex_);
    handedOver = handedOver_;
  }
  // A task the engine never saw cannot report its end; it must not keep the
  // session from letting its delegate go.
  if (!handedOver) session_->taskEnded(identifier_, false);
}

void TransferTask::send(detail::TransferCommand command) {
  auto self = shared_from_this();
  detail::TransferObserver* observer = this;  // a private base: convert here
  detail::sendTransferCommand(command, std::shared_ptr<detail::TransferObserver>(self, observer));
}

void TransferTask::resume() {
  bool first;
  {
    MutexLock lock(mutex_);
    if (state_ != State::Suspended) return;
    state_ = State::Running;
    first = !handedOver_;
    handedOver_ = true;
  }
  send(first ? detail::TransferCommand::Start : detail::TransferCommand::Resume);
}

void TransferTask::suspend() {
  {
    MutexLock lock(mutex_);
    if (state_ != State::Running) return;
    state_ = State::Suspended;
    if (!handedOver_) return;
  }
  send(detail::TransferCommand::Pause);
}

void TransferTask::cancel() {
  {
    MutexLock lock(mutex_);
    if (state_ == State::Canceling || state_ == State::Completed) return;
    state_ = State::Canceling;
    handedOver_ = true;  // the engine reports the cancellation, started or not
  }
  send(detail::TransferCommand::Cancel);
}

TransferTask::State TransferTask::state() const {
  MutexLock lock(mutex_);
  return state_;
}

std::optional<TransferResponse> TransferTask::response() const {
  MutexLock lock(mutex_);
  return response_;
}

int64_t TransferTask::countOfBytesReceived() const {
  MutexLock lock(mutex_);
  return received_;
}

int64_t TransferTask::countOfBytesExpectedToReceive() const {
  MutexLock lock(mutex_);
  return expectedToReceive_;
}

int64_t TransferTask::countOfBytesSent() const {
  MutexLock lock(mutex_);
  return sent_;
}

int64_t TransferTask::countOfBytesExpectedToSend() const {
  return spec_.kind == detail::TransferKind::Upload ? static_cast<int64_t>(spec_.body.length) : 0;
}

std::optional<std::string> TransferTask::receivedSHA1() const {
  MutexLock lock(mutex_);
  return sha1_;
}

void TransferTask::transferDidReceiveResponse(const TransferResponse& response) {
  MutexLock lock(mutex_);
  response_ = response;
  if (isDownload()) expectedToReceive_ = response.expectedContentLength;
}

// Called without the task's lock: the delegate queue may drop its last hold
// on a task while it holds its own lock, so the two are never taken the other
// way round.
void TransferTask::queueProgress() {
  session_->queue_.async(
      [self = shared_from_this()] { self->deliverProgress(self->session_->delegate().get()); });
}

// Waking the delegate queue for every chunk the connection hands over costs
// more than the chunk itself on a fast link; a report every megabyte, or
// every tenth of a second on a slow one, is as good to a progress bar.
bool TransferTask::progressDue(int64_t total) {
  constexpr int64_t kStepBytes = 1 << 20;
  constexpr auto kStepTime = std::chrono::milliseconds(100);
  auto now = std::chrono::steady_clock::now();
  if (total - lastNoticed_.bytes < kStepBytes && now - lastNoticed_.at < kStepTime) return false;
  lastNoticed_ = {total, now};
  return true;
}

void TransferTask::transferDidReceiveBytes(int64_t totalReceived) {
  bool due = progressDue(totalReceived);
  {
    MutexLock lock(mutex_);
    received_ = totalReceived;
    if (!due || std::exchange(progressQueued_, true)) return;
  }
  queueProgress();
}

void TransferTask::transferDidSendBytes(int64_t totalSent) {
  bool due = progressDue(totalSent);
  {
    MutexLock lock(mutex_);
    sent_ = totalSent;
    if (!due || std::exchange(progressQueued_, true)) return;
  }
  queueProgress();
}

void TransferTask::deliverProgress(TransferSessionDelegate* delegate) {
  int64_t total, step, expected;
  {
    MutexLock lock(mutex_);
    progressQueued_ = false;
    total = isDownload() ? received_ : sent_;
    step = total - progressReported_;
    progressReported_ = total;
    expected = isDownload() ? expectedToReceive_ : countOfBytesExpectedToSend();
  }
  if (step <= 0 || !delegate) return;
  if (isDownload())
    delegate->didWriteData(*session_, *this, step, total, expected);
  else
    delegate->didSendBodyData(*session_, *this, step, total, expected);
}

void TransferTask::transferDidComplete(detail::TransferOutcome outcome) {
  {
    MutexLock lock(mutex_);
    if (completed_) return;
    completed_ = true;
    state_ = State::Completed;
    response_ = outcome.completion.response;
    received_ = outcome.bytesReceived;
    sent_ = outcome.bytesSent;
    if (response_ && isDownload()) expectedToReceive_ = response_->expectedContentLength;
    sha1_ = outcome.sha1;
  }
  session_->queue_.async([self = shared_from_this(), outcome = std::move(outcome)]() mutable {
    self->deliverCompletion(outcome);
  });
}

void TransferTask::deliverCompletion(detail::TransferOutcome& outcome) {
  // The session learns of the end however the delegate's calls go.
  struct Ended {
    TransferTask& task;
    ~Ended() { task.session_->taskEnded(task.identifier_, true); }
  } ended{*this};
  auto delegate = session_->delegate();
  deliverProgress(delegate.get());
  if (outcome.location) {
    if (delegate) delegate->didFinishDownloadingToURL(*session_, *this, *outcome.location);
    std::error_code ignored;
    std::filesystem::remove(*outcome.location, ignored);
  }
  if (delegate) delegate->didCompleteWithError(*session_, *this, outcome.completion);
}

// ---- TransferSession -------------------------------------------------------

TransferSession::TransferSession(TransferSessionConfiguration configuration,
                                 std::shared_ptr<TransferSessionDelegate> delegate,
                                 MainQueue& queue)
    : configuration_(std::move(configuration)), queue_(queue), delegate_(std::move(delegate)) {}

std::shared_ptr<TransferSession> TransferSession::sessionWithConfiguration(
    TransferSessionConfiguration configuration, std::shared_ptr<TransferSessionDelegate> delegate,
    MainQueue& delegateQueue) {
  if (configuration.temporaryDirectory.empty()) {
    std::error_code ec;
    configuration.temporaryDirectory = std::filesystem::temp_directory_path(ec);
    if (ec) configuration.temporaryDirectory = "/tmp";
  }
  return std::shared_ptr<TransferSession>(
      new TransferSession(std::move(configuration), std::move(delegate), delegateQueue));
}

std::shared_ptr<TransferTask> TransferSession::makeTask(detail::TransferSpec spec) {
  MutexLock lock(mutex_);
  if (invalidated_) return nullptr;
  uint64_t identifier = nextIdentifier_++;
  std::shared_ptr<TransferTask> task(
      new TransferTask(shared_from_this(), identifier, std::move(spec)));
  outstanding_[identifier] = task;
  return task;
}

std::shared_ptr<TransferTask> TransferSession::downloadTaskWithRequest(TransferRequest request,
                                                                       DownloadOptions options) {
  detail::TransferSpec spec;
  spec.kind = detail::TransferKind::Download;
  spec.request = std::move(request);
  spec.temporaryDirectory = configuration_.temporaryDirectory;
  spec.download = options;
  return makeTask(std::move(spec));
}

std::shared_ptr<TransferTask> TransferSession::uploadTaskWithRequest(TransferRequest request,
                                                                     BodyFileRange body) {
  detail::TransferSpec spec;
  spec.kind = detail::TransferKind::Upload;
  spec.request = std::move(request);
  spec.body = std::move(body);
  return makeTask(std::move(spec));
}

std::shared_ptr<TransferSessionDelegate> TransferSession::delegate() const {
  MutexLock lock(mutex_);
  return delegate_;
}

void TransferSession::finishTasksAndInvalidate() {
  {
    MutexLock lock(mutex_);
    if (invalidated_) return;
    invalidated_ = true;
  }
  releaseDelegateIfDone(false);
}

void TransferSession::invalidateAndCancel() {
  std::vector<std::shared_ptr<TransferTask>> running;
  {
    MutexLock lock(mutex_);
    invalidated_ = true;
    for (auto& [identifier, weak] : outstanding_) {
      if (auto task = weak.lock()) running.push_back(std::move(task));
    }
  }
  for (auto& task : running) task->cancel();
  running.clear();  // a task dropped here ends itself
  releaseDelegateIfDone(false);
}

void TransferSession::taskEnded(uint64_t identifier, bool onDelegateQueue) {
  {
    MutexLock lock(mutex_);
    outstanding_.erase(identifier);
  }
  releaseDelegateIfDone(onDelegateQueue);
}

void TransferSession::releaseDelegateIfDone(bool onDelegateQueue) {
  std::shared_ptr<TransferSessionDelegate> released;
  {
    MutexLock lock(mutex_);
    if (!invalidated_ || !outstanding_.empty() || !delegate_) return;
    released = std::move(delegate_);
  }
  // The delegate goes on its own queue, after any callback already queued.
  if (!onDelegateQueue) queue_.async([released = std::move(released)] {});
}

}  // namespace hvfp

// OnceHandler: a completion handler the framework handed over, wrapped so it
// is called exactly once. The first call goes through; later calls (a task's
// own report after a cancellation was reported, a second callback of a
// transfer) are dropped. A handler that was never called when the guard goes
// away is called with the fallback its owner set, so the framework is never
// left waiting for an answer.
//
// Owned by the task that received the handler. Thread-safe: the call may come
// from the task's queue thread, the main queue or the thread that cancels.
// The handler runs outside the guard's lock.
#pragma once

#include <functional>
#include <mutex>
#include <utility>

namespace hvfp {

template <typename... Args>
class OnceHandler {
 public:
  using Fn = std::function<void(Args...)>;

  OnceHandler() = default;
  explicit OnceHandler(Fn fn) : fn_(std::move(fn)) {}
  OnceHandler(const OnceHandler&) = delete;
  OnceHandler& operator=(const OnceHandler&) = delete;
  ~OnceHandler() {
    if (!fallback_) return;
    if (Fn fn = take()) fallback_(fn);
  }

  // Setting a handler replaces one that was not called yet.
  void set(Fn fn) {
    std::lock_guard lock(mutex_);
    if (!called_) fn_ = std::move(fn);
  }
  // What the guard calls the handler with if nothing else ever does.
  void setFallback(std::function<void(Fn&)> fallback) { fallback_ = std::move(fallback); }

  bool isSet() const {
    std::lock_guard lock(mutex_);
    return fn_ != nullptr;
  }
  bool wasCalled() const {
    std::lock_guard lock(mutex_);
    return called_;
  }

  // Calls the handler the first time a set handler is there; returns whether
  // this call reached it.
  bool operator()(Args... args) {
    Fn fn = take();
    if (!fn) return false;
    fn(std::forward<Args>(args)...);
    return true;
  }

 private:
  Fn take() {
    std::lock_guard lock(mutex_);
    if (called_ || !fn_) return nullptr;
    called_ = true;
    return std::exchange(fn_, nullptr);
  }

  mutable std::mutex mutex_;
  Fn fn_;
  bool called_ = false;
  std::function<void(Fn&)> fallback_;
};

}  // namespace hvfp

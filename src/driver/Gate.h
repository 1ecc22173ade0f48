// Gate: keeps answers that arrive late away from an object that is gone.
//
// The framework's calls answer on the provider's threads, possibly after
// the driver stopped waiting for them. Each handler the driver hands over
// holds the gate and passes through it; closing the gate waits for a
// handler inside it and turns away every later one.
//
// Shared (std::shared_ptr) by the owner and its handlers; any thread.
#pragma once

#include <memory>
#include <mutex>

namespace hvfp::driver {

class Gate {
 public:
  static std::shared_ptr<Gate> make() { return std::make_shared<Gate>(); }

  // Runs `fn` when the gate is open; false when it was closed.
  template <typename Fn>
  bool pass(Fn&& fn) {
    std::lock_guard lock(mutex_);
    if (!open_) return false;
    fn();
    return true;
  }
  void close() {
    std::lock_guard lock(mutex_);
    open_ = false;
  }

 private:
  std::recursive_mutex mutex_;  // a handler may answer from inside another
  bool open_ = true;
};

}  // namespace hvfp::driver

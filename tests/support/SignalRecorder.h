// Records the containers an NSFileProviderManager is asked to signal, for
// tests that make a change elsewhere (the host, a bus event) and wait for it
// to reach the manager.
//
// Signals arrive on whatever thread delivers the event; `containers` is
// guarded by `mutex`. Reading it without the lock is fine only once nothing
// can signal any more, or when the signal came synchronously on the reading
// thread. The recorder takes its handler off the manager when it goes.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderManager.h"

namespace hvfp::test {

struct SignalRecorder {
  // Long enough for a host process to notice a change and send its event.
  static constexpr std::chrono::seconds kWait{10};

  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::string> containers;
  NSFileProviderManager* attached = nullptr;

  SignalRecorder() = default;
  SignalRecorder(const SignalRecorder&) = delete;
  SignalRecorder& operator=(const SignalRecorder&) = delete;
  ~SignalRecorder() {
    if (attached) attached->setSignalHandler(nullptr);
  }

  void attach(NSFileProviderManager& manager) {
    attached = &manager;
    manager.setSignalHandler([this](const std::string& id) {
      std::lock_guard lock(mutex);
      containers.push_back(id);
      cv.notify_all();
    });
  }

  // At least `n` signals so far, waiting up to kWait for them.
  bool waitFor(size_t n) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, kWait, [&] { return containers.size() >= n; });
  }

  // `container` signalled at some point, waiting up to kWait for it.
  bool waitForContainer(const std::string& container) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, kWait, [&] {
      return std::find(containers.begin(), containers.end(), container) != containers.end();
    });
  }
};

}  // namespace hvfp::test

// Uploads: the write-back queue. Sealed local contents are sent one upload
// at a time per inode, newest first: an upload started while several states
// were sealed sends only the newest. A file new to the queue rests briefly
// before its first attempt, unless someone waits for it. A failed upload is tried again after a
// pause that doubles up to a minute, for as long as the mount lives.
//
// The attempt itself is its maker's: it sends the inode's newest sealed
// state and calls `done` exactly once, from any thread, with the generation
// it carried and whether the cloud took it (or why not, which is kept for
// status reports until an attempt succeeds). An attempt that finds nothing
// of the inode left to send (it was removed while its last close was on
// the way) reports kNothingLeft: what was scheduled before it started is
// done, what was scheduled since still goes.
//
// Ownership: owns its worker thread; the attempt function must outlive it.
// An answer that comes after the queue is gone is dropped.
// Threads: any thread may schedule and wait; attempts start on the worker;
// `whileIdle` runs its function with no attempt running for the inode and
// none able to start.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "driver/Gate.h"
#include "driver/Replica.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::driver {

class Uploads {
 public:
  using Done = std::function<void(uint64_t generation, Result<void> outcome)>;
  using Attempt = std::function<void(Ino ino, Done done)>;

  // An inode with contents still to send.
  struct Waiting {
    Ino ino = 0;
    bool running = false;
    int failures = 0;  // in a row
    // When the next attempt may start, after a failure.
    std::optional<std::chrono::system_clock::time_point> next;
    std::string error;  // the last failure's text, if any
  };

  explicit Uploads(Attempt attempt);
  ~Uploads();
  Uploads(const Uploads&) = delete;
  Uploads& operator=(const Uploads&) = delete;

  // `generation` of the inode is sealed and wants sending.
  void schedule(Ino ino, uint64_t generation) EXCLUDES(mutex_);
  // Blocks until an upload carrying `generation` or a later one reported:
  // true when it succeeded, false when an attempt carrying it failed.
  bool waitFor(Ino ino, uint64_t generation) EXCLUDES(mutex_);
  // Runs `fn` with the inode's uploads at rest; `fn` is told whether one is
  // still due, must not call back into this object, and returns true when
  // the inode's uploads are to be forgotten.
  void whileIdle(Ino ino, const std::function<bool(bool due)>& fn) EXCLUDES(mutex_);
  // No more attempts for the inode.
  void forget(Ino ino) EXCLUDES(mutex_);
  // Waits up to `bound` for every due upload to report; true when none is
  // left.
  bool drain(std::chrono::milliseconds bound) EXCLUDES(mutex_);
  // Every inode with an upload running or due, by inode.
  std::vector<Waiting> waiting() EXCLUDES(mutex_);

  static constexpr uint64_t kNothingLeft = UINT64_MAX;

  static std::chrono::milliseconds pauseAfter(int failures);
  // How long a newly sealed file rests before its first attempt, unless
  // someone waits for it.
  static constexpr std::chrono::milliseconds kSettle{300};

 private:
  struct Job {
    uint64_t wanted = 0;    // newest generation sealed
    uint64_t sent = 0;      // newest generation the cloud took
    uint64_t failedAt = 0;  // newest generation an attempt failed with
    uint64_t started = 0;   // `wanted` when the running attempt started
    bool running = false;
    int failures = 0;
    std::chrono::steady_clock::time_point due{};
    std::string error;  // the last failure's, until one succeeds
  };

  void run() EXCLUDES(mutex_);
  void finished(Ino ino, uint64_t generation, const Result<void>& outcome) EXCLUDES(mutex_);

  Attempt attempt_;
  std::shared_ptr<Gate> gate_ = Gate::make();
  Mutex mutex_;
  std::condition_variable_any changed_;
  std::unordered_map<Ino, Job> jobs_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread worker_;
};

}  // namespace hvfp::driver

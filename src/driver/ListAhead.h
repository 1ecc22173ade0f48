// ListAhead: lists folders before anyone looks into them. When a folder is
// read, the subfolders it shows are likely next (ls -R, a file manager
// opening one, find), and each costs a round trip to the host; listing them
// on a few threads of their own while the reader is busy with the folder in
// hand turns those round trips into waits that mostly already ended.
//
// It only asks: what "listing" means is the fill function its maker gives,
// which must be safe to call from any thread and cheap for a folder listed
// already. Queued folders are kept in order, each once; past kMaxQueued the
// oldest wishes are dropped, as the reader has moved on from them.
//
// Ownership: owns its threads, started at the first wish and joined by the
// destructor, which drops what is still queued; the fill function's target
// must outlive it. Threads: want() from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace hvfp::driver {

class ListAhead {
 public:
  using Fill = std::function<void(uint64_t folder)>;
  static constexpr size_t kThreads = 2;
  static constexpr size_t kMaxQueued = 1024;
  static constexpr int kNice = 10;

  explicit ListAhead(Fill fill);
  ~ListAhead();
  ListAhead(const ListAhead&) = delete;
  ListAhead& operator=(const ListAhead&) = delete;

  void want(const std::vector<uint64_t>& folders) EXCLUDES(mutex_);

 private:
  void run() EXCLUDES(mutex_);

  const Fill fill_;
  Mutex mutex_;
  std::condition_variable_any wake_;
  std::deque<uint64_t> queue_ GUARDED_BY(mutex_);
  std::unordered_set<uint64_t> queued_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_ GUARDED_BY(mutex_);
};

}  // namespace hvfp::driver

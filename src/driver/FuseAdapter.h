// FuseAdapter: the folder as a Linux file system, through libfuse3's
// low-level interface. Each kernel request becomes one Folder operation and
// exactly one reply; errno values come from the folder. Reads are answered
// with the copy's descriptor (zero-copy splice where the kernel allows),
// writes go straight into the working copy's descriptor.
//
// Where the kernel offers passthrough and we may use it (root), it is the
// folder's Backings too: libfuse 3.14 cannot ask for passthrough, so the
// adapter answers the kernel's INIT itself (libfuse's answer, with
// passthrough added), registers backing files on /dev/fuse, and answers a
// shared open with the backing's id.
//
// It is also the replica's Invalidator: what went stale is queued and told
// to the kernel (fuse_lowlevel_notify_delete / _inval_entry / _inval_inode)
// from the adapter's own notifier thread, never from a thread serving a
// request, so a notification cannot wait on the request it came from.
//
// Ownership: owns the FUSE session, the mount and the notifier thread; the
// folder served is its maker's and lives until serve() returned.
// Threads: requests are served by libfuse's worker threads (several at
// once); mount/serve/unmount from one thread; stop() and invalidate() from
// any thread. For serve() to end on SIGINT/SIGTERM/SIGHUP, those signals
// must be blocked in every other thread: block them before making any.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "driver/Backings.h"
#include "driver/Folder.h"
#include "driver/Replica.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"

struct fuse_session;

namespace hvfp::driver {

// A folder's entries as they were when it was opened; offsets index them.
struct DirHandle {
  std::vector<Child> entries;
};

class FuseAdapter final : public Invalidator, public Backings {
 public:
  FuseAdapter();
  ~FuseAdapter() override;
  FuseAdapter(const FuseAdapter&) = delete;
  FuseAdapter& operator=(const FuseAdapter&) = delete;

  // Mounts an empty session on `dir`; nothing is served until serve().
  Result<void> mount(const std::string& dir);
  // Serves the folder until the mount goes away (unmount, stop()) or, with
  // `signals`, until SIGINT, SIGTERM or SIGHUP; then unmounts. 0 on an
  // orderly end.
  int serve(Folder& folder, bool signals);
  // Makes serve() end: detaches the mount; serving goes on until the last
  // file open in it is released. Any thread.
  void stop();

  void invalidate(std::vector<Invalidation> batch) override EXCLUDES(mutex_);
  std::optional<int> open(int fd) override;
  void close(int id) override;

  // --- used by the request handlers -------------------------------------
  Folder& folder() { return *folder_; }
  uint32_t uid() const { return uid_; }
  uint32_t gid() const { return gid_; }
  // Once the kernel has taken the session's settings (any request after
  // the first proves it has): lets sequential reads ask for a whole megabyte
  // at a time. Any thread; the first call does the work.
  void widenReadahead();
  // Open folders belong to the adapter until released.
  void keepDir(std::unique_ptr<DirHandle> handle) EXCLUDES(mutex_);
  void dropDir(DirHandle* handle) EXCLUDES(mutex_);

 private:
  void notifyLoop() EXCLUDES(mutex_);
  // Serves the kernel's first request, INIT, asking for passthrough too
  // when the kernel offers it.
  void answerInit();

  fuse_session* session_ = nullptr;
  std::string mountpoint_;
  bool mounted_ = false;
  std::string readaheadKnob_;  // the mount's read_ahead_kb in sysfs, when found
  std::once_flag readaheadWidened_;
  std::atomic<bool> passthrough_{false};  // the kernel took it; backings may be opened
  Folder* folder_ = nullptr;
  uint32_t uid_;
  uint32_t gid_;

  Mutex mutex_;
  std::condition_variable_any queued_;
  std::deque<Invalidation> queue_ GUARDED_BY(mutex_);
  std::unordered_map<DirHandle*, std::unique_ptr<DirHandle>> dirs_ GUARDED_BY(mutex_);
  bool live_ GUARDED_BY(mutex_) = false;       // the session serves: notifications may go
  bool notifying_ GUARDED_BY(mutex_) = false;  // a notification is with the kernel
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread notifier_;
};

}  // namespace hvfp::driver

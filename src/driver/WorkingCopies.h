// WorkingCopies: local contents of files the cloud does not have yet.
//
// A file opened for writing gets a working copy in the work folder, made
// from its current contents (or empty, when it is new or truncated); every
// writer of the file shares it. When the last writer closes a changed copy,
// the copy is sealed: it no longer changes and is what the next upload
// sends; a later writer starts a new working copy from it. An fsync of a
// copy still open seals a snapshot of it instead. Until an upload of the
// newest contents reported, the newest local file is what the folder shows
// and serves. Each sealed state carries a generation number, increasing
// over the whole process, so an upload's report names what it carried.
//
// Ownership: owns the files it makes under `folder`, named apart from any
// earlier run's; files left from an earlier run are its maker's to keep or
// remove. Threads: any thread; file copies run without the lock, while
// other callers for the same inode wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "driver/Replica.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::driver {

struct Sealed {
  uint64_t generation = 0;
  std::string path;
};

class WorkingCopies {
 public:
  explicit WorkingCopies(std::string folder);
  WorkingCopies(const WorkingCopies&) = delete;
  WorkingCopies& operator=(const WorkingCopies&) = delete;

  const std::string& folder() const { return folder_; }
  // The files an earlier run left in the folder.
  const std::vector<std::string>& leftovers() const { return leftovers_; }

  // Whether no file has local contents.
  bool empty() EXCLUDES(mutex_);
  // The newest local contents of the inode, when the cloud may lack them.
  std::optional<std::string> newest(Ino ino) EXCLUDES(mutex_);
  // A descriptor for writing, on the inode's working copy; one is made first
  // when there is none, from `source` (a readable descriptor on the current
  // contents, which is closed here) unless `truncate`. A truncated or new
  // copy counts as changed.
  // A copy made from the current contents takes `modified` as its time.
  Result<int> openWriter(Ino ino, bool truncate, bool append,
                         const std::function<Result<int>()>& source, std::optional<Date> modified)
      EXCLUDES(mutex_);
  // The file at `from` becomes the inode's working copy, moved into the
  // folder; the inode must have none yet. It comes pinned: the kernel
  // reads and writes that very file for every open of the inode, so it
  // stays the one working copy. While pinned, a last writer's close seals a
  // snapshot of it, an upload's report leaves it in place, and a writer
  // opens it again rather than starting a new one.
  Result<std::string> adopt(Ino ino, const std::string& from) EXCLUDES(mutex_);
  // The kernel no longer shares the working copy: it is sealed in place from
  // now on, like any other. Changes not sealed yet are sealed now and
  // returned, for upload.
  std::optional<Sealed> unpin(Ino ino) EXCLUDES(mutex_);
  // A writer changed the working copy.
  void changed(Ino ino) EXCLUDES(mutex_);
  // Whether the inode's copy has no writer, no change and nothing waiting
  // for upload.
  bool settled(Ino ino) EXCLUDES(mutex_);
  // Whether the local contents changed since the last call said so: true
  // once after each change, for the caller to make the change durable.
  bool unrecorded(Ino ino) EXCLUDES(mutex_);
  // The newest local file's modification time was set. When that file is
  // sealed already (its upload may have left with the old time), it is
  // sealed again under a new generation, returned, so the time is sent.
  std::optional<Sealed> touched(Ino ino) EXCLUDES(mutex_);
  // A writer left; when it was the last and the copy changed, the copy is
  // sealed and returned, for upload.
  std::optional<Sealed> closeWriter(Ino ino) EXCLUDES(mutex_);
  // Waits up to `bound` for the inode's writers to close; true when none
  // is open. A close reaches us before its release does, so an fsync that
  // follows a close at once may otherwise find the writer still open.
  bool writersClosed(Ino ino, std::chrono::milliseconds bound) EXCLUDES(mutex_);
  // A changed copy still open is snapshotted and the snapshot sealed; a
  // sealed state not yet uploaded is returned as it stands; none when the
  // cloud has it all.
  Result<std::optional<Sealed>> seal(Ino ino) EXCLUDES(mutex_);
  // The newest sealed state that no upload reported yet.
  std::optional<Sealed> pending(Ino ino) EXCLUDES(mutex_);
  // An upload of `generation` reported. Older sealed files go. When nothing
  // newer is held, the inode has no local contents any more and the file
  // of that generation is returned for the caller to keep as a copy.
  std::optional<std::string> uploaded(Ino ino, uint64_t generation) EXCLUDES(mutex_);
  // Everything of the inode goes (it was dropped before its creation).
  void drop(Ino ino) EXCLUDES(mutex_);

 private:
  struct Local {
    std::string path;             // the newest file
    uint64_t pathGeneration = 0;  // of `path` once sealed; 0 while it may change
    int writers = 0;
    bool dirty = false;
    bool unrecorded = false;                  // changed since the caller last recorded it
    bool busy = false;                        // a file copy for it runs
    bool pinned = false;                      // see adopt()
    std::map<uint64_t, std::string> waiting;  // sealed, not yet reported
  };

  std::string newFile(Ino ino) REQUIRES(mutex_);
  // A copy no writer holds: sealed in place when changed, else dropped when
  // nothing waits on it (it is the cloud's contents again).
  std::optional<Sealed> settle(Ino ino, Local& local) REQUIRES(mutex_);
  Local* idleLocal(Ino ino, MutexLock& lock) REQUIRES(mutex_);

  const std::string folder_;
  const std::string run_;  // names this run's files apart
  std::vector<std::string> leftovers_;
  Mutex mutex_;
  std::condition_variable_any idle_;
  std::unordered_map<Ino, Local> locals_ GUARDED_BY(mutex_);
  uint64_t generations_ GUARDED_BY(mutex_) = 0;
  uint64_t files_ GUARDED_BY(mutex_) = 0;
};

}  // namespace hvfp::driver

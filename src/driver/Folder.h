// Folder: the file-provider framework's role on Linux, as file-system
// operations. The FUSE adapter calls one operation per kernel request; each
// answers with attributes or an errno, and reaches the provider only through
// the framework's calls on the extension it was given: lookups and
// enumerations (through the replica), content fetches (through the copies),
// creations, modifications and deletions.
//
// What the user does and what the provider is asked:
//   reading a file      one content fetch per item version, shared, kept in
//                       a bounded cache (driver/Copies.h)
//   writing a file      nothing until the last close: then creation (a new
//                       file, under a provisional identifier) or a contents
//                       modification, in the background; fsync waits for it.
//                       Each close (flush) first makes the written contents
//                       and a record of where they go durable
//                       (driver/Pending.h); what a killed mount left is sent
//                       by the next one, or, where the cloud's item changed
//                       meanwhile, made a conflicted copy beside it
//   mkdir               creation of a folder, waited for
//   rename in a folder  modification of the filename
//   move                modification of the parent (filename first when both)
//   rm, rmdir           modification of the parent to the trash
//   mv out of .Trash    modification of the parent (a restore), then filename
//                       and parent as asked, if the cloud put it elsewhere
//   rm inside .Trash    deletion
// A rename onto an existing item first moves that item to the trash; a file
// not created yet is renamed here and created under its new name.
// Symbolic and hard links are refused (EPERM); modes and owners cannot be
// changed but the calls are accepted; a modification time is part of the
// contents: set while local contents wait for upload, it is the one the
// upload sends, and set on a file in step with the cloud, the contents go
// again with it. A file open for reading sees what writers wrote since.
//
// status() reports what the folder moves and holds for `halvofp status`,
// from short looks under each part's own lock; it never waits on the
// provider.
//
// Ownership: owns the replica, the copies, the working copies, the pending
// records, the upload queue and its signal thread; the extension, the manager and the
// invalidator are its maker's and outlive it. Answers that arrive after the
// folder went are dropped.
// Threads: every operation may be called from any thread, several at once;
// they block their caller on the provider. Host signals are handled on the
// folder's own signal thread.
#pragma once

#include <sys/statvfs.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "driver/Backings.h"
#include "driver/Copies.h"
#include "driver/Gate.h"
#include "driver/Pending.h"
#include "driver/Replica.h"
#include "driver/Status.h"
#include "driver/Transfers.h"
#include "driver/Uploads.h"
#include "driver/WorkingCopies.h"
#include "platform/fileprovider/NSFileProviderManager.h"

namespace hvfp::driver {

struct FolderOptions {
  std::string cacheFolder;  // $XDG_CACHE_HOME/halvofp/<domain>
  uint64_t cacheLimit = uint64_t{2} << 30;
  // How long a metadata call (mkdir, rename, rm, ...) may take.
  std::chrono::seconds callBound{600};
};

// One open of a file: the kernel's file handle points at it.
struct OpenFile {
  Ino ino = 0;
  int fd = -1;
  bool writer = false;
  std::string local;         // the local file a reader's fd is on, if any
  std::string copy;          // the cached copy a reader holds, if any
  std::vector<int> retired;  // earlier fds of a reader, closed at release
  // Reads and writes bypass the kernel's page cache (see track()).
  bool direct = false;
  // The kernel reads and writes the inode's shared file itself; no read or
  // write of this handle comes to the daemon (see Folder::share()).
  bool shared = false;
};

// Open files belong to the folder until released; one still open when the
// folder goes is closed then, its unsent writes kept in the work folder.
struct Opened {
  OpenFile* file = nullptr;
  bool keepCache = false;  // the kernel's cached pages are still the contents
  int backing = -1;        // the kernel serves the handle from this backing
};

struct Created {
  Attributes attributes;
  OpenFile* file = nullptr;
};

// Mode bits from capabilities: no writing capability means read-only.
uint32_t modeFor(const Attributes& attributes);

class Folder {
 public:
  Folder(NSFileProviderReplicatedExtension& extension,
         std::shared_ptr<NSFileProviderManager> manager, Invalidator& invalidator,
         FolderOptions options);
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  // Lets the kernel serve opens of cloud copies itself (passthrough). Call
  // before the first request; `backings` outlives the folder's use of it.
  void shareWith(Backings* backings) { backings_ = backings; }
  // Waits up to `bound` for uploads running or due; true when none is left.
  bool finish(std::chrono::milliseconds bound);
  Replica& replica() { return replica_; }
  Copies::Use cacheUse() { return copies_.use(); }
  // Transfers running, uploads waiting, the cache's use.
  FolderStatus status();
  // Records where transfers stand, for their rates; call about once a second.
  void sampleTransfers() { transfers_->sample(); }

  Result<Attributes> lookup(Ino parent, std::string_view name);
  void forget(Ino ino, uint64_t count);
  Result<Attributes> getattr(Ino ino);
  // `file` is the open file the call came through, if any.
  Result<Attributes> setattr(Ino ino, std::optional<uint64_t> size, std::optional<Date> modified,
                             OpenFile* file);
  Result<std::vector<Child>> list(Ino folder);
  Result<Opened> open(Ino ino, int flags);
  // The descriptor a read goes to: a reader moves to local contents
  // written since it opened.
  int readable(OpenFile& file) EXCLUDES(readMutex_);
  // `length` bytes were written at `offset`; the disk starts on them in
  // the background, so the close that makes them durable has little left.
  void written(OpenFile& file, uint64_t offset, uint64_t length);
  // A close of the file: what writers wrote is made durable first.
  Result<void> flush(OpenFile& file);
  void release(OpenFile* file);
  Result<void> fsync(OpenFile& file);
  Result<Created> create(Ino parent, std::string_view name, int flags);
  Result<Attributes> mkdir(Ino parent, std::string_view name);
  Result<void> unlink(Ino parent, std::string_view name);
  Result<void> rmdir(Ino parent, std::string_view name);
  Result<void> rename(Ino parent, std::string_view name, Ino newParent, std::string_view newName,
                      unsigned flags);
  Result<struct statvfs> statfs();

 private:
  // Takes an open file into the folder's keeping. `version`: the cloud
  // contents it serves, kept in the kernel's cache while unchanged; none:
  // local contents, never kept. A write-only handle on a
  // file nobody else has open bypasses the kernel's page cache: a copy into
  // the folder then fills the working copy alone, not a second cached copy
  // of it too. While such a handle is open, every other handle on the file
  // bypasses the cache as well: kernels before 6.6 leave cached pages in
  // place when a write goes around them, and a reader would see them stale.
  //
  // A reader of a cloud copy that is the only open of its file may have the
  // kernel serve the file itself from the copy (see share()).
  Opened track(OpenFile file, const std::optional<std::string>& version, bool writeOnly,
               bool shareable = false) EXCLUDES(mutex_);
  // Sharing. The kernel holds one backing file per inode and serves every
  // open of it from that file while one such open lasts; an open it would
  // not serve so fails. So while an inode is shared, every open shares it:
  // readers read the file, and the first writer takes the file over as the
  // inode's working copy (pinned, see WorkingCopies::adopt()), so readers
  // see what it writes. No write reaches the daemon: a writer's close
  // counts as a change. Sharing starts only on a cache copy lent out whole
  // (Copies::lend()), and ends at the last release: a copy nobody wrote goes
  // back to the cache, a working copy is unpinned.
  struct Shared;
  Result<Opened> openOwn(Ino ino, const NodeInfo& info, int flags);
  // openOwn() for an open counted on its way (Handles::opening), which it
  // ends on every path.
  Result<Opened> openCounted(Ino ino, const NodeInfo& info, int flags);
  Result<Opened> openShared(Ino ino, Shared& shared, const NodeInfo& info, int flags)
      REQUIRES(mutex_);
  // Whether the cloud's contents moved on from the lent copy shared.
  static bool outdated(const Shared& shared, const NodeInfo& info);
  // An open of a file shared at older cloud contents: the current ones are
  // fetched and written into the shared file first.
  Result<Opened> openRefreshed(Ino ino, const NodeInfo& info, int flags) EXCLUDES(mutex_);
  // The cloud kept its contents and ours went to a conflicted copy: a file
  // still shared (so still the working copy) takes the cloud's contents
  // back, when nothing changed it since.
  void catchUpShared(Ino ino) EXCLUDES(mutex_);
  // Replaces the shared file's contents with what `from` holds; on failure
  // the file is marked broken.
  void refill(Shared& shared, int from) REQUIRES(mutex_);
  // Makes the shared file the inode's working copy.
  Result<void> takeOver(Ino ino, Shared& shared) REQUIRES(mutex_);
  // Starts sharing the lent copy `file` is open on, when the kernel can.
  bool share(OpenFile& file, const std::string& version) REQUIRES(mutex_);
  // The shared file's last open was released.
  void unshared(Ino ino, Shared shared);
  // A non-shared open (or a rewrite) ends its way in without a handle: see
  // Handles::opening.
  void abandonOpening(Ino ino) EXCLUDES(mutex_);
  Attributes withLocalContents(Attributes attributes);
  // Sets or (with none) drops the time shown for a folder in place of the cloud's.
  void setFolderTime(Ino ino, std::optional<Date> modified) EXCLUDES(mutex_);
  // The cloud's contents; newer contents the fetch brought update the
  // replica. With `hold`, the copy stays until the file is released.
  Result<Copies::Opened> readCloudCopy(Ino ino, const NodeInfo& info, bool hold);
  // Makes new local contents from the current ones, changed by `change`
  // (given the descriptor; 0 or an errno), and queues them for upload.
  Result<void> rewrite(Ino ino, const NodeInfo& info, bool truncate,
                       const std::function<int(int fd)>& change);
  void setTime(Ino ino, const NodeInfo& info, Date modified);

  // --- uploads (FolderUploads.cc) ---------------------------------------
  struct Sent {
    bool ok = false;
    Outcome outcome = Outcome::Contents;
    NSFileProviderItemRef item;         // what the cloud reported for the contents
    std::optional<ItemRecord> current;  // the item the contents were meant for, as it was
    std::string placed;                 // identifier of the folder the contents went to
    std::string error;                  // why not, when not ok
  };
  struct Recovered {
    std::string record;  // its name in the pending folder
    PendingUpload upload;
  };
  static PendingUpload pendingOf(const NodeInfo& info, const std::string& file);
  // Makes the inode's unsent contents durable, or forgets them when none.
  Result<void> persist(Ino ino);
  void recover();
  void attemptUpload(Ino ino, Uploads::Done done);
  void attemptRecovered(Ino ino, Uploads::Done done);
  // Sends `file` for `upload`, as decided against the cloud's item when
  // the item exists, or against what has its name when `check`; a creation
  // goes under `asIdentifier` when one is given. Reports once, from any
  // thread.
  void send(const PendingUpload& upload, const std::string& file, bool check,
            const std::string& asIdentifier, std::function<void(Sent)> report);
  void uploadReported(Ino ino, uint64_t generation, const Sent& sent);
  // The cloud's item of an upload that has one; none when it is gone.
  Result<std::optional<ItemRecord>> currentItem(const PendingUpload& upload);
  Result<std::optional<ItemRecord>> lookupItem(const std::string& identifier);
  // The child of `folder` the predicate picks, from a full listing.
  Result<std::optional<ItemRecord>> childWhere(
      const std::string& folder, const std::function<bool(const ItemRecord&)>& pick);
  // Has the signal thread run the container's change report.
  void refresh(const std::string& container) EXCLUDES(mutex_);
  // Where an item named `name` in that folder is shown ("Docs/a.txt"); the
  // bare name when the folder is not.
  std::string pathIn(const std::string& parentIdentifier, const std::string& name);
  PendingStatus pendingStatus(const Uploads::Waiting& waiting) EXCLUDES(recoveryMutex_);
  Result<NSFileProviderItemRef> modify(const NodeInfo& info, uint64_t fields,
                                       const std::optional<std::string>& name,
                                       const std::optional<std::string>& parent);
  Result<void> settleUploads(Ino ino);
  Result<void> trash(Ino ino);
  Result<void> erase(Ino ino);
  Result<void> restore(Ino ino, Ino newParent, std::string_view newName);
  Result<void> move(Ino ino, Ino newParent, std::string_view newName);
  Result<void> removeEntry(Ino parent, std::string_view name, bool folder);
  void signalLoop();

  NSFileProviderReplicatedExtension& extension_;
  std::shared_ptr<NSFileProviderManager> manager_;
  Invalidator& invalidator_;
  FolderOptions options_;
  std::shared_ptr<Gate> gate_ = Gate::make();
  Backings* backings_ = nullptr;
  // Shared with the handlers of the calls it shows, which may outlive the folder.
  std::shared_ptr<Transfers> transfers_ = std::make_shared<Transfers>();
  Replica replica_;
  Copies copies_;
  WorkingCopies working_;
  Journal journal_;
  int lock_ = -1;  // held while this folder owns the domain's pending records

  Mutex readMutex_;  // readers' descriptors
  Mutex recoveryMutex_;
  std::map<Ino, Recovered> recovered_ GUARDED_BY(recoveryMutex_);
  std::atomic<uint64_t> provisional_{0};

  Mutex mutex_;
  std::condition_variable_any signalled_;
  std::set<std::string> containers_ GUARDED_BY(mutex_);  // signalled, not yet reported
  bool stopping_ GUARDED_BY(mutex_) = false;
  // The content version the kernel's page cache holds for each inode.
  std::unordered_map<Ino, std::string> cachedVersion_ GUARDED_BY(mutex_);
  std::unordered_map<OpenFile*, std::unique_ptr<OpenFile>> files_ GUARDED_BY(mutex_);
  struct Shared {
    int fd = -1;  // O_RDWR on the file
    int backing = -1;
    std::string version;                // the cloud contents it held when lent
    std::optional<Copies::Lent> lent;   // none once it is the working copy
    bool broken = false;                // a refresh failed half way: no more opens
  };
  struct Handles {
    int open = 0;
    int direct = 0;
    // Opens on their way that will not share: no sharing may start under them.
    int opening = 0;
    int shared = 0;  // open handles sharing `file`
    Shared file;
  };
  std::unordered_map<Ino, Handles> handles_ GUARDED_BY(mutex_);
  // Times programs set on folders (rsync, tar), which the cloud does not keep:
  // each stands until an entry of its folder changes here.
  std::unordered_map<Ino, Date> folderTimes_ GUARDED_BY(mutex_);
  std::thread signalThread_;
  // Last: its worker calls into every member above, so it stops first.
  Uploads uploads_;
};

}  // namespace hvfp::driver

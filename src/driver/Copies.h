// Copies: local copies of items' contents, for reading, in a bounded cache.
//
// A copy is asked of the extension (a content fetch) the first time an item
// is opened at a content version; opens of the same item and version while
// that fetch runs wait for it instead of fetching again. Before a copy is
// first served, its bytes are checked against the content hash its version
// names ("filehash", SHA-1) (a download made for this open was checked as
// its bytes arrived, and is not read twice); later opens check that the file is still the
// one that was checked (device, inode, size, modification time) and hash it
// again when not. A copy that does not match is thrown away and fetched
// once more; only a second mismatch fails the open.
//
// The cache: copies in the cache folder (the fetches' downloads in the
// domain's temporary directory, and the files uploads leave) count against
// the limit, with downloads an earlier run left there, which go first.
// Past the limit, the least recently used copies that no open file holds
// are deleted. Files a fetch names elsewhere (the host's own copies) are
// served but never counted or deleted. Working copies are not copies: they
// are never counted here nor evicted.
//
// A file an upload just sent can be taken in as the copy of the version the
// upload reported, so it need not come back down; taken-in files live in
// the copies folder, which is emptied when the copies are made.
//
// Each fetch it makes shows in `transfers`, when given, under the label the
// open named, while it runs.
//
// Ownership: owns its tables and the cache files it counts; the extension
// is its maker's; the transfers are shared. Threads: any thread; open() blocks its caller until the
// copy is there, without holding the lock.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "driver/Replica.h"
#include "driver/Transfers.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp::driver {

// The content hash a version names, when it names one (40 hex digits).
std::optional<std::string> contentHashOf(const std::optional<NSFileProviderItemVersion>& version);

class Copies {
 public:
  struct Opened {
    int fd = -1;  // the caller closes it
    // What the fetch made for this open answered about the item, when it
    // ran: the contents served are the item's at that version.
    std::optional<ItemRecord> fetched;
    // With `hold`: the copy held until closed(file).
    std::string file;
    // The held file is one of the cache's own (not the host's): it may be
    // lent.
    bool cached = false;
  };
  struct Use {
    uint64_t bytes = 0;  // of the copies counted
    uint64_t limit = 0;
    size_t files = 0;
  };

  // `folder` holds taken-in files; `cache` is the folder whose files count
  // (both the domain's). `limitBytes` caps the files counted.
  Copies(NSFileProviderReplicatedExtension& extension, std::string folder, std::string cache,
         uint64_t limitBytes, std::shared_ptr<Transfers> transfers = nullptr);
  ~Copies();
  Copies(const Copies&) = delete;
  Copies& operator=(const Copies&) = delete;

  // A descriptor open for reading on the item's contents at `version`, or
  // newer when the fetch delivered newer. With `hold`, the copy is not
  // evicted until closed(). A fetch it needs is shown as `label` (by
  // default the identifier). Failures carry an errno.
  Result<Opened> open(const std::string& identifier,
                      const std::optional<NSFileProviderItemVersion>& version, bool hold,
                      const std::string& label = {}) EXCLUDES(mutex_);
  // An open made with `hold` was closed.
  void closed(const std::string& file) EXCLUDES(mutex_);
  // What identifies a file as the one that was checked.
  struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    int64_t modified = 0;  // ns
    bool operator==(const Stamp&) const = default;
  };
  // A copy lent out whole: the holder is the only one who can reach it
  // until it is taken back, and may change it or keep it.
  struct Lent {
    std::string path;  // where it lies now
    std::string from;  // where it lay in the cache
    std::string key;
    Stamp checked;
    uint64_t size = 0;  // counted against the limit while lent
  };
  // Lends the held copy at `path` when the caller's open is the only use
  // of it and no other item shares it: it moves out of the cache's reach
  // (never evicted, still counted against the limit), and closed() no
  // longer applies to it.
  std::optional<Lent> lend(const std::string& path) EXCLUDES(mutex_);
  // A lent copy comes back as it was checked; one that changed is deleted.
  void takeBack(const Lent& lent) EXCLUDES(mutex_);
  // A lent copy stays with its holder for good: it stops counting.
  void keep(const Lent& lent) EXCLUDES(mutex_);
  // The file at `path` holds the item's contents at `version`: it is moved
  // into the copies folder (checked at first use).
  void adopt(const std::string& identifier, const NSFileProviderItemVersion& version,
             const std::string& path) EXCLUDES(mutex_);
  Use use() EXCLUDES(mutex_);

 private:
  struct File {
    bool counted = false;  // in the cache folder: counted and evicted
    uint64_t size = 0;
    uint64_t lastUse = 0;
    int opens = 0;
    std::optional<Stamp> checked;  // as it was when its hash matched
    std::set<std::string> keys;    // the copies it holds
  };
  struct Fetch {
    bool done = false;
    int error = 0;
    std::string key;  // where the copy was filed: the version fetched may be newer
  };
  struct Checked {
    std::string path;
    std::optional<ItemRecord> fetched;
  };

  static std::optional<Stamp> stampOf(const std::string& path);
  // The path of a checked copy: the one held, or fetched and checked now.
  Result<Checked> checked(const std::string& identifier,
                          const std::optional<NSFileProviderItemVersion>& version,
                          const std::string& label) EXCLUDES(mutex_);
  // Whether the file held for `key` is still the checked one.
  std::optional<std::string> stillChecked(const std::string& key) REQUIRES(mutex_);
  Result<Checked> fetch(const std::string& identifier,
                        const std::optional<NSFileProviderItemVersion>& version,
                        const std::string& label);
  // Where a download of the version's contents would land, when nothing
  // is there yet.
  std::optional<std::string> freeDownloadSlot(
      const std::optional<NSFileProviderItemVersion>& version) const;
  // Whether `path` is the download a fetch asked at `asked` just made in
  // `slot`, its bytes already checked by the transfer against the hash.
  bool checkedInTransit(const std::optional<std::string>& slot,
                        const std::optional<NSFileProviderItemVersion>& asked,
                        const std::optional<NSFileProviderItemVersion>& served,
                        const std::string& path) const;
  // Hashes the file against the version's content hash; false on a
  // mismatch (logged, and the file deleted when it is a cache file).
  bool matches(const std::string& identifier, const std::optional<NSFileProviderItemVersion>& v,
               const std::string& path);
  void file(const std::string& key, const std::string& path, std::optional<Stamp> checked)
      REQUIRES(mutex_);
  void touch(const std::string& path) REQUIRES(mutex_);
  void forgetKey(const std::string& key) REQUIRES(mutex_);
  void forgetFile(const std::string& path) REQUIRES(mutex_);
  void evict() REQUIRES(mutex_);
  bool counts(const std::string& path) const;

  NSFileProviderReplicatedExtension& extension_;
  const std::string folder_;
  const std::string cache_;
  const uint64_t limit_;
  const std::shared_ptr<Transfers> transfers_;
  Mutex mutex_;
  std::condition_variable_any fetched_;
  uint64_t adopted_ GUARDED_BY(mutex_) = 0;
  // Copies by identifier and content version: the file holding each.
  std::map<std::string, std::string> copies_ GUARDED_BY(mutex_);
  std::map<std::string, File> files_ GUARDED_BY(mutex_);
  std::set<std::pair<uint64_t, std::string>> byUse_ GUARDED_BY(mutex_);  // counted files
  std::map<std::string, std::shared_ptr<Fetch>> fetches_ GUARDED_BY(mutex_);
  std::map<std::string, int> busy_ GUARDED_BY(mutex_);  // files being checked or handed out
  uint64_t total_ GUARDED_BY(mutex_) = 0;
  size_t lent_ GUARDED_BY(mutex_) = 0;  // copies lent out, counted in total_
  uint64_t clock_ GUARDED_BY(mutex_) = 0;
};

}  // namespace hvfp::driver

// Copies: local copies of items' contents, for reading.
//
// A copy is asked of the extension (a content fetch) the first time an item
// is opened at a content version; opens of the same item and version while
// that fetch runs wait for it instead of fetching again. Before a copy is
// first served, its bytes are checked against the content hash its version
// names ("filehash", SHA-1); a copy that does not match is thrown away and
// the open fails. Copies stay until the total size passes the limit, then
// the least recently used go (an open descriptor keeps its file readable).
// A file an upload just sent can be taken in as the copy of the version the
// upload reported, so it need not come back down; taken-in files live in
// the copies folder, which is emptied when the copies are made.
//
// Ownership: owns its table and the files it took in or was handed by
// fetches; the extension is its maker's. Threads: any thread; open() blocks
// its caller until the copy is there, without holding the lock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "driver/Replica.h"
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
  };

  Copies(NSFileProviderReplicatedExtension& extension, std::string folder, uint64_t limitBytes);
  ~Copies();
  Copies(const Copies&) = delete;
  Copies& operator=(const Copies&) = delete;

  // A descriptor open for reading on the item's contents at `version`, or
  // newer when the fetch delivered newer. Failures carry an errno.
  Result<Opened> open(const std::string& identifier,
                      const std::optional<NSFileProviderItemVersion>& version) EXCLUDES(mutex_);
  // The file at `path` holds the item's contents at `version`: it is moved
  // into the copies folder (checked at first use).
  void adopt(const std::string& identifier, const NSFileProviderItemVersion& version,
             const std::string& path) EXCLUDES(mutex_);

 private:
  struct Copy {
    std::string path;
    uint64_t size = 0;
    uint64_t lastUse = 0;
    bool checked = false;
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

  // The file of a checked copy: the one held, or fetched and checked now.
  Result<Checked> checked(const std::string& identifier,
                          const std::optional<NSFileProviderItemVersion>& version) EXCLUDES(mutex_);
  Result<Checked> fetch(const std::string& identifier,
                        const std::optional<NSFileProviderItemVersion>& version);
  void drop(const std::string& key) REQUIRES(mutex_);
  void evict(const std::string& keep) REQUIRES(mutex_);

  NSFileProviderReplicatedExtension& extension_;
  const std::string folder_;
  const uint64_t limit_;
  uint64_t adopted_ GUARDED_BY(mutex_) = 0;
  Mutex mutex_;
  std::condition_variable_any fetched_;
  std::map<std::string, Copy> copies_ GUARDED_BY(mutex_);  // by identifier and content version
  std::map<std::string, std::shared_ptr<Fetch>> fetches_ GUARDED_BY(mutex_);
  uint64_t total_ GUARDED_BY(mutex_) = 0;
  uint64_t clock_ GUARDED_BY(mutex_) = 0;
};

}  // namespace hvfp::driver

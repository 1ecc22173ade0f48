// Replica: the framework's copy of the domain, as the kernel sees it.
//
// It maps the kernel's inode numbers to item identifiers and keeps, for each
// node, what the provider last said about the item (name, parent, type,
// size, dates, capabilities, version), copied out of the provider's item
// objects, which are never kept. Folders are filled by one full enumeration
// the first time they are looked into; after that a signal for a container
// runs its change report from the sync anchor held for it. A folder's report
// carries its whole contents and never reports a deletion, so removed and
// renamed children are found by comparing the report with what is held; the
// working set's report carries only the records that changed. Whatever the
// kernel may hold that went stale is handed to the Invalidator.
//
// The root (inode 1) is the root container and lists the mounts and
// ".Trash" (inode 2), the trash container. Shown names are unique within a
// folder (driver/Names.h). A node made here for a new item carries a
// provisional identifier ("__fp/<n>") until its creation reports; while a
// node is pinned (it holds local changes the cloud lacks) reports leave it
// alone.
//
// Ownership: the replica holds the enumerators of the folders it filled; the
// extension and the invalidator are its maker's and outlive it.
// Threads: every operation may be called from any thread. Calls into the
// extension and the invalidator are made without the replica's lock held;
// a folder is listed or reported by one thread at a time, others wait.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "driver/ListAhead.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp::driver {

using Ino = uint64_t;
inline constexpr Ino kRootIno = 1;
inline constexpr Ino kTrashIno = 2;
inline constexpr std::string_view kTrashName = ".Trash";

// A failure whose code is the errno the kernel gets.
inline Failure errnoFailure(int code, std::string message = {}) {
  return Failure{0, code, std::move(message)};
}

bool isProvisional(std::string_view identifier);

// What the provider said about one item, copied out of its item object.
struct ItemRecord {
  std::string identifier;
  std::string parent;  // empty when the item named none
  std::optional<std::string> filename;
  bool folder = false;
  uint64_t size = 0;
  Date created = 0;
  Date modified = 0;
  uint64_t capabilities = 0;
  std::optional<NSFileProviderItemVersion> version;

  static ItemRecord of(NSFileProviderItem& item);
};

struct Attributes {
  Ino ino = 0;
  bool folder = false;
  uint64_t size = 0;
  Date created = 0;
  Date modified = 0;
  uint64_t capabilities = 0;
};

struct Child {
  std::string name;
  Attributes attributes;
};

// A node as the folder's operations need it to build the items they hand
// to the extension.
struct NodeInfo {
  Ino parent = 0;  // 0 once the node left the tree
  std::string parentIdentifier;
  std::string name;  // as shown
  ItemRecord record;
  bool provisional = false;
  bool pinned = false;
};

struct Invalidation {
  enum class Kind {
    Entry,       // the name `name` in `parent` may point elsewhere now
    Attributes,  // `ino`'s attributes changed
    Contents,    // `ino`'s contents changed: attributes and cached pages
    Delete,      // `ino` left `parent`, where it was `name`
  };
  Kind kind;
  Ino parent = 0;
  Ino ino = 0;
  std::string name;
  bool operator==(const Invalidation&) const = default;
};

// Tells the kernel what went stale. Called from any thread but never with
// the replica's lock held; the FUSE side must not block the caller on the
// kernel (a caller may be serving a request for the same inode).
class Invalidator {
 public:
  virtual ~Invalidator() = default;
  virtual void invalidate(std::vector<Invalidation> batch) = 0;
};

class Replica {
 public:
  Replica(NSFileProviderReplicatedExtension& extension, Invalidator& invalidator);
  ~Replica();
  Replica(const Replica&) = delete;
  Replica& operator=(const Replica&) = delete;

  // --- the kernel's side ------------------------------------------------
  // Fills `parent` when needed; counts one kernel lookup of the child.
  Result<Attributes> lookup(Ino parent, std::string_view name) EXCLUDES(mutex_);
  Result<Attributes> attributes(Ino ino) EXCLUDES(mutex_);
  // One kernel lookup of each (a page of readdirplus entries).
  void countLookups(const std::vector<Ino>& inos) EXCLUDES(mutex_);
  void forget(Ino ino, uint64_t count) EXCLUDES(mutex_);
  // A folder's children, listing it first when it never was. The trash is
  // listed afresh each time: its change report is always empty. The
  // subfolders shown are listed ahead, in the background.
  Result<std::vector<Child>> children(Ino folder) EXCLUDES(mutex_);

  // --- the folder's operations ------------------------------------------
  Result<NodeInfo> info(Ino ino) EXCLUDES(mutex_);
  // The child shown under `name`, filling `parent` when needed; no count.
  Result<Ino> find(Ino parent, std::string_view name) EXCLUDES(mutex_);
  std::optional<Ino> inoOf(const std::string& identifier) EXCLUDES(mutex_);
  // Where the node is shown, from the top of the folder ("Docs/a/b.txt");
  // none once it left the tree.
  std::optional<std::string> pathOf(Ino ino) EXCLUDES(mutex_);
  // A child made here: a new file under a provisional identifier, or a
  // folder whose creation reported. Fails with EEXIST when the name is
  // shown already. Counts one kernel lookup.
  Result<Attributes> add(Ino parent, std::string_view name, const ItemRecord& record)
      EXCLUDES(mutex_);
  // What a creation or modification reported for the node: its identifier
  // (a provisional one is swapped, a move may change it), place, name and
  // attributes. An item placed in a folder that is not shown leaves the tree.
  void apply(Ino ino, const ItemRecord& record) EXCLUDES(mutex_);
  // The node leaves the tree: dropped before its creation, or deleted for
  // good. The kernel already knows. The host may keep listing an item
  // deleted for good in its trash; the trash hides it from then on.
  void remove(Ino ino, bool deletedForGood) EXCLUDES(mutex_);
  // A pinned node is left alone by reports.
  void pin(Ino ino, bool pinned) EXCLUDES(mutex_);
  // Whether the folder shows no child (filling it first).
  Result<bool> empty(Ino folder) EXCLUDES(mutex_);

  // --- change reports ---------------------------------------------------
  // Runs the change report of a signalled container that was filled.
  void signalled(const std::string& container) EXCLUDES(mutex_);
  // Runs the working set's change report: only changed records, each with
  // its own parent.
  void reportWorkingSet() EXCLUDES(mutex_);

 private:
  class PackedTexts;
  struct Node;
  struct FolderState;
  using Batch = std::vector<Invalidation>;

  Node* get(Ino ino) REQUIRES(mutex_);
  // The folder node of that identifier; with `listedOnly`, only one that
  // was listed (a report need not track folders nobody looked into).
  Ino placeFor(const std::string& parentIdentifier, bool listedOnly) REQUIRES(mutex_);
  std::string identifierOf(Ino ino) REQUIRES(mutex_);
  Attributes attributesOf(Ino ino, const Node& node) const;
  Ino makeNode(const ItemRecord& record) REQUIRES(mutex_);
  void update(Ino ino, Node& node, const ItemRecord& record, bool fromReport, Batch& batch)
      REQUIRES(mutex_);
  void attach(Ino ino, Node& node, Ino folder, Batch& batch) REQUIRES(mutex_);
  void detach(Ino ino, Node& node, Batch* batch) REQUIRES(mutex_);
  void claimName(Ino ino, Node& node, FolderState& folder) REQUIRES(mutex_);
  void maybeErase(Ino ino) REQUIRES(mutex_);
  void resetFolder(Node& node, Batch& batch) REQUIRES(mutex_);
  void applyContents(Ino folder, std::vector<ItemRecord> records,
                     const std::vector<std::string>& deleted, Batch& batch) REQUIRES(mutex_);
  void applyChange(const ItemRecord& record, Batch& batch) REQUIRES(mutex_);
  // Waits until no listing or report runs on `folder`, then marks one
  // running; the folder's identifier, or a failure.
  Result<std::string> beginWork(Ino folder, MutexLock& lock) REQUIRES(mutex_);
  void endWork(Ino folder) REQUIRES(mutex_);
  Result<void> fill(Ino folder, bool again) EXCLUDES(mutex_);
  void post(Batch batch);

  NSFileProviderReplicatedExtension& extension_;
  Invalidator& invalidator_;

  Mutex mutex_;
  std::condition_variable_any idle_;
  std::unordered_map<Ino, std::unique_ptr<Node>> nodes_ GUARDED_BY(mutex_);
  // Keys view the identifier held by the node.
  std::unordered_map<std::string_view, Ino> byIdentifier_ GUARDED_BY(mutex_);
  Ino nextIno_ GUARDED_BY(mutex_) = kTrashIno + 1;
  NSFileProviderEnumeratorRef workingSet_ GUARDED_BY(mutex_);
  std::string workingSetAnchor_ GUARDED_BY(mutex_);
  bool workingSetBusy_ GUARDED_BY(mutex_) = false;
  std::unordered_set<std::string> deletedForGood_ GUARDED_BY(mutex_);
  // Last: its threads fill folders here, so it goes first.
  ListAhead listAhead_;
};

}  // namespace hvfp::driver

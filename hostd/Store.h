// The host's metadata: mounts, items, the change cursor, upload
// reservations and sessions, and the provider's sync records, in one SQLite
// database (WAL). Every mutating call commits before it returns, so whatever
// a reply reports survives a kill -9 of the process.
//
// Store owns its connection and serialises all calls behind one mutex; any
// thread may call any method. Callbacks run with that mutex held and must not
// call back into the store. Item rules: uuid hashes are 32 random lowercase
// hex characters, unique within a mount; a mount's root folder has the uuid
// hash "" (its children have up_hash ""); names are unique among the live
// children of a folder; status 7 means "in the trash", anything else is live.
// Moves between mounts are refused: an item keeps its mount for life.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Outcome.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::hostd {

class Db;

inline constexpr int64_t kStatusLive = 0;
inline constexpr int64_t kStatusTrash = 7;

struct Mount {
  int64_t id = 0;
  std::string name;
  uint64_t lastTime = 0;
  uint64_t created = 0;
};

struct Item {
  int64_t mountId = 0;
  std::string uuid;
  std::string upHash;
  std::string name;
  std::string webpath;
  bool dir = false;
  bool root = false;
  std::string fileHash;
  uint64_t size = 0;
  uint64_t createTime = 0;
  uint64_t changeTime = 0;
  int64_t status = kStatusLive;
  std::string property;
  int64_t lock = 0;
  int64_t lockId = 0;
  int64_t lastId = 0;
  std::string lastName;
  int64_t childCount = 0;
  uint64_t cursor = 0;
};

// A file announced by "create" whose contents are still being uploaded.
struct Reservation {
  int64_t mountId = 0;
  std::string uuid;
  std::string upHash;
  std::string webpath;
  std::string fileHash;
  uint64_t size = 0;
  uint64_t createTime = 0;
  uint64_t changeTime = 0;
};

struct SessionRow {
  std::string id;
  int port = 0;
  int64_t mountId = 0;
  std::string uuid;
  std::string fileHash;
  uint64_t size = 0;
  uint64_t created = 0;
};

// One "updatestatus" or "deletesyncdb" the store took, oldest first.
struct SyncLogEntry {
  uint64_t seq = 0;
  int64_t mountId = 0;
  std::string uuid;
  std::string query;              // "updatestatus" or "deletesyncdb"
  std::optional<int64_t> status;  // the local status set; none for a deletion
  uint64_t at = 0;                // seconds since the epoch
};

// Name rules shared by every way an item gets a name.
bool isValidName(std::string_view name);
bool isValidWebpath(std::string_view webpath);
uint64_t nowSeconds();

class Store {
 public:
  static Result<std::unique_ptr<Store>> open(const std::filesystem::path& file);
  ~Store();

  bool empty();
  uint64_t cursor();

  std::vector<Mount> mounts();
  std::optional<Mount> mount(int64_t id);
  // Any item, live or trashed; uuid "" gives the mount's root record.
  std::optional<Item> item(int64_t mountId, std::string_view uuid);
  // The live item at a path inside the mount ("" is the root).
  std::optional<Item> itemAt(int64_t mountId, std::string_view webpath);
  // Live children of a folder in name order; false when the folder is unknown.
  bool forEachChild(int64_t mountId, std::string_view folderUuid,
                    const std::function<void(const Item&)>& fn);
  std::vector<Item> trashed();
  // Items whose last change has a cursor above `after`, in cursor order.
  void forEachChange(uint64_t after, const std::function<void(const Item&)>& fn);

  Result<Mount> addMount(std::string_view name, uint64_t lastTime);
  Result<Mount> renameMount(int64_t mountId, std::string_view name);
  // Folder at a path whose parent must exist; an existing folder is returned.
  Result<Item> makeFolder(int64_t mountId, std::string_view webpath, uint64_t ctime,
                          uint64_t mtime);
  // Decides the uuid hash of a file about to be uploaded to `webpath`: the
  // existing file's when the path holds one (a new version), else a new one.
  Result<Reservation> reserve(int64_t mountId, std::string_view webpath, std::string_view fileHash,
                              uint64_t size, uint64_t ctime, uint64_t mtime, bool persist);
  std::optional<Reservation> reservation(int64_t mountId, std::string_view uuid);
  // Creates the reserved file, or gives the existing one the new contents.
  Result<Item> commitFile(const Reservation& r);
  Result<Item> setContents(int64_t mountId, std::string_view uuid, std::string_view fileHash,
                           uint64_t size, uint64_t mtime);
  Result<Item> rename(int64_t mountId, std::string_view uuid, std::string_view name);
  Result<Item> move(int64_t mountId, std::string_view uuid, int64_t toMount,
                    std::string_view toParent);
  Result<Item> trash(int64_t mountId, std::string_view uuid);
  Result<Item> restore(int64_t mountId, std::string_view uuid);
  // Removes an item and everything below it for good; returns what it was.
  Result<Item> erase(int64_t mountId, std::string_view uuid);

  // The provider's sync record of an item; both changes are logged.
  Result<bool> setLocalStatus(int64_t mountId, std::string_view uuid, int64_t status);
  std::optional<int64_t> localStatus(int64_t mountId, std::string_view uuid);
  Result<void> dropSyncRecord(int64_t mountId, std::string_view uuid);
  // The last kSyncLogLength sync-record changes, oldest first.
  std::vector<SyncLogEntry> syncLog();
  static constexpr int64_t kSyncLogLength = 1000;

  Result<void> saveSession(const SessionRow& row);
  void dropSession(std::string_view id);
  std::vector<SessionRow> sessions();

  // Bulk insert of `count` files named prefix<N> into one folder, one
  // transaction; for load tests and benchmarks.
  Result<size_t> addManyFiles(int64_t mountId, std::string_view folderUuid, size_t count,
                              std::string_view prefix, std::string_view fileHash, uint64_t size);

 private:
  explicit Store(std::unique_ptr<Db> db);
  Result<void> migrate() REQUIRES(mutex_);
  uint64_t bumpCursor() REQUIRES(mutex_);
  bool logSync(int64_t mountId, std::string_view uuid, std::string_view query,
               std::optional<int64_t> status) REQUIRES(mutex_);
  std::optional<Item> itemLocked(int64_t mountId, std::string_view uuid) REQUIRES(mutex_);
  std::optional<Item> childNamed(int64_t mountId, std::string_view folder, std::string_view name)
      REQUIRES(mutex_);
  std::optional<Item> resolveLocked(int64_t mountId, std::string_view webpath) REQUIRES(mutex_);
  // The folder at `webpath`, or the failure a new item under it reports.
  Result<Item> folderLocked(int64_t mountId, std::string_view webpath) REQUIRES(mutex_);
  std::optional<Item> liveFolder(int64_t mountId, std::string_view uuid) REQUIRES(mutex_);
  bool isInside(int64_t mountId, std::string_view folder, std::string_view ancestor)
      REQUIRES(mutex_);
  bool relocate(const Item& item, std::string_view upHash, std::string_view name, uint64_t cursor)
      REQUIRES(mutex_);
  std::string freeName(int64_t mountId, std::string_view folder, std::string_view name)
      REQUIRES(mutex_);
  Result<Item> insertItem(Item item) REQUIRES(mutex_);

  Mutex mutex_;
  std::unique_ptr<Db> db_ GUARDED_BY(mutex_);
};

}  // namespace hvfp::hostd

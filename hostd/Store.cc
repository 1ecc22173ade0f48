#include "Store.h"

#include <chrono>

#include "Digest.h"
#include "Sqlite.h"

namespace hvfp::hostd {

namespace {

constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);
INSERT OR IGNORE INTO meta(key, value) VALUES('cursor', 0);
CREATE TABLE IF NOT EXISTS mounts(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL,
  lasttime INTEGER NOT NULL, created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS items(id INTEGER PRIMARY KEY, mount_id INTEGER NOT NULL,
  uuid_hash TEXT NOT NULL, up_hash TEXT NOT NULL, name TEXT NOT NULL, webpath TEXT NOT NULL,
  dir INTEGER NOT NULL, filehash TEXT NOT NULL DEFAULT '', size INTEGER NOT NULL DEFAULT 0,
  ctime INTEGER NOT NULL, mtime INTEGER NOT NULL, status INTEGER NOT NULL DEFAULT 0,
  property TEXT NOT NULL DEFAULT '', lock INTEGER NOT NULL DEFAULT 0,
  lock_id INTEGER NOT NULL DEFAULT 0, last_id INTEGER NOT NULL DEFAULT 0,
  last_name TEXT NOT NULL DEFAULT '', cursor INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS items_uuid ON items(mount_id, uuid_hash);
CREATE INDEX IF NOT EXISTS items_up ON items(mount_id, up_hash, name);
CREATE INDEX IF NOT EXISTS items_cursor ON items(cursor);
CREATE TABLE IF NOT EXISTS sync_records(mount_id INTEGER NOT NULL, uuid_hash TEXT NOT NULL,
  local_status INTEGER NOT NULL, updated INTEGER NOT NULL, PRIMARY KEY(mount_id, uuid_hash));
CREATE TABLE IF NOT EXISTS reservations(mount_id INTEGER NOT NULL, uuid_hash TEXT NOT NULL,
  up_hash TEXT NOT NULL, webpath TEXT NOT NULL, filehash TEXT NOT NULL, size INTEGER NOT NULL,
  ctime INTEGER NOT NULL, mtime INTEGER NOT NULL, PRIMARY KEY(mount_id, uuid_hash));
CREATE TABLE IF NOT EXISTS sessions(id TEXT PRIMARY KEY, port INTEGER NOT NULL,
  mount_id INTEGER NOT NULL, uuid_hash TEXT NOT NULL, filehash TEXT NOT NULL,
  size INTEGER NOT NULL, created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS sync_log(seq INTEGER PRIMARY KEY AUTOINCREMENT,
  mount_id INTEGER NOT NULL, uuid_hash TEXT NOT NULL, query TEXT NOT NULL, local_status INTEGER,
  at INTEGER NOT NULL);
)";

constexpr const char* kCols =
    "i.mount_id, i.uuid_hash, i.up_hash, i.name, i.webpath, i.dir, i.filehash, i.size, i.ctime, "
    "i.mtime, i.status, i.property, i.lock, i.lock_id, i.last_id, i.last_name, i.cursor, "
    "CASE WHEN i.dir THEN (SELECT COUNT(*) FROM items c WHERE c.mount_id = i.mount_id AND "
    "c.up_hash = i.uuid_hash AND c.status NOT IN (6, 7)) ELSE 0 END";

constexpr const char* kLive = "i.status NOT IN (6, 7)";

Item readItem(const Stmt& s) {
  Item it;
  it.mountId = s.integer(0);
  it.uuid = s.text(1);
  it.upHash = s.text(2);
  it.name = s.text(3);
  it.webpath = s.text(4);
  it.dir = s.integer(5) != 0;
  it.fileHash = s.text(6);
  it.size = static_cast<uint64_t>(s.integer(7));
  it.createTime = static_cast<uint64_t>(s.integer(8));
  it.changeTime = static_cast<uint64_t>(s.integer(9));
  it.status = s.integer(10);
  it.property = s.text(11);
  it.lock = s.integer(12);
  it.lockId = s.integer(13);
  it.lastId = s.integer(14);
  it.lastName = s.text(15);
  it.cursor = static_cast<uint64_t>(s.integer(16));
  it.childCount = s.integer(17);
  return it;
}

std::string select(std::string_view where) {
  return std::string("SELECT ") + kCols + " FROM items i WHERE " + std::string(where);
}

Failure dbFailure(Db& db) { return fail(500, kStorage, "database: " + db.error()); }
Failure notFound() { return fail(404, kNotFound, "no such item"); }
Failure nameTaken() { return fail(409, kNameTaken, "the name is taken in that folder"); }
Failure badName() { return fail(400, kBadName, "invalid name"); }

std::string joinPath(std::string_view parent, std::string_view name) {
  if (parent.empty()) return std::string(name);
  return std::string(parent) + "/" + std::string(name);
}

std::pair<std::string, std::string> splitParent(std::string_view webpath) {
  auto slash = webpath.rfind('/');
  if (slash == std::string_view::npos) return {"", std::string(webpath)};
  return {std::string(webpath.substr(0, slash)), std::string(webpath.substr(slash + 1))};
}

}  // namespace

bool isValidName(std::string_view name) {
  if (name.empty() || name.size() > 255 || name == "." || name == "..") return false;
  for (char c : name)
    if (c == '/' || c == '\0') return false;
  return true;
}

bool isValidWebpath(std::string_view webpath) {
  if (webpath.empty() || webpath.size() > 4096) return false;
  size_t start = 0;
  for (;;) {
    auto slash = webpath.find('/', start);
    auto part =
        webpath.substr(start, slash == std::string_view::npos ? webpath.npos : slash - start);
    if (!isValidName(part)) return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

uint64_t nowSeconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

Result<std::unique_ptr<Store>> Store::open(const std::filesystem::path& file) {
  auto db = Db::open(file.string());
  if (!db.ok()) return db.failure();
  std::unique_ptr<Store> store(new Store(std::move(db.value())));
  MutexLock lock(store->mutex_);
  if (auto migrated = store->migrate(); !migrated.ok()) return migrated.failure();
  return store;
}

Store::Store(std::unique_ptr<Db> db) : db_(std::move(db)) {}
Store::~Store() = default;

Result<void> Store::migrate() {
  // WAL with synchronous=NORMAL survives a killed process: a committed
  // transaction is in the log before COMMIT returns; only power loss could
  // take the last ones.
  if (!db_->exec("PRAGMA journal_mode=WAL") || !db_->exec("PRAGMA synchronous=NORMAL") ||
      !db_->exec(kSchema))
    return dbFailure(*db_);
  return {};
}

uint64_t Store::bumpCursor() {
  Stmt up(*db_, "UPDATE meta SET value = value + 1 WHERE key = 'cursor' RETURNING value");
  if (!up.step()) return 0;
  auto v = static_cast<uint64_t>(up.integer(0));
  up.run();
  return v;
}

bool Store::empty() {
  MutexLock lock(mutex_);
  Stmt s(*db_, "SELECT (SELECT COUNT(*) FROM mounts) + (SELECT COUNT(*) FROM items)");
  return s.step() && s.integer(0) == 0;
}

uint64_t Store::cursor() {
  MutexLock lock(mutex_);
  Stmt s(*db_, "SELECT value FROM meta WHERE key = 'cursor'");
  return s.step() ? static_cast<uint64_t>(s.integer(0)) : 0;
}

std::vector<Mount> Store::mounts() {
  MutexLock lock(mutex_);
  std::vector<Mount> out;
  Stmt s(*db_, "SELECT id, name, lasttime, created FROM mounts ORDER BY id");
  while (s.step())
    out.push_back({s.integer(0), s.text(1), static_cast<uint64_t>(s.integer(2)),
                   static_cast<uint64_t>(s.integer(3))});
  return out;
}

std::optional<Mount> Store::mount(int64_t id) {
  MutexLock lock(mutex_);
  Stmt s(*db_, "SELECT id, name, lasttime, created FROM mounts WHERE id = ?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return Mount{s.integer(0), s.text(1), static_cast<uint64_t>(s.integer(2)),
               static_cast<uint64_t>(s.integer(3))};
}

std::optional<Item> Store::itemLocked(int64_t mountId, std::string_view uuid) {
  if (uuid.empty()) {
    Stmt m(*db_,
           "SELECT name, lasttime, created, (SELECT COUNT(*) FROM items i WHERE i.mount_id = "
           "mounts.id "
           "AND i.up_hash = '' AND i.status NOT IN (6, 7)) FROM mounts WHERE id = ?");
    m.bind(1, mountId);
    if (!m.step()) return std::nullopt;
    Item root;
    root.mountId = mountId;
    root.name = m.text(0);
    root.changeTime = static_cast<uint64_t>(m.integer(1));
    root.createTime = static_cast<uint64_t>(m.integer(2));
    root.childCount = m.integer(3);
    root.dir = true;
    root.root = true;
    return root;
  }
  Stmt s(*db_, select("i.mount_id = ? AND i.uuid_hash = ?"));
  s.bind(1, mountId).bind(2, uuid);
  if (!s.step()) return std::nullopt;
  return readItem(s);
}

std::optional<Item> Store::item(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  return itemLocked(mountId, uuid);
}

std::optional<Item> Store::childNamed(int64_t mountId, std::string_view folder,
                                      std::string_view name) {
  Stmt s(*db_, select("i.mount_id = ? AND i.up_hash = ? AND i.name = ? AND ") + kLive);
  s.bind(1, mountId).bind(2, folder).bind(3, name);
  if (!s.step()) return std::nullopt;
  return readItem(s);
}

std::optional<Item> Store::liveFolder(int64_t mountId, std::string_view uuid) {
  auto it = itemLocked(mountId, uuid);
  if (!it || !it->dir || it->status == kStatusTrash) return std::nullopt;
  // A folder below a trashed one is out of sight: treat it as gone.
  std::string up = it->upHash;
  for (int depth = 0; !up.empty() && depth < 4096; ++depth) {
    auto parent = itemLocked(mountId, up);
    if (!parent || parent->status == kStatusTrash) return std::nullopt;
    up = parent->upHash;
  }
  return it;
}

std::optional<Item> Store::resolveLocked(int64_t mountId, std::string_view webpath) {
  auto cur = itemLocked(mountId, "");
  size_t start = 0;
  while (cur && start < webpath.size()) {
    auto slash = webpath.find('/', start);
    auto part =
        webpath.substr(start, slash == std::string_view::npos ? webpath.npos : slash - start);
    cur = childNamed(mountId, cur->uuid, part);
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return cur;
}

std::optional<Item> Store::itemAt(int64_t mountId, std::string_view webpath) {
  MutexLock lock(mutex_);
  return resolveLocked(mountId, webpath);
}

bool Store::forEachChild(int64_t mountId, std::string_view folderUuid,
                         const std::function<void(const Item&)>& fn) {
  MutexLock lock(mutex_);
  if (!liveFolder(mountId, folderUuid)) return false;
  Stmt s(*db_, select("i.mount_id = ? AND i.up_hash = ? AND ") + kLive + " ORDER BY i.name");
  s.bind(1, mountId).bind(2, folderUuid);
  while (s.step()) fn(readItem(s));
  return true;
}

std::vector<Item> Store::trashed() {
  MutexLock lock(mutex_);
  std::vector<Item> out;
  Stmt s(*db_, select("i.status = 7 ORDER BY i.mount_id, i.name"));
  while (s.step()) out.push_back(readItem(s));
  return out;
}

void Store::forEachChange(uint64_t after, const std::function<void(const Item&)>& fn) {
  MutexLock lock(mutex_);
  Stmt s(*db_, select("i.cursor > ? ORDER BY i.cursor"));
  s.bind(1, static_cast<int64_t>(after));
  while (s.step()) fn(readItem(s));
}

Result<Mount> Store::addMount(std::string_view name, uint64_t lastTime) {
  if (!isValidName(name)) return badName();
  MutexLock lock(mutex_);
  Stmt s(*db_, "INSERT INTO mounts(name, lasttime, created) VALUES(?, ?, ?)");
  s.bind(1, name)
      .bind(2, static_cast<int64_t>(lastTime))
      .bind(3, static_cast<int64_t>(nowSeconds()));
  if (!s.run()) return dbFailure(*db_);
  return Mount{db_->lastInsertId(), std::string(name), lastTime, nowSeconds()};
}

Result<Mount> Store::renameMount(int64_t mountId, std::string_view name) {
  if (!isValidName(name)) return badName();
  MutexLock lock(mutex_);
  Stmt s(*db_, "UPDATE mounts SET name = ?, lasttime = ? WHERE id = ?");
  s.bind(1, name).bind(2, static_cast<int64_t>(nowSeconds())).bind(3, mountId);
  if (!s.run()) return dbFailure(*db_);
  if (db_->changes() == 0) return fail(404, kNotFound, "no such mount");
  return Mount{mountId, std::string(name), nowSeconds(), 0};
}

Result<Item> Store::insertItem(Item it) {
  Stmt s(
      *db_,
      "INSERT INTO items(mount_id, uuid_hash, up_hash, name, webpath, dir, filehash, size, ctime, "
      "mtime, status, cursor) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 0, ?)");
  s.bind(1, it.mountId).bind(2, it.uuid).bind(3, it.upHash).bind(4, it.name).bind(5, it.webpath);
  s.bind(6, int64_t{it.dir}).bind(7, it.fileHash).bind(8, static_cast<int64_t>(it.size));
  s.bind(9, static_cast<int64_t>(it.createTime)).bind(10, static_cast<int64_t>(it.changeTime));
  s.bind(11, static_cast<int64_t>(it.cursor));
  if (!s.run()) return dbFailure(*db_);
  return it;
}

Result<Item> Store::folderLocked(int64_t mountId, std::string_view webpath) {
  auto folder = resolveLocked(mountId, webpath);
  if (!folder) return fail(404, kNotFound, "parent folder does not exist");
  if (!folder->dir) return fail(409, kNotFolder, "parent is not a folder");
  return *folder;
}

Result<Item> Store::makeFolder(int64_t mountId, std::string_view webpath, uint64_t ctime,
                               uint64_t mtime) {
  if (!isValidWebpath(webpath)) return badName();
  auto [parentPath, name] = splitParent(webpath);
  MutexLock lock(mutex_);
  auto parent = folderLocked(mountId, parentPath);
  if (!parent.ok()) return parent.failure();
  if (auto existing = childNamed(mountId, parent->uuid, name)) {
    if (existing->dir) return *existing;
    return nameTaken();
  }
  Transaction tx(*db_);
  Item it;
  it.mountId = mountId;
  it.uuid = randomHex(16);
  it.upHash = parent->uuid;
  it.name = name;
  it.webpath = joinPath(parent->webpath, name);
  it.dir = true;
  it.createTime = ctime;
  it.changeTime = mtime;
  it.cursor = bumpCursor();
  auto r = insertItem(it);
  if (!r.ok()) return r;
  if (!tx.commit()) return dbFailure(*db_);
  return r;
}

Result<Reservation> Store::reserve(int64_t mountId, std::string_view webpath,
                                   std::string_view fileHash, uint64_t size, uint64_t ctime,
                                   uint64_t mtime, bool persist) {
  if (!isValidWebpath(webpath)) return badName();
  auto [parentPath, name] = splitParent(webpath);
  MutexLock lock(mutex_);
  auto parent = folderLocked(mountId, parentPath);
  if (!parent.ok()) return parent.failure();
  Reservation r{
      mountId, "",    parent->uuid, joinPath(parent->webpath, name), std::string(fileHash),
      size,    ctime, mtime};
  if (auto existing = childNamed(mountId, parent->uuid, name)) {
    if (existing->dir) return nameTaken();
    r.uuid = existing->uuid;
  } else {
    r.uuid = randomHex(16);
  }
  if (persist) {
    Stmt s(*db_,
           "INSERT OR REPLACE INTO reservations(mount_id, uuid_hash, up_hash, webpath, filehash, "
           "size, "
           "ctime, mtime) VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    s.bind(1, mountId).bind(2, r.uuid).bind(3, r.upHash).bind(4, r.webpath).bind(5, r.fileHash);
    s.bind(6, static_cast<int64_t>(size))
        .bind(7, static_cast<int64_t>(ctime))
        .bind(8, static_cast<int64_t>(mtime));
    if (!s.run()) return dbFailure(*db_);
  }
  return r;
}

std::optional<Reservation> Store::reservation(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  Stmt s(*db_,
         "SELECT up_hash, webpath, filehash, size, ctime, mtime FROM reservations WHERE mount_id = "
         "? AND "
         "uuid_hash = ?");
  s.bind(1, mountId).bind(2, uuid);
  if (!s.step()) return std::nullopt;
  return Reservation{mountId,
                     std::string(uuid),
                     s.text(0),
                     s.text(1),
                     s.text(2),
                     static_cast<uint64_t>(s.integer(3)),
                     static_cast<uint64_t>(s.integer(4)),
                     static_cast<uint64_t>(s.integer(5))};
}

Result<Item> Store::commitFile(const Reservation& r) {
  auto [parentPath, name] = splitParent(r.webpath);
  MutexLock lock(mutex_);
  auto parent = resolveLocked(r.mountId, parentPath);
  if (!parent || !parent->dir) return fail(404, kNotFound, "parent folder is gone");
  Transaction tx(*db_);
  uint64_t cur = bumpCursor();
  Stmt drop(*db_, "DELETE FROM reservations WHERE mount_id = ? AND uuid_hash = ?");
  drop.bind(1, r.mountId).bind(2, r.uuid);
  if (!drop.run()) return dbFailure(*db_);
  if (auto existing = childNamed(r.mountId, parent->uuid, name)) {
    if (existing->dir) return nameTaken();
    Stmt up(*db_,
            "UPDATE items SET filehash = ?, size = ?, mtime = ?, cursor = ? WHERE mount_id = ? AND "
            "uuid_hash = ?");
    up.bind(1, r.fileHash)
        .bind(2, static_cast<int64_t>(r.size))
        .bind(3, static_cast<int64_t>(r.changeTime));
    up.bind(4, static_cast<int64_t>(cur)).bind(5, r.mountId).bind(6, existing->uuid);
    if (!up.run() || !tx.commit()) return dbFailure(*db_);
    return *itemLocked(r.mountId, existing->uuid);
  }
  Item it;
  it.mountId = r.mountId;
  // The reserved hash may meanwhile name a trashed older version elsewhere.
  it.uuid = itemLocked(r.mountId, r.uuid) ? randomHex(16) : r.uuid;
  it.upHash = parent->uuid;
  it.name = name;
  it.webpath = joinPath(parent->webpath, name);
  it.fileHash = r.fileHash;
  it.size = r.size;
  it.createTime = r.createTime;
  it.changeTime = r.changeTime;
  it.cursor = cur;
  auto res = insertItem(it);
  if (!res.ok()) return res;
  if (!tx.commit()) return dbFailure(*db_);
  return res;
}

Result<Item> Store::setContents(int64_t mountId, std::string_view uuid, std::string_view fileHash,
                                uint64_t size, uint64_t mtime) {
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it || it->root) return notFound();
  if (it->dir) return fail(409, kNotFolder, "a folder has no contents");
  Transaction tx(*db_);
  Stmt up(*db_,
          "UPDATE items SET filehash = ?, size = ?, mtime = ?, cursor = ? WHERE mount_id = ? AND "
          "uuid_hash = ?");
  up.bind(1, fileHash).bind(2, static_cast<int64_t>(size)).bind(3, static_cast<int64_t>(mtime));
  up.bind(4, static_cast<int64_t>(bumpCursor())).bind(5, mountId).bind(6, uuid);
  if (!up.run() || !tx.commit()) return dbFailure(*db_);
  return *itemLocked(mountId, uuid);
}

bool Store::relocate(const Item& item, std::string_view upHash, std::string_view name,
                     uint64_t cursor) {
  auto parent = itemLocked(item.mountId, upHash);
  if (!parent) return false;
  std::string newPath = joinPath(parent->webpath, name);
  Stmt up(*db_,
          "UPDATE items SET up_hash = ?, name = ?, webpath = ?, cursor = ? WHERE mount_id = ? AND "
          "uuid_hash = ?");
  up.bind(1, upHash).bind(2, name).bind(3, newPath).bind(4, static_cast<int64_t>(cursor));
  up.bind(5, item.mountId).bind(6, item.uuid);
  if (!up.run()) return false;
  if (!item.dir || newPath == item.webpath) return true;
  // Paths below a moved folder follow it; their records changed, so they
  // show up in the change listing too.
  Stmt below(
      *db_,
      "UPDATE items SET webpath = ? || substr(webpath, ?), cursor = ? WHERE mount_id = ? AND "
      "substr(webpath, 1, ?) = ?");
  int64_t oldLen = static_cast<int64_t>(item.webpath.size());
  below.bind(1, newPath)
      .bind(2, oldLen + 1)
      .bind(3, static_cast<int64_t>(cursor))
      .bind(4, item.mountId);
  below.bind(5, oldLen + 1).bind(6, item.webpath + "/");
  return below.run();
}

Result<Item> Store::rename(int64_t mountId, std::string_view uuid, std::string_view name) {
  if (!isValidName(name)) return badName();
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it) return notFound();
  if (it->root) return fail(403, kRootRefused, "a mount root cannot be renamed here");
  if (it->name == name) return *it;
  if (it->status != kStatusTrash) {
    if (auto other = childNamed(mountId, it->upHash, name); other && other->uuid != it->uuid)
      return nameTaken();
  }
  Transaction tx(*db_);
  if (!relocate(*it, it->upHash, name, bumpCursor()) || !tx.commit()) return dbFailure(*db_);
  return *itemLocked(mountId, uuid);
}

bool Store::isInside(int64_t mountId, std::string_view folder, std::string_view ancestor) {
  std::string cur(folder);
  for (int depth = 0; !cur.empty() && depth < 4096; ++depth) {
    if (cur == ancestor) return true;
    auto it = itemLocked(mountId, cur);
    if (!it) return false;
    cur = it->upHash;
  }
  return false;
}

Result<Item> Store::move(int64_t mountId, std::string_view uuid, int64_t toMount,
                         std::string_view toParent) {
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it) return notFound();
  if (it->root) return fail(403, kRootRefused, "a mount root cannot be moved");
  if (toMount != mountId) return fail(403, kCrossMount, "moves between mounts are not supported");
  auto parent = liveFolder(mountId, toParent);
  if (!parent) return fail(404, kNotFound, "destination folder does not exist");
  if (it->dir && isInside(mountId, toParent, uuid))
    return fail(409, kIntoItself, "a folder cannot move into itself");
  if (it->upHash == toParent) return *it;
  if (it->status != kStatusTrash && childNamed(mountId, toParent, it->name)) return nameTaken();
  Transaction tx(*db_);
  if (!relocate(*it, toParent, it->name, bumpCursor()) || !tx.commit()) return dbFailure(*db_);
  return *itemLocked(mountId, uuid);
}

Result<Item> Store::trash(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it) return fail(400, kAlreadyGone, "no such item");
  if (it->root) return fail(403, kRootRefused, "a mount root cannot be trashed");
  if (it->status == kStatusTrash) return fail(400, kAlreadyGone, "already in the trash");
  Transaction tx(*db_);
  Stmt up(*db_, "UPDATE items SET status = 7, cursor = ? WHERE mount_id = ? AND uuid_hash = ?");
  up.bind(1, static_cast<int64_t>(bumpCursor())).bind(2, mountId).bind(3, uuid);
  if (!up.run() || !tx.commit()) return dbFailure(*db_);
  return *itemLocked(mountId, uuid);
}

std::string Store::freeName(int64_t mountId, std::string_view folder, std::string_view name) {
  if (!childNamed(mountId, folder, name)) return std::string(name);
  auto dot = name.rfind('.');
  if (dot == 0 || dot == std::string_view::npos) dot = name.size();
  std::string stem(name.substr(0, dot)), ext(name.substr(dot));
  for (int n = 2; n < 10000; ++n) {
    std::string candidate = stem + " (" + std::to_string(n) + ")" + ext;
    if (!childNamed(mountId, folder, candidate)) return candidate;
  }
  return stem + " (" + randomHex(4) + ")" + ext;
}

Result<Item> Store::restore(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it || it->root) return notFound();
  if (it->status != kStatusTrash) return fail(409, kNotInTrash, "the item is not in the trash");
  // Back where it was when that folder still exists, else to the mount's
  // root; a name taken meanwhile gets a numbered variant.
  std::string up = liveFolder(mountId, it->upHash) ? it->upHash : "";
  std::string name = freeName(mountId, up, it->name);
  Transaction tx(*db_);
  uint64_t cur = bumpCursor();
  Stmt st(*db_, "UPDATE items SET status = 0 WHERE mount_id = ? AND uuid_hash = ?");
  st.bind(1, mountId).bind(2, uuid);
  if (!st.run() || !relocate(*it, up, name, cur) || !tx.commit()) return dbFailure(*db_);
  return *itemLocked(mountId, uuid);
}

Result<Item> Store::erase(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  auto it = itemLocked(mountId, uuid);
  if (!it) return notFound();
  if (it->root) return fail(403, kRootRefused, "a mount root cannot be erased");
  Transaction tx(*db_);
  Stmt del(*db_,
           "WITH RECURSIVE sub(u) AS (SELECT ? UNION SELECT i.uuid_hash FROM items i JOIN sub ON "
           "i.up_hash = sub.u WHERE i.mount_id = ?) DELETE FROM items WHERE mount_id = ? AND "
           "uuid_hash IN "
           "(SELECT u FROM sub)");
  del.bind(1, uuid).bind(2, mountId).bind(3, mountId);
  bumpCursor();
  if (!del.run() || !tx.commit()) return dbFailure(*db_);
  return *it;
}

bool Store::logSync(int64_t mountId, std::string_view uuid, std::string_view query,
                    std::optional<int64_t> status) {
  Stmt add(
      *db_,
      "INSERT INTO sync_log(mount_id, uuid_hash, query, local_status, at) VALUES(?, ?, ?, ?, ?)");
  add.bind(1, mountId).bind(2, uuid).bind(3, query).bind(5, static_cast<int64_t>(nowSeconds()));
  if (status)
    add.bind(4, *status);
  else
    add.bindNull(4);
  Stmt trim(*db_, "DELETE FROM sync_log WHERE seq <= (SELECT MAX(seq) FROM sync_log) - ?");
  trim.bind(1, kSyncLogLength);
  return add.run() && trim.run();
}

Result<bool> Store::setLocalStatus(int64_t mountId, std::string_view uuid, int64_t status) {
  MutexLock lock(mutex_);
  if (!itemLocked(mountId, uuid)) return notFound();
  Transaction tx(*db_);
  Stmt s(*db_,
         "INSERT OR REPLACE INTO sync_records(mount_id, uuid_hash, local_status, updated) "
         "VALUES(?, ?, ?, ?)");
  s.bind(1, mountId).bind(2, uuid).bind(3, status).bind(4, static_cast<int64_t>(nowSeconds()));
  if (!s.run() || !logSync(mountId, uuid, "updatestatus", status) || !tx.commit())
    return dbFailure(*db_);
  return true;
}

std::optional<int64_t> Store::localStatus(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  Stmt s(*db_, "SELECT local_status FROM sync_records WHERE mount_id = ? AND uuid_hash = ?");
  s.bind(1, mountId).bind(2, uuid);
  if (!s.step()) return std::nullopt;
  return s.integer(0);
}

Result<void> Store::dropSyncRecord(int64_t mountId, std::string_view uuid) {
  MutexLock lock(mutex_);
  Transaction tx(*db_);
  Stmt s(*db_, "DELETE FROM sync_records WHERE mount_id = ? AND uuid_hash = ?");
  s.bind(1, mountId).bind(2, uuid);
  if (!s.run() || !logSync(mountId, uuid, "deletesyncdb", std::nullopt) || !tx.commit())
    return dbFailure(*db_);
  return {};
}

std::vector<SyncLogEntry> Store::syncLog() {
  MutexLock lock(mutex_);
  std::vector<SyncLogEntry> out;
  Stmt s(*db_,
         "SELECT seq, mount_id, uuid_hash, query, local_status, at FROM sync_log ORDER BY seq");
  while (s.step()) {
    SyncLogEntry e{
        static_cast<uint64_t>(s.integer(0)), s.integer(1), s.text(2), s.text(3), std::nullopt,
        static_cast<uint64_t>(s.integer(5))};
    if (!s.isNull(4)) e.status = s.integer(4);
    out.push_back(std::move(e));
  }
  return out;
}

Result<void> Store::saveSession(const SessionRow& row) {
  MutexLock lock(mutex_);
  Stmt s(*db_,
         "INSERT OR REPLACE INTO sessions(id, port, mount_id, uuid_hash, filehash, size, created) "
         "VALUES(?, ?, ?, ?, ?, ?, ?)");
  s.bind(1, row.id)
      .bind(2, int64_t{row.port})
      .bind(3, row.mountId)
      .bind(4, row.uuid)
      .bind(5, row.fileHash);
  s.bind(6, static_cast<int64_t>(row.size)).bind(7, static_cast<int64_t>(row.created));
  if (!s.run()) return fail(500, kStorage, "cannot record the session: " + db_->error());
  return {};
}

void Store::dropSession(std::string_view id) {
  MutexLock lock(mutex_);
  Stmt s(*db_, "DELETE FROM sessions WHERE id = ?");
  s.bind(1, id);
  s.run();
}

std::vector<SessionRow> Store::sessions() {
  MutexLock lock(mutex_);
  std::vector<SessionRow> out;
  Stmt s(*db_, "SELECT id, port, mount_id, uuid_hash, filehash, size, created FROM sessions");
  while (s.step())
    out.push_back({s.text(0), static_cast<int>(s.integer(1)), s.integer(2), s.text(3), s.text(4),
                   static_cast<uint64_t>(s.integer(5)), static_cast<uint64_t>(s.integer(6))});
  return out;
}

Result<size_t> Store::addManyFiles(int64_t mountId, std::string_view folderUuid, size_t count,
                                   std::string_view prefix, std::string_view fileHash,
                                   uint64_t size) {
  MutexLock lock(mutex_);
  auto parent = liveFolder(mountId, folderUuid);
  if (!parent) return fail(404, kNotFound, "no such folder");
  Transaction tx(*db_);
  uint64_t cur = bumpCursor();
  Stmt s(*db_,
         "INSERT INTO items(mount_id, uuid_hash, up_hash, name, webpath, dir, filehash, size, "
         "ctime, mtime, "
         "status, cursor) VALUES(?, ?, ?, ?, ?, 0, ?, ?, ?, ?, 0, ?)");
  uint64_t now = nowSeconds();
  for (size_t n = 0; n < count; ++n) {
    std::string name = std::string(prefix) + std::to_string(n);
    if (childNamed(mountId, folderUuid, name)) continue;
    s.reset();
    s.bind(1, mountId).bind(2, randomHex(16)).bind(3, folderUuid).bind(4, name);
    s.bind(5, joinPath(parent->webpath, name))
        .bind(6, fileHash)
        .bind(7, static_cast<int64_t>(size));
    s.bind(8, static_cast<int64_t>(now))
        .bind(9, static_cast<int64_t>(now))
        .bind(10, static_cast<int64_t>(cur));
    if (!s.run()) return dbFailure(*db_);
  }
  if (!tx.commit()) return dbFailure(*db_);
  return count;
}

}  // namespace hvfp::hostd

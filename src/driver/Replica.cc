#include "driver/Replica.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <unordered_set>

#include "driver/Names.h"
#include "platform/Log.h"
#include "platform/fileprovider/ContainerIdentifiers.h"

namespace hvfp::driver {
namespace {

const std::string kRootId(NSFileProviderRootContainerItemIdentifier);
const std::string kTrashId(NSFileProviderTrashContainerItemIdentifier);
const std::string kWorkingSetId(NSFileProviderWorkingSetContainerItemIdentifier);

// Collects a full listing as records, page by page, dropping each batch of
// provider items as soon as it is copied.
class ListingCollector final : public NSFileProviderEnumerationObserver {
 public:
  std::vector<ItemRecord> records;
  std::optional<std::string> nextPage;
  bool failed = false;

  void didEnumerateItems(std::vector<NSFileProviderItemRef> items) override {
    records.reserve(records.size() + items.size());
    for (auto& item : items)
      if (item) records.push_back(ItemRecord::of(*item));
  }
  void finishEnumeratingUpToPage(std::optional<std::string> page) override {
    nextPage = std::move(page);
  }
  void finishEnumeratingWithError(const Error& error) override {
    log("driver: listing failed ({} {})", error.domain, error.code);
    failed = true;
  }
};

class ChangeCollector final : public NSFileProviderChangeObserver {
 public:
  std::vector<ItemRecord> records;
  std::vector<std::string> deleted;
  std::optional<std::string> anchor;
  bool failed = false;

  void didUpdateItems(std::vector<NSFileProviderItemRef> items) override {
    records.reserve(records.size() + items.size());
    for (auto& item : items)
      if (item) records.push_back(ItemRecord::of(*item));
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string> identifiers) override {
    deleted.insert(deleted.end(), identifiers.begin(), identifiers.end());
  }
  void finishEnumeratingChangesUpToSyncAnchor(std::string a, bool) override {
    anchor = std::move(a);
  }
  void finishEnumeratingWithError(const Error& error) override {
    log("driver: change report failed ({} {})", error.domain, error.code);
    failed = true;
  }
};

std::string anchorOf(NSFileProviderEnumerator& enumerator) {
  std::string anchor;
  enumerator.currentSyncAnchorWithCompletionHandler(
      [&](std::optional<std::string> a) { anchor = a.value_or(""); });
  return anchor;
}

Date now() {
  using namespace std::chrono;
  return static_cast<Date>(duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

bool isProvisional(std::string_view identifier) {
  return identifier.find("__fp/") != std::string_view::npos;
}

ItemRecord ItemRecord::of(NSFileProviderItem& item) {
  ItemRecord r;
  r.identifier = item.itemIdentifier();
  r.parent = item.parentItemIdentifier().value_or("");
  r.filename = item.filename();
  r.folder = item.contentType() == ContentType::folder();
  r.size = item.documentSize().value_or(0);
  r.created = item.creationDate().value_or(0);
  r.modified = item.contentModificationDate().value_or(0);
  r.capabilities = item.capabilities();
  r.version = item.itemVersion();
  return r;
}

struct Replica::FolderState {
  // Keys view the name held by the child's node.
  std::unordered_map<std::string_view, Ino> children;
  bool filled = false;
  bool busy = false;  // a listing or change report is running
  NSFileProviderEnumeratorRef enumerator;
  std::string anchor;
};

// A node's texts other than its identifier and shown name, in one block:
// the host's name when it is not the name shown, and the two parts of the
// item version. A large folder holds a hundred thousand nodes, so each
// pays for one allocation and three lengths, not three strings.
class Replica::PackedTexts {
 public:
  void set(std::string_view shown, const std::optional<std::string>& host,
           const std::optional<NSFileProviderItemVersion>& version) {
    flags_ = 0;
    std::string_view stored;
    if (!host)
      flags_ |= kHostAbsent;
    else if (*host == shown)
      flags_ |= kHostShown;
    else
      stored = *host;
    std::string_view content, metadata;
    if (version) {
      flags_ |= kVersion;
      content = version->contentVersion;
      metadata = version->metadataVersion;
    }
    hostLength_ = static_cast<uint32_t>(stored.size());
    contentLength_ = static_cast<uint32_t>(content.size());
    metadataLength_ = static_cast<uint32_t>(metadata.size());
    const size_t total = stored.size() + content.size() + metadata.size();
    bytes_.reset(total ? new char[total] : nullptr);
    char* at = bytes_.get();
    for (std::string_view part : {stored, content, metadata}) {
      if (!part.empty()) std::memcpy(at, part.data(), part.size());
      at += part.size();
    }
  }
  std::optional<std::string> host(std::string_view shown) const {
    if (flags_ & kHostAbsent) return std::nullopt;
    if (flags_ & kHostShown) return std::string(shown);
    return std::string(part(0, hostLength_));
  }
  bool sameHost(std::string_view shown, const std::optional<std::string>& other) const {
    if (flags_ & kHostAbsent) return !other;
    if (!other) return false;
    return *other == ((flags_ & kHostShown) ? shown : part(0, hostLength_));
  }
  bool hasVersion() const { return flags_ & kVersion; }
  std::string_view contentVersion() const { return part(hostLength_, contentLength_); }
  std::optional<NSFileProviderItemVersion> version() const {
    if (!hasVersion()) return std::nullopt;
    return NSFileProviderItemVersion{
        std::string(contentVersion()),
        std::string(part(hostLength_ + contentLength_, metadataLength_))};
  }

 private:
  static constexpr uint8_t kHostAbsent = 1, kHostShown = 2, kVersion = 4;
  std::string_view part(size_t offset, size_t length) const {
    return length ? std::string_view(bytes_.get() + offset, length) : std::string_view();
  }

  std::unique_ptr<char[]> bytes_;
  uint32_t hostLength_ = 0;
  uint32_t contentLength_ = 0;
  uint32_t metadataLength_ = 0;
  uint8_t flags_ = kHostAbsent;
};

struct Replica::Node {
  std::string identifier;
  std::string name;  // as shown; unique in the parent
  PackedTexts texts;
  Ino parent = 0;  // 0: not in the tree
  uint64_t lookups = 0;
  uint64_t size = 0;
  Date created = 0;
  Date modified = 0;
  std::unique_ptr<FolderState> contents;
  uint8_t capabilities = 0;
  bool folder = false;
  bool pinned = false;
  bool reserved = false;     // the root and the trash
  bool trashedHere = false;  // its version came from this system's move to the trash

  std::optional<std::string> hostName() const { return texts.host(name); }
  bool sameHostName(const std::optional<std::string>& other) const {
    return texts.sameHost(name, other);
  }
  // Only while the node is in no folder's table: that table's key views
  // the name.
  void setName(std::string shown) {
    auto host = hostName();
    auto version = texts.version();
    name = std::move(shown);
    texts.set(name, host, version);
  }
};

Replica::Replica(NSFileProviderReplicatedExtension& extension, Invalidator& invalidator)
    : extension_(extension),
      invalidator_(invalidator),
      listAhead_([this](Ino folder) { (void)fill(folder, false); }) {
  MutexLock lock(mutex_);
  for (auto [ino, id] : {std::pair{kRootIno, &kRootId}, std::pair{kTrashIno, &kTrashId}}) {
    auto node = std::make_unique<Node>();
    node->identifier = *id;
    node->folder = true;
    node->reserved = true;
    node->capabilities = 63;
    node->created = node->modified = now();
    node->contents = std::make_unique<FolderState>();
    byIdentifier_.emplace(node->identifier, ino);
    nodes_.emplace(ino, std::move(node));
  }
  Node& trash = *nodes_[kTrashIno];
  trash.setName(std::string(kTrashName));
  trash.parent = kRootIno;
  nodes_[kRootIno]->contents->children.emplace(trash.name, kTrashIno);
}

Replica::~Replica() = default;

Replica::Node* Replica::get(Ino ino) {
  auto it = nodes_.find(ino);
  return it == nodes_.end() ? nullptr : it->second.get();
}

std::string Replica::identifierOf(Ino ino) {
  Node* node = get(ino);
  return node ? node->identifier : std::string();
}

Ino Replica::placeFor(const std::string& parentIdentifier, bool listedOnly) {
  if (parentIdentifier.empty()) return 0;
  auto it = byIdentifier_.find(parentIdentifier);
  if (it == byIdentifier_.end()) return 0;
  Node* folder = get(it->second);
  if (!folder || !folder->contents || (listedOnly && !folder->contents->filled)) return 0;
  return it->second;
}

Attributes Replica::attributesOf(Ino ino, const Node& node) const {
  return Attributes{ino, node.folder, node.size, node.created, node.modified, node.capabilities};
}

Ino Replica::makeNode(const ItemRecord& record) {
  auto node = std::make_unique<Node>();
  node->identifier = record.identifier;
  node->texts.set(node->name, record.filename, record.version);
  node->folder = record.folder;
  node->size = record.size;
  node->created = record.created;
  node->modified = record.modified;
  node->capabilities = static_cast<uint8_t>(record.capabilities);
  if (node->folder) node->contents = std::make_unique<FolderState>();
  Ino ino = nextIno_++;
  if (!node->identifier.empty()) byIdentifier_.emplace(node->identifier, ino);
  nodes_.emplace(ino, std::move(node));
  return ino;
}

void Replica::update(Ino ino, Node& node, const ItemRecord& record, bool fromReport, Batch& batch) {
  const bool keepVersion = fromReport && node.trashedHere && record.parent == kTrashId;
  const bool contentChanged =
      !keepVersion &&
      (node.texts.hasVersion() != record.version.has_value() ||
       (record.version && record.version->contentVersion != node.texts.contentVersion()));
  const bool attributesChanged = node.size != record.size || node.created != record.created ||
                                 node.modified != record.modified ||
                                 node.capabilities != record.capabilities;
  node.texts.set(node.name, record.filename, keepVersion ? node.texts.version() : record.version);
  node.size = record.size;
  node.created = record.created;
  node.modified = record.modified;
  node.capabilities = static_cast<uint8_t>(record.capabilities);
  if (contentChanged && !node.folder)
    batch.push_back({Invalidation::Kind::Contents, 0, ino, {}});
  else if (attributesChanged)
    batch.push_back({Invalidation::Kind::Attributes, 0, ino, {}});
}

void Replica::claimName(Ino ino, Node& node, FolderState& folder) {
  std::string base = linuxName(node.hostName());
  std::string name = base;
  for (unsigned attempt = 0; folder.children.count(name); ++attempt)
    name = distinctName(base, node.identifier, attempt);
  node.setName(std::move(name));
  folder.children.emplace(node.name, ino);
}

void Replica::attach(Ino ino, Node& node, Ino folder, Batch&) {
  Node* parent = get(folder);
  if (!parent || !parent->contents) return;
  node.parent = folder;
  claimName(ino, node, *parent->contents);
}

void Replica::detach(Ino ino, Node& node, Batch* batch) {
  if (node.parent == 0) return;
  if (Node* parent = get(node.parent); parent && parent->contents) {
    auto& children = parent->contents->children;
    if (auto it = children.find(node.name); it != children.end() && it->second == ino)
      children.erase(it);
    if (batch) batch->push_back({Invalidation::Kind::Delete, node.parent, ino, node.name});
  }
  node.parent = 0;
}

void Replica::maybeErase(Ino ino) {
  Node* node = get(ino);
  if (!node || node->reserved || node->parent != 0 || node->lookups > 0) return;
  if (node->contents) {
    if (node->contents->busy) return;
    // The kernel holds no entry below a folder it holds no entry for.
    std::vector<Ino> children;
    for (auto& [name, child] : node->contents->children) children.push_back(child);
    node->contents->children.clear();
    for (Ino child : children) {
      if (Node* c = get(child)) c->parent = 0;
      maybeErase(child);
    }
  }
  if (auto it = byIdentifier_.find(node->identifier);
      it != byIdentifier_.end() && it->second == ino)
    byIdentifier_.erase(it);
  nodes_.erase(ino);
}

void Replica::resetFolder(Node& node, Batch& batch) {
  if (!node.contents) return;
  std::vector<Ino> children;
  for (auto& [name, child] : node.contents->children) children.push_back(child);
  for (Ino child : children)
    if (Node* c = get(child)) {
      detach(child, *c, &batch);
      maybeErase(child);
    }
  node.contents->filled = false;
  node.contents->enumerator.reset();
  node.contents->anchor.clear();
}

void Replica::applyContents(Ino folderIno, std::vector<ItemRecord> records,
                            const std::vector<std::string>& deleted, Batch& batch) {
  Node* folder = get(folderIno);
  if (!folder || !folder->contents) return;
  FolderState& state = *folder->contents;

  // An item that is this folder or one above it cannot be its child.
  std::unordered_set<std::string_view> above;
  for (Node* n = folder; n; n = n->parent ? get(n->parent) : nullptr) above.insert(n->identifier);
  std::unordered_set<std::string_view> reported;
  for (auto& r : records)
    if (folderIno != kTrashIno || !deletedForGood_.count(r.identifier))
      reported.insert(r.identifier);
  for (auto& d : deleted) reported.erase(d);

  std::vector<Ino> gone;
  for (auto& [name, child] : state.children) {
    Node* c = get(child);
    if (c && !c->reserved && !c->pinned && !reported.count(c->identifier)) gone.push_back(child);
  }
  for (Ino child : gone) {
    detach(child, *get(child), &batch);
    maybeErase(child);
  }

  std::vector<Ino> placing;
  for (auto& record : records) {
    if (record.identifier.empty() || above.count(record.identifier) ||
        !reported.count(record.identifier))
      continue;
    if (auto it = byIdentifier_.find(record.identifier); it != byIdentifier_.end()) {
      Ino ino = it->second;
      Node& node = *get(ino);
      if (node.pinned || node.reserved) continue;
      const bool renamed = !node.sameHostName(record.filename);
      update(ino, node, record, true, batch);
      if (node.parent != folderIno || renamed) {
        detach(ino, node, &batch);
        placing.push_back(ino);
      }
    } else {
      placing.push_back(makeNode(record));
    }
  }
  // Names are claimed once every leaving name is free, so children that
  // stay keep theirs and newcomers take what is left.
  for (Ino ino : placing) {
    Node* node = get(ino);
    if (!node || node->parent == folderIno) continue;
    node->parent = folderIno;
    claimName(ino, *node, state);
  }
}

void Replica::applyChange(const ItemRecord& record, Batch& batch) {
  // Mounts come from the root's own listing, which gives them their
  // display names; the working set knows only the host's.
  if (record.identifier.empty() || record.parent == kRootId) return;
  Ino target = placeFor(record.parent, true);
  auto it = byIdentifier_.find(record.identifier);
  if (it == byIdentifier_.end()) {
    if (!target) return;
    Ino ino = makeNode(record);
    attach(ino, *get(ino), target, batch);
    return;
  }
  Ino ino = it->second;
  Node& node = *get(ino);
  if (node.pinned || node.reserved) return;
  for (Ino up = target; up; up = get(up) ? get(up)->parent : 0)
    if (up == ino) return;  // it cannot move below itself
  const bool renamed = !node.sameHostName(record.filename);
  update(ino, node, record, true, batch);
  if (target != node.parent || renamed) {
    detach(ino, node, &batch);
    if (target)
      attach(ino, node, target, batch);
    else
      maybeErase(ino);
  }
}

Result<std::string> Replica::beginWork(Ino folder, MutexLock& lock) {
  for (;;) {
    Node* node = get(folder);
    if (!node) return errnoFailure(ENOENT);
    if (!node->contents) return errnoFailure(ENOTDIR);
    if (!node->contents->busy) {
      node->contents->busy = true;
      return node->identifier;
    }
    idle_.wait(lock);
  }
}

void Replica::endWork(Ino folder) {
  if (Node* node = get(folder); node && node->contents) node->contents->busy = false;
  idle_.notify_all();
  maybeErase(folder);
}

Result<void> Replica::fill(Ino folder, bool again) {
  std::string id;
  {
    MutexLock lock(mutex_);
    for (;;) {
      Node* node = get(folder);
      if (!node) return errnoFailure(ENOENT);
      if (!node->contents) return errnoFailure(ENOTDIR);
      if (node->contents->filled && !again) return {};
      if (!node->contents->busy) break;
      idle_.wait(lock);
      again = false;  // the listing that ran meanwhile is fresh enough
    }
    auto begun = beginWork(folder, lock);
    if (!begun) return begun.failure();
    id = begun.value();
  }
  Error error;
  NSFileProviderEnumeratorRef enumerator =
      extension_.enumeratorForContainerItemIdentifier(id, {}, &error);
  ListingCollector listing;
  std::string anchor;
  if (enumerator) {
    anchor = anchorOf(*enumerator);
    std::string page;
    for (int pages = 0; pages < 100000; ++pages) {
      listing.nextPage.reset();
      enumerator->enumerateItemsForObserver(listing, page);
      if (listing.failed || !listing.nextPage) break;
      page = *listing.nextPage;
    }
  }
  Batch batch;
  bool ok = enumerator && !listing.failed;
  {
    MutexLock lock(mutex_);
    Node* node = get(folder);
    if (ok && node && node->identifier == id) {
      applyContents(folder, std::move(listing.records), {}, batch);
      node->contents->filled = true;
      node->contents->enumerator = std::move(enumerator);
      node->contents->anchor = std::move(anchor);
    }
    endWork(folder);
  }
  post(std::move(batch));
  if (!ok) return errnoFailure(EIO, "the folder could not be listed");
  return {};
}

void Replica::post(Batch batch) {
  if (!batch.empty()) invalidator_.invalidate(std::move(batch));
}

Result<Attributes> Replica::lookup(Ino parent, std::string_view name) {
  if (auto filled = fill(parent, false); !filled) return filled.failure();
  MutexLock lock(mutex_);
  Node* folder = get(parent);
  if (!folder || !folder->contents) return errnoFailure(ENOENT);
  auto it = folder->contents->children.find(name);
  if (it == folder->contents->children.end()) return errnoFailure(ENOENT);
  Node* child = get(it->second);
  if (!child) return errnoFailure(ENOENT);
  ++child->lookups;
  return attributesOf(it->second, *child);
}

Result<Attributes> Replica::attributes(Ino ino) {
  MutexLock lock(mutex_);
  Node* node = get(ino);
  if (!node) return errnoFailure(ENOENT);
  return attributesOf(ino, *node);
}

void Replica::countLookups(const std::vector<Ino>& inos) {
  MutexLock lock(mutex_);
  for (Ino ino : inos)
    if (Node* node = get(ino)) ++node->lookups;
}

void Replica::forget(Ino ino, uint64_t count) {
  MutexLock lock(mutex_);
  Node* node = get(ino);
  if (!node) return;
  node->lookups -= std::min(count, node->lookups);
  maybeErase(ino);
}

Result<std::vector<Child>> Replica::children(Ino folder) {
  if (auto filled = fill(folder, folder == kTrashIno); !filled) return filled.failure();
  MutexLock lock(mutex_);
  Node* node = get(folder);
  if (!node || !node->contents) return errnoFailure(ENOENT);
  std::vector<Child> out;
  out.reserve(node->contents->children.size());
  std::vector<std::pair<std::string_view, Ino>> unlisted;
  for (auto& [name, ino] : node->contents->children) {
    Node* child = get(ino);
    if (!child) continue;
    out.push_back(Child{child->name, attributesOf(ino, *child)});
    if (child->contents && !child->contents->filled && ino != kTrashIno)
      unlisted.emplace_back(out.back().name, ino);
  }
  lock.unlock();
  // In name order: ls -R goes into subfolders so, and find in the order
  // they are read, so the folders listed ahead are the ones looked at next.
  std::sort(unlisted.begin(), unlisted.end());  // before `out` moves the names they view
  std::vector<Ino> ahead;
  ahead.reserve(unlisted.size());
  for (auto& [name, ino] : unlisted) ahead.push_back(ino);
  listAhead_.want(ahead);
  std::sort(out.begin(), out.end(), [](const Child& a, const Child& b) { return a.name < b.name; });
  return out;
}

Result<NodeInfo> Replica::info(Ino ino) {
  MutexLock lock(mutex_);
  Node* node = get(ino);
  if (!node) return errnoFailure(ENOENT);
  NodeInfo info;
  info.parent = node->parent;
  info.parentIdentifier = identifierOf(node->parent);
  info.name = node->name;
  info.provisional = isProvisional(node->identifier);
  info.pinned = node->pinned;
  ItemRecord& r = info.record;
  r.identifier = node->identifier;
  r.parent = info.parentIdentifier;
  r.filename = node->hostName();
  r.folder = node->folder;
  r.size = node->size;
  r.created = node->created;
  r.modified = node->modified;
  r.capabilities = node->capabilities;
  r.version = node->texts.version();
  return info;
}

std::optional<std::string> Replica::pathOf(Ino ino) {
  MutexLock lock(mutex_);
  std::vector<const std::string*> names;
  // Parents form a tree; the bound only guards against a broken one.
  for (size_t depth = 0; ino != kRootIno && depth < 4096; ++depth) {
    Node* node = get(ino);
    if (!node || node->parent == 0) return std::nullopt;
    names.push_back(&node->name);
    ino = node->parent;
  }
  if (ino != kRootIno) return std::nullopt;
  std::string path;
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (!path.empty()) path += '/';
    path += **it;
  }
  return path;
}

Result<Ino> Replica::find(Ino parent, std::string_view name) {
  if (auto filled = fill(parent, false); !filled) return filled.failure();
  MutexLock lock(mutex_);
  Node* folder = get(parent);
  if (!folder || !folder->contents) return errnoFailure(ENOENT);
  auto it = folder->contents->children.find(name);
  if (it == folder->contents->children.end()) return errnoFailure(ENOENT);
  return it->second;
}

std::optional<Ino> Replica::inoOf(const std::string& identifier) {
  MutexLock lock(mutex_);
  auto it = byIdentifier_.find(identifier);
  if (it == byIdentifier_.end()) return std::nullopt;
  return it->second;
}

Result<Attributes> Replica::add(Ino parent, std::string_view name, const ItemRecord& record) {
  if (auto filled = fill(parent, false); !filled) return filled.failure();
  MutexLock lock(mutex_);
  Node* folder = get(parent);
  if (!folder || !folder->contents) return errnoFailure(ENOENT);
  if (folder->contents->children.count(name)) return errnoFailure(EEXIST);
  if (byIdentifier_.count(record.identifier)) return errnoFailure(EEXIST);
  Ino ino = makeNode(record);
  Node& node = *get(ino);
  node.parent = parent;
  node.setName(std::string(name));
  folder->contents->children.emplace(node.name, ino);
  if (node.contents) node.contents->filled = isProvisional(node.identifier);
  node.pinned = isProvisional(node.identifier);
  node.lookups = 1;
  return attributesOf(ino, node);
}

void Replica::apply(Ino ino, const ItemRecord& record) {
  Batch batch;
  {
    MutexLock lock(mutex_);
    Node* node = get(ino);
    if (!node || node->reserved) return;
    if (!record.identifier.empty() && record.identifier != node->identifier) {
      if (auto other = byIdentifier_.find(record.identifier);
          other != byIdentifier_.end() && other->second != ino) {
        // The same item was also known under its own node: this one wins.
        Ino twin = other->second;
        byIdentifier_.erase(other);
        if (Node* t = get(twin)) {
          detach(twin, *t, &batch);
          maybeErase(twin);
        }
      }
      if (auto own = byIdentifier_.find(node->identifier);
          own != byIdentifier_.end() && own->second == ino)
        byIdentifier_.erase(own);
      // Children listed under the old identifier may be named otherwise now.
      if (!isProvisional(node->identifier)) resetFolder(*node, batch);
      node->identifier = record.identifier;
      byIdentifier_.emplace(node->identifier, ino);
    }
    if (node->contents && !node->contents->filled && isProvisional(node->identifier))
      node->contents->filled = true;  // a folder made here has nothing to list yet
    if (!record.parent.empty()) node->trashedHere = record.parent == kTrashId;
    const bool renamed = !node->sameHostName(record.filename);
    update(ino, *node, record, false, batch);
    Ino target = record.parent.empty() ? node->parent : placeFor(record.parent, false);
    for (Ino up = target; up; up = get(up) ? get(up)->parent : 0)
      if (up == ino) target = 0;
    if (target != node->parent || renamed) {
      detach(ino, *node, &batch);
      if (target)
        attach(ino, *node, target, batch);
      else
        maybeErase(ino);
    }
  }
  post(std::move(batch));
}

void Replica::remove(Ino ino, bool deletedForGood) {
  MutexLock lock(mutex_);
  Node* node = get(ino);
  if (!node || node->reserved) return;
  if (deletedForGood) deletedForGood_.insert(node->identifier);
  detach(ino, *node, nullptr);
  if (auto it = byIdentifier_.find(node->identifier);
      it != byIdentifier_.end() && it->second == ino)
    byIdentifier_.erase(it);
  node->pinned = false;
  maybeErase(ino);
}

void Replica::pin(Ino ino, bool pinned) {
  MutexLock lock(mutex_);
  if (Node* node = get(ino)) node->pinned = pinned;
}

Result<bool> Replica::empty(Ino folder) {
  if (auto filled = fill(folder, false); !filled) return filled.failure();
  MutexLock lock(mutex_);
  Node* node = get(folder);
  if (!node || !node->contents) return errnoFailure(ENOTDIR);
  return node->contents->children.empty();
}

void Replica::signalled(const std::string& container) {
  Ino ino = 0;
  {
    MutexLock lock(mutex_);
    auto it = byIdentifier_.find(container);
    if (it == byIdentifier_.end()) return;
    Node* node = get(it->second);
    if (!node || !node->contents || !node->contents->filled) return;
    ino = it->second;
  }
  // The trash's change report is always empty: only a listing tells.
  if (ino == kTrashIno) {
    (void)fill(ino, true);
    return;
  }
  NSFileProviderEnumeratorRef enumerator;
  std::string anchor, id;
  {
    MutexLock lock(mutex_);
    auto begun = beginWork(ino, lock);
    if (!begun) return;
    id = begun.value();
    Node* node = get(ino);
    if (!node->contents->filled || !node->contents->enumerator) {
      endWork(ino);
      return;
    }
    enumerator = node->contents->enumerator;
    anchor = node->contents->anchor;
  }
  ChangeCollector changes;
  enumerator->enumerateChangesForObserver(changes, anchor);
  Batch batch;
  bool relist = changes.failed;
  {
    MutexLock lock(mutex_);
    Node* node = get(ino);
    if (!changes.failed && node && node->identifier == id) {
      applyContents(ino, std::move(changes.records), changes.deleted, batch);
      if (changes.anchor) node->contents->anchor = *changes.anchor;
    }
    endWork(ino);
  }
  post(std::move(batch));
  if (relist) (void)fill(ino, true);
}

void Replica::reportWorkingSet() {
  NSFileProviderEnumeratorRef enumerator;
  std::string anchor;
  {
    MutexLock lock(mutex_);
    if (workingSetBusy_) return;
    workingSetBusy_ = true;
    enumerator = workingSet_;
    anchor = workingSetAnchor_;
  }
  if (!enumerator) {
    Error error;
    enumerator = extension_.enumeratorForContainerItemIdentifier(kWorkingSetId, {}, &error);
    if (enumerator) anchor = anchorOf(*enumerator);
  }
  ChangeCollector changes;
  if (enumerator) enumerator->enumerateChangesForObserver(changes, anchor);
  Batch batch;
  {
    MutexLock lock(mutex_);
    workingSet_ = enumerator;
    workingSetAnchor_ = changes.anchor.value_or(anchor);
    if (!changes.failed) {
      for (auto& record : changes.records) applyChange(record, batch);
      for (auto& id : changes.deleted) {
        auto it = byIdentifier_.find(id);
        if (it == byIdentifier_.end()) continue;
        Ino ino = it->second;
        Node* node = get(ino);
        if (!node || node->pinned || node->reserved) continue;
        detach(ino, *node, &batch);
        maybeErase(ino);
      }
    }
    workingSetBusy_ = false;
  }
  post(std::move(batch));
}

}  // namespace hvfp::driver

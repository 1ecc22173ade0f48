#include "driver/FakeCloud.h"

#include <fstream>
#include <sstream>

#include "digest/NSDataExpand.h"
#include "platform/fileprovider/ContainerIdentifiers.h"
#include "platform/fileprovider/ItemTemplate.h"

namespace hvfp::driver::test {
namespace {

const std::string kRoot(NSFileProviderRootContainerItemIdentifier);
const std::string kTrash(NSFileProviderTrashContainerItemIdentifier);
const std::string kWorkingSet(NSFileProviderWorkingSetContainerItemIdentifier);

class FakeEnumerator final : public NSFileProviderEnumerator {
 public:
  FakeEnumerator(FakeCloud& cloud, std::string container, int64_t anchor)
      : cloud_(cloud), container_(std::move(container)), anchor_(std::to_string(anchor)) {}
  void invalidate() override {}
  void enumerateItemsForObserver(NSFileProviderEnumerationObserver& observer,
                                 const std::string&) override {
    cloud_.countListing(container_);
    observer.didEnumerateItems(cloud_.listing(container_));
    observer.finishEnumeratingUpToPage(std::nullopt);
  }
  void enumerateChangesForObserver(NSFileProviderChangeObserver& observer,
                                   const std::string& anchor) override {
    if (container_ == kWorkingSet)
      observer.didUpdateItems(cloud_.changedSince(cursor_));
    else if (container_ != kTrash)
      observer.didUpdateItems(cloud_.listing(container_));
    observer.finishEnumeratingChangesUpToSyncAnchor(anchor, false);
  }
  void currentSyncAnchorWithCompletionHandler(
      std::function<void(std::optional<std::string>)> handler) override {
    handler(anchor_);
  }

 private:
  FakeCloud& cloud_;
  std::string container_;
  std::string anchor_;
  uint64_t cursor_ = 0;
};

std::string readFile(const std::string& path, bool* ok) {
  std::ifstream in(path, std::ios::binary);
  *ok = bool(in);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string mountOf(const std::string& id) { return id.substr(0, id.find('/')); }

Error uploadFailure() {
  Error e = Error::cocoa(5120);
  e.userInfo["error"] = int64_t{40309};
  e.userInfo["message"] = std::string("no room");
  return e;
}

}  // namespace

FakeCloud::FakeCloud(std::filesystem::path downloads) : downloads_(std::move(downloads)) {
  std::filesystem::create_directories(downloads_);
}

FakeCloud::~FakeCloud() {
  holdFetches(false);
  holdUploads(false);
  for (;;) {
    std::vector<std::thread> threads;
    {
      std::lock_guard lock(mutex_);
      threads.swap(threads_);
    }
    if (threads.empty()) break;
    for (auto& t : threads) t.join();
  }
}

std::string FakeCloud::newId(const std::string& parent) {
  return parent.empty() ? std::to_string(nextId_++)
                        : mountOf(parent) + "/h" + std::to_string(nextId_++);
}

void FakeCloud::later(std::function<void()> work) {
  std::lock_guard lock(mutex_);
  threads_.emplace_back(std::move(work));
}

void FakeCloud::record(std::string call) {
  std::lock_guard lock(mutex_);
  calls_.push_back(std::move(call));
}

std::string FakeCloud::remoteAddMount(const std::string& name) {
  std::lock_guard lock(mutex_);
  Entry e{newId(""), kRoot, name, true, "", ""};
  e.capabilities = 67;
  e.change = ++change_;
  entries_[e.id] = e;
  return e.id;
}

std::string FakeCloud::remoteAddFolder(const std::string& parent, const std::string& name) {
  std::lock_guard lock(mutex_);
  Entry e{newId(parent), parent, name, true, "", ""};
  e.created = e.modified = 1700000000;
  e.change = ++change_;
  entries_[e.id] = e;
  return e.id;
}

std::string FakeCloud::remoteAddFile(const std::string& parent, const std::string& name,
                                     const std::string& contents, Date modified) {
  std::lock_guard lock(mutex_);
  Entry e{newId(parent), parent, name, false, contents, sha1HexDigest(contents)};
  e.created = 1600000000;
  e.modified = modified;
  e.change = ++change_;
  entries_[e.id] = e;
  return e.id;
}

void FakeCloud::remoteRename(const std::string& id, const std::string& name) {
  std::lock_guard lock(mutex_);
  entries_.at(id).name = name;
  entries_.at(id).change = ++change_;
}

void FakeCloud::remoteMove(const std::string& id, const std::string& parent) {
  std::lock_guard lock(mutex_);
  entries_.at(id).parent = parent;
  entries_.at(id).change = ++change_;
}

void FakeCloud::remoteTrash(const std::string& id) {
  std::lock_guard lock(mutex_);
  entries_.at(id).trashed = true;
  entries_.at(id).change = ++change_;
}

void FakeCloud::remoteErase(const std::string& id) {
  std::lock_guard lock(mutex_);
  entries_.erase(id);
}

void FakeCloud::remoteWrite(const std::string& id, const std::string& contents) {
  std::lock_guard lock(mutex_);
  Entry& e = entries_.at(id);
  e.contents = contents;
  e.hash = sha1HexDigest(contents);
  e.modified += 60;
  e.change = ++change_;
}

std::optional<FakeCloud::Entry> FakeCloud::entry(const std::string& id) {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(id);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

std::optional<FakeCloud::Entry> FakeCloud::childNamed(const std::string& parent,
                                                      const std::string& name) {
  for (auto& e : childrenOf(parent))
    if (e.name == name) return e;
  return std::nullopt;
}

std::vector<FakeCloud::Entry> FakeCloud::childrenOf(const std::string& parent) {
  std::lock_guard lock(mutex_);
  std::vector<Entry> out;
  for (auto& [id, e] : entries_)
    if (e.parent == parent && !e.trashed) out.push_back(e);
  return out;
}

std::vector<std::string> FakeCloud::calls() {
  std::lock_guard lock(mutex_);
  return calls_;
}

int FakeCloud::fetchesOf(const std::string& id) {
  std::lock_guard lock(mutex_);
  return fetches_[id];
}

int FakeCloud::listingsOf(const std::string& container) {
  std::lock_guard lock(mutex_);
  return listings_[container];
}

void FakeCloud::countListing(const std::string& container) {
  std::lock_guard lock(mutex_);
  ++listings_[container];
}

void FakeCloud::holdFetches(bool hold) {
  std::lock_guard lock(mutex_);
  holdFetches_ = hold;
  released_.notify_all();
}

void FakeCloud::holdUploads(bool hold) {
  std::lock_guard lock(mutex_);
  holdUploads_ = hold;
  released_.notify_all();
}

void FakeCloud::failUploadsOf(const std::string& name) {
  std::lock_guard lock(mutex_);
  failingNames_.insert(name);
}

bool FakeCloud::failing(const std::optional<std::string>& name) {
  std::lock_guard lock(mutex_);
  return name && failingNames_.count(*name);
}

void FakeCloud::waitWhileHeld(bool& hold, Progress& progress, uint64_t size) {
  std::unique_lock lock(mutex_);
  progress.setTotalUnitCount(static_cast<int64_t>(size));
  progress.setCompletedUnitCount(static_cast<int64_t>(size / 2));
  released_.wait(lock, [&] { return !hold; });
  progress.setCompletedUnitCount(static_cast<int64_t>(size));
}

NSFileProviderItemRef FakeCloud::itemOf(const Entry& e, bool trashMark) const {
  auto item = std::make_shared<NSFileProviderItemTemplate>();
  item->identifier = e.id;
  item->parentIdentifier = e.trashed ? kTrash : e.parent;
  item->name = e.name;
  item->itemCapabilities = e.capabilities;
  item->type = e.folder ? ContentType::folder() : ContentType::data();
  item->size = e.folder ? 0 : e.contents.size();
  item->created = e.created;
  item->modified = e.modified;
  item->used = e.modified;
  std::string hash = e.folder ? "" : e.hash;
  item->version = NSFileProviderItemVersion{
      "{\"filehash\":\"" + hash + "\",\"filesize\":" + std::to_string(*item->size) + "}",
      std::string("{\"delete\":") + (trashMark ? "1" : "0") +
          ",\"status\":" + (e.trashed ? "7" : "0") + "}"};
  return item;
}

std::vector<NSFileProviderItemRef> FakeCloud::listing(const std::string& container) {
  std::lock_guard lock(mutex_);
  std::vector<NSFileProviderItemRef> out;
  if (container == kWorkingSet) return out;
  for (auto& [id, e] : entries_) {
    bool in = container == kTrash ? e.trashed : (e.parent == container && !e.trashed);
    if (in) out.push_back(itemOf(e, container == kTrash && trashMarks_[id]));
  }
  return out;
}

std::vector<NSFileProviderItemRef> FakeCloud::changedSince(uint64_t& cursor) {
  std::lock_guard lock(mutex_);
  std::vector<NSFileProviderItemRef> out;
  for (auto& [id, e] : entries_)
    if (e.change > cursor) out.push_back(itemOf(e));
  cursor = change_;
  return out;
}

NSFileProviderEnumeratorRef FakeCloud::enumeratorForContainerItemIdentifier(
    const std::string& container, const NSFileProviderRequest&, Error*) {
  static std::atomic<int64_t> anchors{1};
  return std::make_shared<FakeEnumerator>(*this, container, ++anchors);
}

std::shared_ptr<Progress> FakeCloud::itemForIdentifier(const std::string& identifier,
                                                       const NSFileProviderRequest&,
                                                       NSFileProviderItemHandler handler) {
  bool failing = false;
  for (int n = failLookups_.load(); n > 0 && !failing;)
    failing = failLookups_.compare_exchange_weak(n, n - 1);
  auto e = failing ? std::nullopt : entry(identifier);
  if (e)
    handler(itemOf(*e), std::nullopt);
  else
    handler(nullptr, Error::cocoa(4610));
  return Progress::make();
}

std::shared_ptr<Progress> FakeCloud::fetchContentsForItemWithIdentifier(
    const std::string& id, const std::optional<NSFileProviderItemVersion>&,
    const NSFileProviderRequest&, NSFileProviderFetchHandler handler) {
  record("fetch " + id);
  auto progress = Progress::make();
  later([this, id, handler, progress] {
    {
      std::lock_guard lock(mutex_);
      ++fetches_[id];
    }
    auto held = entry(id);
    waitWhileHeld(holdFetches_, *progress, held ? held->contents.size() : 0);
    auto e = entry(id);
    if (!e) return handler(std::nullopt, nullptr, Error::cocoa(4610));
    auto path = downloads_ / e->hash;
    std::ofstream(path, std::ios::binary) << e->contents;
    handler(path.string(), itemOf(*e), std::nullopt);
  });
  return progress;
}

std::shared_ptr<Progress> FakeCloud::createItemBasedOnTemplate(
    NSFileProviderItem& itemTemplate, uint64_t fields, const std::optional<std::string>& contents,
    uint64_t, const NSFileProviderRequest&, NSFileProviderItemChangeHandler handler) {
  auto t = NSFileProviderItemTemplate::copyOf(itemTemplate);
  record("create " + t.name.value_or(""));
  // Decided when asked, so a failure asked for holds for calls made before
  // it was lifted, however late they run.
  const bool folder = t.type == ContentType::folder();
  const bool fail = !folder && (failing(t.name) || failUploads_.fetch_sub(1) > 0);
  auto progress = Progress::make();
  later([this, t, fields, contents, handler, folder, fail, progress] {
    bool ok = true;
    std::string data = folder ? "" : (contents ? readFile(*contents, &ok) : (ok = false, ""));
    if (!ok || fail) return handler(nullptr, fields & ~uint64_t{1}, false, uploadFailure());
    if (!folder) waitWhileHeld(holdUploads_, *progress, data.size());
    std::unique_lock lock(mutex_);
    const std::string parent = t.parentIdentifier.value_or("");
    Entry* found = nullptr;
    for (auto& [id, e] : entries_)
      if (e.parent == parent && e.name == t.name && !e.trashed) found = &e;
    if (!found) {
      Entry e{newId(parent), parent, t.name.value_or(""), folder, "", ""};
      e.created = t.created.value_or(0);
      found = &(entries_[e.id] = e);
    }
    found->contents = data;
    found->hash = sha1HexDigest(data);
    found->modified = t.modified.value_or(0);
    found->change = ++change_;
    auto item = itemOf(*found);
    lock.unlock();
    handler(item, fields & ~uint64_t{1}, false, std::nullopt);
  });
  return progress;
}

std::shared_ptr<Progress> FakeCloud::modifyItem(
    NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>& base, uint64_t fields,
    const std::optional<std::string>& contents, uint64_t, const NSFileProviderRequest&,
    NSFileProviderItemChangeHandler handler) {
  auto t = NSFileProviderItemTemplate::copyOf(item);
  const char* what = fields & 1 ? "contents" : fields & 2 ? "filename" : fields & 4 ? "parent" : "";
  record("modify " + t.identifier + " " + what);
  const bool fail = (fields & 1) && (failing(t.name) || failUploads_.fetch_sub(1) > 0);
  auto progress = Progress::make();
  later([this, t, base, fields, contents, handler, fail, progress] {
    std::unique_lock lock(mutex_);
    auto it = entries_.find(t.identifier);
    if (it == entries_.end()) {
      lock.unlock();
      return handler(nullptr, 0, false, Error::cocoa(513));
    }
    Entry& e = it->second;
    bool mark = false;
    uint64_t pending = 0;
    if (fields & 1) {
      lock.unlock();
      bool ok = contents.has_value();
      std::string data = ok ? readFile(*contents, &ok) : "";
      if (!ok || fail) return handler(nullptr, fields & ~uint64_t{1}, false, uploadFailure());
      waitWhileHeld(holdUploads_, *progress, data.size());
      lock.lock();
      e.contents = data;
      e.hash = sha1HexDigest(data);
      e.modified = t.modified.value_or(e.modified);
      pending = fields & ~uint64_t{1};
    } else if (fields & 2) {
      e.name = t.name.value_or(e.name);
    } else if (fields & 4) {
      const std::string to = t.parentIdentifier.value_or("");
      pending = fields & ~uint64_t{4};
      if (to == kTrash) {
        e.trashed = true;
        mark = trashMarks_[e.id] = true;
      } else if (base && base->metadataVersion.find("\"delete\":1") != std::string::npos) {
        // Restored where it was, as the host does; the answer names the
        // folder that was asked for.
        e.trashed = false;
        trashMarks_.erase(e.id);
        e.change = ++change_;
        auto answer = std::static_pointer_cast<NSFileProviderItemTemplate>(itemOf(e));
        answer->parentIdentifier = to;
        lock.unlock();
        return handler(answer, pending, false, std::nullopt);
      } else {
        e.parent = to;
      }
    }
    e.change = ++change_;
    auto answer = itemOf(e, mark);
    lock.unlock();
    handler(answer, pending, false, std::nullopt);
  });
  return progress;
}

std::shared_ptr<Progress> FakeCloud::deleteItemWithIdentifier(
    const std::string& id, const std::optional<NSFileProviderItemVersion>&, uint64_t,
    const NSFileProviderRequest&, NSFileProviderDeleteHandler handler) {
  // As the provider does: the host only forgets its sync record.
  record("delete " + id);
  handler(std::nullopt);
  return Progress::make();
}

}  // namespace hvfp::driver::test

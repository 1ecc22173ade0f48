// The folder's uploads: what each sends, what it becomes in the cloud, and
// the records that let a later mount finish what a killed one left.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>

#include "digest/FileMD5Hash.h"
#include "driver/Calls.h"
#include "driver/ErrorMap.h"
#include "driver/Folder.h"
#include "platform/Log.h"

namespace hvfp::driver {

using namespace calls;

namespace {

// Uploads an earlier mount left are queued under numbers no inode reaches.
constexpr Ino kRecoveredBase = Ino{1} << 62;

const char* wordFor(Outcome outcome) {
  switch (outcome) {
    case Outcome::Contents:
      return "sent";
    case Outcome::ConflictCopy:
      return "sent as a conflicted copy";
    case Outcome::Nothing:
      return "already in the cloud";
  }
  return "";
}

class Listing final : public NSFileProviderEnumerationObserver {
 public:
  std::vector<ItemRecord> records;
  std::optional<std::string> nextPage;
  bool failed = false;

  void didEnumerateItems(std::vector<NSFileProviderItemRef> items) override {
    for (auto& item : items)
      if (item) records.push_back(ItemRecord::of(*item));
  }
  void finishEnumeratingUpToPage(std::optional<std::string> page) override {
    nextPage = std::move(page);
  }
  void finishEnumeratingWithError(const Error&) override { failed = true; }
};

// One answer of the item lookup shape, waited for with a bound.
struct ItemAnswer {
  std::mutex mutex;
  std::condition_variable done;
  bool answered = false;
  NSFileProviderItemRef item;
  std::optional<Error> error;
};

}  // namespace

PendingUpload Folder::pendingOf(const NodeInfo& info, const std::string& file) {
  PendingUpload upload;
  upload.file = file;
  upload.parent = info.parentIdentifier;
  upload.name = info.record.filename.value_or(info.name);
  upload.created = info.record.created;
  if (!info.provisional) {
    upload.identifier = info.record.identifier;
    upload.base = info.record.version;
  }
  return upload;
}

Result<void> Folder::persist(Ino ino) {
  auto path = working_.newest(ino);
  if (!path) {
    journal_.erase(ino);
    return {};
  }
  auto info = replica_.info(ino);
  // Contents of a file that left the tree go with it.
  if (!info || info->parent == 0 || info->parent == kTrashIno) return {};
  return journal_.record(ino, pendingOf(*info, *path));
}

void Folder::refresh(const std::string& container) {
  MutexLock lock(mutex_);
  containers_.insert(container);
  signalled_.notify_all();
}

std::string Folder::pathIn(const std::string& parentIdentifier, const std::string& name) {
  auto folder = replica_.inoOf(parentIdentifier);
  auto path = folder ? replica_.pathOf(*folder) : std::nullopt;
  return path ? *path + "/" + name : name;
}

// --- what `halvofp status` shows -----------------------------------------

PendingStatus Folder::pendingStatus(const Uploads::Waiting& waiting) {
  PendingStatus p;
  std::string file;
  if (waiting.ino > kRecoveredBase) {
    std::optional<PendingUpload> upload;
    {
      MutexLock lock(recoveryMutex_);
      if (auto it = recovered_.find(waiting.ino); it != recovered_.end())
        upload = it->second.upload;
    }
    if (upload) {
      p.name = pathIn(upload->parent, upload->name);
      file = upload->file;
    }
  } else {
    if (auto sealed = working_.pending(waiting.ino)) file = sealed->path;
    auto info = replica_.info(waiting.ino);
    p.name = replica_.pathOf(waiting.ino).value_or(info ? info->name : std::string());
  }
  struct stat st {};
  if (!file.empty() && ::stat(file.c_str(), &st) == 0) p.size = static_cast<uint64_t>(st.st_size);
  p.state = waiting.running    ? PendingStatus::State::Sending
            : waiting.failures ? PendingStatus::State::Failed
                               : PendingStatus::State::Waiting;
  p.failures = static_cast<uint64_t>(waiting.failures);
  if (waiting.next)
    p.nextAttempt =
        std::chrono::ceil<std::chrono::seconds>(waiting.next->time_since_epoch()).count();
  if (!waiting.error.empty()) p.error = waiting.error;
  return p;
}

FolderStatus Folder::status() {
  FolderStatus s;
  s.transfers = transfers_->snapshot();
  for (const auto& waiting : uploads_.waiting()) s.pending.push_back(pendingStatus(waiting));
  const Copies::Use use = copies_.use();
  s.cache = CacheStatus{use.bytes, use.limit, use.files};
  return s;
}

// --- what an earlier mount left ------------------------------------------

void Folder::recover() {
  const std::string lockPath = options_.cacheFolder + "/lock";
  lock_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_ < 0 || ::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
    log("driver: another mount of this domain runs; the uploads it has pending stay its own");
    if (lock_ >= 0) ::close(lock_);
    lock_ = -1;
    return;
  }
  const std::filesystem::path work(working_.folder());
  std::vector<Journal::Earlier> earlier;
  std::set<std::string> named;
  for (auto& e : journal_.earlier()) {
    // Only the work folder's own files are sent, and removed once sent.
    if (std::filesystem::path(e.upload.file).lexically_normal().parent_path() != work) {
      log("driver: the pending upload record {} names a file outside {}; it is left alone", e.name,
          work.string());
      continue;
    }
    named.insert(e.upload.file);
    earlier.push_back(std::move(e));
  }
  size_t stale = 0;
  for (const auto& left : working_.leftovers())
    if (!named.count(left) && ::unlink(left.c_str()) == 0) ++stale;
  if (stale) log("driver: {} superseded working copies of an earlier mount removed", stale);
  if (earlier.empty()) return;
  log("driver: {} uploads an earlier mount left are sent", earlier.size());
  std::vector<Ino> queued;
  {
    MutexLock lock(recoveryMutex_);
    Ino next = kRecoveredBase;
    for (auto& e : earlier) {
      recovered_[++next] = Recovered{e.name, std::move(e.upload)};
      queued.push_back(next);
    }
  }
  for (Ino ino : queued) uploads_.schedule(ino, 1);
}

void Folder::attemptRecovered(Ino ino, Uploads::Done done) {
  Recovered r;
  {
    MutexLock lock(recoveryMutex_);
    auto it = recovered_.find(ino);
    if (it == recovered_.end()) return done(1, {});
    r = it->second;
  }
  auto finished = [this, ino, r] {
    journal_.eraseEarlier(r.record);
    MutexLock lock(recoveryMutex_);
    recovered_.erase(ino);
  };
  if (::access(r.upload.file.c_str(), R_OK) != 0) {
    log("driver: the contents an earlier mount left for {} are gone", r.upload.name);
    finished();
    return done(1, {});
  }
  send(r.upload, r.upload.file, true, "", [this, gate = gate_, r, finished, done](Sent sent) {
    gate->pass([&] {
      if (!sent.ok) return done(1, fail(sent.error));
      log("driver: {} from an earlier mount: {}", r.upload.name, wordFor(sent.outcome));
      ::unlink(r.upload.file.c_str());
      finished();
      if (!sent.placed.empty()) refresh(sent.placed);
      done(1, {});
    });
  });
}

// --- one upload ----------------------------------------------------------

void Folder::attemptUpload(Ino ino, Uploads::Done done) {
  if (ino > kRecoveredBase) return attemptRecovered(ino, std::move(done));
  auto sealed = working_.pending(ino);
  if (!sealed) return done(Uploads::kNothingLeft, {});
  auto info = replica_.info(ino);
  if (!info || info->parent == 0 || info->parent == kTrashIno) {
    // Writes to a file that was removed meanwhile go with it.
    working_.drop(ino);
    journal_.erase(ino);
    return done(sealed->generation, {});
  }
  if (::access(sealed->path.c_str(), R_OK) != 0) {
    log("driver: the local contents of {} are gone ({})", info->name, std::strerror(errno));
    working_.drop(ino);
    journal_.erase(ino);
    return done(sealed->generation, {});
  }
  const uint64_t generation = sealed->generation;
  send(pendingOf(*info, sealed->path), sealed->path, false,
       info->provisional ? info->record.identifier : std::string(),
       [this, gate = gate_, ino, generation, done](Sent sent) {
         gate->pass([&] {
           if (!sent.ok) return done(generation, fail(sent.error));
           uploadReported(ino, generation, sent);
           done(generation, {});
         });
       });
}

void Folder::uploadReported(Ino ino, uint64_t generation, const Sent& sent) {
  std::optional<ItemRecord> now;
  if (sent.outcome == Outcome::Contents && sent.item) now = ItemRecord::of(*sent.item);
  if (sent.outcome != Outcome::Contents) now = sent.current;
  if (now) replica_.apply(ino, *now);
  auto keep = working_.uploaded(ino, generation);
  if (keep && sent.outcome != Outcome::ConflictCopy && now && now->version)
    copies_.adopt(now->identifier, *now->version, *keep);
  else if (keep)
    ::unlink(keep->c_str());
  if (sent.outcome == Outcome::ConflictCopy) {
    catchUpShared(ino);
    auto info = replica_.info(ino);
    log("driver: {} changed in the cloud meanwhile; the local contents went to a conflicted copy",
        info ? info->name : std::string("a file"));
    refresh(sent.placed);
  }
  if (!working_.newest(ino)) {
    replica_.pin(ino, false);
    journal_.erase(ino);
  } else {
    (void)persist(ino);
  }
}

void Folder::send(const PendingUpload& upload, const std::string& file, bool check,
                  const std::string& asIdentifier, std::function<void(Sent)> report) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0) {
    Sent gone;
    gone.error = std::string("the local contents cannot be read (") + std::strerror(errno) + ")";
    return report(std::move(gone));
  }
  const bool existing = !upload.identifier.empty();
  std::optional<ItemRecord> current;
  Outcome outcome = Outcome::Contents;
  if (existing || check) {
    auto found = existing ? currentItem(upload)
                          : childWhere(upload.parent, [&](const ItemRecord& r) {
                              return r.filename == upload.name;
                            });
    if (!found) {
      log("driver: cannot see where {} goes in the cloud ({}); its upload waits", upload.name,
          found.failure().message);
      Sent unseen;
      unseen.error = "cannot see where it goes in the cloud (" + found.failure().message + ")";
      return report(std::move(unseen));
    }
    current = std::move(*found);
    if (current && current->parent == kTrashId) current.reset();
    outcome = decide(existing, upload.base, current,
                     [&] { return FileSHA1::FileMD5HashCreateWithPath(file, 1 << 20); });
  }
  Sent sent;
  sent.outcome = outcome;
  sent.current = current;
  sent.placed = existing && current ? current->parent : upload.parent;
  if (outcome == Outcome::Nothing) {
    sent.ok = true;
    return report(std::move(sent));
  }

  NSFileProviderItemTemplate item;
  item.size = static_cast<uint64_t>(st.st_size);
  item.modified = item.used = mtimeOf(st);
  item.parentIdentifier = sent.placed;
  const bool modifying = outcome == Outcome::Contents && existing;
  const std::string name = modifying ? current->filename.value_or(upload.name)
                           : outcome == Outcome::ConflictCopy
                               ? conflictName(upload.name, std::time(nullptr))
                               : upload.name;
  // Shown while it runs; the handler may run before the call returns.
  const Transfers::Id transfer = transfers_->begin(pathIn(sent.placed, name), Direction::Upload);
  auto handler = [report, sent, name, transfers = transfers_, transfer](
                     NSFileProviderItemRef reported, uint64_t, bool,
                     std::optional<Error> error) mutable {
    transfers->end(transfer);
    if (error || !reported) {
      log("driver: upload of {} failed ({})", name,
          error ? std::to_string(error->code) : std::string("no item"));
      sent.error = error ? failureText(*error) : "the cloud reported no item";
    }
    sent.ok = !error && reported;
    sent.item = std::move(reported);
    report(std::move(sent));
  };
  item.name = name;
  if (modifying) {
    item.identifier = upload.identifier;
    item.type = typeFor(item.name, false);
    item.itemCapabilities = current->capabilities;
    item.version = current->version;
    item.created = current->created;
    transfers_->attach(transfer, extension_.modifyItem(item, current->version, Fields::Contents,
                                                       file, 0, {}, handler));
    return;
  }
  item.identifier = asIdentifier.empty() ? "__fp/" + std::to_string(++provisional_) : asIdentifier;
  item.type = typeFor(item.name, false);
  item.itemCapabilities = 63;
  item.created =
      outcome == Outcome::ConflictCopy || upload.created == 0 ? nowDate() : upload.created;
  transfers_->attach(transfer,
                     extension_.createItemBasedOnTemplate(
                         item,
                         Fields::Contents | Fields::Filename | Fields::ParentItemIdentifier |
                             Fields::CreationDate | Fields::ContentModificationDate,
                         file, 0, {}, handler));
}

// A failed lookup is also all a host that did not answer gives, so the
// item counts as gone only when its folder's listing agrees; contents sent
// as a conflicted copy on a passing outage would leave the item unchanged
// and a second file beside it.
Result<std::optional<ItemRecord>> Folder::currentItem(const PendingUpload& upload) {
  auto found = lookupItem(upload.identifier);
  if (!found || *found || upload.parent.empty()) return found;
  return childWhere(upload.parent,
                    [&](const ItemRecord& r) { return r.identifier == upload.identifier; });
}

Result<std::optional<ItemRecord>> Folder::lookupItem(const std::string& identifier) {
  auto answer = std::make_shared<ItemAnswer>();
  extension_.itemForIdentifier(identifier, {},
                               [answer](NSFileProviderItemRef item, std::optional<Error> error) {
                                 std::lock_guard lock(answer->mutex);
                                 if (answer->answered) return;
                                 answer->answered = true;
                                 answer->item = std::move(item);
                                 answer->error = std::move(error);
                                 answer->done.notify_all();
                               });
  std::unique_lock lock(answer->mutex);
  if (!answer->done.wait_for(lock, options_.callBound, [&] { return answer->answered; }))
    return errnoFailure(EIO, "no answer to a lookup");
  // Gone, as far as the provider can say: the contents become a new item.
  if (answer->error && answer->error->code == ErrorCode::LookupFailed)
    return std::optional<ItemRecord>();
  if (answer->error || !answer->item)
    return errnoFailure(
        EIO, "lookup failed (" + std::to_string(answer->error ? answer->error->code : 0) + ")");
  return std::optional<ItemRecord>(ItemRecord::of(*answer->item));
}

Result<std::optional<ItemRecord>> Folder::childWhere(
    const std::string& folder, const std::function<bool(const ItemRecord&)>& pick) {
  Error error;
  auto enumerator = extension_.enumeratorForContainerItemIdentifier(folder, {}, &error);
  if (!enumerator) return errnoFailure(EIO, "the folder cannot be listed");
  Listing listing;
  std::string page;
  for (int pages = 0; pages < 100000; ++pages) {
    listing.nextPage.reset();
    enumerator->enumerateItemsForObserver(listing, page);
    if (listing.failed || !listing.nextPage) break;
    page = *listing.nextPage;
  }
  enumerator->invalidate();
  if (listing.failed) return errnoFailure(EIO, "the folder cannot be listed");
  for (auto& record : listing.records)
    if (pick(record)) return std::optional<ItemRecord>(std::move(record));
  return std::optional<ItemRecord>();
}

}  // namespace hvfp::driver

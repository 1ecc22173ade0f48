#include "driver/Folder.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <mutex>
#include <utility>

#include "driver/Calls.h"
#include "driver/ErrorMap.h"
#include "platform/Bytes.h"
#include "platform/Log.h"
#include "platform/fileprovider/ContainerIdentifiers.h"
#include "platform/fileprovider/ItemTemplate.h"

namespace hvfp::driver {

using namespace calls;

uint32_t modeFor(const Attributes& a) {
  const bool writable = a.capabilities & Capability::Writing;
  if (a.folder) return S_IFDIR | (writable ? 0755 : 0555);
  return S_IFREG | (writable ? 0644 : 0444);
}

Folder::Folder(NSFileProviderReplicatedExtension& extension,
               std::shared_ptr<NSFileProviderManager> manager, Invalidator& invalidator,
               FolderOptions options)
    : extension_(extension),
      manager_(std::move(manager)),
      invalidator_(invalidator),
      options_(std::move(options)),
      replica_(extension, invalidator),
      copies_(extension, options_.cacheFolder + "/copies", options_.cacheFolder,
              options_.cacheLimit, transfers_),
      working_(options_.cacheFolder + "/work"),
      journal_(options_.cacheFolder + "/pending"),
      uploads_([this](Ino ino, Uploads::Done done) { attemptUpload(ino, std::move(done)); }) {
  signalThread_ = std::thread([this] { signalLoop(); });
  recover();
  if (manager_)
    manager_->setSignalHandler([this, gate = gate_](const std::string& container) {
      gate->pass([&] {
        MutexLock lock(mutex_);
        containers_.insert(container);
        signalled_.notify_all();
      });
    });
}

Folder::~Folder() {
  if (manager_) manager_->setSignalHandler(nullptr);
  std::unordered_map<OpenFile*, std::unique_ptr<OpenFile>> open;
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    signalled_.notify_all();
    open.swap(files_);
  }
  {
    MutexLock lock(mutex_);
    for (auto& [ino, handles] : handles_)
      if (handles.shared > 0) ::close(handles.file.fd);
  }
  // Writes to files still open are kept for the next mount.
  for (auto& [handle, file] : open) {
    if (file->writer && working_.unrecorded(file->ino)) (void)persist(file->ino);
    ::close(file->fd);
    for (int fd : file->retired) ::close(fd);
  }
  signalThread_.join();
  gate_->close();
  if (lock_ >= 0) ::close(lock_);
}

bool Folder::finish(std::chrono::milliseconds bound) { return uploads_.drain(bound); }

void Folder::signalLoop() {
  MutexLock lock(mutex_);
  while (!stopping_) {
    if (containers_.empty()) {
      signalled_.wait(lock);
      continue;
    }
    std::set<std::string> batch = std::move(containers_);
    containers_.clear();
    lock.unlock();
    for (const auto& container : batch) replica_.signalled(container);
    // Items that left a folder may have gone to one not signalled, or to
    // the trash, whose own report is empty.
    replica_.reportWorkingSet();
    lock.lock();
  }
}

// --- attributes --------------------------------------------------------

void Folder::setFolderTime(Ino ino, std::optional<Date> modified) {
  MutexLock lock(mutex_);
  if (modified)
    folderTimes_[ino] = *modified;
  else
    folderTimes_.erase(ino);
}

Attributes Folder::withLocalContents(Attributes a) {
  if (a.folder) {
    MutexLock lock(mutex_);
    if (auto it = folderTimes_.find(a.ino); it != folderTimes_.end()) a.modified = it->second;
    return a;
  }
  if (auto path = working_.newest(a.ino)) {
    struct stat st {};
    if (::stat(path->c_str(), &st) == 0) {
      a.size = static_cast<uint64_t>(st.st_size);
      a.modified = mtimeOf(st);
    }
  }
  return a;
}

Result<Attributes> Folder::lookup(Ino parent, std::string_view name) {
  auto found = replica_.lookup(parent, name);
  if (!found) return found;
  return withLocalContents(*found);
}

void Folder::forget(Ino ino, uint64_t count) { replica_.forget(ino, count); }

Result<Attributes> Folder::getattr(Ino ino) {
  auto found = replica_.attributes(ino);
  if (!found) return found;
  return withLocalContents(*found);
}

Result<std::vector<Child>> Folder::list(Ino folder) {
  auto children = replica_.children(folder);
  if (!children) return children;
  // Most of the time no file has local contents: one look, not one a child.
  const bool local = !working_.empty();
  for (auto& child : *children)
    if (local || child.attributes.folder) child.attributes = withLocalContents(child.attributes);
  return children;
}

Result<Attributes> Folder::setattr(Ino ino, std::optional<uint64_t> size,
                                   std::optional<Date> modified, OpenFile* file) {
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  if (size) {
    if (info->record.folder) return errnoFailure(EISDIR);
    if (!(info->record.capabilities & Capability::Writing)) return errnoFailure(EACCES);
    if (file && file->writer) {
      if (::ftruncate(file->fd, static_cast<off_t>(*size)) != 0) return errnoFailure(errno);
      working_.changed(ino);
    } else {
      auto done = rewrite(ino, *info, *size == 0, [&](int fd) {
        return ::ftruncate(fd, static_cast<off_t>(*size)) == 0 ? 0 : errno;
      });
      if (!done) return done.failure();
    }
  }
  if (modified && info->record.folder) setFolderTime(ino, *modified);
  if (modified && !info->record.folder) setTime(ino, *info, *modified);
  return getattr(ino);
}

Result<void> Folder::rewrite(Ino ino, const NodeInfo& info, bool truncate,
                             const std::function<int(int fd)>& change) {
  {
    MutexLock lock(mutex_);
    Handles& handles = handles_[ino];
    // A shared file changes in place, for its readers to see.
    if (handles.shared > 0 && handles.file.lent)
      if (auto taken = takeOver(ino, handles.file); !taken) return taken;
    ++handles.opening;  // no sharing starts while the contents are remade
  }
  struct Done {
    Folder& folder;
    Ino ino;
    ~Done() { folder.abandonOpening(ino); }
  } done{*this, ino};
  auto fd = working_.openWriter(
      ino, truncate, false,
      [&]() -> Result<int> {
        auto copy = readCloudCopy(ino, info, false);
        if (!copy) return copy.failure();
        return copy->fd;
      },
      info.record.modified);
  if (!fd) return fd.failure();
  replica_.pin(ino, true);
  int error = change(*fd);
  ::close(*fd);
  working_.changed(ino);
  if (auto sealed = working_.closeWriter(ino)) uploads_.schedule(ino, sealed->generation);
  if (auto recorded = persist(ino); !recorded && !error) return recorded;
  if (error) return errnoFailure(error);
  return {};
}

void Folder::setTime(Ino ino, const NodeInfo& info, Date modified) {
  struct timespec times[2];
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(std::floor(modified));
  times[1].tv_nsec = static_cast<long>((modified - std::floor(modified)) * 1e9);
  if (!working_.newest(ino)) {
    // In step with the cloud, which keeps whole seconds: a new time goes
    // with the contents, as any change of them does.
    const bool writable = (info.record.capabilities & Capability::Writing) &&
                          info.parent != kTrashIno && !info.provisional;
    if (!writable || std::floor(modified) == std::floor(info.record.modified)) return;
    (void)rewrite(ino, info, false, [&](int fd) { return ::futimens(fd, times) == 0 ? 0 : errno; });
    return;
  }
  auto path = working_.newest(ino);
  if (!path) return;
  ::utimensat(AT_FDCWD, path->c_str(), times, 0);
  // A sealed state goes again (an upload that left carried the old time);
  // a working copy open for writing is sealed with it at its last close.
  if (auto again = working_.touched(ino))
    uploads_.schedule(ino, again->generation);
  else
    working_.changed(ino);
  (void)persist(ino);
}

Result<struct statvfs> Folder::statfs() {
  struct statvfs st {};
  if (::statvfs(options_.cacheFolder.c_str(), &st) != 0) return errnoFailure(errno);
  return st;
}

// --- contents ----------------------------------------------------------

Result<Copies::Opened> Folder::readCloudCopy(Ino ino, const NodeInfo& info, bool hold) {
  auto opened = copies_.open(info.record.identifier, info.record.version, hold,
                             replica_.pathOf(ino).value_or(info.name));
  if (!opened) return opened.failure();
  if (opened->fetched && opened->fetched->version != info.record.version) {
    // The provider delivered newer contents than we knew of.
    ItemRecord newer = *opened->fetched;
    newer.identifier = info.record.identifier;
    newer.parent.clear();
    newer.filename = info.record.filename;
    replica_.apply(ino, newer);
  }
  return opened;
}

Result<Opened> Folder::open(Ino ino, int flags) {
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  if (info->record.folder) return errnoFailure(EISDIR);
  const bool writer = (flags & O_ACCMODE) != O_RDONLY;
  if (writer &&
      (!(info->record.capabilities & Capability::Writing) || info->parent == kTrashIno))
    return errnoFailure(EACCES);
  bool refresh = false;
  {
    MutexLock lock(mutex_);
    Handles& handles = handles_[ino];
    if (handles.shared == 0)
      ++handles.opening;
    else if (!outdated(handles.file, *info))
      return openShared(ino, handles.file, *info, flags);
    else
      refresh = true;  // the shared copy is behind the cloud
  }
  if (refresh) return openRefreshed(ino, *info, flags);
  return openCounted(ino, *info, flags);
}

Result<Opened> Folder::openCounted(Ino ino, const NodeInfo& info, int flags) {
  auto opened = openOwn(ino, info, flags);
  if (!opened) abandonOpening(ino);
  return opened;
}

bool Folder::outdated(const Shared& shared, const NodeInfo& info) {
  return shared.lent && info.record.version && shared.version != info.record.version->contentVersion;
}

Result<Opened> Folder::openRefreshed(Ino ino, const NodeInfo& info, int flags) {
  // The cloud's contents changed since the copy was shared: they go into
  // the shared file, so this open (and a writer's edit above all) starts
  // from them, as a file rewritten in place would.
  auto fresh = readCloudCopy(ino, info, false);
  if (!fresh) return fresh.failure();
  auto now = replica_.info(ino);
  const NodeInfo& current = now ? *now : info;
  MutexLock lock(mutex_);
  Handles& handles = handles_[ino];
  if (handles.shared == 0) {
    // Nobody shares it any more: an ordinary open after all.
    ::close(fresh->fd);
    ++handles.opening;
    lock.unlock();
    return openCounted(ino, current, flags);
  }
  Shared& shared = handles.file;
  if (outdated(shared, current)) {
    refill(shared, fresh->fd);
    // What the copy holds now is not what was lent: it is not taken back.
    shared.version = current.record.version->contentVersion;
  }
  ::close(fresh->fd);
  return openShared(ino, shared, current, flags);
}

Result<Opened> Folder::openOwn(Ino ino, const NodeInfo& info, int flags) {
  if ((flags & O_ACCMODE) != O_RDONLY) {
    auto fd = working_.openWriter(
        ino, flags & O_TRUNC, flags & O_APPEND,
        [&]() -> Result<int> {
          auto copy = readCloudCopy(ino, info, false);
          if (!copy) return copy.failure();
          return copy->fd;
        },
        info.record.modified);
    if (!fd) return fd.failure();
    replica_.pin(ino, true);
    return track(OpenFile{ino, *fd, true, {}, {}, {}}, std::nullopt,
                 (flags & O_ACCMODE) == O_WRONLY);
  }
  if (auto path = working_.newest(ino)) {
    int fd = ::open(path->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) return track(OpenFile{ino, fd, false, *path, {}, {}}, std::nullopt, false);
  }
  auto copy = readCloudCopy(ino, info, true);
  if (!copy) return copy.failure();
  auto now = replica_.info(ino);
  return track(OpenFile{ino, copy->fd, false, {}, copy->file, {}},
               now && now->record.version ? now->record.version->contentVersion : std::string(),
               false, copy->cached);
}

void Folder::abandonOpening(Ino ino) {
  MutexLock lock(mutex_);
  auto it = handles_.find(ino);
  if (it == handles_.end()) return;
  --it->second.opening;
  if (it->second.open == 0 && it->second.opening == 0) handles_.erase(it);
}

Result<Opened> Folder::openShared(Ino ino, Shared& shared, const NodeInfo& info, int flags) {
  const bool writer = (flags & O_ACCMODE) != O_RDONLY;
  if (shared.broken) return errnoFailure(EIO, "the shared copy could not be brought up to date");
  int fd = -1;
  if (writer) {
    if (shared.lent) {
      auto taken = takeOver(ino, shared);
      if (!taken) return taken.failure();
    }
    // The working copy is the shared file, pinned: this opens it again.
    auto opened = working_.openWriter(
        ino, flags & O_TRUNC, flags & O_APPEND,
        []() -> Result<int> { return errnoFailure(EIO, "the shared file went"); },
        info.record.modified);
    if (!opened) return opened.failure();
    fd = *opened;
    // Writes go to the file without us: the close counts as a change.
    working_.changed(ino);
  } else {
    fd = ::fcntl(shared.fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return errnoFailure(errno);
  }
  auto owned = std::make_unique<OpenFile>(OpenFile{ino, fd, writer, {}, {}, {}});
  owned->shared = true;
  OpenFile* handle = owned.get();
  files_.emplace(handle, std::move(owned));
  Handles& handles = handles_[ino];
  ++handles.open;
  ++handles.shared;
  return Opened{handle, false, shared.backing};
}

void Folder::catchUpShared(Ino ino) {
  {
    MutexLock lock(mutex_);
    auto it = handles_.find(ino);
    if (it == handles_.end() || it->second.shared == 0 || it->second.file.lent) return;
  }
  auto info = replica_.info(ino);
  if (!info) return;
  auto fresh = readCloudCopy(ino, *info, false);
  if (!fresh) {
    log("driver: {} keeps showing its local contents ({})", info->name, fresh.failure().message);
    return;
  }
  MutexLock lock(mutex_);
  auto it = handles_.find(ino);
  // Writers open, or changes since: those go up in turn, as they are.
  if (it != handles_.end() && it->second.shared > 0 && !it->second.file.lent &&
      working_.settled(ino))
    refill(it->second.file, fresh->fd);
  ::close(fresh->fd);
}

void Folder::refill(Shared& shared, int from) {
  int error = ::ftruncate(shared.fd, 0) == 0 && ::lseek(shared.fd, 0, SEEK_SET) == 0
                  ? copyContents(from, shared.fd)
                  : errno;
  if (error) {
    // Half the new contents: no open may start from them, writers least.
    shared.broken = true;
    log("driver: cannot bring a shared copy up to date ({})", std::strerror(error));
  }
}

Result<void> Folder::takeOver(Ino ino, Shared& shared) {
  auto path = working_.adopt(ino, shared.lent->path);
  if (!path) return path.failure();
  copies_.keep(*shared.lent);
  shared.lent.reset();
  // The kernel's pages of this inode, if any, are of the cloud's contents.
  cachedVersion_.erase(ino);
  replica_.pin(ino, true);
  return {};
}

bool Folder::share(OpenFile& file, const std::string& version) {
  if (!backings_ || file.copy.empty()) return false;
  Shared shared;
  shared.fd = ::open(file.copy.c_str(), O_RDWR | O_CLOEXEC);
  if (shared.fd < 0) return false;
  auto backing = backings_->open(shared.fd);
  // Lent only to the one open that holds it: a copy other items share (the
  // same contents) or other opens use is never written.
  auto lent = backing ? copies_.lend(file.copy) : std::nullopt;
  if (!lent) {
    if (backing) backings_->close(*backing);
    ::close(shared.fd);
    return false;
  }
  shared.backing = *backing;
  shared.version = version;
  shared.lent = std::move(lent);
  file.copy.clear();
  file.shared = true;
  Handles& handles = handles_[file.ino];
  handles.shared = 1;
  handles.file = std::move(shared);
  return true;
}

void Folder::unshared(Ino ino, Shared shared) {
  if (backings_) backings_->close(shared.backing);
  ::close(shared.fd);
  if (shared.lent) {
    copies_.takeBack(*shared.lent);
    return;
  }
  if (auto sealed = working_.unpin(ino)) {
    (void)persist(ino);
    uploads_.schedule(ino, sealed->generation);
  } else if (!working_.newest(ino)) {
    journal_.erase(ino);
    replica_.pin(ino, false);
  }
}

int Folder::readable(OpenFile& file) {
  if (file.writer) return file.fd;
  auto newest = working_.newest(file.ino);
  MutexLock lock(readMutex_);
  if (newest && *newest != file.local) {
    // Another program wrote the file since this one opened it. The old
    // descriptor may be in use by a read running now: it stays open.
    int fd = ::open(newest->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      file.retired.push_back(file.fd);
      file.fd = fd;
      file.local = *newest;
    }
  }
  return file.fd;
}

void Folder::written(OpenFile& file, uint64_t offset, uint64_t length) {
  working_.changed(file.ino);
  // Whole windows behind the write go to disk now; a sequential writer's
  // close then waits for the last window only.
  constexpr uint64_t kWindow = 8 << 20;
  const uint64_t end = offset + length;
  if (end / kWindow == offset / kWindow || end < kWindow) return;
  const uint64_t from = (end / kWindow - 1) * kWindow;
  ::sync_file_range(file.fd, static_cast<off_t>(from), static_cast<off_t>(kWindow),
                    SYNC_FILE_RANGE_WRITE);
}

Opened Folder::track(OpenFile file, const std::optional<std::string>& version,
                     bool writeOnly, bool shareable) {
  MutexLock lock(mutex_);
  Handles& handles = handles_[file.ino];
  --handles.opening;
  const bool alone = handles.open == 0 && handles.opening == 0;
  const bool shared =
      shareable && version && alone && !working_.newest(file.ino) && share(file, *version);
  auto owned = std::make_unique<OpenFile>(std::move(file));
  OpenFile* handle = owned.get();
  files_.emplace(handle, std::move(owned));
  if (!shared) handle->direct = handles.direct > 0 || (writeOnly && handles.open == 0);
  ++handles.open;
  if (shared) return Opened{handle, false, handles.file.backing};
  if (handle->direct) ++handles.direct;
  bool keep = false;
  if (version) {
    auto cached = cachedVersion_.find(handle->ino);
    keep = cached != cachedVersion_.end() && cached->second == *version;
    cachedVersion_[handle->ino] = *version;
  } else {
    cachedVersion_.erase(handle->ino);
  }
  return Opened{handle, keep};
}

void Folder::release(OpenFile* handle) {
  std::unique_ptr<OpenFile> file;
  std::optional<Shared> ended;
  {
    MutexLock lock(mutex_);
    auto it = files_.find(handle);
    if (it == files_.end()) return;
    file = std::move(it->second);
    files_.erase(it);
    Handles& handles = handles_[file->ino];
    if (file->direct) --handles.direct;
    if (file->shared && --handles.shared == 0) ended = std::exchange(handles.file, Shared{});
    if (--handles.open == 0 && handles.opening == 0) handles_.erase(file->ino);
  }
  ::close(file->fd);
  for (int fd : file->retired) ::close(fd);
  if (!file->copy.empty()) copies_.closed(file->copy);
  // First, so that a last writer's close below seals the file in place.
  if (ended) unshared(file->ino, std::move(*ended));
  if (!file->writer) return;
  if (file->shared) working_.changed(file->ino);
  auto sealed = working_.closeWriter(file->ino);
  if (working_.unrecorded(file->ino)) (void)persist(file->ino);
  if (sealed) {
    uploads_.schedule(file->ino, sealed->generation);
  } else if (!working_.newest(file->ino)) {
    journal_.erase(file->ino);
    replica_.pin(file->ino, false);
  }
}

Result<void> Folder::flush(OpenFile& file) {
  if (file.writer && file.shared) working_.changed(file.ino);
  if (!file.writer || !working_.unrecorded(file.ino)) return {};
  return persist(file.ino);
}

Result<void> Folder::fsync(OpenFile& file) {
  // `cp f DIR && sync DIR/f`: the copy's release may still be on its way,
  // and sealing around an open writer would copy the whole file.
  if (!file.writer) working_.writersClosed(file.ino, std::chrono::milliseconds(200));
  if (file.writer && file.shared) working_.changed(file.ino);
  auto sealed = working_.seal(file.ino);
  if (!sealed) return sealed.failure();
  if (!*sealed) return {};
  if (auto recorded = persist(file.ino); !recorded) return recorded;
  uploads_.schedule(file.ino, (*sealed)->generation);
  if (!uploads_.waitFor(file.ino, (*sealed)->generation))
    return errnoFailure(EIO, "the upload failed; it is tried again");
  return {};
}

// --- new items ---------------------------------------------------------

Result<Created> Folder::create(Ino parent, std::string_view name, int flags) {
  setFolderTime(parent, std::nullopt);
  auto folder = replica_.info(parent);
  if (!folder) return folder.failure();
  if (!folder->record.folder) return errnoFailure(ENOTDIR);
  if (parent == kRootIno || parent == kTrashIno || folder->parent == kTrashIno)
    return errnoFailure(EPERM, "no new items here");
  if (!(folder->record.capabilities & Capability::Writing)) return errnoFailure(EACCES);
  ItemRecord record;
  record.identifier = "__fp/" + std::to_string(++provisional_);
  record.parent = folder->record.identifier;
  record.filename = std::string(name);
  record.created = record.modified = nowDate();
  // Until its creation reports, a new file may be written, renamed, moved
  // and removed.
  record.capabilities = 63;
  auto added = replica_.add(parent, name, record);
  if (!added) return added.failure();
  auto fd = working_.openWriter(
      added->ino, true, flags & O_APPEND, [] { return Result<int>(errnoFailure(EIO)); },
      std::nullopt);
  if (!fd) {
    replica_.remove(added->ino, false);
    return fd.failure();
  }
  {
    MutexLock lock(mutex_);
    ++handles_[added->ino].opening;
  }
  return Created{withLocalContents(*added),
                 track(OpenFile{added->ino, *fd, true, {}, {}, {}}, std::nullopt,
                       (flags & O_ACCMODE) == O_WRONLY)
                     .file};
}

Result<Attributes> Folder::mkdir(Ino parent, std::string_view name) {
  setFolderTime(parent, std::nullopt);
  auto folder = replica_.info(parent);
  if (!folder) return folder.failure();
  if (!folder->record.folder) return errnoFailure(ENOTDIR);
  if (parent == kRootIno || parent == kTrashIno || folder->parent == kTrashIno)
    return errnoFailure(EPERM, "no new folders here");
  if (!(folder->record.capabilities & Capability::Writing)) return errnoFailure(EACCES);
  if (replica_.find(parent, name)) return errnoFailure(EEXIST);
  NSFileProviderItemTemplate item;
  item.identifier = "__fp/" + std::to_string(++provisional_);
  item.parentIdentifier = folder->record.identifier;
  item.name = std::string(name);
  item.type = ContentType::folder();
  item.itemCapabilities = 63;
  item.size = 0;
  item.created = item.modified = item.used = nowDate();
  auto answer = std::make_shared<ChangeAnswer>();
  extension_.createItemBasedOnTemplate(item,
                                       Fields::Filename | Fields::ParentItemIdentifier |
                                           Fields::CreationDate | Fields::ContentModificationDate,
                                       std::nullopt, 0, {}, answer->handler(answer));
  if (!answer->wait(options_.callBound)) return errnoFailure(EIO, "no answer to mkdir");
  if (answer->error) return errnoFailure(errnoFor(*answer->error));
  if (!answer->item) return errnoFailure(EIO, "mkdir answered no item");
  ItemRecord made = ItemRecord::of(*answer->item);
  made.folder = true;
  return replica_.add(parent, name, made);
}

// --- changes to existing items -----------------------------------------

Result<NSFileProviderItemRef> Folder::modify(const NodeInfo& info, uint64_t fields,
                                             const std::optional<std::string>& name,
                                             const std::optional<std::string>& parent) {
  NSFileProviderItemTemplate item = templateOf(info);
  if (name) item.name = *name;
  if (parent) item.parentIdentifier = *parent;
  auto answer = std::make_shared<ChangeAnswer>();
  extension_.modifyItem(item, info.record.version, fields, std::nullopt, 0, {},
                        answer->handler(answer));
  if (!answer->wait(options_.callBound)) return errnoFailure(EIO, "no answer to a modification");
  if (answer->error) return errnoFailure(errnoFor(*answer->error));
  return answer->item;
}

Result<void> Folder::settleUploads(Ino ino) {
  auto info = replica_.info(ino);
  if (!info || info->provisional) return {};
  if (auto pending = working_.pending(ino); pending && !uploads_.waitFor(ino, pending->generation))
    return errnoFailure(EIO, "its contents could not be sent yet");
  return {};
}

Result<void> Folder::trash(Ino ino) {
  if (auto settled = settleUploads(ino); !settled) return settled;
  Result<void> result;
  uploads_.whileIdle(ino, [&](bool) {
    auto info = replica_.info(ino);
    if (!info) return (result = info.failure()), false;
    if (info->provisional) {
      // Never created: nothing to move to the trash.
      working_.drop(ino);
      journal_.erase(ino);
      replica_.remove(ino, false);
      return true;
    }
    if (!(info->record.capabilities & Capability::Trashing))
      return (result = errnoFailure(EPERM)), false;
    auto reply = modify(*info, Fields::ParentItemIdentifier, std::nullopt, kTrashId);
    if (!reply) return (result = reply.failure()), false;
    if (*reply)
      replica_.apply(ino, ItemRecord::of(**reply));
    else
      replica_.remove(ino, false);
    return false;
  });
  return result;
}

Result<void> Folder::erase(Ino ino) {
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  if (!(info->record.capabilities & Capability::Deleting)) return errnoFailure(EPERM);
  auto answer = std::make_shared<ChangeAnswer>();
  auto handler = answer->handler(answer);
  extension_.deleteItemWithIdentifier(
      info->record.identifier, info->record.version, 0, {},
      [handler](std::optional<Error> error) { handler(nullptr, 0, false, std::move(error)); });
  if (!answer->wait(options_.callBound)) return errnoFailure(EIO, "no answer to a deletion");
  if (answer->error) return errnoFailure(errnoFor(*answer->error));
  working_.drop(ino);
  journal_.erase(ino);
  replica_.remove(ino, true);
  return {};
}

Result<void> Folder::move(Ino ino, Ino newParent, std::string_view newName) {
  auto target = replica_.info(newParent);
  if (!target) return target.failure();
  if (!target->record.folder) return errnoFailure(ENOTDIR);
  if (auto settled = settleUploads(ino); !settled) return settled;
  Result<void> result;
  uploads_.whileIdle(ino, [&](bool) {
    auto info = replica_.info(ino);
    if (!info) return (result = info.failure()), false;
    const bool renamed = info->record.filename != std::string(newName);
    const bool moved = info->parent != newParent;
    if (info->provisional) {
      // Not created yet: the creation will carry the new name and place.
      ItemRecord local = info->record;
      local.filename = std::string(newName);
      local.parent = target->record.identifier;
      replica_.apply(ino, local);
      if (auto recorded = persist(ino); !recorded) result = recorded;
      return false;
    }
    if ((renamed && !(info->record.capabilities & Capability::Renaming)) ||
        (moved && !(info->record.capabilities & Capability::Reparenting)))
      return (result = errnoFailure(EPERM)), false;
    if (renamed) {
      auto reply = modify(*info, Fields::Filename, std::string(newName), std::nullopt);
      if (!reply) return (result = reply.failure()), false;
      if (*reply) replica_.apply(ino, ItemRecord::of(**reply));
      info = replica_.info(ino);
      if (!info) return (result = info.failure()), false;
    }
    if (moved) {
      auto reply =
          modify(*info, Fields::ParentItemIdentifier, std::nullopt, target->record.identifier);
      if (!reply) return (result = reply.failure()), false;
      if (*reply) replica_.apply(ino, ItemRecord::of(**reply));
    }
    if (working_.newest(ino)) (void)persist(ino);
    return false;
  });
  return result;
}

Result<void> Folder::restore(Ino ino, Ino newParent, std::string_view newName) {
  auto target = replica_.info(newParent);
  if (!target) return target.failure();
  if (!target->record.folder) return errnoFailure(ENOTDIR);
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  auto reply = modify(*info, Fields::ParentItemIdentifier, std::nullopt, target->record.identifier);
  if (!reply) return reply.failure();
  // A restore puts the item back where it was; see where that is.
  NSFileProviderItemRef placed = *reply;
  extension_.itemForIdentifier(info->record.identifier, {},
                               [&](NSFileProviderItemRef item, std::optional<Error>) {
                                 if (item) placed = std::move(item);
                               });
  if (placed) replica_.apply(ino, ItemRecord::of(*placed));
  auto now = replica_.info(ino);
  if (!now) return now.failure();
  if (now->parent == kTrashIno || now->record.parent == kTrashId) {
    log("driver: the cloud kept {} in the trash", now->name);
    return errnoFailure(EACCES);
  }
  if (now->parent == newParent && now->record.filename == std::string(newName)) return {};
  return move(ino, newParent, newName);
}

Result<void> Folder::removeEntry(Ino parent, std::string_view name, bool folder) {
  setFolderTime(parent, std::nullopt);
  auto found = replica_.find(parent, name);
  if (!found) return found.failure();
  const Ino ino = *found;
  if (ino == kTrashIno || parent == kRootIno) return errnoFailure(EPERM);
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  if (folder && !info->record.folder) return errnoFailure(ENOTDIR);
  if (!folder && info->record.folder) return errnoFailure(EISDIR);
  if (folder) {
    auto empty = replica_.empty(ino);
    if (!empty) return empty.failure();
    if (!*empty) return errnoFailure(ENOTEMPTY);
  }
  return parent == kTrashIno ? erase(ino) : trash(ino);
}

Result<void> Folder::unlink(Ino parent, std::string_view name) {
  return removeEntry(parent, name, false);
}

Result<void> Folder::rmdir(Ino parent, std::string_view name) {
  return removeEntry(parent, name, true);
}

Result<void> Folder::rename(Ino parent, std::string_view name, Ino newParent,
                            std::string_view newName, unsigned flags) {
  setFolderTime(parent, std::nullopt);
  setFolderTime(newParent, std::nullopt);
  if (flags & ~unsigned{RENAME_NOREPLACE}) return errnoFailure(EINVAL);
  auto found = replica_.find(parent, name);
  if (!found) return found.failure();
  const Ino ino = *found;
  if (ino == kTrashIno || parent == kRootIno || newParent == kRootIno)
    return errnoFailure(EPERM, "mounts and the trash stay where they are");
  auto info = replica_.info(ino);
  if (!info) return info.failure();
  if (auto existing = replica_.find(newParent, newName); existing) {
    if (*existing == ino) return {};
    if (flags & RENAME_NOREPLACE) return errnoFailure(EEXIST);
    auto other = replica_.info(*existing);
    if (!other) return other.failure();
    if (info->record.folder && !other->record.folder) return errnoFailure(ENOTDIR);
    if (!info->record.folder && other->record.folder) return errnoFailure(EISDIR);
    if (other->record.folder) {
      auto empty = replica_.empty(*existing);
      if (!empty) return empty.failure();
      if (!*empty) return errnoFailure(ENOTEMPTY);
    }
    // Nothing is lost: what is replaced goes to the trash first.
    if (newParent != kTrashIno)
      if (auto trashed = trash(*existing); !trashed) return trashed;
  }
  Result<void> result;
  if (newParent == kTrashIno && parent != kTrashIno)
    result = trash(ino);
  else if (parent == kTrashIno && newParent != kTrashIno)
    result = restore(ino, newParent, newName);
  else
    result = move(ino, newParent, newName);

  // The kernel takes newName in newParent for the item when the call
  // succeeds, and name in parent when it fails: where the replica shows it
  // elsewhere, those entries are stale.
  auto now = replica_.info(ino);
  const Ino wantParent = result ? newParent : parent;
  const std::string wantName(result ? newName : name);
  if (!now || now->parent != wantParent || now->name != wantName)
    invalidator_.invalidate({{Invalidation::Kind::Entry, wantParent, 0, wantName}});
  return result;
}

}  // namespace hvfp::driver

#include "driver/Copies.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <vector>

#include "digest/FileMD5Hash.h"
#include "driver/ErrorMap.h"
#include "platform/Log.h"

namespace hvfp::driver {
namespace {

std::string keyOf(const std::string& identifier,
                  const std::optional<NSFileProviderItemVersion>& version) {
  return identifier + '\n' + (version ? version->contentVersion : std::string());
}

// Downloads are named by content hash: 1-128 letters and digits.
bool isDownloadName(const std::string& name) {
  if (name.empty() || name.size() > 128) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  return true;
}

// What one fetch answered, handed from the provider's thread to the waiter.
struct FetchAnswer {
  std::mutex mutex;
  std::condition_variable done;
  bool answered = false;
  std::optional<std::string> path;
  NSFileProviderItemRef item;
  std::optional<Error> error;
};

}  // namespace

std::optional<std::string> contentHashOf(const std::optional<NSFileProviderItemVersion>& version) {
  if (!version) return std::nullopt;
  std::string_view text = version->contentVersion;
  size_t at = text.find("\"filehash\"");
  if (at == std::string_view::npos) return std::nullopt;
  at += 10;
  auto skipBlanks = [&] {
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  };
  skipBlanks();
  if (at >= text.size() || text[at++] != ':') return std::nullopt;
  skipBlanks();
  if (at >= text.size() || text[at++] != '"') return std::nullopt;
  std::string hash;
  while (at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])) &&
         hash.size() < 41)
    hash += static_cast<char>(std::tolower(static_cast<unsigned char>(text[at++])));
  if (hash.size() != 40 || at >= text.size() || text[at] != '"') return std::nullopt;
  return hash;
}

Copies::Copies(NSFileProviderReplicatedExtension& extension, std::string folder, std::string cache,
               uint64_t limitBytes, std::shared_ptr<Transfers> transfers)
    : extension_(extension),
      folder_(std::move(folder)),
      cache_(std::filesystem::path(cache).lexically_normal().string()),
      limit_(limitBytes),
      transfers_(std::move(transfers)) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::remove_all(folder_, ec);
  fs::create_directories(folder_, ec);
  // Downloads an earlier run left count too, and go first, oldest first.
  std::vector<std::pair<fs::file_time_type, std::string>> found;
  for (auto it = fs::directory_iterator(cache_ + "/tmp", ec); !ec && it != fs::directory_iterator();
       it.increment(ec)) {
    std::error_code e;
    if (it->is_regular_file(e) && isDownloadName(it->path().filename()))
      found.emplace_back(it->last_write_time(e), it->path().string());
  }
  std::sort(found.begin(), found.end());
  MutexLock lock(mutex_);
  for (auto& [when, path] : found) {
    auto stamp = stampOf(path);
    if (!stamp) continue;
    File& f = files_[path];
    f.counted = counts(path);
    f.size = static_cast<uint64_t>(stamp->size);
    if (!f.counted) continue;
    total_ += f.size;
    f.lastUse = ++clock_;
    byUse_.emplace(f.lastUse, path);
  }
  evict();
}

Copies::~Copies() = default;

bool Copies::counts(const std::string& path) const {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  return normal.size() > cache_.size() + 1 && normal.compare(0, cache_.size(), cache_) == 0 &&
         normal[cache_.size()] == '/';
}

std::optional<Copies::Stamp> Copies::stampOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return Stamp{st.st_dev, st.st_ino, st.st_size,
               int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec};
}

Result<Copies::Opened> Copies::open(const std::string& identifier,
                                    const std::optional<NSFileProviderItemVersion>& version,
                                    bool hold, const std::string& label) {
  // A copy may vanish underneath (cleaned away, or replaced by a download of
  // the same contents): then it is fetched once more.
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto copy = checked(identifier, version, label.empty() ? identifier : label);
    if (!copy) return copy.failure();
    MutexLock lock(mutex_);
    int fd = ::open(copy->path.c_str(), O_RDONLY | O_CLOEXEC);
    if (auto b = busy_.find(copy->path); b != busy_.end() && --b->second == 0) busy_.erase(b);
    if (fd >= 0) {
      Opened opened{fd, std::move(copy->fetched), ""};
      if (auto f = files_.find(copy->path); hold && f != files_.end()) {
        ++f->second.opens;
        opened.file = copy->path;
        opened.cached = f->second.counted;
      }
      return opened;
    }
    forgetFile(copy->path);
  }
  return errnoFailure(EIO, "the copy went away twice");
}

void Copies::closed(const std::string& path) {
  MutexLock lock(mutex_);
  auto f = files_.find(path);
  if (f == files_.end() || f->second.opens == 0) return;
  --f->second.opens;
  evict();
}

std::optional<Copies::Lent> Copies::lend(const std::string& path) {
  MutexLock lock(mutex_);
  auto f = files_.find(path);
  if (f == files_.end() || !f->second.counted || !f->second.checked || f->second.opens != 1 ||
      f->second.keys.size() != 1 || busy_.count(path))
    return std::nullopt;
  Lent lent{folder_ + "/lent-" + std::to_string(++adopted_), path, *f->second.keys.begin(),
            *f->second.checked};
  lent.size = f->second.size;
  if (::rename(path.c_str(), lent.path.c_str()) != 0) return std::nullopt;
  forgetFile(path);
  total_ += lent.size;
  ++lent_;
  return lent;
}

void Copies::keep(const Lent& lent) {
  MutexLock lock(mutex_);
  total_ -= lent.size;
  --lent_;
}

void Copies::takeBack(const Lent& lent) {
  MutexLock lock(mutex_);
  total_ -= lent.size;
  --lent_;
  if (stampOf(lent.path) != lent.checked) {
    ::unlink(lent.path.c_str());
    return;
  }
  // Back where it was, so a later mount finds it too, unless the place
  // was filled meanwhile.
  std::string path = lent.path;
  if (::renameat2(AT_FDCWD, lent.path.c_str(), AT_FDCWD, lent.from.c_str(), RENAME_NOREPLACE) == 0)
    path = lent.from;
  forgetKey(lent.key);
  file(lent.key, path, lent.checked);
  evict();
}

std::optional<std::string> Copies::stillChecked(const std::string& key) {
  auto copy = copies_.find(key);
  if (copy == copies_.end()) return std::nullopt;
  const std::string path = copy->second;
  File& f = files_[path];
  if (!f.checked) return std::nullopt;
  auto stamp = stampOf(path);
  if (stamp == f.checked) return path;
  // Changed or gone since it was checked: hashed again (or fetched) below.
  if (!stamp) forgetFile(path);
  return std::nullopt;
}

Result<Copies::Checked> Copies::checked(const std::string& identifier,
                                        const std::optional<NSFileProviderItemVersion>& version,
                                        const std::string& label) {
  const std::string key = keyOf(identifier, version);
  std::optional<std::string> held;
  std::shared_ptr<Fetch> mine;
  {
    MutexLock lock(mutex_);
    for (;;) {
      if (auto path = stillChecked(key)) {
        touch(*path);
        ++busy_[*path];
        return Checked{*path, std::nullopt};
      }
      auto running = fetches_.find(key);
      if (running == fetches_.end()) break;
      std::shared_ptr<Fetch> theirs = running->second;
      while (!theirs->done) fetched_.wait(lock);
      if (theirs->error) return errnoFailure(theirs->error);
      if (auto path = stillChecked(theirs->key)) {
        touch(*path);
        ++busy_[*path];
        return Checked{*path, std::nullopt};
      }
    }
    if (auto copy = copies_.find(key); copy != copies_.end()) {
      held = copy->second;
      ++busy_[*held];
    }
    mine = std::make_shared<Fetch>();
    mine->key = key;
    fetches_[key] = mine;
  }

  // The file held first, when there is one; then at most two fetches.
  std::optional<Checked> good;
  std::optional<NSFileProviderItemVersion> served = version;
  std::optional<Stamp> stamp;
  int error = 0;
  if (held) {
    stamp = stampOf(*held);
    if (stamp && matches(identifier, version, *held)) good = Checked{*held, std::nullopt};
    MutexLock lock(mutex_);
    if (auto b = busy_.find(*held); b != busy_.end() && --b->second == 0) busy_.erase(b);
  }
  for (int fetches = 0; !good && fetches < 2; ++fetches) {
    const std::optional<std::string> slot = freeDownloadSlot(version);
    auto got = fetch(identifier, version, label);
    if (!got) {
      error = got.failure().code ? got.failure().code : EIO;
      break;
    }
    served = version;
    if (got->fetched && got->fetched->version) served = got->fetched->version;
    // Taken before the hash: a change while hashing shows at the next open.
    stamp = stampOf(got->path);
    if (stamp && (checkedInTransit(slot, version, served, got->path) ||
                  matches(identifier, served, got->path)))
      good = std::move(*got);
    else
      error = EIO;
  }

  MutexLock lock(mutex_);
  fetches_.erase(key);
  mine->done = true;
  if (good) {
    error = 0;
    mine->key = keyOf(identifier, served);
    if (mine->key != key) forgetKey(key);
    file(mine->key, good->path, stamp);
    ++busy_[good->path];
    evict();
  } else {
    forgetKey(key);
  }
  mine->error = error;
  fetched_.notify_all();
  if (!good) return errnoFailure(error);
  return std::move(*good);
}

std::optional<std::string> Copies::freeDownloadSlot(
    const std::optional<NSFileProviderItemVersion>& version) const {
  auto hash = contentHashOf(version);
  if (!hash) return std::nullopt;
  std::string slot = cache_ + "/tmp/" + *hash;
  struct stat st {};
  if (::lstat(slot.c_str(), &st) == 0 || errno != ENOENT) return std::nullopt;
  return slot;
}

// Only a download puts a new file into the temporary directory under its
// content hash, and only after its bytes matched that hash as they arrived.
// So a file that appeared in a slot that was free when the fetch was asked,
// for the same contents, needs no second pass; anything that was there
// before, lives elsewhere or is named otherwise is hashed.
bool Copies::checkedInTransit(const std::optional<std::string>& slot,
                              const std::optional<NSFileProviderItemVersion>& asked,
                              const std::optional<NSFileProviderItemVersion>& served,
                              const std::string& path) const {
  if (!slot || contentHashOf(asked) != contentHashOf(served)) return false;
  if (std::filesystem::path(path).lexically_normal().string() != *slot) return false;
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1;
}

bool Copies::matches(const std::string& identifier,
                     const std::optional<NSFileProviderItemVersion>& version,
                     const std::string& path) {
  auto hash = contentHashOf(version);
  if (!hash) {
    log("driver: the version of {} names no content hash; its copy is served unchecked",
        identifier);
    return true;
  }
  if (FileSHA1::FileMD5HashCreateWithPath(path, 1 << 20) == hash) return true;
  log("driver: the copy of {} does not match its content hash {}; it is fetched again", identifier,
      *hash);
  MutexLock lock(mutex_);
  if (counts(path)) ::unlink(path.c_str());
  forgetFile(path);
  return false;
}

Result<Copies::Checked> Copies::fetch(const std::string& identifier,
                                      const std::optional<NSFileProviderItemVersion>& version,
                                      const std::string& label) {
  auto answer = std::make_shared<FetchAnswer>();
  std::optional<Transfers::Id> transfer;
  if (transfers_) transfer = transfers_->begin(label, Direction::Download);
  auto progress = extension_.fetchContentsForItemWithIdentifier(
      identifier, version, {},
      [answer](std::optional<std::string> path, NSFileProviderItemRef item,
               std::optional<Error> error) {
        std::lock_guard lock(answer->mutex);
        if (answer->answered) return;
        answer->answered = true;
        answer->path = std::move(path);
        answer->item = std::move(item);
        answer->error = std::move(error);
        answer->done.notify_all();
      });
  if (transfer) transfers_->attach(*transfer, std::move(progress));
  std::unique_lock lock(answer->mutex);
  answer->done.wait(lock, [&] { return answer->answered; });
  lock.unlock();
  if (transfer) transfers_->end(*transfer);
  if (answer->error) return errnoFailure(errnoFor(*answer->error));
  if (!answer->path || answer->path->empty()) return errnoFailure(EIO, "fetch gave no file");
  Checked out{*answer->path, std::nullopt};
  if (answer->item) out.fetched = ItemRecord::of(*answer->item);
  return out;
}

void Copies::adopt(const std::string& identifier, const NSFileProviderItemVersion& version,
                   const std::string& path) {
  MutexLock lock(mutex_);
  std::string into = folder_ + "/" + std::to_string(++adopted_);
  if (::rename(path.c_str(), into.c_str()) != 0) {
    ::unlink(path.c_str());
    return;
  }
  const std::string key = keyOf(identifier, version);
  forgetKey(key);
  file(key, into, std::nullopt);
  evict();
}

Copies::Use Copies::use() {
  MutexLock lock(mutex_);
  return Use{total_, limit_, byUse_.size() + lent_};
}

void Copies::file(const std::string& key, const std::string& path, std::optional<Stamp> checked) {
  if (auto old = copies_.find(key); old != copies_.end() && old->second != path) forgetKey(key);
  copies_[key] = path;
  auto [it, made] = files_.try_emplace(path);
  File& f = it->second;
  if (made) f.counted = counts(path);
  auto stamp = checked ? checked : stampOf(path);
  const uint64_t size = stamp ? static_cast<uint64_t>(stamp->size) : 0;
  if (f.counted) total_ = total_ - f.size + size;
  f.size = size;
  f.checked = checked;
  f.keys.insert(key);
  touch(path);
}

void Copies::touch(const std::string& path) {
  auto it = files_.find(path);
  if (it == files_.end()) return;
  File& f = it->second;
  if (f.counted) byUse_.erase({f.lastUse, path});
  f.lastUse = ++clock_;
  if (f.counted) byUse_.emplace(f.lastUse, path);
}

void Copies::forgetKey(const std::string& key) {
  auto copy = copies_.find(key);
  if (copy == copies_.end()) return;
  const std::string path = copy->second;
  copies_.erase(copy);
  auto f = files_.find(path);
  if (f == files_.end()) return;
  f->second.keys.erase(key);
  // A file of the host's that no copy names any more need not be known.
  if (!f->second.counted && f->second.keys.empty() && f->second.opens == 0) files_.erase(f);
}

void Copies::forgetFile(const std::string& path) {
  auto f = files_.find(path);
  if (f == files_.end()) return;
  for (const auto& key : f->second.keys) copies_.erase(key);
  if (f->second.counted) {
    total_ -= f->second.size;
    byUse_.erase({f->second.lastUse, path});
  }
  files_.erase(f);
}

void Copies::evict() {
  for (auto it = byUse_.begin(); total_ > limit_ && it != byUse_.end();) {
    const std::string path = it->second;
    ++it;
    const File& f = files_[path];
    if (f.opens > 0 || busy_.count(path)) continue;
    ::unlink(path.c_str());
    forgetFile(path);
  }
}

}  // namespace hvfp::driver

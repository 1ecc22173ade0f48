#include "driver/Copies.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <mutex>

#include "digest/FileMD5Hash.h"
#include "driver/ErrorMap.h"
#include "platform/Log.h"

namespace hvfp::driver {
namespace {

std::string keyOf(const std::string& identifier,
                  const std::optional<NSFileProviderItemVersion>& version) {
  return identifier + '\n' + (version ? version->contentVersion : std::string());
}

uint64_t sizeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
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

Copies::Copies(NSFileProviderReplicatedExtension& extension, std::string folder,
               uint64_t limitBytes)
    : extension_(extension), folder_(std::move(folder)), limit_(limitBytes) {
  std::error_code ec;
  std::filesystem::remove_all(folder_, ec);
  std::filesystem::create_directories(folder_, ec);
}

Copies::~Copies() = default;

Result<Copies::Opened> Copies::open(const std::string& identifier,
                                    const std::optional<NSFileProviderItemVersion>& version) {
  // A copy may vanish underneath (evicted for another item sharing its
  // file, or cleaned away): then it is fetched once more.
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto copy = checked(identifier, version);
    if (!copy) return copy.failure();
    int fd = ::open(copy->path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) return Opened{fd, std::move(copy->fetched)};
    MutexLock lock(mutex_);
    drop(keyOf(identifier, version));
  }
  return errnoFailure(EIO, "the copy went away twice");
}

Result<Copies::Checked> Copies::checked(const std::string& identifier,
                                        const std::optional<NSFileProviderItemVersion>& version) {
  const std::string key = keyOf(identifier, version);
  std::optional<std::string> held;
  std::shared_ptr<Fetch> mine;
  {
    MutexLock lock(mutex_);
    for (;;) {
      auto copy = copies_.find(key);
      if (copy != copies_.end() && copy->second.checked) {
        copy->second.lastUse = ++clock_;
        return Checked{copy->second.path, std::nullopt};
      }
      auto running = fetches_.find(key);
      if (running == fetches_.end()) {
        if (copy != copies_.end()) held = copy->second.path;
        break;
      }
      std::shared_ptr<Fetch> theirs = running->second;
      while (!theirs->done) fetched_.wait(lock);
      if (theirs->error) return errnoFailure(theirs->error);
      if (auto c = copies_.find(theirs->key); c != copies_.end() && c->second.checked) {
        c->second.lastUse = ++clock_;
        return Checked{c->second.path, std::nullopt};
      }
    }
    mine = std::make_shared<Fetch>();
    mine->key = key;
    fetches_[key] = mine;
  }

  Result<Checked> got =
      held ? Result<Checked>(Checked{*held, std::nullopt}) : fetch(identifier, version);
  std::string fileKey = key;
  int error = 0;
  if (got) {
    std::optional<NSFileProviderItemVersion> served = version;
    if (got->fetched && got->fetched->version) served = got->fetched->version;
    fileKey = keyOf(identifier, served);
    if (auto hash = contentHashOf(served)) {
      auto actual = FileSHA1::FileMD5HashCreateWithPath(got->path, 1 << 20);
      if (actual != hash) {
        log("driver: the copy of {} does not match its content hash {}, thrown away", identifier,
            *hash);
        ::unlink(got->path.c_str());
        error = EIO;
      }
    } else {
      log("driver: the version of {} names no content hash; its copy is served unchecked",
          identifier);
    }
  } else {
    error = got.failure().code ? got.failure().code : EIO;
  }

  MutexLock lock(mutex_);
  fetches_.erase(key);
  mine->done = true;
  mine->error = error;
  mine->key = fileKey;
  if (error) {
    drop(key);
  } else {
    if (fileKey != key) drop(key);
    Copy& copy = copies_[fileKey];
    total_ -= copy.size;
    copy = Copy{got->path, sizeOf(got->path), ++clock_, true};
    total_ += copy.size;
    evict(fileKey);
  }
  fetched_.notify_all();
  if (error) return errnoFailure(error);
  return got;
}

Result<Copies::Checked> Copies::fetch(const std::string& identifier,
                                      const std::optional<NSFileProviderItemVersion>& version) {
  auto answer = std::make_shared<FetchAnswer>();
  extension_.fetchContentsForItemWithIdentifier(
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
  std::unique_lock lock(answer->mutex);
  answer->done.wait(lock, [&] { return answer->answered; });
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
  drop(key);
  Copy& copy = copies_[key];
  copy = Copy{into, sizeOf(into), ++clock_, false};
  total_ += copy.size;
  evict(key);
}

void Copies::drop(const std::string& key) {
  auto it = copies_.find(key);
  if (it == copies_.end()) return;
  total_ -= it->second.size;
  copies_.erase(it);
}

void Copies::evict(const std::string& keep) {
  while (total_ > limit_) {
    auto victim = copies_.end();
    for (auto it = copies_.begin(); it != copies_.end(); ++it)
      if (it->first != keep && !fetches_.count(it->first) &&
          (victim == copies_.end() || it->second.lastUse < victim->second.lastUse))
        victim = it;
    if (victim == copies_.end()) return;
    ::unlink(victim->second.path.c_str());
    total_ -= victim->second.size;
    copies_.erase(victim);
  }
}

}  // namespace hvfp::driver

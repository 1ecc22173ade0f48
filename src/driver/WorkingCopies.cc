#include "driver/WorkingCopies.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <vector>

#include "platform/Bytes.h"
#include "platform/Log.h"

namespace hvfp::driver {
namespace {

int copyFile(const std::string& from, const std::string& to) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return errno;
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) {
    int e = errno;
    ::close(in);
    return e;
  }
  int e = copyContents(in, out);
  ::close(in);
  if (::close(out) != 0 && !e) e = errno;
  return e;
}

}  // namespace

WorkingCopies::WorkingCopies(std::string folder)
    : folder_(std::move(folder)),
      // A process id alone comes back (containers start with the same ones).
      run_(std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) + "-" +
           std::to_string(::getpid())) {
  std::error_code ec;
  std::filesystem::create_directories(folder_, ec);
  for (auto it = std::filesystem::directory_iterator(folder_, ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
    leftovers_.push_back(it->path().string());
}

std::string WorkingCopies::newFile(Ino ino) {
  return folder_ + "/" + run_ + "-" + std::to_string(ino) + "-" + std::to_string(++files_);
}

WorkingCopies::Local* WorkingCopies::idleLocal(Ino ino, MutexLock& lock) {
  for (;;) {
    auto it = locals_.find(ino);
    if (it == locals_.end()) return nullptr;
    if (!it->second.busy) return &it->second;
    idle_.wait(lock);
  }
}

bool WorkingCopies::empty() {
  MutexLock lock(mutex_);
  return locals_.empty();
}

std::optional<std::string> WorkingCopies::newest(Ino ino) {
  MutexLock lock(mutex_);
  auto it = locals_.find(ino);
  if (it == locals_.end() || it->second.path.empty()) return std::nullopt;
  return it->second.path;
}

Result<int> WorkingCopies::openWriter(Ino ino, bool truncate, bool append,
                                      const std::function<Result<int>()>& source,
                                      std::optional<Date> modified) {
  const int flags = O_RDWR | O_CLOEXEC | (append ? O_APPEND : 0);
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (local && local->pathGeneration == 0) {
    int fd = ::open(local->path.c_str(), flags);
    if (fd < 0) return errnoFailure(errno);
    if (truncate) {
      if (::ftruncate(fd, 0) != 0) {
        int e = errno;
        ::close(fd);
        return errnoFailure(e);
      }
      local->dirty = local->unrecorded = true;
    }
    ++local->writers;
    return fd;
  }
  // A new working copy, from the newest sealed file or the current contents.
  const std::string sealed = local ? local->path : std::string();
  Local& made = locals_[ino];
  made.busy = true;
  const std::string path = newFile(ino);
  lock.unlock();

  int error = 0;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) error = errno;
  if (!error && !truncate) {
    int from = -1;
    if (!sealed.empty()) {
      from = ::open(sealed.c_str(), O_RDONLY | O_CLOEXEC);
      if (from < 0) error = errno;
    } else if (auto opened = source(); opened) {
      from = *opened;
    } else {
      error = opened.failure().code ? opened.failure().code : EIO;
    }
    if (from >= 0) {
      error = copyContents(from, fd);
      struct stat st {};
      if (!error && !sealed.empty() && ::fstat(from, &st) == 0) {
        struct timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
        ::futimens(fd, times);
      } else if (!error && modified) {
        struct timespec times[2] = {
            {0, UTIME_OMIT},
            {static_cast<time_t>(*modified),
             static_cast<long>((*modified - static_cast<Date>(static_cast<time_t>(*modified))) *
                               1e9)}};
        ::futimens(fd, times);
      }
      ::close(from);
    }
  }
  if (!error && append && ::fcntl(fd, F_SETFL, O_APPEND) != 0) error = errno;

  lock.lock();
  Local& now = locals_[ino];
  now.busy = false;
  idle_.notify_all();
  if (error) {
    if (fd >= 0) ::close(fd);
    ::unlink(path.c_str());
    if (now.path.empty()) locals_.erase(ino);
    return errnoFailure(error);
  }
  now.path = path;
  now.pathGeneration = 0;
  now.writers = 1;
  now.dirty = truncate;
  now.unrecorded = now.unrecorded || truncate;
  return fd;
}

Result<std::string> WorkingCopies::adopt(Ino ino, const std::string& from) {
  MutexLock lock(mutex_);
  if (locals_.count(ino)) return errnoFailure(EBUSY, "the file has local contents already");
  std::string path = newFile(ino);
  if (::rename(from.c_str(), path.c_str()) != 0) return errnoFailure(errno);
  Local& local = locals_[ino];
  local.path = path;
  local.pinned = true;
  return path;
}

std::optional<Sealed> WorkingCopies::unpin(Ino ino) {
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (!local) return std::nullopt;
  local->pinned = false;
  if (local->writers > 0) return std::nullopt;  // the last close seals it
  return settle(ino, *local);
}

void WorkingCopies::changed(Ino ino) {
  MutexLock lock(mutex_);
  if (auto it = locals_.find(ino); it != locals_.end())
    it->second.dirty = it->second.unrecorded = true;
}

bool WorkingCopies::settled(Ino ino) {
  MutexLock lock(mutex_);
  auto it = locals_.find(ino);
  if (it == locals_.end()) return false;
  const Local& local = it->second;
  return local.writers == 0 && !local.dirty && !local.busy && local.waiting.empty();
}

bool WorkingCopies::unrecorded(Ino ino) {
  MutexLock lock(mutex_);
  auto it = locals_.find(ino);
  if (it == locals_.end() || !it->second.unrecorded) return false;
  it->second.unrecorded = false;
  return true;
}

std::optional<Sealed> WorkingCopies::touched(Ino ino) {
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (!local || local->pathGeneration == 0) return std::nullopt;
  uint64_t generation = ++generations_;
  local->pathGeneration = generation;
  local->waiting[generation] = local->path;
  local->unrecorded = true;
  return Sealed{generation, local->path};
}

bool WorkingCopies::writersClosed(Ino ino, std::chrono::milliseconds bound) {
  const auto until = std::chrono::steady_clock::now() + bound;
  MutexLock lock(mutex_);
  for (;;) {
    auto it = locals_.find(ino);
    if (it == locals_.end() || it->second.writers == 0) return true;
    if (idle_.wait_until(lock, until) == std::cv_status::timeout) return false;
  }
}

std::optional<Sealed> WorkingCopies::closeWriter(Ino ino) {
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (!local || local->writers == 0) return std::nullopt;
  if (--local->writers > 0) return std::nullopt;
  idle_.notify_all();
  if (local->dirty && local->pinned) {
    // Others still read this very file: what goes up is a snapshot of it.
    lock.unlock();
    auto sealed = seal(ino);
    if (!sealed) log("working copies: cannot snapshot {} ({}); it goes at the next close",
                     ino, sealed.failure().message);
    return sealed ? *sealed : std::nullopt;
  }
  // Pinned, it stays whatever was sealed from it: the kernel still serves it.
  if (local->pinned) return std::nullopt;
  return settle(ino, *local);
}

std::optional<Sealed> WorkingCopies::settle(Ino ino, Local& local) {
  if (local.dirty) {
    uint64_t generation = ++generations_;
    local.pathGeneration = generation;
    local.waiting[generation] = local.path;
    local.dirty = false;
    return Sealed{generation, local.path};
  }
  // Unchanged and nothing waiting: it is the cloud's contents again.
  if (local.waiting.empty() && local.pathGeneration == 0) {
    ::unlink(local.path.c_str());
    locals_.erase(ino);
  }
  return std::nullopt;
}

Result<std::optional<Sealed>> WorkingCopies::seal(Ino ino) {
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (!local) return std::optional<Sealed>();
  if (local->dirty && local->pathGeneration == 0) {
    // Writes made while the snapshot is taken mark it changed again.
    local->dirty = false;
    local->busy = true;
    const std::string from = local->path;
    const std::string snapshot = newFile(ino);
    lock.unlock();
    int error = copyFile(from, snapshot);
    lock.lock();
    Local& now = locals_[ino];
    now.busy = false;
    idle_.notify_all();
    if (error) {
      now.dirty = true;
      ::unlink(snapshot.c_str());
      return errnoFailure(error);
    }
    uint64_t generation = ++generations_;
    now.waiting[generation] = snapshot;
    return std::optional<Sealed>(Sealed{generation, snapshot});
  }
  if (local->waiting.empty()) return std::optional<Sealed>();
  auto last = local->waiting.rbegin();
  return std::optional<Sealed>(Sealed{last->first, last->second});
}

std::optional<Sealed> WorkingCopies::pending(Ino ino) {
  MutexLock lock(mutex_);
  auto it = locals_.find(ino);
  if (it == locals_.end() || it->second.waiting.empty()) return std::nullopt;
  auto last = it->second.waiting.rbegin();
  return Sealed{last->first, last->second};
}

std::optional<std::string> WorkingCopies::uploaded(Ino ino, uint64_t generation) {
  MutexLock lock(mutex_);
  auto it = locals_.find(ino);
  if (it == locals_.end()) return std::nullopt;
  Local& local = it->second;
  for (auto w = local.waiting.begin(); w != local.waiting.end() && w->first <= generation;) {
    if (w->second != local.path) ::unlink(w->second.c_str());
    w = local.waiting.erase(w);
  }
  if (local.pinned) return std::nullopt;
  if (!local.waiting.empty() || local.writers > 0 || local.dirty || local.busy) return std::nullopt;
  std::optional<std::string> keep;
  if (local.pathGeneration == generation)
    keep = local.path;
  else
    ::unlink(local.path.c_str());
  locals_.erase(it);
  return keep;
}

void WorkingCopies::drop(Ino ino) {
  MutexLock lock(mutex_);
  Local* local = idleLocal(ino, lock);
  if (!local) return;
  for (auto& [generation, path] : local->waiting)
    if (path != local->path) ::unlink(path.c_str());
  ::unlink(local->path.c_str());
  locals_.erase(ino);
}

}  // namespace hvfp::driver

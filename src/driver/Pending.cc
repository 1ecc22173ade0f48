#include "driver/Pending.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "driver/Copies.h"
#include "platform/Log.h"
#include "platform/fileprovider/ContainerIdentifiers.h"
#include "records/Json.h"
#include "records/JsonReading.h"

namespace hvfp::driver {
namespace {

namespace fs = std::filesystem;

std::string text(const JsonValue& object, std::string_view key) {
  return std::string(readText(object, key).view());
}

// Writes `bytes` to `path` and fsyncs it; 0 or an errno.
int writeDurably(const std::string& path, const std::string& bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  int error = 0;
  for (size_t done = 0; done < bytes.size() && !error;) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno != EINTR) error = errno;
    if (n > 0) done += static_cast<size_t>(n);
  }
  if (!error && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && !error) error = errno;
  return error;
}

// A file that is to outlive a crash.
int syncFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  // fsync, not fdatasync: a modification time set is part of what is sent.
  int error = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return error;
}

}  // namespace

void syncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

std::string encodePending(const PendingUpload& u) {
  JsonObject o;
  o["file"] = u.file;
  o["identifier"] = u.identifier;
  o["parent"] = u.parent;
  o["name"] = u.name;
  o["created"] = static_cast<int64_t>(u.created);
  if (u.base) {
    o["baseContent"] = u.base->contentVersion;
    o["baseMetadata"] = u.base->metadataVersion;
  }
  return JSONString(JsonValue(std::move(o))).value_or("{}");
}

std::optional<PendingUpload> decodePending(std::string_view bytes) {
  auto v = objectFromJSONString(bytes);
  if (!v || !v->isObject()) return std::nullopt;
  PendingUpload u;
  u.file = text(*v, "file");
  u.identifier = text(*v, "identifier");
  u.parent = text(*v, "parent");
  u.name = text(*v, "name");
  u.created = static_cast<Date>(readInteger(*v, "created"));
  if (v->find("baseContent"))
    u.base = NSFileProviderItemVersion{text(*v, "baseContent"), text(*v, "baseMetadata")};
  // A record must name contents to send and a place to send them.
  if (u.file.empty() || u.file.front() != '/' || u.parent.empty() || u.name.empty())
    return std::nullopt;
  return u;
}

std::string conflictName(std::string_view name, std::time_t when) {
  std::tm local{};
  ::localtime_r(&when, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H%M%S", &local);
  const std::string words = std::string(" (conflicted copy ") + stamp + ")";
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size())
    return std::string(name) + words;
  return std::string(name.substr(0, dot)) + words + std::string(name.substr(dot));
}

bool sameContents(const std::optional<NSFileProviderItemVersion>& a,
                  const std::optional<NSFileProviderItemVersion>& b) {
  if (!a || !b) return !a && !b;
  auto ha = contentHashOf(a), hb = contentHashOf(b);
  if (ha && hb) return *ha == *hb;
  return a->contentVersion == b->contentVersion;
}

Outcome decide(bool existing, const std::optional<NSFileProviderItemVersion>& base,
               const std::optional<ItemRecord>& current,
               const std::function<std::optional<std::string>()>& localHash) {
  if (!current) return existing ? Outcome::ConflictCopy : Outcome::Contents;
  if (current->folder) return Outcome::ConflictCopy;
  if (existing && (!base || sameContents(base, current->version))) return Outcome::Contents;
  auto theirs = contentHashOf(current->version);
  if (theirs && theirs == localHash()) return Outcome::Nothing;
  return Outcome::ConflictCopy;
}

// --- the journal -----------------------------------------------------------

Journal::Journal(std::string folder)
    : folder_(std::move(folder)),
      run_(std::to_string(std::chrono::system_clock::now().time_since_epoch().count()) + "-" +
           std::to_string(::getpid())) {
  std::error_code ec;
  fs::create_directories(folder_, ec);
  for (auto it = fs::directory_iterator(folder_, ec); !ec && it != fs::directory_iterator();
       it.increment(ec)) {
    const std::string name = it->path().filename();
    if (name.ends_with(".new")) {
      // Written aside and never put in place: the record before it stands.
      fs::remove(it->path(), ec);
      continue;
    }
    std::ifstream in(it->path(), std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    if (auto upload = decodePending(bytes.str()))
      earlier_.push_back({name, std::move(*upload)});
    else
      log("driver: the pending upload record {} cannot be read; it is left alone",
          it->path().string());
  }
}

std::string Journal::pathOf(Ino ino) const {
  return folder_ + "/" + run_ + "-" + std::to_string(ino);
}

Result<void> Journal::record(Ino ino, const PendingUpload& upload) {
  const std::string bytes = encodePending(upload);
  MutexLock lock(mutex_);
  if (int e = syncFile(upload.file)) return errnoFailure(e, "the contents cannot be synced");
  auto it = written_.find(ino);
  if (it != written_.end() && it->second == bytes) return {};
  // The contents file's own name must last before a record names it.
  syncFolder(fs::path(upload.file).parent_path());
  const std::string path = pathOf(ino);
  if (int e = writeDurably(path + ".new", bytes)) {
    ::unlink((path + ".new").c_str());
    log("driver: cannot record a pending upload ({})", std::strerror(e));
    return errnoFailure(e, "cannot record a pending upload");
  }
  if (::rename((path + ".new").c_str(), path.c_str()) != 0) {
    int e = errno;
    ::unlink((path + ".new").c_str());
    return errnoFailure(e, "cannot record a pending upload");
  }
  syncFolder(folder_);
  written_[ino] = bytes;
  return {};
}

void Journal::erase(Ino ino) {
  MutexLock lock(mutex_);
  if (!written_.erase(ino)) return;
  ::unlink(pathOf(ino).c_str());
}

bool Journal::has(Ino ino) {
  MutexLock lock(mutex_);
  return written_.count(ino) > 0;
}

std::vector<Journal::Earlier> Journal::earlier() const { return earlier_; }

void Journal::eraseEarlier(const std::string& name) const {
  if (name.find('/') != std::string::npos) return;
  ::unlink((folder_ + "/" + name).c_str());
  syncFolder(folder_);
}

}  // namespace hvfp::driver

#include "Blobs.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <vector>

#include "Digest.h"

namespace hvfp::hostd {

namespace fs = std::filesystem;

namespace {

constexpr size_t kChunk = 1 << 20;

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void syncDir(const fs::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

Failure storageFailure(const std::string& what) { return fail(500, kStorage, what); }

// Kernel file systems whose files report sizes that have nothing to do with
// what a read returns, or whose reads have effects.
bool isPseudoFileSystem(unsigned long type) {
  switch (type) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case BPF_FS_MAGIC:
    case DEVPTS_SUPER_MAGIC:
    case EFIVARFS_MAGIC:
    case PSTOREFS_MAGIC:
    case 0x62656570:  // configfs
      return true;
    default:
      return false;
  }
}

}  // namespace

void fillGenerated(char* out, size_t size, uint64_t offset, uint64_t seed) {
  // A cheap position-dependent pattern: any byte can be recomputed from its
  // offset, so tests verify ranges without keeping the whole file.
  for (size_t i = 0; i < size; ++i) {
    uint64_t x = (offset + i) * 0x9E3779B97F4A7C15ull ^ seed;
    x ^= x >> 29;
    out[i] = static_cast<char>(x & 0xff);
  }
}

BlobStore::BlobStore(fs::path root) : root_(std::move(root)) {}

Result<void> BlobStore::prepare() {
  std::error_code ec;
  for (auto sub : {"blobs", "tmp", "partial"}) {
    fs::create_directories(root_ / sub, ec);
    if (ec) return storageFailure("cannot create " + (root_ / sub).string() + ": " + ec.message());
  }
  // Leftovers of an interrupted ingest are never referenced; drop them.
  for (auto& e : fs::directory_iterator(root_ / "tmp", ec)) fs::remove(e.path(), ec);
  return {};
}

fs::path BlobStore::pathOf(std::string_view sha1) const {
  return root_ / "blobs" / std::string(sha1);
}

bool BlobStore::has(std::string_view sha1) const {
  if (!isSha1Hex(sha1)) return false;
  std::error_code ec;
  return fs::is_regular_file(pathOf(sha1), ec);
}

fs::path BlobStore::tempPath(std::string_view tag) const {
  return root_ / "tmp" / (std::string(tag) + "-" + randomHex(8));
}

Result<std::string> BlobStore::adopt(const fs::path& assembled, std::string_view sha1) {
  if (!isSha1Hex(sha1)) return fail(400, kBadRequest, "not a SHA-1");
  int fd = ::open(assembled.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return storageFailure("cannot open assembled file");
  ::fsync(fd);
  ::close(fd);
  std::error_code ec;
  fs::path dest = pathOf(sha1);
  if (fs::exists(dest, ec)) {
    fs::remove(assembled, ec);
    return std::string(sha1);
  }
  fs::rename(assembled, dest, ec);
  if (ec) return storageFailure("cannot move blob into place: " + ec.message());
  syncDir(dest.parent_path());
  return std::string(sha1);
}

namespace {

// A source that is a regular file on a real file system, opened without side
// effects (no device or FIFO is ever opened), or the reason to refuse it.
Result<int> openSource(const fs::path& source, struct stat& st) {
  if (::stat(source.c_str(), &st) != 0) return fail(404, kNotFound, "cannot open path for reading");
  if (!S_ISREG(st.st_mode)) return fail(400, kBadRequest, "path is not a regular file");
  int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return fail(404, kNotFound, "cannot open path for reading");
  struct stat opened {};
  struct statfs fsInfo {};
  Result<int> out = fd;
  if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || opened.st_dev != st.st_dev ||
      opened.st_ino != st.st_ino)
    out = fail(400, kBadRequest, "path changed while it was opened");
  else if (::fstatfs(fd, &fsInfo) != 0 ||
           isPseudoFileSystem(static_cast<unsigned long>(fsInfo.f_type)))
    out = fail(400, kBadRequest, "path is not on a disk file system");
  if (!out.ok()) ::close(fd);
  st = opened;
  return out;
}

}  // namespace

Result<std::string> BlobStore::ingest(const fs::path& source, std::string_view expected) {
  if (!isSha1Hex(expected)) return fail(400, kBadRequest, "filehash is not a SHA-1");
  if (has(expected)) return std::string(expected);
  struct stat st {};
  auto opened = openSource(source, st);
  if (!opened.ok()) return opened.failure();
  int in = opened.value();
  fs::path tmp = tempPath("ingest");
  int out = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (out < 0) {
    ::close(in);
    return storageFailure("cannot create temporary file");
  }
  Sha1 h;
  std::vector<char> buf(kChunk);
  bool good = true;
  // No more than the size the file had when opened: a file that keeps
  // growing (or a /proc file that reports 0 and never ends) must not fill
  // the store's disk.
  const auto limit = static_cast<uint64_t>(st.st_size);
  uint64_t done = 0;
  bool grew = false;
  for (;;) {
    ssize_t n = ::read(in, buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      good = n == 0;
      break;
    }
    done += static_cast<uint64_t>(n);
    if (done > limit) {
      grew = true;
      break;
    }
    h.update(buf.data(), static_cast<size_t>(n));
    if (!writeAll(out, buf.data(), static_cast<size_t>(n))) {
      good = false;
      break;
    }
  }
  ::close(in);
  ::close(out);
  std::error_code ec;
  if (grew) {
    fs::remove(tmp, ec);
    return fail(400, kBadRequest, "path holds more than its size says");
  }
  if (!good) {
    fs::remove(tmp, ec);
    return storageFailure("copy failed");
  }
  if (h.hex() != expected) {
    fs::remove(tmp, ec);
    return fail(409, kHashMismatch, "contents do not match filehash");
  }
  return adopt(tmp, expected);
}

Result<std::string> BlobStore::generate(uint64_t size, uint64_t seed) {
  fs::path tmp = tempPath("gen");
  int out = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (out < 0) return storageFailure("cannot create temporary file");
  Sha1 h;
  std::vector<char> buf(kChunk);
  uint64_t done = 0;
  bool good = true;
  while (done < size && good) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - done));
    fillGenerated(buf.data(), n, done, seed);
    h.update(buf.data(), n);
    good = writeAll(out, buf.data(), n);
    done += n;
  }
  ::close(out);
  std::error_code ec;
  if (!good) {
    fs::remove(tmp, ec);
    return storageFailure("write failed");
  }
  return adopt(tmp, h.hex());
}

Result<std::string> BlobStore::put(std::string_view bytes) {
  fs::path tmp = tempPath("put");
  int out = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (out < 0) return storageFailure("cannot create temporary file");
  bool good = writeAll(out, bytes.data(), bytes.size());
  ::close(out);
  std::error_code ec;
  if (!good) {
    fs::remove(tmp, ec);
    return storageFailure("write failed");
  }
  return adopt(tmp, sha1Hex(bytes));
}

}  // namespace hvfp::hostd

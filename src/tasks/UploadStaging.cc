#include "tasks/UploadStaging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "digest/SHA1Stream.h"
#include "platform/Bytes.h"

namespace hvfp {
namespace {

// Measured against 256 KiB and 4 MiB: 1 MiB is where the copy stops getting
// faster, and it bounds what one staging pass holds in memory.
constexpr size_t kCopyBlock = size_t{1} << 20;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // close(2) reports write-back failures that write(2) may not have.
  bool close() {
    int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

int openRetrying(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Copies and hashes until the end of `in`; nullopt on any failure or stop.
std::optional<StagedCopy> copyHashing(int in, int out, const std::atomic<bool>& stop) {
  auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBlock);
  SHA1Stream sha1;
  StagedCopy copy;
  for (;;) {
    if (stop) return std::nullopt;
    ssize_t n = ::read(in, buffer.get(), kCopyBlock);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    const size_t count = static_cast<size_t>(n);
    if (!sha1.update(buffer.get(), count) || !writeAll(out, buffer.get(), count))
      return std::nullopt;
    copy.size += count;
  }
  auto digest = sha1.finish();
  if (!digest) return std::nullopt;
  copy.sha1 = std::move(*digest);
  return copy;
}

}  // namespace

std::optional<StagedCopy> stageCopyWithSHA1(const std::string& source, const std::string& target,
                                            const std::atomic<bool>& stop) {
  Descriptor in(openRetrying(source.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  // Only a regular file has an end: a device or pipe could feed the copy forever.
  if (in.get() < 0 || ::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  ::posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

  Descriptor out(
      openRetrying(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (out.get() < 0) return std::nullopt;
  auto copy = copyHashing(in.get(), out.get(), stop);
  if (!out.close() || !copy) {
    ::unlink(target.c_str());
    return std::nullopt;
  }
  return copy;
}

}  // namespace hvfp

#include "digest/FileMD5Hash.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "digest/DigestDetail.h"
#include "platform/Bytes.h"

namespace hvfp {
namespace {

// SHA-1 depends only on the concatenated bytes, never on how they were cut
// into updates, so the caller's step length cannot change the digest and we
// are free to read in blocks of our own choosing. At the customary 4096 bytes
// a read(2), the kernel crossings cost about as much as hashing the block;
// 1 MiB makes them vanish while the memory stays bounded per call.
constexpr size_t kReadBlock = size_t{1} << 20;

struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

int openForReading(const std::string& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

namespace detail {

std::optional<std::string> sha1OfReads(const ReadBlock& read, size_t blockLength) {
  if (blockLength == 0) return std::nullopt;
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha1(), nullptr) != 1) return std::nullopt;
  auto buffer = std::make_unique_for_overwrite<char[]>(blockLength);
  for (;;) {
    const ssize_t n = read(buffer.get(), blockLength);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (static_cast<size_t>(n) > blockLength) return std::nullopt;
    if (EVP_DigestUpdate(ctx.get(), buffer.get(), static_cast<size_t>(n)) != 1) {
      return std::nullopt;
    }
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int mdLength = 0;
  if (EVP_DigestFinal_ex(ctx.get(), md, &mdLength) != 1) return std::nullopt;
  return lowerHex(md, mdLength);
}

}  // namespace detail

// `size` is accepted for the callers' sake only; see kReadBlock for why the
// file is read in larger blocks whatever step length is asked for.
std::optional<std::string> FileSHA1::FileMD5HashCreateWithPath(const std::string& path,
                                                               [[maybe_unused]] int64_t size) {
  FileDescriptor file(openForReading(path));
  if (file.get() < 0) return std::nullopt;
  const int fd = file.get();
  return detail::sha1OfReads(
      [fd](char* buffer, size_t capacity) { return ::read(fd, buffer, capacity); }, kReadBlock);
}

}  // namespace hvfp

#include "platform/http/DownloadFile.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/Bytes.h"

namespace hvfp::detail {

struct DownloadFile::Digest {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ~Digest() { EVP_MD_CTX_free(context); }
};

Result<std::unique_ptr<DownloadFile>> DownloadFile::create(const std::filesystem::path& directory,
                                                           bool computeSHA1) {
  std::string pattern = (directory / "transfer-XXXXXX").string();
  int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0)
    return fail("cannot create a download file in " + directory.string() + ": " +
                std::strerror(errno));
  std::unique_ptr<DownloadFile> file(new DownloadFile(fd, pattern, computeSHA1));
  if (computeSHA1 && (!file->digest_->context ||
                      EVP_DigestInit_ex(file->digest_->context, EVP_sha1(), nullptr) != 1))
    return fail("cannot start a SHA-1 digest");
  return file;
}

DownloadFile::DownloadFile(int fd, std::filesystem::path location, bool computeSHA1)
    : fd_(fd), location_(std::move(location)) {
  if (computeSHA1) digest_ = std::make_unique<Digest>();
}

DownloadFile::~DownloadFile() {
  {
    // Blocks not yet stored are of no use to anyone now.
    MutexLock lock(mutex_);
    full_.clear();
  }
  stopWriter();
  if (fd_ >= 0) ::close(fd_);
  if (!finished_) {
    std::error_code ignored;
    std::filesystem::remove(location_, ignored);
  }
}

bool DownloadFile::store(const Block& block) {
  bool ok = writeAll(fd_, block.bytes.get(), block.size);
  int error = errno;
  if (ok && digest_ && EVP_DigestUpdate(digest_->context, block.bytes.get(), block.size) != 1) {
    MutexLock lock(mutex_);
    why_ = "the SHA-1 digest failed";
  } else if (!ok) {
    MutexLock lock(mutex_);
    why_ = std::string("cannot write the download file: ") + std::strerror(error);
  } else {
    return true;
  }
  failed_ = true;
  return false;
}

void DownloadFile::writerLoop() {
  MutexLock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&]() REQUIRES(mutex_) { return !full_.empty() || stopping_; });
    if (full_.empty()) return;
    Block block = std::move(full_.front());
    full_.erase(full_.begin());
    busy_ = true;
    lock.unlock();
    // After a failure the rest is only given back: the body is lost anyway.
    if (!failed_) store(block);
    lock.lock();
    busy_ = false;
    block.size = 0;
    free_.push_back(std::move(block));
    changed_.notify_all();
  }
}

DownloadFile::Block DownloadFile::takeBlock() {
  if (made_ < kBlocks) {
    ++made_;
    return Block{std::make_unique_for_overwrite<char[]>(kBlockSize), 0};
  }
  MutexLock lock(mutex_);
  changed_.wait(lock, [&]() REQUIRES(mutex_) { return !free_.empty(); });
  Block block = std::move(free_.back());
  free_.pop_back();
  return block;
}

void DownloadFile::hand(Block block) {
  if (!writer_.joinable()) writer_ = std::thread([this] { writerLoop(); });
  MutexLock lock(mutex_);
  full_.push_back(std::move(block));
  changed_.notify_all();
}

void DownloadFile::stopWriter() {
  if (!writer_.joinable()) return;
  {
    MutexLock lock(mutex_);
    changed_.wait(lock, [&]() REQUIRES(mutex_) { return full_.empty() && !busy_; });
    stopping_ = true;
    changed_.notify_all();
  }
  writer_.join();
}

bool DownloadFile::append(const char* bytes, size_t count) {
  while (count > 0 && !failed_) {
    if (!filling_.bytes) filling_ = takeBlock();
    size_t n = std::min(count, kBlockSize - filling_.size);
    std::memcpy(filling_.bytes.get() + filling_.size, bytes, n);
    filling_.size += n;
    bytes += n;
    count -= n;
    if (filling_.size == kBlockSize) hand(std::exchange(filling_, Block{}));
  }
  return !failed_;
}

Result<std::string> DownloadFile::finish() {
  // A body that fit one block is stored here, without a thread.
  if (filling_.size > 0 && !failed_) {
    if (writer_.joinable())
      hand(std::exchange(filling_, Block{}));
    else
      store(filling_);
  }
  stopWriter();
  if (failed_) return fail(failure());
  int closed = ::close(fd_);
  fd_ = -1;
  if (closed != 0)
    return fail(std::string("cannot write the download file: ") + std::strerror(errno));
  std::string sha1;
  if (digest_) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(digest_->context, digest, &length) != 1)
      return fail("the SHA-1 digest failed");
    sha1 = lowerHex(digest, length);
  }
  finished_ = true;
  return sha1;
}

std::string DownloadFile::failure() const {
  MutexLock lock(mutex_);
  return why_;
}

}  // namespace hvfp::detail

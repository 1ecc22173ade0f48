// DownloadFile: the file a download's body goes into, and the SHA-1 of that
// body when the download asked for one.
//
// libcurl hands a body over in pieces of at most 16 KiB; writing and hashing
// each piece where it arrives costs a system call per piece and keeps the
// connection waiting while the digest runs. Pieces are gathered into 1 MiB
// blocks instead, and once a body outgrows its first block a writer thread
// of the file's own writes and hashes the full blocks while the connection
// goes on receiving. A body that fits one block never starts the thread.
// Memory is bounded: at most kBlocks blocks exist; when all of them wait for
// the writer, append() waits for one to come back.
//
// Ownership: the transfer owns it. It owns its descriptor, its blocks and
// its writer thread, which finish() or the destructor joins. Until finish()
// succeeds the file is its own and the destructor removes it; afterwards
// the file at location() is the caller's.
//
// Threads: one caller thread at a time (the transfer engine's); the writer
// thread is internal.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::detail {

class DownloadFile {
 public:
  static constexpr size_t kBlockSize = size_t{1} << 20;
  static constexpr size_t kBlocks = 4;

  // A new "transfer-XXXXXX" file in `directory`.
  static Result<std::unique_ptr<DownloadFile>> create(const std::filesystem::path& directory,
                                                      bool computeSHA1);
  ~DownloadFile();
  DownloadFile(const DownloadFile&) = delete;
  DownloadFile& operator=(const DownloadFile&) = delete;

  const std::filesystem::path& location() const { return location_; }

  // Takes `count` more bytes of the body. False once the file cannot be
  // written (or the digest failed); failure() then says why.
  bool append(const char* bytes, size_t count);
  // Writes what is left and closes the file. With computeSHA1, the body's
  // SHA-1 in lowercase hexadecimal; otherwise an empty text.
  Result<std::string> finish();
  std::string failure() const;

 private:
  struct Block {
    std::unique_ptr<char[]> bytes;
    size_t size = 0;
  };

  DownloadFile(int fd, std::filesystem::path location, bool computeSHA1);
  // Writes and hashes one block; false (with the reason kept) on failure.
  bool store(const Block& block);
  void writerLoop();
  // A block to fill: a new one while fewer than kBlocks exist, else the
  // next the writer gives back.
  Block takeBlock() EXCLUDES(mutex_);
  void hand(Block block) EXCLUDES(mutex_);
  // Waits until the writer has stored every block handed to it, then stops it.
  void stopWriter() EXCLUDES(mutex_);

  int fd_ = -1;
  std::filesystem::path location_;
  struct Digest;
  std::unique_ptr<Digest> digest_;  // set with computeSHA1
  bool finished_ = false;
  Block filling_;    // caller thread only
  size_t made_ = 0;  // caller thread only: blocks allocated so far

  std::atomic<bool> failed_{false};
  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  std::vector<Block> full_ GUARDED_BY(mutex_);  // handed to the writer, oldest first
  std::vector<Block> free_ GUARDED_BY(mutex_);
  bool busy_ GUARDED_BY(mutex_) = false;  // the writer holds a block
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::string why_ GUARDED_BY(mutex_);
  std::thread writer_;
};

}  // namespace hvfp::detail

// Content-addressed blob folder: every file's contents live once, in
// <root>/blobs/<sha1 hex>. Blobs are written to <root>/tmp first and renamed
// into place after fsync, so a blob that exists is always whole.
//
// BlobStore holds only paths; all operations are safe from any thread (the
// file system arbitrates; two writers of the same hash produce the same bytes).
// Nothing is ever written outside the root given at construction.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "Outcome.h"

namespace hvfp::hostd {

class BlobStore {
 public:
  explicit BlobStore(std::filesystem::path root);

  // Creates the folders.
  Result<void> prepare();

  std::filesystem::path pathOf(std::string_view sha1) const;
  bool has(std::string_view sha1) const;
  // A fresh unique path under <root>/tmp for a file being assembled.
  std::filesystem::path tempPath(std::string_view tag) const;
  std::filesystem::path partialDir() const { return root_ / "partial"; }

  // Moves an assembled file (under this root) into place as blob `sha1`.
  Result<std::string> adopt(const std::filesystem::path& assembled, std::string_view sha1);
  // Copies the regular file at `source` (opened read-only) into the store
  // when its SHA-1 is `expected`; an existing blob is kept as it is.
  Result<std::string> ingest(const std::filesystem::path& source, std::string_view expected);
  // Stores `size` deterministic bytes derived from `seed`; returns the hash.
  Result<std::string> generate(uint64_t size, uint64_t seed);
  // Stores the given bytes; returns the hash.
  Result<std::string> put(std::string_view bytes);

 private:
  std::filesystem::path root_;
};

// The deterministic filler behind BlobStore::generate, shared with tests.
void fillGenerated(char* out, size_t size, uint64_t offset, uint64_t seed);

}  // namespace hvfp::hostd

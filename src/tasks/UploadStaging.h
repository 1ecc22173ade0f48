// The upload's staging copy: the contents the framework handed over, copied
// into the domain's temporary directory so that later edits of the original
// cannot change the bytes between hashing and sending. The copy is hashed as
// it is written, so the contents are read once.
//
// Pure functions over files; any thread, several at once on different
// targets.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace hvfp {

struct StagedCopy {
  std::string sha1;  // 40 lowercase hexadecimal characters
  uint64_t size = 0;
};

// Copies the regular file `source` to `target`, which must not exist yet
// (it is created with owner-only permissions, never followed as a link).
// nullopt when the source is not a readable regular file, a read or write
// fails, or `stop` becomes true part-way; no partial copy is left behind.
std::optional<StagedCopy> stageCopyWithSHA1(const std::string& source, const std::string& target,
                                            const std::atomic<bool>& stop);

}  // namespace hvfp

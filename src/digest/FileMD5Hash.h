// FileSHA1: the content hash of a local file, as the upload path sends it to
// the host app (the class and operation names are historical: the digest is
// SHA-1, not MD5).
//
// Stateless; the caller owns the returned text. Any thread may call it, several
// at once: each call opens its own descriptor and digest context.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace hvfp {

class FileSHA1 {
 public:
  // The 40-character lowercase hexadecimal SHA-1 of the whole file at `path`,
  // read in steps of `size` bytes (0 meaning 4096). Never a partial digest:
  // a file that cannot be opened or a read error at any point gives nullopt.
  static std::optional<std::string> FileMD5HashCreateWithPath(const std::string& path,
                                                              int64_t size);
};

}  // namespace hvfp

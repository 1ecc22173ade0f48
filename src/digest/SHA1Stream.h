// SHA1Stream: a SHA-1 fed piece by piece, for callers that hash bytes while
// they do something else with them (the upload's staging copy hashes what it
// copies, so the contents are read once).
//
// One owner, one thread at a time; not copyable. finish() ends the stream.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace hvfp {

class SHA1Stream {
 public:
  SHA1Stream();
  ~SHA1Stream();
  SHA1Stream(const SHA1Stream&) = delete;
  SHA1Stream& operator=(const SHA1Stream&) = delete;

  // False once libcrypto has failed; later calls then do nothing.
  bool update(const void* bytes, size_t count);
  // The 40-character lowercase hexadecimal digest of everything given;
  // nullopt when any step failed. The stream is spent afterwards.
  std::optional<std::string> finish();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace hvfp

// SHA-1 over streams and files (OpenSSL EVP) and random identifiers.
//
// Sha1 owns one digest context; copies duplicate the running state so that a
// piece can be hashed tentatively and rolled back when it does not complete.
// One thread at a time per object; the free functions are reentrant.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace hvfp::hostd {

class Sha1 {
 public:
  Sha1();
  ~Sha1();
  Sha1(const Sha1& other);
  Sha1& operator=(const Sha1& other);

  void update(const void* data, size_t size);
  // Lowercase hex of the digest so far; the running state is left intact.
  std::string hex() const;

 private:
  evp_md_ctx_st* ctx_;
};

std::string sha1Hex(std::string_view bytes);
// Hashes a file in 1 MiB steps; std::nullopt when it cannot be read.
std::optional<std::string> sha1OfFile(const std::filesystem::path& path);
// `bytes` random bytes as lowercase hex (2 characters per byte).
std::string randomHex(size_t bytes);
bool isSha1Hex(std::string_view text);

}  // namespace hvfp::hostd

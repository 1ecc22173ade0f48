#include "Digest.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <random>
#include <vector>

#include "digest/FileMD5Hash.h"
#include "digest/NSDataExpand.h"

namespace hvfp::hostd {

Sha1::Sha1() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha1(), nullptr); }
Sha1::~Sha1() { EVP_MD_CTX_free(ctx_); }
Sha1::Sha1(const Sha1& other) : ctx_(EVP_MD_CTX_new()) { EVP_MD_CTX_copy_ex(ctx_, other.ctx_); }
Sha1& Sha1::operator=(const Sha1& other) {
  if (this != &other) EVP_MD_CTX_copy_ex(ctx_, other.ctx_);
  return *this;
}

void Sha1::update(const void* data, size_t size) { EVP_DigestUpdate(ctx_, data, size); }

std::string Sha1::hex() const {
  EVP_MD_CTX* copy = EVP_MD_CTX_new();
  EVP_MD_CTX_copy_ex(copy, ctx_);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_DigestFinal_ex(copy, digest, &len);
  EVP_MD_CTX_free(copy);
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < len; ++i) {
    out.push_back(kHex[digest[i] >> 4]);
    out.push_back(kHex[digest[i] & 15]);
  }
  return out;
}

// The provider's own digests serve the host too: one implementation of the
// file hash the two sides compare.
std::string sha1Hex(std::string_view bytes) { return sha1HexDigest(bytes); }

std::optional<std::string> sha1OfFile(const std::filesystem::path& path) {
  return FileSHA1::FileMD5HashCreateWithPath(path.string(), 0);
}

std::string randomHex(size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  if (RAND_bytes(raw.data(), static_cast<int>(raw.size())) != 1) {
    std::random_device rd;
    for (auto& b : raw) b = static_cast<unsigned char>(rd());
  }
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (auto b : raw) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return out;
}

bool isSha1Hex(std::string_view text) {
  if (text.size() != 40) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

}  // namespace hvfp::hostd

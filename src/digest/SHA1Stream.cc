#include "digest/SHA1Stream.h"

#include <openssl/evp.h>

#include "digest/DigestDetail.h"
#include "platform/Bytes.h"

namespace hvfp {

struct SHA1Stream::Context {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = ctx && EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr) == 1;
  ~Context() { EVP_MD_CTX_free(ctx); }
};

SHA1Stream::SHA1Stream() : context_(std::make_unique<Context>()) {}
SHA1Stream::~SHA1Stream() = default;

bool SHA1Stream::update(const void* bytes, size_t count) {
  if (!context_ || !context_->ok) return false;
  context_->ok = EVP_DigestUpdate(context_->ctx, bytes, count) == 1;
  return context_->ok;
}

std::optional<std::string> SHA1Stream::finish() {
  std::unique_ptr<Context> context = std::move(context_);
  if (!context || !context->ok) return std::nullopt;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context->ctx, md, &length) != 1) return std::nullopt;
  return lowerHex(md, length);
}

}  // namespace hvfp

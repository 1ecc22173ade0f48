// Fuzzes base64 and the query-value encoding. Base64 of any bytes decodes to
// them and is a multiple of four characters of the alphabet and "="; decoding
// reads the low seven bits of each byte and skips those outside the alphabet
// wherever they stand. A query value
// is letters, digits, "-", "_", "~" and "%XX" with uppercase hex only, and
// decodes to the bytes it was made from.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "digest/NSDataExpand.h"
#include "hostlink/NSStringExpand.h"

namespace {

bool inAlphabet(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // lowercase hex is never written
}

void checkBase64(const std::string& bytes) {
  auto encoded = hvfp::base64Encoded(bytes);
  if (bytes.empty() != !encoded) std::abort();
  if (encoded) {
    if (encoded->size() != (bytes.size() + 2) / 3 * 4) std::abort();
    for (size_t i = 0; i < encoded->size(); ++i) {
      const char c = (*encoded)[i];
      if (!inAlphabet(c) && !(c == '=' && i + 2 >= encoded->size())) std::abort();
    }
    if (hvfp::base64Decoded(*encoded) != bytes) std::abort();
  }
  // The same bytes read as base64 text, with and without what is skipped.
  std::string kept;
  for (char c : bytes)
    if (inAlphabet(static_cast<char>(c & 0x7f))) kept.push_back(static_cast<char>(c & 0x7f));
  if (hvfp::base64Decoded(bytes) != hvfp::base64Decoded(kept)) std::abort();
}

void checkQueryValue(const std::string& bytes) {
  const std::string encoded = hvfp::urlEncoded(bytes);
  std::string decoded;
  for (size_t i = 0; i < encoded.size(); ++i) {
    const char c = encoded[i];
    if (c == '%') {
      if (i + 2 >= encoded.size()) std::abort();
      const int high = hexValue(encoded[i + 1]), low = hexValue(encoded[i + 2]);
      if (high < 0 || low < 0) std::abort();
      decoded.push_back(static_cast<char>(high * 16 + low));
      i += 2;
      continue;
    }
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || c == '~';
    if (!plain) std::abort();
    decoded.push_back(c);
  }
  if (decoded != bytes) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  checkBase64(bytes);
  checkQueryValue(bytes);
  return 0;
}

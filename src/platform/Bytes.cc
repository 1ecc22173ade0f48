#include "platform/Bytes.h"

#include <unistd.h>

#include <cerrno>

namespace hvfp {

std::string lowerHex(const unsigned char* bytes, size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(count * 2, '\0');
  for (size_t i = 0; i < count; ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  return text;
}

bool writeAll(int fd, const char* bytes, size_t count) {
  while (count > 0) {
    ssize_t n = ::write(fd, bytes, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace hvfp

#include "platform/Bytes.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

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

int copyContents(int from, int to) {
  for (;;) {
    ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, size_t{1} << 30, 0);
    if (n == 0) return 0;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return errno;
    break;
  }
  std::vector<char> buffer(size_t{1} << 20);
  for (;;) {
    ssize_t n = ::read(from, buffer.data(), buffer.size());
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (!writeAll(to, buffer.data(), static_cast<size_t>(n))) return errno ? errno : EIO;
  }
}

}  // namespace hvfp

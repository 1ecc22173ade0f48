// Byte-level helpers shared by the layers above: hexadecimal text of digests,
// writing a whole buffer to a descriptor, copying one open file into another.
// Pure or reentrant; any thread.
#pragma once

#include <cstddef>
#include <string>

namespace hvfp {

// Lowercase hexadecimal, two characters per byte, high nibble first.
std::string lowerHex(const unsigned char* bytes, size_t count);

// Writes all `count` bytes to `fd`, going on after short writes and EINTR;
// false (errno set) when a write fails.
bool writeAll(int fd, const char* bytes, size_t count);

// Copies what is left of `from` (from its offset on) to `to` at its offset,
// in the kernel where it can; 0 or an errno.
int copyContents(int from, int to);

}  // namespace hvfp

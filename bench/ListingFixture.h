// A realistic "files" listing reply for benchmarks: `count` entries of about
// 250 bytes, shaped like the host's folder listings.
#pragma once

#include <cstdio>
#include <string>

namespace hvfp::bench {

inline std::string makeListingReply(size_t count) {
  std::string out = "{\"list\":[";
  out.reserve(count * 260 + 64);
  char entry[512];
  for (size_t i = 0; i < count; ++i) {
    int n = std::snprintf(
        entry, sizeof entry,
        "%s{\"filename\":\"IMG_%06zu.jpg\",\"mount_id\":3,\"webpath\":\"Photos/2023/"
        "IMG_%06zu.jpg\","
        "\"dir\":0,\"filehash\":\"%08zx3f786850e387550fdab836ed7e6dc881de\",\"filesize\":%zu,"
        "\"uuidhash\":\"%016zx\",\"up_hash\":\"9f8e7d6c5b4a3921\",\"lasttime\":%zu,"
        "\"creatortime\":1699990000,\"status\":0}",
        i ? "," : "", i, i, i, 100000 + i * 37, i * 2654435761u, 1700000000 + i);
    out.append(entry, static_cast<size_t>(n));
  }
  out += "],\"lasttime\":1700000000}";
  return out;
}

}  // namespace hvfp::bench

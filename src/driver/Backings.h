// Backings: files the kernel reads and writes itself for an open file of the
// folder, with no round trip through the daemon (FUSE passthrough).
//
// The FUSE adapter is the one implementation; the folder works without one
// (each read then comes to the daemon). Threads: any thread.
#pragma once

#include <optional>

namespace hvfp::driver {

class Backings {
 public:
  virtual ~Backings() = default;
  // An id under which the kernel serves opens from the file open on `fd`
  // (which must stay open until close(id)); none when it cannot.
  virtual std::optional<int> open(int fd) = 0;
  virtual void close(int id) = 0;
};

}  // namespace hvfp::driver

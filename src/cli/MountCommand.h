// `halvofp mount` and `halvofp unmount`: the domain as a folder.
//
// mount checks what it can before anything starts (a usable /dev/fuse, an
// empty directory that is not mounted already, a host that answers), then
// plays the framework for the domain through the FUSE driver. By default it
// detaches once the folder is mounted and logs to syslog; in the
// foreground it logs to stderr. Either way SIGINT, SIGTERM and SIGHUP
// unmount, and the process waits a bounded time for uploads still running
// before it ends. Every failure is one line on `err` and exit code 1.
//
// Called from main() before anything else has started a thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace hvfp::cli {

struct MountOptions {
  std::string dir;
  bool foreground = false;
  // Room for copies of contents; none: defaultCacheSize of the cache's
  // file system.
  std::optional<uint64_t> cacheSize;
  std::optional<int64_t> port;  // delivered as a port event, as the host app would
  std::string domain = "halvo";
  bool verbose = false;  // in the foreground: the provider's log lines too
  std::chrono::seconds uploadWait{30};
};

// "512M", "2G", "1048576": bytes, with an optional K, M, G or T (powers of
// 1024, either case, "B" or "iB" may follow); none for anything else.
std::optional<uint64_t> parseSize(const std::string& text);

// The smaller of 10 GiB and a quarter of a file system of `fsBytes`.
uint64_t defaultCacheSize(uint64_t fsBytes);

int mount(const MountOptions& options, std::ostream& err);
int unmount(const std::string& dir, std::ostream& err);

}  // namespace hvfp::cli

// What the benchmarks that run halvo-hostd in process share: the provider's
// environment, the host's configuration, and files made new for each round.
// Single-threaded setup code; call before any provider object is made.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "Host.h"
#include "platform/Log.h"

namespace hvfp::bench {

// The provider finds its temporary directory under XDG_CACHE_HOME, runs
// without host events when there is no bus, and writes its log nowhere.
inline void providerEnvironment(const std::filesystem::path& cacheHome) {
  ::setenv("XDG_CACHE_HOME", cacheHome.c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (cacheHome / "no-bus").string()).c_str(), 1);
  setLogSink(LogSink::Silent);
}

// A quiet host on free loopback ports, without the bus, keeping its data in
// `root`. With `forceUris` contents always travel through the download server.
inline hostd::HostConfig hostConfig(const std::filesystem::path& root, bool forceUris) {
  hostd::HostConfig config;
  config.root = root;
  config.port = config.downloadPort = config.adminPort = 0;
  config.uploadPorts = {0};
  config.useBus = false;
  config.quiet = true;
  config.forceUris = forceUris;
  return config;
}

// New contents for each round, so every round really uploads.
inline void stamp(const std::filesystem::path& path, int round) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  char mark[32];
  int n = std::snprintf(mark, sizeof mark, "round %d ", round);
  (void)!::pwrite(fd, mark, static_cast<size_t>(n), 0);
  ::close(fd);
}

}  // namespace hvfp::bench

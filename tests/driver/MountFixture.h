// Shared by the mount tests: a real FUSE mount of a folder in this process,
// driven by shell commands run against it, and small helpers to wait for
// the cloud and read files.
//
// The folder serves on the adapter's threads while the test's thread runs
// the commands (child processes). Tests skip, saying why, where /dev/fuse
// cannot be used.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "driver/Folder.h"
#include "driver/FuseAdapter.h"
#include "platform/fileprovider/NSFileProviderManager.h"

namespace hvfp::driver::test {

namespace fs = std::filesystem;

struct Shell {
  int rc = -1;
  std::string out;  // stdout and stderr
};

inline std::string quoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

inline Shell sh(const std::string& command) {
  Shell result;
  FILE* p = ::popen((command + " 2>&1").c_str(), "r");
  if (!p) return result;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) result.out.append(buf, n);
  int status = ::pclose(p);
  result.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

inline std::string readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void writeAll(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string randomBytes(size_t size, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i += 8) {
    uint64_t v = gen();
    std::memcpy(out.data() + i, &v, std::min<size_t>(8, size - i));
  }
  return out;
}

// Polls `done` until it holds or `bound` passes; a hang guard, not a timing
// assertion, so it is generous: a 100 MiB upload under ThreadSanitizer on a
// busy 2-core machine takes tens of seconds.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::seconds bound = std::chrono::seconds(60)) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

inline std::string fuseUnusable() {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is missing or not usable";
  return "";
}

// A folder mounted in this process on a fresh directory, serving `extension`.
class Mounted {
 public:
  Mounted(NSFileProviderReplicatedExtension& extension, const fs::path& root,
          const std::string& domain) {
    mountpoint = root / "mnt";
    cache = root / "cache";
    fs::create_directories(mountpoint);
    manager = NSFileProviderManager::managerForDomain({domain, domain});
    adapter = std::make_unique<FuseAdapter>();
    folder = std::make_unique<Folder>(extension, manager, *adapter,
                                      FolderOptions{cache.string(), uint64_t{1} << 30});
    auto mounted = adapter->mount(mountpoint.string());
    ok = mounted.ok();
    if (!ok) {
      why = mounted.failure().message;
      return;
    }
    server = std::thread([this] { adapter->serve(*folder, false); });
  }
  ~Mounted() {
    if (server.joinable()) {
      adapter->stop();
      server.join();
    }
    folder.reset();
    adapter.reset();
  }
  fs::path at(const std::string& relative) const { return mountpoint / relative; }
  void signal(const std::string& container) {
    manager->signalEnumeratorForContainerItemIdentifier(container, nullptr);
  }

  bool ok = false;
  std::string why;
  fs::path mountpoint, cache;
  std::shared_ptr<NSFileProviderManager> manager;
  std::unique_ptr<FuseAdapter> adapter;
  std::unique_ptr<Folder> folder;
  std::thread server;
};

}  // namespace hvfp::driver::test

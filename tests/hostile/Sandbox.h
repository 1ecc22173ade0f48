// Sandbox: a fresh folder that stands for the user's machine while a hostile
// host is at work. It holds the cache home (XDG_CACHE_HOME, where the
// provider keeps each domain's folders), a home folder, the working folder
// the process runs in, the user's own files and a decoy folder that hostile
// names aim at. The constructor points the environment and the working
// directory at it; the destructor puts them back and removes it all.
//
// snapshot() records every path under the root with its kind, size and
// modification time, so a test can tell what a run added, removed or
// changed, and where. Process-wide state (environment, working directory):
// one Sandbox at a time, made and destroyed on the test's main thread.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace hvfp::test {

class Sandbox {
 public:
  using Snapshot = std::map<std::string, std::string>;  // relative path -> kind, size, time

  Sandbox() {
    char pattern[] = "/tmp/hvfp-hostile-XXXXXX";
    if (!::mkdtemp(pattern)) return;
    root_ = pattern;
    for (const char* dir : {"cache", "home", "cwd", "files", "victim"})
      std::filesystem::create_directories(root_ / dir);
    write("victim/x", "the user's own file");
    write("files/keep.txt", "nothing may touch this");
    for (const char* name : {"XDG_CACHE_HOME", "HOME", "DBUS_SESSION_BUS_ADDRESS"})
      if (const char* value = ::getenv(name)) saved_[name] = value;
    ::setenv("XDG_CACHE_HOME", (root_ / "cache").c_str(), 1);
    ::setenv("HOME", (root_ / "home").c_str(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (root_ / "no-bus").string()).c_str(), 1);
    previousCwd_ = std::filesystem::current_path();
    std::filesystem::current_path(root_ / "cwd");
  }
  ~Sandbox() {
    std::error_code ignored;
    std::filesystem::current_path(previousCwd_, ignored);
    for (const char* name : {"XDG_CACHE_HOME", "HOME", "DBUS_SESSION_BUS_ADDRESS"}) {
      auto it = saved_.find(name);
      if (it == saved_.end())
        ::unsetenv(name);
      else
        ::setenv(name, it->second.c_str(), 1);
    }
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  bool ok() const { return !root_.empty(); }
  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path path(const std::string& relative) const { return root_ / relative; }

  void write(const std::string& relative, const std::string& bytes) const {
    std::ofstream(root_ / relative, std::ios::binary) << bytes;
  }

  Snapshot snapshot() const {
    Snapshot out;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root_, ec);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (ec) break;
      struct stat st {};
      if (::lstat(it->path().c_str(), &st) != 0) continue;
      const char* kind = S_ISDIR(st.st_mode) ? "dir" : S_ISREG(st.st_mode) ? "file" : "other";
      out[std::filesystem::relative(it->path(), root_).string()] =
          std::string(kind) + " " + std::to_string(st.st_size) + " " +
          std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    }
    return out;
  }

  // What differs between two snapshots outside the folders `allowed`
  // (relative paths ending in "/"): "+path", "-path" or "~path", sorted.
  static std::vector<std::string> changesOutside(const Snapshot& before, const Snapshot& after,
                                                 const std::vector<std::string>& allowed) {
    std::vector<std::string> out;
    auto inside = [&](const std::string& path) {
      for (const auto& folder : allowed)
        if (path.rfind(folder, 0) == 0 || folder.rfind(path + "/", 0) == 0) return true;
      return false;
    };
    for (const auto& [path, what] : after) {
      if (inside(path)) continue;
      auto it = before.find(path);
      if (it == before.end())
        out.push_back("+" + path);
      else if (it->second != what && what.rfind("dir", 0) != 0)
        out.push_back("~" + path);
    }
    for (const auto& [path, what] : before)
      if (!inside(path) && after.count(path) == 0) out.push_back("-" + path);
    return out;
  }

 private:
  std::filesystem::path root_;
  std::filesystem::path previousCwd_;
  std::map<std::string, std::string> saved_;
};

}  // namespace hvfp::test

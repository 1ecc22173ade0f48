// Shared by the tests that run `halvofp mount` against halvo-hostd as
// programs: a host on free ports with its sample cloud and a private session
// bus, mounts started, stopped and killed as a user or a crash would, and the
// host's view of a folder.
//
// The host logs every query it answers to hostd-N.log (N counts its starts),
// so a test can count what the mount asked of it.
#pragma once

#include <signal.h>
#include <sys/mount.h>

#include <map>

#include "driver/MountFixture.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "records/Json.h"
#include "records/JsonReading.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace hvfp::driver::test {

inline bool mountedAt(const fs::path& dir) {
  std::ifstream in("/proc/self/mountinfo");
  for (std::string line; std::getline(in, line);)
    if (line.find(" " + dir.string() + " ") != std::string::npos &&
        line.find("fuse.halvofp") != std::string::npos)
      return true;
  return false;
}

class HostFolder : public ::testing::Test {
 protected:
  static constexpr const char* kDomain = "hostfolder";

  void SetUp() override {
    if (auto why = fuseUnusable(); !why.empty()) GTEST_SKIP() << why;
    if (!hvfp::test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon not installed";
    bus = std::make_unique<hvfp::test::PrivateBus>();
    ASSERT_TRUE(bus->ok()) << bus->error();
    root = fs::temp_directory_path() /
           ("hostfolder-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(mnt());
    setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    startHost();
    setLogSink(LogSink::Silent);
  }

  void TearDown() override {
    if (mount > 0) stopMount();
    stopHost(SIGTERM);
    bus.reset();
    std::error_code ec;
    fs::remove_all(root, ec);
  }

  // On `port` (0: free ports); the store and its contents stay across starts.
  void startHost(int64_t port = 0, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {HALVO_HOSTD_BIN,
                                     "--root",
                                     (root / "store").string(),
                                     "--port",
                                     std::to_string(port),
                                     "--upload-ports",
                                     "0",
                                     "--download-port",
                                     "0",
                                     "--admin-port",
                                     "0",
                                     "--seed",
                                     "sample"};
    args.insert(args.end(), extra.begin(), extra.end());
    fs::remove(root / "store" / "hostd.ports.json");
    host = hvfp::test::spawn(args, hostLog(++hosts));
    ASSERT_GT(host, 0);
    ASSERT_TRUE(eventually([&] {
      auto v = objectFromJSONString(readAll(root / "store" / "hostd.ports.json"));
      if (!v || !v->find("query")) return false;
      queryPort = readInteger(*v, "query");
      return queryPort > 0;
    })) << "halvo-hostd did not start; see "
        << hostLog(hosts);
    client.setNPort(queryPort);
  }
  void stopHost(int sig) {
    if (host <= 0) return;
    ::kill(host, sig);
    hvfp::test::waitExit(host);
    host = -1;
  }
  fs::path hostLog(int n) const { return root / ("hostd-" + std::to_string(n) + ".log"); }

  void startMount(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {HALVOFP_BIN,
                                     "mount",
                                     mnt().string(),
                                     "--foreground",
                                     "-v",
                                     "--port",
                                     std::to_string(queryPort),
                                     "--domain",
                                     kDomain};
    args.insert(args.end(), extra.begin(), extra.end());
    logPath = root / ("mount-" + std::to_string(++mounts) + ".log");
    mount = hvfp::test::spawn(args, logPath);
    ASSERT_GT(mount, 0);
    ASSERT_TRUE(eventually([&] { return mountedAt(mnt()); })) << readAll(logPath);
  }
  // As a user unmounts: pending uploads are recorded, the mount ends cleanly.
  void stopMount() {
    ::kill(mount, SIGTERM);
    EXPECT_EQ(hvfp::test::waitExit(mount, std::chrono::seconds(60)), 0) << readAll(logPath);
    mount = -1;
    EXPECT_FALSE(mountedAt(mnt()));
  }
  // As a crash leaves it: no unmount, no waiting for uploads.
  void killMount() {
    ::kill(mount, SIGKILL);
    hvfp::test::waitExit(mount);
    mount = -1;
    ::umount2(mnt().c_str(), MNT_DETACH);
    ASSERT_FALSE(mountedAt(mnt()));
  }

  fs::path mnt() const { return root / "mnt"; }
  fs::path cache() const { return root / "cache" / "halvofp" / kDomain; }
  bool nothingPending() const { return fs::is_empty(cache() / "pending"); }
  Shell run(const std::string& command) {
    return sh("cd " + quoted(mnt()) + " && export LC_ALL=C && " + command);
  }
  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", (root / "store").string()});
    return hvfp::test::waitExit(hvfp::test::spawn(args, root / "ctl.log"));
  }
  // The content hash of each file the host has in a folder (Docs by default), by name.
  std::map<std::string, std::string> hostHashes(const std::string& folder = "1") {
    std::map<std::string, std::string> out;
    uint64_t lasttime = 0;
    for (auto& r : client.getFiles(folder, lasttime))
      out[std::string(r->strFileName.value_or(""))] = std::string(r->strFileHash.value_or(""));
    return out;
  }
  size_t trashedNamed(const std::string& name) {
    size_t n = 0;
    for (auto& r : client.getTrash()) n += r->strFileName.value_or("") == name;
    return n;
  }

  std::unique_ptr<hvfp::test::PrivateBus> bus;
  fs::path root;
  pid_t host = -1, mount = -1;
  int64_t queryPort = 0;
  int hosts = 0, mounts = 0;
  fs::path logPath;
  HalvoProviderClient client;
};

}  // namespace hvfp::driver::test

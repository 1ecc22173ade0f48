// `halvofp mount` against halvo-hostd when things go wrong for it: a mount
// killed while its writes wait for upload, an editor's atomic save, and a
// cache far smaller than what is read.
#include <signal.h>
#include <sys/mount.h>

#include <regex>

#include "digest/NSDataExpand.h"
#include "driver/MountFixture.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "records/Json.h"
#include "records/JsonReading.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace hvfp::driver::test {
namespace {

using hvfp::test::spawn;
using hvfp::test::waitExit;

const std::string kDomain = "durability";

bool mountedAt(const fs::path& dir) {
  std::ifstream in("/proc/self/mountinfo");
  for (std::string line; std::getline(in, line);)
    if (line.find(" " + dir.string() + " ") != std::string::npos &&
        line.find("fuse.halvofp") != std::string::npos)
      return true;
  return false;
}

class Durability : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto why = fuseUnusable(); !why.empty()) GTEST_SKIP() << why;
    if (!hvfp::test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon not installed";
    bus = std::make_unique<hvfp::test::PrivateBus>();
    ASSERT_TRUE(bus->ok()) << bus->error();
    root = fs::temp_directory_path() /
           ("durability-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(mnt());
    setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    host = spawn(
        {HALVO_HOSTD_BIN, "--root", (root / "store").string(), "--port", "0", "--upload-ports", "0",
         "--download-port", "0", "--admin-port", "0", "--seed", "sample", "--quiet"},
        root / "hostd.log");
    ASSERT_GT(host, 0);
    ASSERT_TRUE(eventually([&] {
      auto v = objectFromJSONString(readAll(root / "store" / "hostd.ports.json"));
      if (!v || !v->find("query")) return false;
      queryPort = readInteger(*v, "query");
      return queryPort > 0;
    })) << "halvo-hostd did not start; see "
        << (root / "hostd.log");
    client.setNPort(queryPort);
    setLogSink(LogSink::Silent);
  }

  void TearDown() override {
    if (mount > 0) {
      ::kill(mount, SIGTERM);
      EXPECT_EQ(waitExit(mount, std::chrono::seconds(60)), 0) << readAll(logPath);
    }
    if (host > 0) {
      ::kill(host, SIGTERM);
      waitExit(host);
    }
    bus.reset();
    std::error_code ec;
    fs::remove_all(root, ec);
  }

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
    mount = spawn(args, logPath);
    ASSERT_GT(mount, 0);
    ASSERT_TRUE(eventually([&] { return mountedAt(mnt()); })) << readAll(logPath);
  }
  // As a crash leaves it: no unmount, no waiting for uploads.
  void killMount() {
    ::kill(mount, SIGKILL);
    waitExit(mount);
    mount = -1;
    ::umount2(mnt().c_str(), MNT_DETACH);
    ASSERT_FALSE(mountedAt(mnt()));
  }

  fs::path mnt() const { return root / "mnt"; }
  fs::path cache() const { return root / "cache" / "halvofp" / kDomain; }
  Shell run(const std::string& command) {
    return sh("cd " + quoted(mnt()) + " && export LC_ALL=C && " + command);
  }
  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", (root / "store").string()});
    return waitExit(spawn(args, root / "ctl.log"));
  }
  // The content hash of each file the host has in Docs, by name.
  std::map<std::string, std::string> docsHashes() {
    std::map<std::string, std::string> out;
    uint64_t lasttime = 0;
    for (auto& r : client.getFiles("1", lasttime))
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
  int mounts = 0;
  fs::path logPath;
  HalvoProviderClient client;
};

TEST_F(Durability, WritesOfAKilledMountReachTheCloudAtTheNextMount) {
  startMount();
  // The host takes no upload: every write waits.
  ASSERT_EQ(ctl({"fault", "--target", "create", "--kind", "status", "--count", "-1"}), 0);
  std::map<std::string, std::string> written;
  for (int i = 0; i < 18; ++i) {
    const size_t size = i == 0 ? 0 : size_t{1} << (i % 12 + 4);
    written["crash-" + std::to_string(i) + ".bin"] = randomBytes(size, 100 + i);
  }
  written["notes.md"] = "# Notes, edited before the crash\n";
  written["README.txt"] = "Mine, written before the crash.\n";
  for (auto& [name, bytes] : written) writeAll(mnt() / "Docs" / name, bytes);
  killMount();

  // Meanwhile the README changes elsewhere.
  const std::string theirs = "Theirs, written while the mount was down.\n";
  ASSERT_EQ(ctl({"clear-faults"}), 0);
  ASSERT_EQ(ctl({"write", "--mount", "1", "--path", "README.txt", "--text", theirs}), 0);
  startMount();

  const std::regex conflicted(R"(README \(conflicted copy \d{4}-\d\d-\d\d \d{6}\)\.txt)");
  std::map<std::string, std::string> hashes;
  std::string copy;
  ASSERT_TRUE(eventually(
      [&] {
        hashes = docsHashes();
        for (auto& [name, hash] : hashes)
          if (std::regex_match(name, conflicted)) copy = name;
        for (auto& [name, bytes] : written)
          if (name != "README.txt" && hashes[name] != sha1HexDigest(bytes)) return false;
        return !copy.empty();
      },
      std::chrono::seconds(60)))
      << readAll(logPath);
  EXPECT_EQ(hashes["README.txt"], sha1HexDigest(theirs));
  EXPECT_EQ(hashes[copy], sha1HexDigest(written["README.txt"]));
  EXPECT_TRUE(eventually([&] { return fs::is_empty(cache() / "pending"); }));
  EXPECT_EQ(readAll(mnt() / "Docs" / copy), written["README.txt"]);
  EXPECT_EQ(readAll(mnt() / "Docs" / "crash-17.bin"), written["crash-17.bin"]);
}

TEST_F(Durability, EditorsAtomicSaveReplacesTheFileAndTrashesTheOldOne) {
  startMount();
  struct Save {
    const char* how;
    const char* command;
    const char* aside;
    std::string bytes;
  };
  const std::vector<Save> saves = {
      {"written aside, renamed over",
       "printf 'second\\n' > Docs/.notes.md.swp && mv -f Docs/.notes.md.swp Docs/notes.md",
       ".notes.md.swp", "second\n"},
      {"synced aside, renamed over",
       "printf 'third\\n' | dd of=Docs/notes.md.tmp conv=fsync status=none && "
       "mv -f Docs/notes.md.tmp Docs/notes.md",
       "notes.md.tmp", "third\n"},
  };
  for (size_t i = 0; i < saves.size(); ++i) {
    const Save& save = saves[i];
    SCOPED_TRACE(save.how);
    Shell done = run(save.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    EXPECT_EQ(readAll(mnt() / "Docs/notes.md"), save.bytes);
    EXPECT_TRUE(eventually([&] {
      auto hashes = docsHashes();
      return hashes["notes.md"] == sha1HexDigest(save.bytes) && !hashes.count(save.aside);
    }));
    // Every version replaced is in the trash.
    EXPECT_TRUE(eventually([&] { return trashedNamed("notes.md") == i + 1; }));
  }
}

TEST_F(Durability, SmallCacheKeepsCopiesWithinItsLimitAndOpenFilesReadable) {
  startMount({"--cache-size", "1M"});
  ASSERT_EQ(ctl({"force-uris", "1"}), 0);  // downloads land in the cache
  std::vector<std::string> names, hashes;
  for (int i = 0; i < 4; ++i) {
    names.push_back("big-" + std::to_string(i) + ".bin");
    ASSERT_EQ(ctl({"add-file", "--mount", "1", "--name", names.back(), "--size", "409600", "--seed",
                   std::to_string(i)}),
              0);
  }
  ASSERT_TRUE(
      eventually([&] { return run("ls Docs").out.find("big-3.bin") != std::string::npos; }));
  auto all = docsHashes();
  for (auto& n : names) hashes.push_back(all[n]);
  auto cachedBytes = [&] {
    uintmax_t total = 0;
    for (auto& h : hashes)
      if (fs::exists(cache() / "tmp" / h)) total += fs::file_size(cache() / "tmp" / h);
    return total;
  };

  std::ifstream held(mnt() / "Docs" / names[0], std::ios::binary);
  ASSERT_TRUE(held);
  for (size_t i = 0; i < names.size(); ++i) {
    SCOPED_TRACE(names[i]);
    EXPECT_EQ(sha1HexDigest(readAll(mnt() / "Docs" / names[i])), hashes[i]);
    EXPECT_LE(cachedBytes(), uintmax_t{1} << 20);
  }
  // The copy an open file reads stayed; the others made room in turn.
  EXPECT_TRUE(fs::exists(cache() / "tmp" / hashes[0]));
  EXPECT_FALSE(fs::exists(cache() / "tmp" / hashes[1]));
  std::stringstream rest;
  rest << held.rdbuf();
  EXPECT_EQ(sha1HexDigest(rest.str()), hashes[0]);
  held.close();
  // An evicted copy comes back down when read again.
  EXPECT_EQ(sha1HexDigest(readAll(mnt() / "Docs" / names[1])), hashes[1]);
  EXPECT_LE(cachedBytes(), uintmax_t{1} << 20);
}

}  // namespace
}  // namespace hvfp::driver::test

// `halvofp mount` against halvo-hostd when things go wrong for it: a mount
// killed while its writes wait for upload, an editor's atomic save, and a
// cache far smaller than what is read.
#include <regex>

#include "digest/NSDataExpand.h"
#include "driver/HostFolder.h"

namespace hvfp::driver::test {
namespace {

using Durability = HostFolder;

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
        hashes = hostHashes();
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
      auto hashes = hostHashes();
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
  auto all = hostHashes();
  for (auto& n : names) hashes.push_back(all[n]);
  // Downloads, and copies lent out to the kernel while a file is open.
  auto cachedBytes = [&] {
    uintmax_t total = 0;
    for (const char* folder : {"tmp", "copies"})
      for (auto& e : fs::directory_iterator(cache() / folder))
        if (e.is_regular_file()) total += e.file_size();
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

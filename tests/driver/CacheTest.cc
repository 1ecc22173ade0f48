// The copies as a bounded cache, without a kernel: what stays on disk, what
// goes, and what is fetched again.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "digest/NSDataExpand.h"
#include "driver/Copies.h"
#include "driver/FakeCloud.h"

namespace hvfp::driver::test {
namespace {

namespace fs = std::filesystem;

class Cache : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(root);
    fs::create_directories(tmp);
    mount = cloud->remoteAddMount("Docs");
  }
  void TearDown() override {
    cloud.reset();
    fs::remove_all(root);
  }
  std::string add(const std::string& name, size_t size) {
    std::string contents(size, name[0]);
    auto id = cloud->remoteAddFile(mount, name, contents);
    versions[id] = NSFileProviderItemVersion{"{\"filehash\":\"" + sha1HexDigest(contents) +
                                                 "\",\"filesize\":" + std::to_string(size) + "}",
                                             ""};
    hashes[id] = sha1HexDigest(contents);
    return id;
  }
  // Opens the item's copy and reads it whole; the descriptor stays open
  // while the copy is held.
  std::string read(Copies& copies, const std::string& id, bool hold, std::string* held = nullptr) {
    auto opened = copies.open(id, versions[id], hold);
    EXPECT_TRUE(opened) << opened.failure().message;
    if (!opened) return "";
    std::string out(1 << 16, '\0');
    ssize_t n = ::pread(opened->fd, out.data(), out.size(), 0);
    out.resize(n > 0 ? size_t(n) : 0);
    ::close(opened->fd);
    if (held) *held = opened->file;
    return out;
  }
  bool onDisk(const std::string& id) { return fs::exists(tmp / hashes[id]); }

  fs::path root =
      fs::temp_directory_path() / ("cache-" + std::to_string(::getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  fs::path tmp = root / "cache" / "tmp";  // where the provider downloads
  std::unique_ptr<FakeCloud> cloud = std::make_unique<FakeCloud>(tmp);
  std::string mount;
  std::map<std::string, NSFileProviderItemVersion> versions;
  std::map<std::string, std::string> hashes;
};

TEST_F(Cache, LeastRecentlyUsedCopiesGoUnlessAnOpenFileHoldsThem) {
  // An earlier run's download counts, and goes first.
  const std::string leftover(500, 'x');
  std::ofstream(tmp / sha1HexDigest(leftover)) << leftover;
  hashes["leftover"] = sha1HexDigest(leftover);
  const std::string a = add("a", 1000), b = add("b", 1000), c = add("c", 1000);
  Copies copies(*cloud, (root / "cache" / "copies").string(), (root / "cache").string(), 2500);
  EXPECT_EQ(copies.use().bytes, 500u);

  std::string heldA;
  struct Step {
    std::string id;
    bool hold;
    std::vector<std::string> present, absent;
    int fetches;  // of this item so far
  };
  const std::vector<Step> steps = {
      {a, true, {a, "leftover"}, {}, 1},
      {b, false, {a, b, "leftover"}, {}, 1},
      // Over the limit: the leftover goes first, then b; a is held.
      {c, false, {a, c}, {b, "leftover"}, 1},
      {a, false, {a, c}, {b}, 1},  // held copies are served without a fetch
      {b, false, {a, b}, {c}, 2},  // c is now the least recently used
  };
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step& s = steps[i];
    SCOPED_TRACE("step " + std::to_string(i));
    EXPECT_EQ(read(copies, s.id, s.hold, i == 0 ? &heldA : nullptr), cloud->entry(s.id)->contents);
    for (auto& id : s.present) EXPECT_TRUE(onDisk(id)) << id;
    for (auto& id : s.absent) EXPECT_FALSE(onDisk(id)) << id;
    EXPECT_EQ(cloud->fetchesOf(s.id), s.fetches);
    EXPECT_LE(copies.use().bytes, 2500u);
  }
  // Let go, a is the least recently used and goes when room is needed.
  copies.closed(heldA);
  EXPECT_EQ(read(copies, c, false), cloud->entry(c)->contents);
  EXPECT_FALSE(onDisk(a));
  EXPECT_TRUE(onDisk(b) && onDisk(c));
}

TEST_F(Cache, CopyThatNoLongerMatchesItsHashIsFetchedAgain) {
  const std::string a = add("a", 3000);
  Copies copies(*cloud, (root / "cache" / "copies").string(), (root / "cache").string(), 1 << 20);
  EXPECT_EQ(read(copies, a, false), cloud->entry(a)->contents);
  EXPECT_EQ(read(copies, a, false), cloud->entry(a)->contents);
  EXPECT_EQ(cloud->fetchesOf(a), 1);
  // Rewritten behind its back, as a cleaning tool or a bad copy would.
  std::string rotten = cloud->entry(a)->contents;
  rotten.replace(1000, 3, "rot");
  std::ofstream(tmp / "rewrite") << rotten;
  fs::rename(tmp / "rewrite", tmp / hashes[a]);
  EXPECT_EQ(read(copies, a, false), cloud->entry(a)->contents);
  EXPECT_EQ(cloud->fetchesOf(a), 2);
  EXPECT_EQ(copies.use().bytes, 3000u);
}

// A copy lent to the kernel for an open file: counted but never evicted
// while out, found again without a fetch when it comes back unchanged,
// fetched again when it came back changed, and never lent when another
// item or open shares it.
TEST_F(Cache, LentCopiesCountStayAndComeBackOnlyUnchanged) {
  const std::string a = add("a", 1000), b = add("b", 1000), c = add("c", 1000);
  Copies copies(*cloud, (root / "cache" / "copies").string(), (root / "cache").string(), 2500);
  std::string held;
  read(copies, a, true, &held);
  auto lent = copies.lend(held);
  ASSERT_TRUE(lent);
  EXPECT_FALSE(onDisk(a));
  EXPECT_EQ(copies.use().bytes, 1000u);
  read(copies, b, false);
  read(copies, c, false);  // over the limit: b goes, not the lent copy
  EXPECT_TRUE(fs::exists(lent->path));
  EXPECT_FALSE(onDisk(b));
  EXPECT_EQ(copies.use().bytes, 2000u);

  copies.takeBack(*lent);
  EXPECT_TRUE(onDisk(a));
  EXPECT_EQ(read(copies, a, false), cloud->entry(a)->contents);
  EXPECT_EQ(cloud->fetchesOf(a), 1);

  read(copies, a, true, &held);
  lent = copies.lend(held);
  ASSERT_TRUE(lent);
  std::ofstream(lent->path, std::ios::app) << "written by its holder";
  copies.takeBack(*lent);
  EXPECT_FALSE(fs::exists(lent->path));
  EXPECT_EQ(read(copies, a, false), cloud->entry(a)->contents);
  EXPECT_EQ(cloud->fetchesOf(a), 2);

  read(copies, c, true, &held);
  lent = copies.lend(held);
  ASSERT_TRUE(lent);
  copies.keep(*lent);  // its holder's now: no longer the cache's to count
  EXPECT_EQ(copies.use().bytes, 1000u);
  EXPECT_TRUE(fs::exists(lent->path));

  // Two items with the same contents share one download.
  const std::string x1 = add("x1", 700), x2 = add("x2", 700);
  std::string held1, held2;
  read(copies, x1, true, &held1);
  read(copies, x2, true, &held2);
  ASSERT_EQ(held1, held2);
  EXPECT_FALSE(copies.lend(held1));
  copies.closed(held2);
  EXPECT_FALSE(copies.lend(held1));  // x2's copy is the same file
}

}  // namespace
}  // namespace hvfp::driver::test

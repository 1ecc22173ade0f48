// The replica without a kernel: folders filled by listings, change reports
// compared with what is held, identifiers swapped, names made Linux names,
// and what the kernel is told went stale.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <thread>

#include "driver/FakeCloud.h"
#include "driver/Replica.h"
#include "platform/fileprovider/ContainerIdentifiers.h"

namespace hvfp::driver::test {
namespace {

using Kind = Invalidation::Kind;
using Names = std::vector<std::string>;
const std::string kTrash(NSFileProviderTrashContainerItemIdentifier);

class RecordingInvalidator final : public Invalidator {
 public:
  void invalidate(std::vector<Invalidation> batch) override {
    std::lock_guard lock(mutex_);
    all_.insert(all_.end(), batch.begin(), batch.end());
  }
  std::vector<Invalidation> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(all_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Invalidation> all_;
};

class ReplicaTest : public ::testing::Test {
 protected:
  ReplicaTest() {
    mount = cloud.remoteAddMount("Docs");
    a = cloud.remoteAddFolder(mount, "A");
    b = cloud.remoteAddFolder(mount, "B");
  }
  ~ReplicaTest() override { std::filesystem::remove_all(dir); }

  Names names(Ino folder) {
    auto children = replica.children(folder);
    EXPECT_TRUE(children.ok());
    Names out;
    if (children)
      for (auto& c : *children) out.push_back(c.name);
    std::sort(out.begin(), out.end());
    return out;
  }
  // The inode of a "/"-separated path from the root, looking each step up.
  Ino at(const std::string& path) {
    Ino ino = kRootIno;
    size_t start = 0;
    while (start <= path.size()) {
      size_t end = std::min(path.find('/', start), path.size());
      auto found = replica.lookup(ino, path.substr(start, end - start));
      if (!found) return 0;
      ino = found->ino;
      start = end + 1;
    }
    return ino;
  }
  std::string idOf(Ino ino) {
    auto info = replica.info(ino);
    return info ? info->record.identifier : "";
  }

  std::filesystem::path dir = std::filesystem::temp_directory_path() /
                              ("replica-" + std::to_string(::getpid()) + "-" +
                               ::testing::UnitTest::GetInstance()->current_test_info()->name());
  FakeCloud cloud{dir};
  RecordingInvalidator kernel;
  Replica replica{cloud, kernel};
  std::string mount, a, b;
};

TEST_F(ReplicaTest, HostNamesBecomeLinuxNamesAndEveryChildStaysReachable) {
  struct Case {
    std::string host, shown;
  };
  const std::string longName(300, 'x');
  const std::vector<Case> cases = {
      {"plain.txt", "plain.txt"},
      {"a/b",
       "a\xEF\xBC\x8F"
       "b"},
      {"", "(unnamed)"},
      {".", "\xEF\xBC\x8E"},
      {"..", "\xEF\xBC\x8E\xEF\xBC\x8E"},
      {std::string("x\0y", 3), "x\xE2\x90\x80y"},
      {longName, std::string(255, 'x')},
  };
  std::map<std::string, std::string> idByShown;
  for (auto& c : cases) idByShown[c.shown] = cloud.remoteAddFile(a, c.host, "data");

  Names expected;
  for (auto& c : cases) expected.push_back(c.shown);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names(at("Docs/A")), expected);
  for (auto& [shown, id] : idByShown) EXPECT_EQ(idOf(at("Docs/A/" + shown)), id) << shown;
  EXPECT_EQ(names(kRootIno), (Names{".Trash", "Docs"}));
}

TEST_F(ReplicaTest, SubfoldersShownAreListedAheadOnce) {
  EXPECT_EQ(names(at("Docs")), (Names{"A", "B"}));
  // Nobody looked into A or B; both are listed in the background, once.
  auto listed = [&] { return cloud.listingsOf(a) == 1 && cloud.listingsOf(b) == 1; };
  for (int i = 0; i < 3000 && !listed(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(listed());
  cloud.remoteAddFolder(a, "inner");
  EXPECT_EQ(names(at("Docs/A")), Names{}) << "what was listed ahead is what the folder shows";
  EXPECT_EQ(cloud.listingsOf(a), 1);
}

TEST_F(ReplicaTest, CollidingNamesKeepTheirNamesWhateverTheListingOrder) {
  std::string first = cloud.remoteAddFile(a, "same.txt", "1");
  std::string second = cloud.remoteAddFile(a, "same.txt", "2");
  std::string mount2 = cloud.remoteAddMount(".Trash");
  Names shown = names(at("Docs/A"));
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[0], "same.txt");
  EXPECT_TRUE(shown[1].starts_with("same~") && shown[1].ends_with(".txt")) << shown[1];
  EXPECT_EQ(idOf(at("Docs/A/same.txt")), first);
  EXPECT_EQ(idOf(at("Docs/A/" + shown[1])), second);
  // A mount cannot take the trash's place.
  Names top = names(kRootIno);
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(idOf(at(".Trash")), kTrash);
  EXPECT_EQ(idOf(at(top[1])), mount2) << top[1];

  // The first one goes: the second keeps the name it was shown under.
  cloud.remoteErase(first);
  replica.signalled(a);
  EXPECT_EQ(names(at("Docs/A")), (Names{shown[1]}));
  EXPECT_EQ(idOf(at("Docs/A/" + shown[1])), second);
}

// Each row changes the cloud from elsewhere, signals the folders that
// changed and checks what both folders show and what went stale.
TEST_F(ReplicaTest, ChangeReportsFindRenamesMovesDeletionsAndNewItems) {
  struct Row {
    const char* what;
    std::function<void(FakeCloud&, const std::string& file, const std::string& folderA,
                       const std::string& folderB)>
        change;
    Names inA, inB;
    Kind kind;  // of the invalidation of file.txt's inode
    bool leftA;
  };
  const std::vector<Row> rows = {
      {"rename", [](auto& c, auto& f, auto&, auto&) { c.remoteRename(f, "renamed.txt"); },
       Names{"keep.txt", "renamed.txt"}, Names{"x.txt"}, Kind::Delete, true},
      {"move", [](auto& c, auto& f, auto&, auto& to) { c.remoteMove(f, to); }, Names{"keep.txt"},
       Names{"file.txt", "x.txt"}, Kind::Delete, true},
      {"deletion", [](auto& c, auto& f, auto&, auto&) { c.remoteErase(f); }, Names{"keep.txt"},
       Names{"x.txt"}, Kind::Delete, true},
      {"new contents", [](auto& c, auto& f, auto&, auto&) { c.remoteWrite(f, "new"); },
       Names{"file.txt", "keep.txt"}, Names{"x.txt"}, Kind::Contents, false},
      {"new item", [](auto& c, auto&, auto& in, auto&) { c.remoteAddFile(in, "new.txt", "n"); },
       Names{"file.txt", "keep.txt", "new.txt"}, Names{"x.txt"}, Kind::Entry, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    FakeCloud cloud(dir / row.what);
    RecordingInvalidator kernel;
    Replica replica(cloud, kernel);
    std::string m = cloud.remoteAddMount("Docs");
    std::string fa = cloud.remoteAddFolder(m, "A");
    std::string fb = cloud.remoteAddFolder(m, "B");
    std::string file = cloud.remoteAddFile(fa, "file.txt", "old");
    cloud.remoteAddFile(fa, "keep.txt", "k");
    cloud.remoteAddFile(fb, "x.txt", "x");
    Ino docs = replica.lookup(kRootIno, "Docs")->ino;
    Ino inoA = replica.lookup(docs, "A")->ino;
    Ino inoB = replica.lookup(docs, "B")->ino;
    Ino fileIno = replica.lookup(inoA, "file.txt")->ino;
    (void)replica.children(inoB);
    kernel.take();

    row.change(cloud, file, fa, fb);
    replica.signalled(fa);
    replica.signalled(fb);

    auto shown = [&](Ino folder) {
      Names out;
      auto children = replica.children(folder);
      for (auto& c : *children) out.push_back(c.name);
      std::sort(out.begin(), out.end());
      return out;
    };
    EXPECT_EQ(shown(inoA), row.inA);
    EXPECT_EQ(shown(inoB), row.inB);
    auto stale = kernel.take();
    if (row.kind == Kind::Entry) {
      EXPECT_TRUE(stale.empty());  // a new name needs no invalidation
    } else {
      Invalidation expected{row.kind, row.leftA ? inoA : 0, fileIno, row.leftA ? "file.txt" : ""};
      EXPECT_NE(std::find(stale.begin(), stale.end(), expected), stale.end());
    }
    // A renamed or moved item keeps its inode; a deleted one is gone.
    const std::string what = row.what;
    if (what == "rename") {
      EXPECT_EQ(*replica.find(inoA, "renamed.txt"), fileIno);
    } else if (what == "move") {
      EXPECT_EQ(*replica.find(inoB, "file.txt"), fileIno);
    } else if (what == "deletion") {
      EXPECT_EQ(replica.info(fileIno)->parent, 0u);  // out of the tree, still held by the kernel
    }
  }
}

TEST_F(ReplicaTest, ProvisionalIdentifierIsSwappedWhenTheCreationReports) {
  Ino inoA = at("Docs/A");
  ItemRecord made;
  made.identifier = "__fp/7";
  made.parent = a;
  made.filename = "new.txt";
  auto added = replica.add(inoA, "new.txt", made);
  ASSERT_TRUE(added.ok());
  EXPECT_TRUE(replica.info(added->ino)->provisional);

  // A report that does not list it yet leaves it alone.
  replica.signalled(a);
  EXPECT_EQ(names(inoA), (Names{"new.txt"}));

  std::string lasting = cloud.remoteAddFile(a, "new.txt", "contents");
  ItemRecord reported = ItemRecord::of(*cloud.itemOf(*cloud.entry(lasting)));
  replica.apply(added->ino, reported);
  replica.pin(added->ino, false);
  EXPECT_EQ(replica.inoOf(lasting), added->ino);
  EXPECT_FALSE(replica.inoOf("__fp/7"));
  EXPECT_FALSE(replica.info(added->ino)->provisional);
  EXPECT_EQ(replica.attributes(added->ino)->size, 8u);

  replica.signalled(a);
  EXPECT_EQ(names(inoA), (Names{"new.txt"}));
  EXPECT_EQ(*replica.find(inoA, "new.txt"), added->ino);
}

TEST_F(ReplicaTest, MoveReportedUnderANewIdentifierKeepsTheInode) {
  std::string file = cloud.remoteAddFile(a, "f.txt", "x");
  Ino ino = at("Docs/A/f.txt");
  Ino inoB = at("Docs/B");
  (void)replica.children(inoB);
  ItemRecord moved = ItemRecord::of(*cloud.itemOf(*cloud.entry(file)));
  moved.identifier = mount + "/moved";
  moved.parent = b;
  replica.apply(ino, moved);
  EXPECT_EQ(replica.inoOf(mount + "/moved"), ino);
  EXPECT_FALSE(replica.inoOf(file));
  auto found = replica.find(inoB, "f.txt");
  ASSERT_TRUE(found.ok());
  EXPECT_EQ(*found, ino);
  EXPECT_EQ(names(at("Docs/A")), Names{});
}

TEST_F(ReplicaTest, WorkingSetReportMovesOnlyTheChangedRecords) {
  std::string gone = cloud.remoteAddFile(a, "gone.txt", "g");
  cloud.remoteAddFile(a, "stays.txt", "s");
  std::string c = cloud.remoteAddFolder(mount, "C");
  Ino goneIno = at("Docs/A/gone.txt");
  Ino inoA = at("Docs/A");
  (void)replica.children(kTrashIno);
  replica.reportWorkingSet();  // from the start: everything, nothing new to us
  kernel.take();

  cloud.remoteTrash(gone);
  std::string unseen = cloud.remoteAddFile(c, "unseen.txt", "u");
  replica.reportWorkingSet();

  EXPECT_EQ(*replica.find(kTrashIno, "gone.txt"), goneIno);
  EXPECT_EQ(names(inoA), (Names{"stays.txt"}));
  EXPECT_FALSE(replica.inoOf(unseen));  // its folder was never listed
  auto stale = kernel.take();
  EXPECT_EQ(stale, (std::vector<Invalidation>{{Kind::Delete, inoA, goneIno, "gone.txt"}}));
}

TEST_F(ReplicaTest, ForgottenItemsLeaveTheTableOnceOutOfTheTree) {
  std::string file = cloud.remoteAddFile(a, "f.txt", "x");
  Ino ino = at("Docs/A/f.txt");
  cloud.remoteErase(file);
  replica.signalled(a);
  EXPECT_TRUE(replica.attributes(ino).ok());  // the kernel still holds it
  replica.forget(ino, 1);
  EXPECT_FALSE(replica.attributes(ino).ok());
}

}  // namespace
}  // namespace hvfp::driver::test

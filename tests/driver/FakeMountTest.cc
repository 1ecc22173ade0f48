// The folder on a real mount, with a small in-memory cloud behind the
// framework's calls: what cp, mv, rm and friends do in the cloud.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <fstream>
#include <regex>

#include "driver/FakeCloud.h"
#include "driver/MountFixture.h"

namespace hvfp::driver::test {
namespace {

const std::string kTrash(NSFileProviderTrashContainerItemIdentifier);

class FakeMount : public ::testing::Test {
 public:
  void SetUp() override {
    if (auto why = fuseUnusable(); !why.empty()) GTEST_SKIP() << why;
    root = fs::temp_directory_path() /
           ("fake-mount-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(root);
    // Downloads land where the provider puts them, in the domain's cache.
    cloud = std::make_unique<FakeCloud>(root / "cache" / "tmp");
    docs = cloud->remoteAddMount("Docs");
    notes = cloud->remoteAddFile(docs, "notes.md", "# Notes\n", 1700000100);
    mount = std::make_unique<Mounted>(
        *cloud, root, "fake-" + std::to_string(::getpid()) + "-" + std::to_string(++serial));
    ASSERT_TRUE(mount->ok) << mount->why;
  }
  void TearDown() override {
    mount.reset();
    cloud.reset();
    std::error_code ec;
    fs::remove_all(root, ec);
  }

  fs::path at(const std::string& relative) { return mount->at(relative); }
  Shell run(const std::string& command) {
    return sh("cd " + quoted(mount->mountpoint) + " && " + command);
  }
  // The cloud's item at a "/"-separated path under Docs.
  std::optional<FakeCloud::Entry> inCloud(const std::string& path) {
    std::string parent = docs;
    std::optional<FakeCloud::Entry> e;
    size_t start = 0;
    while (start <= path.size()) {
      size_t end = std::min(path.find('/', start), path.size());
      e = cloud->childNamed(parent, path.substr(start, end - start));
      if (!e) return std::nullopt;
      parent = e->id;
      start = end + 1;
    }
    return e;
  }
  bool cloudHolds(const std::string& path, const std::string& bytes) {
    return eventually([&] {
      auto e = inCloud(path);
      return e && e->contents == bytes;
    });
  }

  static inline int serial = 0;
  fs::path root;
  std::unique_ptr<FakeCloud> cloud;
  std::string docs, notes;
  std::unique_ptr<Mounted> mount;
};

TEST_F(FakeMount, CopiesInAndOutKeepEveryByte) {
  struct Size {
    const char* name;
    size_t bytes;
  };
  for (auto [name, bytes] : {Size{"empty", 0}, Size{"small", 1234}, Size{"large", 100u << 20}}) {
    SCOPED_TRACE(name);
    const std::string data = randomBytes(bytes, static_cast<unsigned>(bytes));
    const fs::path source = root / (std::string(name) + ".src");
    writeAll(source, data);
    ASSERT_EQ(sh("cp " + quoted(source) + " " + quoted(at("Docs/" + std::string(name)))).rc, 0);
    // Served from the local copy before the cloud has it, and the same after.
    EXPECT_EQ(fs::file_size(at("Docs/" + std::string(name))), bytes);
    ASSERT_TRUE(cloudHolds(name, data));
    const fs::path back = root / (std::string(name) + ".back");
    ASSERT_EQ(sh("cp " + quoted(at("Docs/" + std::string(name))) + " " + quoted(back)).rc, 0);
    EXPECT_TRUE(readAll(back) == data);
  }
}

TEST_F(FakeMount, ReadingServesTheCloudContentsFetchedOnceForConcurrentOpens) {
  const std::string data = randomBytes(3 << 20, 7);
  std::string big = cloud->remoteAddFile(docs, "big.bin", data);
  ASSERT_TRUE(fs::exists(at("Docs/big.bin")));
  cloud->holdFetches(true);
  std::vector<std::thread> readers;
  std::vector<std::string> got(4);
  for (size_t i = 0; i < got.size(); ++i)
    readers.emplace_back([&, i] { got[i] = readAll(at("Docs/big.bin")); });
  ASSERT_TRUE(eventually([&] { return cloud->fetchesOf(big) >= 1; }));
  cloud->holdFetches(false);
  for (auto& t : readers) t.join();
  for (auto& g : got) EXPECT_TRUE(g == data);
  EXPECT_EQ(cloud->fetchesOf(big), 1);
  // The kernel served the last of them from the copy itself; the copy is
  // the cache's again afterwards.
  EXPECT_TRUE(readAll(at("Docs/big.bin")) == data);
  EXPECT_EQ(cloud->fetchesOf(big), 1);
  EXPECT_EQ(readAll(at("Docs/notes.md")), "# Notes\n");
}

// An edit goes as a modification of the same item, fsync returns only once
// the cloud has the contents, a failed upload is sent again while the
// folder shows the local contents, and a lookup the host did not answer
// does not make the item look gone.
TEST_F(FakeMount, EditsFsyncAndFailedUploadsReachTheCloud) {
  ASSERT_EQ(run("echo '- call the bank' >> Docs/notes.md").rc, 0);
  ASSERT_TRUE(cloudHolds("notes.md", "# Notes\n- call the bank\n"));
  auto calls = cloud->calls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "modify " + notes + " contents"), calls.end());
  EXPECT_EQ(inCloud("notes.md")->id, notes);

  ASSERT_EQ(run("printf 'kept' | dd of=Docs/synced.txt conv=fsync status=none").rc, 0);
  auto synced = inCloud("synced.txt");  // no waiting: fsync waited
  ASSERT_TRUE(synced);
  EXPECT_EQ(synced->contents, "kept");

  cloud->failUploads(1);
  ASSERT_EQ(run("printf 'retry me' > Docs/later.txt").rc, 0);
  EXPECT_EQ(readAll(at("Docs/later.txt")), "retry me");
  EXPECT_EQ(fs::file_size(at("Docs/later.txt")), 8u);
  ASSERT_TRUE(cloudHolds("later.txt", "retry me"));

  cloud->failLookups(1);
  ASSERT_EQ(run("echo '- and the dentist' >> Docs/notes.md").rc, 0);
  ASSERT_TRUE(cloudHolds("notes.md", "# Notes\n- call the bank\n- and the dentist\n"));
  EXPECT_EQ(inCloud("notes.md")->id, notes);
  for (auto& e : cloud->childrenOf(docs)) EXPECT_EQ(e.name.find("conflicted"), std::string::npos);
}

// Each step runs a command in the mount and checks the cloud afterwards.
TEST_F(FakeMount, TreeChangesBecomeTheFrameworksCalls) {
  struct Step {
    const char* command;
    std::function<void(FakeMount&)> check;
  };
  std::string moved;  // the identifier of the file carried through the steps
  const std::vector<Step> steps = {
      {"mkdir -p Docs/a/b/c",
       [](FakeMount& t) { ASSERT_TRUE(t.inCloud("a/b/c") && t.inCloud("a/b/c")->folder); }},
      {"printf hi > Docs/a/b/c/f.txt",
       [&](FakeMount& t) {
         ASSERT_TRUE(t.cloudHolds("a/b/c/f.txt", "hi"));
         moved = t.inCloud("a/b/c/f.txt")->id;
       }},
      {"mv Docs/a/b/c/f.txt Docs/a/b/c/g.txt",
       [&](FakeMount& t) {
         EXPECT_EQ(t.inCloud("a/b/c/g.txt")->id, moved);
         EXPECT_EQ(t.cloud->calls().back(), "modify " + moved + " filename");
       }},
      {"mv Docs/a/b/c/g.txt Docs/a/",
       [&](FakeMount& t) {
         EXPECT_EQ(t.inCloud("a/g.txt")->id, moved);
         EXPECT_EQ(t.cloud->calls().back(), "modify " + moved + " parent");
       }},
      {"mv Docs/a/g.txt Docs/a/b/h.txt",
       [&](FakeMount& t) {
         EXPECT_EQ(t.inCloud("a/b/h.txt")->id, moved);
         auto calls = t.cloud->calls();
         ASSERT_GE(calls.size(), 2u);
         EXPECT_EQ(calls[calls.size() - 2], "modify " + moved + " filename");
         EXPECT_EQ(calls.back(), "modify " + moved + " parent");
       }},
      {"rm Docs/a/b/h.txt && ls .Trash",
       [&](FakeMount& t) {
         EXPECT_TRUE(t.cloud->entry(moved)->trashed);
         EXPECT_EQ(readAll(t.at(".Trash/h.txt")), "hi");
       }},
      {"mv .Trash/h.txt Docs/a/restored.txt",
       [&](FakeMount& t) {
         auto e = t.cloud->entry(moved);
         EXPECT_FALSE(e->trashed);
         EXPECT_EQ(t.inCloud("a/restored.txt")->id, moved);
         EXPECT_EQ(readAll(t.at("Docs/a/restored.txt")), "hi");
       }},
      {"rm -r Docs/a",
       [](FakeMount& t) {
         EXPECT_FALSE(t.inCloud("a"));
         EXPECT_FALSE(fs::exists(t.at("Docs/a")));
       }},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.command);
    Shell done = run(step.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    step.check(*this);
    if (HasFatalFailure()) return;
  }
}

TEST_F(FakeMount, RefusalsAndAcceptedNoOps) {
  struct Case {
    const char* command;
    int rc;
    const char* says;  // part of the error message, "" when it succeeds
  };
  ASSERT_EQ(run("mkdir Docs/full && printf x > Docs/full/x && sync").rc, 0);
  const std::vector<Case> cases = {
      {"ln -s notes.md Docs/link", 1, "not permitted"},
      {"ln Docs/notes.md Docs/hard", 1, "not permitted"},
      {"rmdir Docs/full", 1, "not empty"},
      {"mkdir newmount", 1, "not permitted"},
      {"mv Docs Renamed", 1, "not permitted"},
      {"chmod 600 Docs/notes.md", 0, ""},
      {"chown \"$(id -u):$(id -g)\" Docs/notes.md", 0, ""},
      {"touch -d '2001-02-03 04:05:06' Docs/notes.md", 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    Shell done = run(c.command);
    EXPECT_EQ(done.rc != 0, c.rc != 0) << done.out;
    EXPECT_NE(done.out.find(c.says), std::string::npos) << done.out;
  }
  // The room there is, is the cache's.
  struct statvfs here {
  }, cache{};
  ASSERT_EQ(::statvfs(mount->mountpoint.c_str(), &here), 0);
  ASSERT_EQ(::statvfs(mount->cache.c_str(), &cache), 0);
  EXPECT_EQ(here.f_blocks, cache.f_blocks);
  EXPECT_EQ(here.f_bsize, cache.f_bsize);
}

TEST_F(FakeMount, RenameOntoAnExistingFileTrashesItFirstAndRmInTrashDeletes) {
  std::string old = cloud->remoteAddFile(docs, "report.txt", "old report");
  ASSERT_EQ(run("printf 'new report' > Docs/draft.txt && mv Docs/draft.txt Docs/report.txt").rc, 0);
  ASSERT_TRUE(cloudHolds("report.txt", "new report"));
  EXPECT_TRUE(cloud->entry(old)->trashed);
  EXPECT_EQ(readAll(at("Docs/report.txt")), "new report");
  EXPECT_EQ(readAll(at(".Trash/report.txt")), "old report");

  ASSERT_EQ(run("rm .Trash/report.txt").rc, 0);
  auto calls = cloud->calls();
  EXPECT_EQ(calls.back(), "delete " + old);
  EXPECT_FALSE(fs::exists(at(".Trash/report.txt")));  // listed afresh, still hidden
}

// Each step is a program's way of writing; the cloud and a read through
// the folder then hold exactly the bytes a local disk would.
TEST_F(FakeMount, ProgramsWriteAsOnALocalDisk) {
  struct Step {
    const char* what;
    const char* command;
    const char* file;
    std::string bytes;
  };
  const std::string hole(100000, '\0');
  cloud->remoteAddFile(docs, "shared.txt", "cloud\n");
  const std::vector<Step> steps = {
      {"O_TRUNC", "printf abc > Docs/notes.md", "notes.md", "abc"},
      {"O_APPEND", "printf def >> Docs/notes.md", "notes.md", "abcdef"},
      {"write in the middle",
       "printf XY | dd of=Docs/notes.md bs=1 seek=1 conv=notrunc status=none", "notes.md",
       "aXYdef"},
      {"truncate shorter", "truncate -s 2 Docs/notes.md", "notes.md", "aX"},
      {"truncate longer", "truncate -s 4 Docs/notes.md", "notes.md", std::string("aX\0\0", 4)},
      {"write past the end", "printf Z | dd of=Docs/sparse.bin bs=1 seek=100000 status=none",
       "sparse.bin", hole + "Z"},
      {"two writers at once",
       "exec 3>>Docs/two.txt 4>>Docs/two.txt; printf a >&3; printf b >&4; printf c >&3; "
       "exec 3>&- 4>&-",
       "two.txt", "abc"},
      {"a reader sees what a writer wrote since it opened",
       "exec 5<Docs/two.txt 6>>Docs/two.txt; printf d >&6; cat <&5 > ../seen; exec 5<&- 6>&-",
       "two.txt", "abcd"},
      {"a reader opened on a file being copied in sees each write",
       "exec 7>Docs/copied.txt; printf ab >&7; exec 8<Docs/copied.txt; cat <&8 >/dev/null; "
       "printf cd >&7; perl -e 'sysseek STDIN, 0, 0; sysread STDIN, $b, 9; print $b' <&8 "
       "> ../copied-seen; exec 7>&- 8<&-",
       "copied.txt", "abcd"},
      {"readers of the cloud's copy see a writer's appends, before and after its close",
       "exec 5<Docs/shared.txt 6<Docs/shared.txt; printf 'more\\n' >> Docs/shared.txt; "
       "cat <&5 > ../shared-seen; exec 7>>Docs/shared.txt; printf 'again\\n' >&7; "
       "exec 7>&-; cat <&6 > ../shared-seen-2; exec 5<&- 6<&-",
       "shared.txt", "cloud\nmore\nagain\n"},
      {"a writer truncating a file others read",
       "exec 5<Docs/shared.txt; printf 'new\\n' > Docs/shared.txt; cat <&5 > ../truncated-seen; "
       "exec 5<&-",
       "shared.txt", "new\n"},
      {"rename over a file not sent yet",
       "printf new > Docs/a.tmp && mv Docs/a.tmp Docs/sparse.bin", "sparse.bin", "new"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    Shell done = run(step.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    EXPECT_TRUE(cloudHolds(step.file, step.bytes));
    EXPECT_TRUE(readAll(at(std::string("Docs/") + step.file)) == step.bytes);
  }
  EXPECT_EQ(readAll(root / "seen"), "abcd");
  EXPECT_EQ(readAll(root / "copied-seen"), "abcd");
  EXPECT_EQ(readAll(root / "shared-seen"), "cloud\nmore\n");
  EXPECT_EQ(readAll(root / "shared-seen-2"), "cloud\nmore\nagain\n");
  EXPECT_EQ(readAll(root / "truncated-seen"), "new\n");
  EXPECT_FALSE(inCloud("a.tmp"));
}

TEST_F(FakeMount, ModificationTimesSetByProgramsReachTheCloud) {
  struct Case {
    const char* command;
    const char* file;
    Date modified;
  };
  const std::vector<Case> cases = {
      // Right after the close, before or while the creation is sent.
      {"printf x > Docs/t.txt && touch -d @1600000000 Docs/t.txt", "t.txt", 1600000000},
      {"cp -p ../src.txt Docs/copied.txt", "copied.txt", 1500000000},
      // On a file in step with the cloud: its contents go again with it.
      {"touch -d @1400000000 Docs/notes.md", "notes.md", 1400000000},
  };
  writeAll(root / "src.txt", "source");
  ASSERT_EQ(sh("touch -d @1500000000 " + quoted(root / "src.txt")).rc, 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    Shell done = run(c.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    EXPECT_TRUE(eventually([&] {
      auto e = inCloud(c.file);
      return e && e->modified == c.modified;
    }));
    struct stat st {};
    ASSERT_EQ(::stat(at(std::string("Docs/") + c.file).c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, static_cast<time_t>(c.modified));
  }
  EXPECT_EQ(inCloud("notes.md")->contents, "# Notes\n");
}

// Also while another program holds the file open for reading: it then
// reads the cloud's contents too, and a later edit goes on top of them.
TEST_F(FakeMount, EditOfAFileChangedElsewhereMeanwhileBecomesAConflictedCopy) {
  for (bool held : {false, true}) {
    SCOPED_TRACE(held ? "held open by a reader" : "alone");
    const std::string name = held ? "plan" : "notes";
    const std::string before = held ? "# Plan\n" : "# Notes\n";  // contents of their own
    const std::string id = held ? cloud->remoteAddFile(docs, "plan.md", before) : notes;
    const fs::path path = at("Docs/" + name + ".md");
    mount->signal(docs);
    ASSERT_TRUE(eventually([&] { return readAll(path) == before; }));
    std::ifstream reader;
    if (held) reader.open(path);
    int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "# Mine\n", 7), 7);
    cloud->remoteWrite(id, "# Theirs\n");  // while the file is open here
    ASSERT_EQ(::close(fd), 0);

    const std::regex conflicted(name + R"( \(conflicted copy \d{4}-\d\d-\d\d \d{6}\)\.md)");
    std::optional<FakeCloud::Entry> copy;
    ASSERT_TRUE(eventually([&] {
      for (auto& e : cloud->childrenOf(docs))
        if (std::regex_match(e.name, conflicted)) copy = e;
      return copy.has_value();
    }));
    EXPECT_EQ(copy->contents, "# Mine\n");
    EXPECT_EQ(cloud->entry(id)->contents, "# Theirs\n");
    // The folder shows both, each with its own contents.
    EXPECT_TRUE(eventually([&] { return readAll(path) == "# Theirs\n"; }));
    EXPECT_TRUE(eventually([&] { return fs::exists(at("Docs/" + copy->name)); }));
    EXPECT_EQ(readAll(at("Docs/" + copy->name)), "# Mine\n");
    ASSERT_EQ(run("echo more >> " + quoted(path.string())).rc, 0);
    EXPECT_TRUE(cloudHolds(name + ".md", "# Theirs\nmore\n"));
  }
}

TEST_F(FakeMount, ChangesFromElsewhereShowAfterTheSignalWithoutRemount) {
  ASSERT_TRUE(fs::exists(at("Docs/notes.md")));
  cloud->remoteAddFile(docs, "from-elsewhere.txt", "hello");
  cloud->remoteRename(notes, "renamed.md");
  mount->signal(docs);
  EXPECT_TRUE(eventually(
      [&] {
        Shell ls = run("ls Docs");
        return ls.out.find("from-elsewhere.txt") != std::string::npos &&
               ls.out.find("renamed.md") != std::string::npos &&
               ls.out.find("notes.md") == std::string::npos;
      },
      std::chrono::seconds(2)));
  EXPECT_EQ(readAll(at("Docs/from-elsewhere.txt")), "hello");

  // Changed in the cloud while a program holds it open: a new open, and an
  // edit above all, start from the cloud's new contents.
  std::ifstream held(at("Docs/from-elsewhere.txt"));
  ASSERT_TRUE(held);
  cloud->remoteWrite(cloud->childNamed(docs, "from-elsewhere.txt")->id, "changed\n");
  mount->signal(docs);
  EXPECT_TRUE(eventually([&] { return readAll(at("Docs/from-elsewhere.txt")) == "changed\n"; },
                         std::chrono::seconds(2)));
  ASSERT_EQ(run("echo more >> Docs/from-elsewhere.txt").rc, 0);
  EXPECT_TRUE(cloudHolds("from-elsewhere.txt", "changed\nmore\n"));
}

}  // namespace
}  // namespace hvfp::driver::test

// What survives the folder: records of unsent contents, and what a later
// folder on the same cache makes of them in a cloud that moved on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>

#include "digest/NSDataExpand.h"
#include "driver/FakeCloud.h"
#include "driver/Folder.h"
#include "driver/Pending.h"
#include "platform/fileprovider/ContainerIdentifiers.h"

namespace hvfp::driver::test {
namespace {

namespace fs = std::filesystem;

NSFileProviderItemVersion versionOf(const std::string& contents) {
  return {"{\"filehash\":\"" + sha1HexDigest(contents) +
              "\",\"filesize\":" + std::to_string(contents.size()) + "}",
          "{\"delete\":0}"};
}

TEST(Pending, RecordsReadBackAndRefuseWhatCannotBeSent) {
  PendingUpload full{"/cache/work/1-2-3", "1/abc",        "1",
                     "notes \"new\"/.md", versionOf("x"), 1700000000};
  PendingUpload created{"/cache/work/1-5-1", "", "1/dir", "new.txt", std::nullopt, 0};
  for (const auto& u : {full, created}) {
    auto back = decodePending(encodePending(u));
    ASSERT_TRUE(back) << encodePending(u);
    EXPECT_EQ(*back, u);
  }
  for (const char* bad :
       {"", "not json", "[]", R"({"file":"work/1","parent":"1","name":"a"})",
        R"({"file":"/w/1","parent":"","name":"a"})", R"({"file":"/w/1","parent":"1","name":""})"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(decodePending(bad));
  }
}

TEST(Pending, ConflictNamesKeepTheExtension) {
  std::tm when{};
  when.tm_year = 2024 - 1900;
  when.tm_mon = 4;
  when.tm_mday = 1;
  when.tm_hour = 9;
  when.tm_min = 30;
  when.tm_sec = 5;
  when.tm_isdst = -1;
  const std::time_t t = std::mktime(&when);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"report.txt", "report (conflicted copy 2024-05-01 093005).txt"},
      {"archive.tar.gz", "archive.tar (conflicted copy 2024-05-01 093005).gz"},
      {"Makefile", "Makefile (conflicted copy 2024-05-01 093005)"},
      {".bashrc", ".bashrc (conflicted copy 2024-05-01 093005)"},
      {"trailing.", "trailing. (conflicted copy 2024-05-01 093005)"},
  };
  for (const auto& [name, expected] : cases) EXPECT_EQ(conflictName(name, t), expected);
}

TEST(Pending, DecisionFollowsTheCloudsItem) {
  auto item = [](const std::string& contents, bool folder = false) {
    ItemRecord r;
    r.identifier = "1/x";
    r.folder = folder;
    if (!folder) r.version = versionOf(contents);
    return std::optional<ItemRecord>(r);
  };
  struct Case {
    const char* what;
    bool existing;
    std::optional<NSFileProviderItemVersion> base;
    std::optional<ItemRecord> current;
    Outcome outcome;
  };
  const std::string mine = "mine";
  const std::vector<Case> cases = {
      {"unchanged item", true, versionOf("old"), item("old"), Outcome::Contents},
      {"same hash, other metadata", true,
       NSFileProviderItemVersion{versionOf("old").contentVersion, "{\"delete\":0,\"status\":7}"},
       item("old"), Outcome::Contents},
      {"changed elsewhere", true, versionOf("old"), item("theirs"), Outcome::ConflictCopy},
      {"changed elsewhere to these bytes", true, versionOf("old"), item(mine), Outcome::Nothing},
      {"gone or trashed", true, versionOf("old"), std::nullopt, Outcome::ConflictCopy},
      {"existing without a base", true, std::nullopt, item("theirs"), Outcome::Contents},
      {"new, name free", false, std::nullopt, std::nullopt, Outcome::Contents},
      {"new, name taken", false, std::nullopt, item("theirs"), Outcome::ConflictCopy},
      {"new, already sent", false, std::nullopt, item(mine), Outcome::Nothing},
      {"new, a folder has the name", false, std::nullopt, item("", true), Outcome::ConflictCopy},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(decide(c.existing, c.base, c.current,
                     [&] { return std::optional<std::string>(sha1HexDigest(mine)); }),
              c.outcome);
  }
}

class NoKernel final : public Invalidator {
 public:
  void invalidate(std::vector<Invalidation>) override {}
};

// Folders on one cache, one after another, as mounts of the domain are.
class Remount : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(root);
    docs = cloud->remoteAddMount("Docs");
  }
  void TearDown() override {
    folder.reset();
    cloud.reset();
    fs::remove_all(root);
  }
  void start() {
    folder = std::make_unique<Folder>(*cloud, nullptr, kernel,
                                      FolderOptions{(root / "cache").string(), uint64_t{1} << 30});
  }
  Ino at(const std::string& name) {
    auto docsIno = folder->lookup(kRootIno, "Docs");
    auto found = folder->lookup(docsIno->ino, name);
    return found ? found->ino : 0;
  }
  // Writes `bytes` as the file's new contents (a new file when absent) and
  // closes it, as a program would.
  void write(const std::string& name, const std::string& bytes) {
    OpenFile* file = nullptr;
    if (Ino ino = at(name)) {
      auto opened = folder->open(ino, O_RDWR | O_TRUNC);
      ASSERT_TRUE(opened) << opened.failure().message;
      file = opened->file;
    } else {
      auto made = folder->create(folder->lookup(kRootIno, "Docs")->ino, name, O_RDWR);
      ASSERT_TRUE(made) << made.failure().message;
      file = made->file;
    }
    ASSERT_EQ(::pwrite(file->fd, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
    folder->written(*file, 0, bytes.size());
    ASSERT_TRUE(folder->flush(*file));
    folder->release(file);
  }
  size_t filesIn(const std::string& sub) {
    size_t n = 0;
    std::error_code ec;
    for (auto it = fs::directory_iterator(root / "cache" / sub, ec);
         !ec && it != fs::directory_iterator(); it.increment(ec))
      ++n;
    return n;
  }

  fs::path root =
      fs::temp_directory_path() / ("remount-" + std::to_string(::getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  std::unique_ptr<FakeCloud> cloud = std::make_unique<FakeCloud>(root / "downloads");
  NoKernel kernel;
  std::unique_ptr<Folder> folder;
  std::string docs;
};

// A file removed while its last close was on its way leaves a scheduled
// generation the working copies no longer hold.
TEST(UploadQueue, AnAttemptFindingNothingLeftEndsWhatWasDueButNotWhatCameSince) {
  std::atomic<int> attempts{0};
  Uploads* queue = nullptr;
  Uploads uploads([&](Ino ino, Uploads::Done done) {
    if (++attempts == 1) {
      queue->schedule(ino, 9);  // sealed again while this attempt runs
      return done(Uploads::kNothingLeft, {});
    }
    done(9, {});
  });
  queue = &uploads;
  uploads.schedule(7, 5);
  EXPECT_TRUE(uploads.drain(std::chrono::seconds(5)));
  EXPECT_EQ(attempts, 2);
}

TEST_F(Remount, WhatAFolderCouldNotSendTheNextOneSendsOrKeepsBesideTheOtherChange) {
  struct Case {
    const char* name;        // written in the first folder
    const char* cloudHadIt;  // contents before, "" when new
    std::function<void(FakeCloud&, const std::string& id)> meanwhile;  // in the cloud
    const char* named;  // what the cloud then holds under `name`
    bool conflictCopy;  // whether ours sits beside it
  };
  auto nothing = [](FakeCloud&, const std::string&) {};
  const std::vector<Case> cases = {
      {"new.txt", "", nothing, "mine new.txt", false},
      {"kept.txt", "old", nothing, "mine kept.txt", false},
      {"edited.txt", "old", [](FakeCloud& c, auto& id) { c.remoteWrite(id, "theirs"); }, "theirs",
       true},
      {"trashed.txt", "old", [](FakeCloud& c, auto& id) { c.remoteTrash(id); }, nullptr, true},
      {"renamed.txt", "old", [](FakeCloud& c, auto& id) { c.remoteRename(id, "moved.txt"); },
       nullptr, false},
      {"taken.txt", "", [&](FakeCloud& c, auto&) { c.remoteAddFile(docs, "taken.txt", "theirs"); },
       "theirs", true},
      {"arrived.txt", "",
       [&](FakeCloud& c, auto&) { c.remoteAddFile(docs, "arrived.txt", "mine arrived.txt"); },
       "mine arrived.txt", false},
  };
  std::map<std::string, std::string> ids;
  for (const Case& c : cases)
    if (*c.cloudHadIt) ids[c.name] = cloud->remoteAddFile(docs, c.name, c.cloudHadIt);

  start();
  cloud->failUploads(1 << 30);
  for (const Case& c : cases) write(c.name, std::string("mine ") + c.name);
  // Renamed before its creation reached the cloud: created once, renamed.
  write("draft.tmp", "mine draft");
  ASSERT_EQ(folder
                ->rename(folder->lookup(kRootIno, "Docs")->ino, "draft.tmp",
                         folder->lookup(kRootIno, "Docs")->ino, "draft.txt", 0)
                .ok(),
            true);
  folder.reset();  // with every upload still failing
  EXPECT_EQ(filesIn("pending"), cases.size() + 1);

  for (const Case& c : cases) c.meanwhile(*cloud, ids[c.name]);
  cloud->failUploads(0);
  const size_t callsBefore = cloud->calls().size();
  start();
  ASSERT_TRUE(folder->finish(std::chrono::seconds(30)));

  const std::regex conflicted(R"(.* \(conflicted copy \d{4}-\d\d-\d\d \d{6}\)\.txt)");
  auto children = cloud->childrenOf(docs);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string mine = std::string("mine ") + c.name;
    auto named = cloud->childNamed(docs, c.name);
    if (c.named) {
      ASSERT_TRUE(named);
      EXPECT_EQ(named->contents, c.named);
      if (*c.cloudHadIt) {
        EXPECT_EQ(named->id, ids[c.name]);
      }
    }
    const std::string stem = fs::path(c.name).stem();
    size_t copies = 0;
    for (auto& e : children)
      if (std::regex_match(e.name, conflicted) && e.name.starts_with(stem + " (")) {
        ++copies;
        EXPECT_EQ(e.contents, mine);
      }
    EXPECT_EQ(copies, c.conflictCopy ? 1u : 0u);
  }
  // The rename carried the new name: sent under it, to the renamed item.
  EXPECT_EQ(cloud->childNamed(docs, "moved.txt")->contents, "mine renamed.txt");
  EXPECT_EQ(cloud->childNamed(docs, "moved.txt")->id, ids["renamed.txt"]);
  EXPECT_EQ(cloud->childNamed(docs, "draft.txt")->contents, "mine draft");
  EXPECT_FALSE(cloud->childNamed(docs, "draft.tmp"));
  auto calls = cloud->calls();
  EXPECT_EQ(std::count(calls.begin() + callsBefore, calls.end(), "create arrived.txt"), 0);
  // Nothing is left to send, and nothing of it on disk.
  EXPECT_EQ(filesIn("pending"), 0u);
  EXPECT_EQ(filesIn("work"), 0u);

  // A third folder finds nothing to do.
  folder.reset();
  const size_t callsAfter = cloud->calls().size();
  start();
  ASSERT_TRUE(folder->finish(std::chrono::seconds(30)));
  EXPECT_EQ(cloud->calls().size(), callsAfter);
}

TEST_F(Remount, FileStillOpenWhenTheFolderWentIsKept) {
  start();
  cloud->failUploads(1 << 30);
  auto made = folder->create(folder->lookup(kRootIno, "Docs")->ino, "open.txt", O_RDWR);
  ASSERT_TRUE(made);
  ASSERT_EQ(::pwrite(made->file->fd, "half", 4, 0), 4);
  folder->written(*made->file, 0, 4);
  folder.reset();  // never closed, never flushed
  cloud->failUploads(0);
  start();
  ASSERT_TRUE(folder->finish(std::chrono::seconds(30)));
  auto e = cloud->childNamed(docs, "open.txt");
  ASSERT_TRUE(e);
  EXPECT_EQ(e->contents, "half");
}

}  // namespace
}  // namespace hvfp::driver::test

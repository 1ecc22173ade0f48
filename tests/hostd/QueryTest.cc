// The query protocol over HTTP against an in-process host seeded with the
// sample cloud: listings, moves, renames, trash, the change cursor, creation.
#include <sys/stat.h>

#include "Digest.h"
#include "HostdFixture.h"

namespace hvfp::hostd::test {
namespace {

class HostdQueries : public HostFixture {
 protected:
  void SetUp() override {
    HostFixture::SetUp();
    readme_ = strOf(child(1, "", "README.txt"), "uuidhash");
  }
  std::string item(const std::string& type, const std::string& uuid, const std::string& more = "") {
    return "type=" + type + "&uuidhash=" + uuid + "&mount_id=1" + more;
  }
  JsonValue move(const std::string& uuid, const std::string& parent, int parentMount = 1) {
    return query(
        item("remove", uuid,
             "&parent_uuidhash=" + parent + "&parent_mount_id=" + std::to_string(parentMount)));
  }
  std::string readme_;
};

TEST_F(HostdQueries, LinksAndFilesListLiveItemsWithTheirKeys) {
  auto links = listOf(query("type=links"));
  ASSERT_EQ(links.size(), 3u);
  for (auto [key, value] : {std::pair{"mount_id", 1}, {"dir", 1}, {"root", 1}})
    EXPECT_EQ(intOf(links[0], key), value) << key;
  for (auto [key, value] : {std::pair{"filename", "Docs"}, {"uuidhash", ""}, {"webpath", ""}})
    EXPECT_EQ(strOf(links[0], key), value) << key;
  EXPECT_EQ(strOf(links[1], "filename"), "Docs");  // same name, another mount
  EXPECT_NE(intOf(links[0], "lasttime"), intOf(links[1], "lasttime"));

  auto v = query("type=files&uuidhash=&mount_id=1");
  EXPECT_GT(intOf(v, "lasttime"), 0);
  std::vector<std::string> names;
  for (auto& e : listOf(v)) names.push_back(strOf(e, "filename"));
  EXPECT_EQ(names, (std::vector<std::string>{"README.txt", "Reports", "notes.md"}));  // no trash
  auto reports = child(1, "", "Reports");
  EXPECT_EQ(intOf(reports, "childcount"), 2);
  for (auto& e : listOf(query(item("files", strOf(reports, "uuidhash")))))
    EXPECT_EQ(strOf(e, "up_hash"), strOf(reports, "uuidhash"));
}

TEST_F(HostdQueries, FileinfoOfRootItemAndUnknown) {
  auto root = query("type=fileinfo&uuidhash=&mount_id=3");
  EXPECT_EQ(strOf(root, "filename"), "Photos");
  EXPECT_EQ(intOf(root, "root"), 1);
  auto info = query(item("fileinfo", readme_));
  EXPECT_EQ(strOf(info, "filehash"), strOf(child(1, "", "README.txt"), "filehash"));
  EXPECT_EQ(intOf(info, "filesize"), 17);
  EXPECT_EQ(intOf(query(item("fileinfo", std::string(32, 'a'))), "status_code"), 404);
}

TEST_F(HostdQueries, RenameRefusesTakenAndInvalidNamesAndCarriesDescendants) {
  auto taken = query(item("rename", readme_, "&filename=notes.md"));
  EXPECT_EQ(intOf(taken, "status_code"), 409);
  EXPECT_EQ(intOf(taken, "error_code"), kNameTaken);
  for (std::string bad : {"..", ".", "a%2Fb", "", "x%00y"})
    EXPECT_NE(intOf(query(item("rename", readme_, "&filename=" + bad)), "error_code"), 0) << bad;
  EXPECT_EQ(intOf(query(item("rename", readme_, "&filename=READ%20ME.txt")), "status_code"), 200);
  EXPECT_EQ(strOf(child(1, "", "READ ME.txt"), "uuidhash"), readme_);
  EXPECT_TRUE(child(1, "", "README.txt").isNull());

  std::string reports = strOf(child(1, "", "Reports"), "uuidhash");
  query(item("rename", reports, "&filename=Archive"));
  auto pdf = child(1, strOf(child(1, reports, "2023"), "uuidhash"), "annual.pdf");
  EXPECT_EQ(strOf(pdf, "webpath"), "Archive/2023/annual.pdf");
}

TEST_F(HostdQueries, MoveIntoFolderReportsNewPathAndRefusesCycles) {
  std::string reports = strOf(child(1, "", "Reports"), "uuidhash");
  std::string y2023 = strOf(child(1, reports, "2023"), "uuidhash");
  std::string notes = strOf(child(1, "", "notes.md"), "uuidhash");
  auto moved = move(notes, y2023);
  EXPECT_EQ(intOf(moved, "status_code"), 200);
  EXPECT_EQ(strOf(moved, "hash"), notes);
  EXPECT_EQ(strOf(moved, "fullpath"), "Reports/2023/notes.md");
  EXPECT_EQ(intOf(move(reports, y2023), "error_code"), kIntoItself);
  EXPECT_EQ(intOf(move(reports, reports), "error_code"), kIntoItself);
  EXPECT_EQ(intOf(move(reports, "", 3), "error_code"), kCrossMount);
  EXPECT_EQ(strOf(move(y2023, ""), "fullpath"), "2023");
  EXPECT_EQ(strOf(child(1, y2023, "notes.md"), "webpath"), "2023/notes.md");
}

TEST_F(HostdQueries, TrashAndRestoreRoundTripIntoANumberedNameWhenTaken) {
  EXPECT_EQ(intOf(query(item("deletefile", readme_)), "status_code"), 200);
  EXPECT_TRUE(child(1, "", "README.txt").isNull());
  bool inTrash = false;
  for (auto& e : listOf(query("type=trash")))
    inTrash |= strOf(e, "uuidhash") == readme_ && intOf(e, "status") == 7;
  EXPECT_TRUE(inTrash);
  EXPECT_EQ(intOf(query(item("deletefile", readme_)), "error_code"), kAlreadyGone);
  EXPECT_EQ(intOf(query(item("deletefile", "")), "error_code"), kRootRefused);
  EXPECT_EQ(intOf(query(item("recoverfile", readme_)), "status_code"), 200);
  EXPECT_EQ(intOf(child(1, "", "README.txt"), "status"), 0);
  query(item("deletefile", readme_));
  ctl("add-file", "mount=1&name=README.txt&text=newer");
  query(item("recoverfile", readme_));
  EXPECT_EQ(strOf(child(1, "", "README (2).txt"), "uuidhash"), readme_);
  EXPECT_EQ(intOf(query(item("recoverfile", readme_)), "error_code"), kNotInTrash);
}

TEST_F(HostdQueries, ChangeCursorReportsEachChangeOnceWithStatus) {
  auto first = query("type=changefiles&lasttime=0");
  auto cursor = std::to_string(intOf(first, "lasttime"));
  EXPECT_GT(listOf(first).size(), 10u);
  auto none = query("type=changefiles&lasttime=" + cursor);
  EXPECT_TRUE(listOf(none).empty());
  EXPECT_EQ(std::to_string(intOf(none, "lasttime")), cursor);
  query(item("deletefile", readme_));
  auto after = query("type=changefiles&lasttime=" + cursor);
  ASSERT_EQ(listOf(after).size(), 1u);
  EXPECT_EQ(strOf(listOf(after)[0], "uuidhash"), readme_);
  EXPECT_EQ(intOf(listOf(after)[0], "status"), 7);
  EXPECT_GT(intOf(after, "lasttime"), intOf(first, "lasttime"));
}

TEST_F(HostdQueries, CreateFolderNeedsItsParentAndACleanName) {
  auto made = create("Reports/New");
  EXPECT_EQ(strOf(made, "fullpath"), "Reports/New");
  EXPECT_EQ(strOf(made, "up_hash"), strOf(child(1, "", "Reports"), "uuidhash"));
  EXPECT_EQ(strOf(child(1, strOf(made, "up_hash"), "New"), "uuidhash"), strOf(made, "hash"));
  EXPECT_EQ(intOf(create("Nope/New"), "status_code"), 404);
  EXPECT_EQ(intOf(create("Reports/../x"), "error_code"), kBadName);
}

TEST_F(HostdQueries, CreateIsAnInstantUploadForKnownContentsAndNamesServersOtherwise) {
  std::string known = strOf(child(1, "", "README.txt"), "filehash");
  auto r = create("copy.txt", known, 17, 2);
  EXPECT_EQ(intOf(r, "state"), 1);
  EXPECT_EQ(strOf(r, "fullpath"), "copy.txt");
  EXPECT_EQ(strOf(r, "up_hash"), "");
  auto made = child(2, "", "copy.txt");
  EXPECT_EQ(strOf(made, "uuidhash"), strOf(r, "hash"));
  EXPECT_EQ(strOf(made, "filehash"), known);

  auto fresh = create("Reports/new.bin", sha1Hex("brand new bytes"), 15);
  EXPECT_EQ(intOf(fresh, "state"), 0);
  auto uploads = fresh.find("uploads");
  ASSERT_TRUE(uploads && uploads->array());
  EXPECT_EQ(uploads->array()->size(), 2u);
  EXPECT_TRUE(fresh.find("cache_uploads") && fresh.find("cache_uploads")->array());
  EXPECT_EQ(strOf(fresh, "hash").size(), 32u);
  EXPECT_NE(strOf(fresh, "storage_point"), "<absent>");
  EXPECT_TRUE(child(1, strOf(fresh, "up_hash"), "new.bin").isNull());  // not before the upload
}

TEST_F(HostdQueries, DownloadGivesLocalPathOrUris) {
  auto local = query(item("download", readme_));
  EXPECT_EQ(strOf(local, "hash"), readme_);
  std::string path = strOf(local, "fullpath");
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(std::filesystem::file_size(path), 17u);
  ctl("force-uris", "on=1");
  auto remote = query(item("download", readme_));
  EXPECT_EQ(strOf(remote, "fullpath"), "<absent>");
  auto uris = remote.find("uris");
  ASSERT_TRUE(uris && uris->array() && !uris->array()->empty());
  std::string url = *uris->array()->front().string();
  auto slash = url.find('/', 7);
  httplib::Client dl(url.substr(0, slash));
  auto whole = dl.Get(url.substr(slash));
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->body, "Welcome to Docs.\n");
  auto part = dl.Get(url.substr(slash), httplib::Headers{{"Range", "bytes=11-14"}});
  ASSERT_TRUE(part);
  EXPECT_EQ(part->status, 206);
  EXPECT_EQ(part->body, "Docs");
  EXPECT_EQ(dl.Get("/blob/" + std::string(40, 'a'))->status, 404);
}

TEST_F(HostdQueries, AddcacheTakesMatchingRegularFilesOnly) {
  auto dir = root_.path().parent_path() / ("addcache-" + randomHex(4));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "file") << "cache me";
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink(dir / "fifo", dir / "to-fifo");
  auto addcache = [&](const std::string& path, const std::string& contents) {
    return query("type=addcache&path=" + enc(path) + "&filehash=" + sha1Hex(contents));
  };
  EXPECT_EQ(intOf(addcache((dir / "file").string(), "other"), "error_code"), kHashMismatch);
  // None of these is read (a FIFO would block, a device or a kernel file
  // has no size to trust), whatever hash comes with it.
  const std::pair<std::string, int> refused[] = {
      {(dir / "fifo").string(), 400},
      {(dir / "to-fifo").string(), 400},
      {dir.string(), 400},
      {"/dev/zero", 400},
      {"/dev/null", 400},
      {"/proc/self/status", 400},
      {"/proc/self/pagemap", 400},
      {"/sys/kernel/uevent_seqnum", 400},
      {(dir / "missing").string(), 404},
      {"relative/path", 400},
  };
  const std::string unknown = "contents the store does not hold";
  for (const auto& [path, status] : refused) {
    EXPECT_EQ(intOf(addcache(path, unknown), "status_code"), status) << path;
    EXPECT_FALSE(host_->blobs().has(sha1Hex(unknown))) << path;
  }
  EXPECT_EQ(intOf(addcache((dir / "file").string(), "cache me"), "status_code"), 200);
  std::ifstream blob(host_->blobs().pathOf(sha1Hex("cache me")));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(blob), {}), "cache me");
  std::filesystem::remove_all(dir);
}

TEST_F(HostdQueries, SyncRecordQueriesAnswerJsonAndAreLogged) {
  auto raw = [&](const std::string& q) { return client_->Get("/provider?" + q)->body; };
  EXPECT_EQ(raw(item("updatestatus", readme_, "&status=3")), R"({"status_code":200})");
  EXPECT_EQ(host_->store().localStatus(1, readme_), 3);
  EXPECT_EQ(intOf(query(item("updatestatus", std::string(32, 'a'), "&status=1")), "status_code"),
            404);
  EXPECT_EQ(raw(item("deletesyncdb", readme_)), R"({"status_code":200})");
  EXPECT_FALSE(host_->store().localStatus(1, readme_).has_value());
  auto log = listOf(ctl("sync-log", ""));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(strOf(log[0], "query"), "updatestatus");
  EXPECT_EQ(intOf(log[0], "local_status"), 3);
  EXPECT_EQ(strOf(log[1], "query"), "deletesyncdb");
  EXPECT_EQ(log[1].find("local_status"), nullptr);
  for (auto& e : log) {
    EXPECT_EQ(strOf(e, "uuidhash"), readme_);
    EXPECT_EQ(intOf(e, "mount_id"), 1);
  }
}

}  // namespace
}  // namespace hvfp::hostd::test

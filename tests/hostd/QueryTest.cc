// The query protocol over HTTP against an in-process host seeded with the
// sample cloud: listings, moves, renames, trash, the change cursor, creation.
#include "Digest.h"
#include "HostdFixture.h"

namespace hvfp::hostd::test {
namespace {

using HostdQueries = HostFixture;

TEST_F(HostdQueries, LinksListMountRootsWithTheirKeys) {
  auto v = query("type=links");
  ASSERT_EQ(listOf(v).size(), 3u);
  auto docs = listOf(v)[0];
  EXPECT_EQ(strOf(docs, "filename"), "Docs");
  EXPECT_EQ(intOf(docs, "mount_id"), 1);
  EXPECT_EQ(strOf(docs, "uuidhash"), "");
  EXPECT_EQ(strOf(docs, "webpath"), "");
  EXPECT_EQ(intOf(docs, "dir"), 1);
  EXPECT_EQ(intOf(docs, "root"), 1);
  EXPECT_NE(intOf(listOf(v)[0], "lasttime"), intOf(listOf(v)[1], "lasttime"));
  EXPECT_EQ(strOf(listOf(v)[1], "filename"), "Docs");
}

TEST_F(HostdQueries, FilesListLiveChildrenAndTheCursor) {
  auto v = query("type=files&uuidhash=&mount_id=1");
  EXPECT_EQ(intOf(v, "status_code"), 200);
  EXPECT_GT(intOf(v, "lasttime"), 0);
  std::vector<std::string> names;
  for (auto& e : listOf(v)) names.push_back(strOf(e, "filename"));
  EXPECT_EQ(names, (std::vector<std::string>{"README.txt", "Reports", "notes.md"}));  // not the trashed draft
  auto reports = child(1, "", "Reports");
  EXPECT_EQ(intOf(reports, "childcount"), 2);
  auto inner = query("type=files&uuidhash=" + strOf(reports, "uuidhash") + "&mount_id=1");
  for (auto& e : listOf(inner)) EXPECT_EQ(strOf(e, "up_hash"), strOf(reports, "uuidhash"));
}

TEST_F(HostdQueries, FileinfoOfRootItemAndUnknown) {
  auto root = query("type=fileinfo&uuidhash=&mount_id=3");
  EXPECT_EQ(intOf(root, "status_code"), 200);
  EXPECT_EQ(strOf(root, "filename"), "Photos");
  EXPECT_EQ(intOf(root, "root"), 1);
  auto readme = child(1, "", "README.txt");
  auto info = query("type=fileinfo&uuidhash=" + strOf(readme, "uuidhash") + "&mount_id=1");
  EXPECT_EQ(strOf(info, "filehash"), strOf(readme, "filehash"));
  EXPECT_EQ(intOf(info, "filesize"), 17);
  auto missing = query("type=fileinfo&uuidhash=0123456789abcdef0123456789abcdef&mount_id=1");
  EXPECT_EQ(intOf(missing, "status_code"), 404);
  EXPECT_NE(intOf(missing, "error_code"), 0);
  EXPECT_NE(strOf(missing, "error_msg"), "<absent>");
}

TEST_F(HostdQueries, RenameRefusesTakenAndInvalidNames) {
  auto readme = child(1, "", "README.txt");
  std::string u = strOf(readme, "uuidhash");
  auto taken = query("type=rename&uuidhash=" + u + "&filename=notes.md&mount_id=1");
  EXPECT_EQ(intOf(taken, "status_code"), 409);
  EXPECT_EQ(intOf(taken, "error_code"), kNameTaken);
  for (std::string bad : {"..", ".", "a%2Fb", "", "x%00y"}) {
    auto r = query("type=rename&uuidhash=" + u + "&filename=" + bad + "&mount_id=1");
    EXPECT_NE(intOf(r, "status_code"), 200) << bad;
    EXPECT_NE(intOf(r, "error_code"), 0) << bad;
  }
  auto ok = query("type=rename&uuidhash=" + u + "&filename=READ%20ME.txt&mount_id=1");
  EXPECT_EQ(intOf(ok, "status_code"), 200);
  EXPECT_EQ(strOf(child(1, "", "READ ME.txt"), "uuidhash"), u);
  EXPECT_TRUE(child(1, "", "README.txt").isNull());
}

TEST_F(HostdQueries, RenamingAFolderCarriesItsDescendantsPaths) {
  auto reports = child(1, "", "Reports");
  query("type=rename&uuidhash=" + strOf(reports, "uuidhash") + "&filename=Archive&mount_id=1");
  auto y2023 = child(1, strOf(reports, "uuidhash"), "2023");
  auto pdf = child(1, strOf(y2023, "uuidhash"), "annual.pdf");
  EXPECT_EQ(strOf(pdf, "webpath"), "Archive/2023/annual.pdf");
}

TEST_F(HostdQueries, MoveIntoFolderReportsNewPathAndRefusesCycles) {
  auto reports = child(1, "", "Reports");
  auto y2023 = child(1, strOf(reports, "uuidhash"), "2023");
  auto notes = child(1, "", "notes.md");
  auto moved = query("type=remove&uuidhash=" + strOf(notes, "uuidhash") + "&mount_id=1&parent_uuidhash=" +
                     strOf(y2023, "uuidhash") + "&parent_mount_id=1");
  EXPECT_EQ(intOf(moved, "status_code"), 200);
  EXPECT_EQ(strOf(moved, "hash"), strOf(notes, "uuidhash"));
  EXPECT_EQ(strOf(moved, "fullpath"), "Reports/2023/notes.md");
  auto cycle = query("type=remove&uuidhash=" + strOf(reports, "uuidhash") + "&mount_id=1&parent_uuidhash=" +
                     strOf(y2023, "uuidhash") + "&parent_mount_id=1");
  EXPECT_EQ(intOf(cycle, "error_code"), kIntoItself);
  auto self = query("type=remove&uuidhash=" + strOf(reports, "uuidhash") + "&mount_id=1&parent_uuidhash=" +
                    strOf(reports, "uuidhash") + "&parent_mount_id=1");
  EXPECT_EQ(intOf(self, "error_code"), kIntoItself);
  auto across = query("type=remove&uuidhash=" + strOf(reports, "uuidhash") +
                      "&mount_id=1&parent_uuidhash=&parent_mount_id=3");
  EXPECT_EQ(intOf(across, "error_code"), kCrossMount);
  auto toRoot = query("type=remove&uuidhash=" + strOf(y2023, "uuidhash") +
                      "&mount_id=1&parent_uuidhash=&parent_mount_id=1");
  EXPECT_EQ(strOf(toRoot, "fullpath"), "2023");
  EXPECT_EQ(strOf(child(1, strOf(y2023, "uuidhash"), "notes.md"), "webpath"), "2023/notes.md");
}

TEST_F(HostdQueries, TrashAndRestoreRoundTrip) {
  auto readme = child(1, "", "README.txt");
  std::string u = strOf(readme, "uuidhash");
  EXPECT_EQ(intOf(query("type=deletefile&uuidhash=" + u + "&mount_id=1"), "status_code"), 200);
  EXPECT_TRUE(child(1, "", "README.txt").isNull());
  bool inTrash = false;
  for (auto& e : listOf(query("type=trash"))) inTrash |= strOf(e, "uuidhash") == u && intOf(e, "status") == 7;
  EXPECT_TRUE(inTrash);
  auto again = query("type=deletefile&uuidhash=" + u + "&mount_id=1");
  EXPECT_EQ(intOf(again, "error_code"), kAlreadyGone);
  auto root = query("type=deletefile&uuidhash=&mount_id=1");
  EXPECT_NE(intOf(root, "status_code"), 200);
  EXPECT_EQ(intOf(root, "error_code"), kRootRefused);
  EXPECT_EQ(intOf(query("type=recoverfile&uuidhash=" + u + "&mount_id=1"), "status_code"), 200);
  EXPECT_EQ(intOf(child(1, "", "README.txt"), "status"), 0);
  EXPECT_EQ(intOf(query("type=recoverfile&uuidhash=" + u + "&mount_id=1"), "error_code"), kNotInTrash);
}

TEST_F(HostdQueries, RestoreIntoATakenNameGetsANumberedName) {
  auto readme = child(1, "", "README.txt");
  query("type=deletefile&uuidhash=" + strOf(readme, "uuidhash") + "&mount_id=1");
  ctl("add-file", "mount=1&name=README.txt&text=newer");
  query("type=recoverfile&uuidhash=" + strOf(readme, "uuidhash") + "&mount_id=1");
  EXPECT_EQ(strOf(child(1, "", "README (2).txt"), "uuidhash"), strOf(readme, "uuidhash"));
}

TEST_F(HostdQueries, ChangeCursorReportsEachChangeOnceWithStatus) {
  auto first = query("type=changefiles&lasttime=0");
  uint64_t cursor = static_cast<uint64_t>(intOf(first, "lasttime"));
  EXPECT_GT(listOf(first).size(), 10u);
  auto none = query("type=changefiles&lasttime=" + std::to_string(cursor));
  EXPECT_TRUE(listOf(none).empty());
  EXPECT_EQ(static_cast<uint64_t>(intOf(none, "lasttime")), cursor);
  auto notes = child(1, "", "notes.md");
  query("type=deletefile&uuidhash=" + strOf(notes, "uuidhash") + "&mount_id=1");
  auto after = query("type=changefiles&lasttime=" + std::to_string(cursor));
  ASSERT_EQ(listOf(after).size(), 1u);
  EXPECT_EQ(strOf(listOf(after)[0], "uuidhash"), strOf(notes, "uuidhash"));
  EXPECT_EQ(intOf(listOf(after)[0], "status"), 7);
  EXPECT_GT(static_cast<uint64_t>(intOf(after, "lasttime")), cursor);
}

TEST_F(HostdQueries, CreateFolderNeedsItsParent) {
  auto made = query("type=create&webpath=Reports%2FNew&filehash=&filesize=0&createtime=5&lasttime=6&mount_id=1&dir=1");
  EXPECT_EQ(intOf(made, "status_code"), 200);
  EXPECT_EQ(strOf(made, "fullpath"), "Reports/New");
  EXPECT_EQ(strOf(made, "up_hash"), strOf(child(1, "", "Reports"), "uuidhash"));
  EXPECT_EQ(strOf(child(1, strOf(made, "up_hash"), "New"), "uuidhash"), strOf(made, "hash"));
  auto orphan = query("type=create&webpath=Nope%2FNew&filehash=&filesize=0&createtime=5&lasttime=6&mount_id=1&dir=1");
  EXPECT_EQ(intOf(orphan, "status_code"), 404);
  auto dots = query("type=create&webpath=Reports%2F..%2Fx&filehash=&filesize=0&createtime=5&lasttime=6&mount_id=1&dir=1");
  EXPECT_EQ(intOf(dots, "error_code"), kBadName);
}

TEST_F(HostdQueries, CreateOfKnownContentsIsAnInstantUpload) {
  auto readme = child(1, "", "README.txt");
  auto r = query("type=create&webpath=copy.txt&filehash=" + strOf(readme, "filehash") +
                 "&filesize=17&createtime=1&lasttime=2&mount_id=2&dir=0");
  EXPECT_EQ(intOf(r, "status_code"), 200);
  EXPECT_EQ(intOf(r, "state"), 1);
  EXPECT_EQ(strOf(r, "fullpath"), "copy.txt");
  EXPECT_EQ(strOf(r, "up_hash"), "");
  auto made = child(2, "", "copy.txt");
  EXPECT_EQ(strOf(made, "uuidhash"), strOf(r, "hash"));
  EXPECT_EQ(strOf(made, "filehash"), strOf(readme, "filehash"));
}

TEST_F(HostdQueries, CreateOfNewContentsNamesUploadServers) {
  std::string hash = sha1Hex("brand new bytes");
  auto r = query("type=create&webpath=Reports%2Fnew.bin&filehash=" + hash +
                 "&filesize=15&createtime=1&lasttime=2&mount_id=1&dir=0");
  EXPECT_EQ(intOf(r, "state"), 0);
  auto uploads = r.find("uploads");
  ASSERT_TRUE(uploads && uploads->array());
  EXPECT_EQ(uploads->array()->size(), 2u);
  EXPECT_TRUE(r.find("cache_uploads") && r.find("cache_uploads")->array());
  EXPECT_EQ(strOf(r, "hash").size(), 32u);
  EXPECT_NE(strOf(r, "storage_point"), "<absent>");
  EXPECT_TRUE(child(1, strOf(r, "up_hash"), "new.bin").isNull());  // not before the upload
}

TEST_F(HostdQueries, DownloadGivesLocalPathOrUris) {
  auto readme = child(1, "", "README.txt");
  std::string q = "type=download&uuidhash=" + strOf(readme, "uuidhash") + "&mount_id=1";
  auto local = query(q);
  EXPECT_EQ(intOf(local, "status_code"), 200);
  EXPECT_EQ(strOf(local, "hash"), strOf(readme, "uuidhash"));
  std::string path = strOf(local, "fullpath");
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(std::filesystem::file_size(path), 17u);
  ctl("force-uris", "on=1");
  auto remote = query(q);
  EXPECT_EQ(strOf(remote, "fullpath"), "<absent>");
  auto uris = remote.find("uris");
  ASSERT_TRUE(uris && uris->array() && !uris->array()->empty());
  std::string url = *uris->array()->front().string();
  auto slash = url.find('/', 7);
  httplib::Client dl(url.substr(0, slash));
  auto whole = dl.Get(url.substr(slash).c_str());
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->body, "Welcome to Docs.\n");
  auto part = dl.Get(url.substr(slash).c_str(), httplib::Headers{{"Range", "bytes=11-14"}});
  ASSERT_TRUE(part);
  EXPECT_EQ(part->status, 206);
  EXPECT_EQ(part->body, "Docs");
  auto unknown = dl.Get(("/blob/" + std::string(40, 'a')).c_str());
  EXPECT_EQ(unknown->status, 404);
}

TEST_F(HostdQueries, AddcacheTakesMatchingFilesOnly) {
  auto src = root_.path().parent_path() / ("addcache-" + randomHex(4));
  {
    std::ofstream(src) << "cache me";
  }
  auto wrong = query("type=addcache&path=" + enc(src.string()) + "&filehash=" + sha1Hex("other"));
  EXPECT_EQ(intOf(wrong, "error_code"), kHashMismatch);
  auto ok = query("type=addcache&path=" + enc(src.string()) + "&filehash=" + sha1Hex("cache me"));
  EXPECT_EQ(intOf(ok, "status_code"), 200);
  EXPECT_TRUE(host_->blobs().has(sha1Hex("cache me")));
  auto dir = query("type=addcache&path=%2Ftmp&filehash=" + sha1Hex("x"));
  EXPECT_NE(intOf(dir, "status_code"), 200);
  std::filesystem::remove(src);
}

TEST_F(HostdQueries, SyncRecordsFollowUpdatestatusAndDeletesyncdb) {
  auto readme = child(1, "", "README.txt");
  std::string u = strOf(readme, "uuidhash");
  EXPECT_EQ(intOf(query("type=updatestatus&uuidhash=" + u + "&mount_id=1&status=3"), "status_code"), 200);
  EXPECT_EQ(host_->store().localStatus(1, u), 3);
  EXPECT_EQ(intOf(query("type=deletesyncdb&uuidhash=" + u + "&mount_id=1"), "status_code"), 200);
  EXPECT_FALSE(host_->store().localStatus(1, u).has_value());
}

}  // namespace
}  // namespace hvfp::hostd::test

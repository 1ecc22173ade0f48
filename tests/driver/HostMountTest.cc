// `halvofp mount` end to end: the real provider against halvo-hostd with
// its sample cloud, on free ports and a private session bus, mounted by
// the halvofp program itself.
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <map>

#include "digest/FileMD5Hash.h"
#include "digest/NSDataExpand.h"
#include "driver/HostFolder.h"

namespace hvfp::driver::test {
namespace {

class HostMount : public HostFolder {
 protected:
  void SetUp() override {
    HostFolder::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    startMount();
  }

  // The host's record of the child named `name` in a folder, if any.
  HVFileItemRef hostChild(const std::string& folder, const std::string& name) {
    uint64_t lasttime = 0;
    for (auto& r : client.getFiles(folder, lasttime))
      if (r->strFileName.value_or("") == name) return r;
    return nullptr;
  }
  // The host's record of what the folder shows at `path` (below a mount).
  HVFileItemRef hostRecord(const std::string& path) {
    static const std::map<std::string, std::string> mounts = {
        {"Docs", "1"}, {"Docs(2)", "2"}, {"Photos", "3"}};
    fs::path p(path);
    auto step = p.begin();
    auto mount = mounts.find(step->string());
    if (mount == mounts.end()) return nullptr;
    std::string folder = mount->second;
    HVFileItemRef record;
    for (++step; step != p.end(); ++step) {
      if (record) folder = mount->second + "/" + record->strUuidHash.value_or("");
      record = hostChild(folder, step->string());
      if (!record) return nullptr;
    }
    return record;
  }
  std::vector<std::string> hostTrash() {
    std::vector<std::string> names;
    for (auto& r : client.getTrash()) names.push_back(r->strFileName.value_or(""));
    std::sort(names.begin(), names.end());
    return names;
  }
  // The bytes the host stored for a record.
  std::string hostBytes(const HVFileItemRef& record) {
    return readAll(root / "store" / "blobs" / record->strFileHash.value_or("none"));
  }
  // Waits until the host holds `bytes` at `path`; its record then.
  HVFileItemRef waitForHostBytes(const std::string& path, const std::string& bytes,
                                 std::chrono::seconds bound = std::chrono::seconds(60)) {
    const std::string hash = sha1HexDigest(bytes);
    HVFileItemRef record;
    eventually(
        [&] {
          record = hostRecord(path);
          return record && record->strFileHash.value_or("") == hash;
        },
        bound);
    return record && record->strFileHash.value_or("") == hash ? record : nullptr;
  }
};

TEST_F(HostMount, ListingShowsTheCloudWithItsSizesTimesAndModes) {
  struct Expected {
    std::string path;
    uintmax_t size;
    long mtime;
    unsigned mode;
  };
  const std::vector<Expected> expected = {
      {"Docs/README.txt", 17, 1700000040, 0644},
      {"Docs/notes.md", 42, 1700000050, 0644},
      {"Docs/Reports/q1.txt", 32, 1700000030, 0644},
      {"Docs/Reports/2023/annual.pdf", 100090, 1700000020, 0644},
      {"Docs(2)/empty.txt", 0, 1700000075, 0644},
      {"Docs(2)/Shared/plan.txt", 29, 1700000070, 0644},
      {"Photos/clip.mov", 3145851, 1700000100, 0644},
      {"Photos/2024/beach.jpg", 204822, 1700000080, 0644},
      {".Trash/old-draft.txt", 28, 1700000060, 0644},
  };
  Shell listing = run("ls -lR --time-style=+%s . .Trash");
  ASSERT_EQ(listing.rc, 0) << listing.out;
  for (const auto& e : expected) {
    SCOPED_TRACE(e.path);
    const std::string name = fs::path(e.path).filename();
    std::string line = std::to_string(e.size) + " " + std::to_string(e.mtime) + " " + name;
    EXPECT_NE(listing.out.find(line), std::string::npos) << listing.out;
    struct stat st {};
    ASSERT_EQ(::stat((mnt() / e.path).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, e.mode);
    EXPECT_EQ(st.st_uid, ::getuid());
  }
  Shell top = run("ls -a");
  EXPECT_EQ(top.out, ".\n..\n.Trash\nDocs\nDocs(2)\nPhotos\n");
}

TEST_F(HostMount, ChangesMadeOnTheHostShowWithoutRemount) {
  using Ctl = std::vector<std::string>;
  struct Step {
    Ctl ctl;
    std::string look;  // a command run in the mount
    std::string shows;
  };
  // README.txt is read first, so its pages are in the kernel's cache when
  // the host writes it.
  ASSERT_EQ(run("cat Docs/README.txt").out, "Welcome to Docs.\n");
  const std::vector<Step> steps = {
      {Ctl{"add-file", "--mount", "1", "--name", "fresh.txt", "--text", "hello"},
       "ls Docs && cat Docs/fresh.txt", "README.txt\nReports\nfresh.txt\nnotes.md\nhello"},
      {Ctl{"rename", "--mount", "1", "--path", "notes.md", "--name", "notes-renamed.md"}, "ls Docs",
       "README.txt\nReports\nfresh.txt\nnotes-renamed.md\n"},
      {Ctl{"write", "--mount", "1", "--path", "README.txt", "--text", "Written on the host.\n"},
       "stat -c %s Docs/README.txt && cat Docs/README.txt", "21\nWritten on the host.\n"},
      {Ctl{"move", "--mount", "1", "--path", "fresh.txt", "--to-path", "Reports"},
       "ls Docs Docs/Reports",
       "Docs:\nREADME.txt\nReports\nnotes-renamed.md\n\nDocs/Reports:\n2023\nfresh.txt\nq1.txt\n"},
      {Ctl{"add-folder", "--mount", "1", "--parent-path", "Reports", "--name", "Made there"},
       "ls Docs/Reports", "2023\nMade there\nfresh.txt\nq1.txt\n"},
      {Ctl{"trash", "--mount", "1", "--path", "notes-renamed.md"}, "ls Docs .Trash",
       ".Trash:\nnotes-renamed.md\nold-draft.txt\n\nDocs:\nREADME.txt\nReports\n"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.ctl[0]);
    ASSERT_EQ(ctl(step.ctl), 0) << readAll(root / "ctl.log");
    // Host events arrive within moments; the bound only keeps a broken
    // build from hanging.
    EXPECT_TRUE(
        eventually([&] { return run(step.look).out == step.shows; }, std::chrono::seconds(10)))
        << run(step.look).out;
  }
}

TEST_F(HostMount, CopiesInAndOutKeepEveryByteOnTheHost) {
  struct Case {
    std::string name;
    size_t size;
  };
  const std::vector<Case> cases = {
      {"empty.bin", 0}, {"small.bin", 1000}, {"big.bin", size_t{100} << 20}};
  std::string sources;
  for (const Case& c : cases) {
    writeAll(root / c.name, randomBytes(c.size, static_cast<unsigned>(c.size)));
    sources += " " + quoted(root / c.name);
  }
  Shell in = run("cp" + sources + " Docs/");
  ASSERT_EQ(in.rc, 0) << in.out;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string bytes = readAll(root / c.name);
    EXPECT_EQ(fs::file_size(mnt() / "Docs" / c.name), c.size);
    auto record = waitForHostBytes("Docs/" + c.name, bytes, std::chrono::seconds(120));
    ASSERT_TRUE(record) << "the host never held the copied bytes";
    EXPECT_EQ(record->ullFileSize, c.size);
    EXPECT_TRUE(hostBytes(record) == bytes);
    Shell out = sh("cp " + quoted(mnt() / "Docs" / c.name) + " " + quoted(root / "out.bin"));
    ASSERT_EQ(out.rc, 0) << out.out;
    EXPECT_TRUE(readAll(root / "out.bin") == bytes);
  }
}

TEST_F(HostMount, EditsOfExistingFilesReachTheHostAsNewContents) {
  struct Edit {
    std::string command;
    std::string path;
    std::function<std::string(const std::string&)> expected;
  };
  const std::vector<Edit> edits = {
      {"printf 'more\\n' >> Docs/notes.md", "Docs/notes.md",
       [](const std::string& was) { return was + "more\n"; }},
      {"printf 'replaced\\n' > Docs/README.txt", "Docs/README.txt",
       [](const std::string&) { return std::string("replaced\n"); }},
      {"vim -es -n -c '1s/^/edited: /' -c wq Docs/Reports/q1.txt", "Docs/Reports/q1.txt",
       [](const std::string& was) { return "edited: " + was; }},
      {"truncate -s 4 'Docs(2)/Shared/plan.txt'", "Docs(2)/Shared/plan.txt",
       [](const std::string& was) { return was.substr(0, 4); }},
  };
  for (const Edit& edit : edits) {
    SCOPED_TRACE(edit.command);
    auto before = hostRecord(edit.path);
    ASSERT_TRUE(before);
    const std::string expected = edit.expected(readAll(mnt() / edit.path));
    Shell done = run(edit.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    EXPECT_EQ(readAll(mnt() / edit.path), expected);
    auto after = waitForHostBytes(edit.path, expected);
    ASSERT_TRUE(after) << "the host never held the new contents";
    // The same item got new contents: not a new file beside a trashed one.
    EXPECT_EQ(after->strUuidHash, before->strUuidHash);
    EXPECT_EQ(hostBytes(after), expected);
  }
  EXPECT_EQ(hostTrash(), std::vector<std::string>{"old-draft.txt"});
}

TEST_F(HostMount, FoldersAreMadeAndTreesGoToTheTrash) {
  Shell made = run("mkdir -p Docs/a/b/c && printf 'deep\\n' > Docs/a/b/c/f.txt");
  ASSERT_EQ(made.rc, 0) << made.out;
  for (const char* folder : {"Docs/a", "Docs/a/b", "Docs/a/b/c"}) {
    auto record = hostRecord(folder);
    ASSERT_TRUE(record) << folder;
    EXPECT_TRUE(record->bDir) << folder;
  }
  ASSERT_TRUE(waitForHostBytes("Docs/a/b/c/f.txt", "deep\n"));

  Shell removed = run("rm -r Docs/a");
  ASSERT_EQ(removed.rc, 0) << removed.out;
  EXPECT_EQ(run("ls Docs").out, "README.txt\nReports\nnotes.md\n");
  EXPECT_FALSE(hostRecord("Docs/a"));
  // Each item went to the trash on its own, as rm took them one by one.
  const std::vector<std::string> trashed = {"a", "b", "c", "f.txt", "old-draft.txt"};
  EXPECT_EQ(hostTrash(), trashed);
  EXPECT_EQ(run("ls .Trash").out, "a\nb\nc\nf.txt\nold-draft.txt\n");

  Shell back = run("mv .Trash/f.txt Docs/found.txt");
  ASSERT_EQ(back.rc, 0) << back.out;
  auto found = hostRecord("Docs/found.txt");
  ASSERT_TRUE(found);
  EXPECT_EQ(hostBytes(found), "deep\n");
  EXPECT_EQ(readAll(mnt() / "Docs/found.txt"), "deep\n");
}

TEST_F(HostMount, ReadsServeTheCloudsBytes) {
  for (const char* path :
       {"Photos/clip.mov", "Docs/Reports/2023/annual.pdf", "Docs(2)/empty.txt"}) {
    SCOPED_TRACE(path);
    fs::path out = root / "out.bin";
    ASSERT_EQ(sh("cp " + quoted(mnt() / path) + " " + quoted(out)).rc, 0);
    auto record = hostRecord(path);
    ASSERT_TRUE(record);
    EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(out.string(), 0),
              record->strFileHash.value_or(""));
    EXPECT_EQ(fs::file_size(out), record->ullFileSize);
  }
}

TEST_F(HostMount, RenamesMovesTrashAndRestoreReachTheHost) {
  struct Step {
    const char* command;
    const char* folder;  // where the host now has the file: a mount or a folder name in Docs
    const char* name;
  };
  const std::string file = hostChild("1", "notes.md")->strUuidHash.value_or("");
  const std::string reports = "1/" + hostChild("1", "Reports")->strUuidHash.value_or("");
  const std::vector<Step> steps = {
      {"mv Docs/notes.md Docs/renamed.md", "1", "renamed.md"},
      {"mv Docs/renamed.md Docs/Reports/", "Reports", "renamed.md"},
      {"mv Docs/Reports/renamed.md Docs/moved.md", "1", "moved.md"},
      {"rm Docs/moved.md && test -e .Trash/moved.md", "trash", "moved.md"},
      {"mv .Trash/moved.md Docs/Reports/back.md", "Reports", "back.md"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.command);
    Shell done = run(step.command);
    ASSERT_EQ(done.rc, 0) << done.out;
    if (std::string(step.folder) == "trash") {
      bool trashed = false;
      for (auto& r : client.getTrash()) trashed |= r->strUuidHash.value_or("") == file;
      EXPECT_TRUE(trashed);
      continue;
    }
    auto record = hostChild(std::string(step.folder) == "1" ? "1" : reports, step.name);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->strUuidHash.value_or(""), file);
  }
  EXPECT_EQ(readAll(mnt() / "Docs/Reports/back.md"),
            "# Notes\n\n- call the bank\n- renew passport\n");
}

TEST_F(HostMount, CommandLineRefusesWhatItCannotMount) {
  struct Case {
    std::vector<std::string> args;
    std::string says;
  };
  fs::create_directories(root / "full");
  writeAll(root / "full" / "x", "x");
  const std::vector<Case> cases = {
      {{"mount", (root / "missing").string()}, "does not exist"},
      {{"mount", (root / "full").string(), "--port", std::to_string(queryPort)}, "is not empty"},
      {{"mount", mnt().string(), "--port", std::to_string(queryPort)}, "is already mounted"},
      {{"mount", (root / "empty").string(), "--port",
        std::to_string(hvfp::test::unusedLoopbackPort())},
       "no host answers"},
      {{"unmount", (root / "full").string()}, "is not mounted"},
  };
  fs::create_directories(root / "empty");
  for (const Case& c : cases) {
    std::string command = HALVOFP_BIN;
    for (auto& a : c.args) command += " " + quoted(a);
    SCOPED_TRACE(command);
    Shell done = sh(command);
    EXPECT_EQ(done.rc, 1);
    EXPECT_NE(done.out.find(c.says), std::string::npos) << done.out;
    EXPECT_EQ(std::count(done.out.begin(), done.out.end(), '\n'), 1) << done.out;
  }
}

TEST_F(HostMount, BackgroundMountDetachesAndUnmountEndsIt) {
  fs::path other = root / "other";
  fs::create_directories(other);
  Shell started = sh(std::string(HALVOFP_BIN) + " mount " + quoted(other) + " --port " +
                     std::to_string(queryPort) + " --domain background");
  ASSERT_EQ(started.rc, 0) << started.out;
  EXPECT_TRUE(mountedAt(other));  // mounted before the command returned
  EXPECT_EQ(readAll(other / "Docs/README.txt"), "Welcome to Docs.\n");
  Shell stopped = sh(std::string(HALVOFP_BIN) + " unmount " + quoted(other));
  EXPECT_EQ(stopped.rc, 0) << stopped.out;
  EXPECT_FALSE(mountedAt(other));
}

}  // namespace
}  // namespace hvfp::driver::test

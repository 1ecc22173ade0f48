// The programs people keep in this folder, run on a real mount against
// halvo-hostd: each does its own work inside the mount and its result must
// be whole, on the mount and in the cloud. Then the host goes away under a
// mount that keeps answering from what it has.
#include <regex>

#include "digest/NSDataExpand.h"
#include "driver/HostFolder.h"

namespace hvfp::driver::test {
namespace {

bool installed(const std::string& program) {
  return sh("command -v " + program + " >/dev/null").rc == 0;
}

class Programs : public HostFolder {
 public:
  // Queries that change the cloud, as the host logged them.
  size_t cloudChanges() {
    static const std::regex changing(
        "type=(create|uploadinit|uploadfinish|rename|remove|deletefile|recoverfile) ");
    size_t n = 0;
    std::ifstream in(hostLog(hosts));
    for (std::string line; std::getline(in, line);) n += std::regex_search(line, changing);
    return n;
  }
  void expectInCloud(const std::string& name, const std::string& bytes) {
    EXPECT_TRUE(eventually([&] { return hostHashes()[name] == sha1HexDigest(bytes); },
                           std::chrono::seconds(60)))
        << name << "\n"
        << readAll(logPath);
  }

  void gitRepository() {
    Shell done =
        run("mkdir Docs/repo && cd Docs/repo && git init -q -b main && "
            "git config user.email t@example.com && git config user.name T && "
            "printf 'one\\n' > a.txt && mkdir src && printf 'int x;\\n' > src/x.c && "
            "git add . && git commit -qm first && git branch topic && git checkout -q topic && "
            "printf 'two\\n' >> a.txt && git rm -q src/x.c && git commit -qam second && "
            "git checkout -q main && git merge -q --no-edit topic && git gc -q && "
            "git status --porcelain && git fsck --strict --no-progress && git log --format=%s");
    ASSERT_EQ(done.rc, 0) << done.out << readAll(logPath);
    EXPECT_EQ(done.out, "second\nfirst\n");
    EXPECT_EQ(readAll(mnt() / "Docs/repo/a.txt"), "one\ntwo\n");
    EXPECT_FALSE(fs::exists(mnt() / "Docs/repo/src/x.c"));
  }

  void rsyncTree() {
    const fs::path src = root / "tree", back = root / "back";
    for (int i = 0; i < 1000; ++i) {
      fs::create_directories(src / ("d" + std::to_string(i % 20)));
      writeAll(src / ("d" + std::to_string(i % 20)) / ("f" + std::to_string(i)),
               randomBytes(i % 7 == 0 ? 0 : 1 + i * 37 % 3000, i));
    }
    const std::string in = "rsync -a " + quoted(src.string() + "/") + " Docs/tree/";
    Shell done = run(in + " && rsync -a Docs/tree/ " + quoted(back.string() + "/") +
                     " && diff -r " + quoted(src) + " " + quoted(back));
    ASSERT_EQ(done.rc, 0) << done.out << readAll(logPath);
    ASSERT_TRUE(eventually([&] { return nothingPending(); }, std::chrono::seconds(120)));
    const size_t before = cloudChanges();
    Shell again = run("rsync -ai " + quoted(src.string() + "/") + " Docs/tree/");
    ASSERT_EQ(again.rc, 0) << again.out;
    EXPECT_EQ(again.out, "");  // nothing looked changed to rsync
    EXPECT_TRUE(nothingPending());
    EXPECT_EQ(cloudChanges(), before);
  }

  void sqliteDatabase() {
    std::string sql = "CREATE TABLE t(id INTEGER PRIMARY KEY, v TEXT);\n";
    for (int batch = 0; batch < 10; ++batch) {
      sql += "BEGIN;\n";
      for (int i = 0; i < 1000; ++i)
        sql += "INSERT INTO t(v) VALUES('row " + std::to_string(batch * 1000 + i) + "');\n";
      sql += "COMMIT;\n";
    }
    writeAll(root / "fill.sql", sql);
    Shell done = run("sqlite3 Docs/rows.db < " + quoted(root / "fill.sql"));
    ASSERT_EQ(done.rc, 0) << done.out << readAll(logPath);
    stopMount();
    startMount();
    Shell count = run(
        "sqlite3 Docs/rows.db 'PRAGMA integrity_check; SELECT count(*), sum(id), max(v) FROM t;'");
    EXPECT_EQ(count.out, "ok\n10000|50005000|row 9999\n");
    expectInCloud("rows.db", readAll(mnt() / "Docs/rows.db"));
  }

  void vimEdit() {
    const size_t files = hostHashes().size();
    std::string expected = readAll(mnt() / "Docs/notes.md");
    expected.replace(expected.find("passport"), 8, "passport and visa");
    Shell done =
        run("vim -es -u NONE -i NONE -c '%s/passport/passport and visa/' -c wq Docs/notes.md");
    ASSERT_EQ(done.rc, 0) << done.out << readAll(logPath);
    EXPECT_EQ(readAll(mnt() / "Docs/notes.md"), expected);
    expectInCloud("notes.md", expected);
    EXPECT_TRUE(eventually([&] { return hostHashes().size() == files; }))  // no leftovers
        << run("ls -a Docs").out;
  }

  void fioVerify() {
    Shell done =
        run("fio --name=verify --filename=Docs/fio.bin --size=64M --bs=4k --rw=randrw "
            "--ioengine=psync --io_size=16M --verify=crc32c --verify_fatal=1 --do_verify=1 "
            "--randrepeat=0 --output-format=terse");
    ASSERT_EQ(done.rc, 0) << done.out << readAll(logPath);
    EXPECT_EQ(fs::file_size(mnt() / "Docs/fio.bin"), uintmax_t{64} << 20);
    expectInCloud("fio.bin", readAll(mnt() / "Docs/fio.bin"));
  }
};

struct Program {
  const char* name;
  const char* needs;  // the programs it runs
  void (Programs::*check)();
};

TEST_F(Programs, EachProgramsWorkIsWholeOnTheMountAndInTheCloud) {
  const std::vector<Program> programs = {
      {"git: init, commit, branch, checkout, merge, gc, fsck", "git", &Programs::gitRepository},
      {"rsync: 1,000 files in and out, then again with nothing to send", "rsync diff",
       &Programs::rsyncTree},
      {"sqlite3: 10,000 rows in transactions, read after a remount", "sqlite3",
       &Programs::sqliteDatabase},
      {"vim -es: an edit in place", "vim", &Programs::vimEdit},
      {"fio: random writes and reads verified by crc32c", "fio", &Programs::fioVerify},
  };
  startMount();
  for (const auto& p : programs) {
    SCOPED_TRACE(p.name);
    std::istringstream needs(p.needs);
    bool missing = false;
    for (std::string n; needs >> n;) missing |= !installed(n);
    if (missing) {
      std::cout << "[ SKIPPED  ] " << p.name << ": " << p.needs
                << " not installed (scripts/install-deps.sh)\n";
      continue;
    }
    (this->*p.check)();
  }
}

TEST_F(HostFolder, HostDownAnswersFromTheReplicaAndCatchesUpWhenBack) {
  stopHost(SIGTERM);
  startHost(0, {"--force-uris"});  // downloads land in the cache
  startMount();
  Shell seen = run("ls -lR Docs && cat Docs/notes.md Docs/Reports/q1.txt");
  ASSERT_EQ(seen.rc, 0) << seen.out;
  const std::string notes = readAll(mnt() / "Docs/notes.md");

  stopHost(SIGKILL);
  Shell down = run("ls -lR Docs && stat -c '%n %s' Docs/notes.md Docs/Reports/q1.txt");
  EXPECT_EQ(down.rc, 0) << down.out;
  EXPECT_EQ(down.out, seen.out.substr(0, down.out.find("Docs/notes.md 42")) +
                          "Docs/notes.md 42\nDocs/Reports/q1.txt 32\n");
  EXPECT_EQ(readAll(mnt() / "Docs/notes.md"), notes);
  const std::string written = "written while the host was down\n";
  writeAll(mnt() / "Docs/while-down.txt", written);
  EXPECT_EQ(readAll(mnt() / "Docs/while-down.txt"), written);

  startHost(queryPort, {"--force-uris"});
  EXPECT_TRUE(eventually([&] { return hostHashes()["while-down.txt"] == sha1HexDigest(written); },
                         std::chrono::seconds(60)))
      << readAll(logPath);
  EXPECT_TRUE(eventually([&] { return nothingPending(); }));
}

}  // namespace
}  // namespace hvfp::driver::test

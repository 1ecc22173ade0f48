// The halvofp program as a user runs it: what it refuses before asking the
// host anything, what each refusal or failure of the host reads like, which
// host queries each command leads to, and Ctrl-C in the middle of a fetch.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "support/ChildProcess.h"
#include "support/LoopbackServer.h"

namespace hvfp::test {
namespace {

namespace fs = std::filesystem;

std::string param(const std::string& query, const std::string& key) {
  for (size_t start = 0; start <= query.size();) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    std::string pair = query.substr(start, end - start);
    if (pair.rfind(key + "=", 0) == 0) return pair.substr(key.size() + 1);
    start = end + 1;
  }
  return "";
}

std::string record(const std::string& hash, const std::string& name, int dir, int status) {
  return R"({"status_code":200,"mount_id":3,"uuidhash":")" + hash + R"(","up_hash":"",)" +
         R"("filename":")" + name + R"(","webpath":")" + name + R"(","dir":)" +
         std::to_string(dir) + R"(,"status":)" + std::to_string(status) +
         R"(,"filehash":"f1","filesize":5,"lasttime":1700000000,"creatortime":1700000000})";
}

class CliUsage : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::path(::testing::TempDir()) / ("cli-usage-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "folder");
    setenv("XDG_CACHE_HOME", (dir / "cache").c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    std::ofstream(dir / "small.txt") << "hello";
    // Mount 3 holds the file "h", the folder "d" and, in the trash, "t".
    host.setHandler([this](const RecordedRequest& request) {
      if (request.path == "/blob")
        return ScriptedReply::dribbled(200, std::string(1048576, 'x'), 1024,
                                       std::chrono::milliseconds(50));
      const std::string type = param(request.query, "type");
      if (type != "fileinfo") {
        std::lock_guard lock(mutex);
        auto scripted = replies.find(type);
        return scripted != replies.end() ? scripted->second
                                         : ScriptedReply(200, R"({"status_code":200})");
      }
      const std::string hash = param(request.query, "uuidhash");
      if (hash.empty())
        return ScriptedReply(200, R"({"status_code":200,"mount_id":3,"root":1,"dir":1,)"
                                  R"("filename":"Docs","uuidhash":""})");
      if (hash == "h") return ScriptedReply(200, record("h", "a.txt", 0, 0));
      if (hash == "d") return ScriptedReply(200, record("d", "Sub", 1, 0));
      if (hash == "t") return ScriptedReply(200, record("t", "old.txt", 0, 7));
      return ScriptedReply(404, R"({"status_code":404,"error_code":2,"error_msg":"no such item"})");
    });
  }
  void TearDown() override { fs::remove_all(dir); }

  ProgramRun halvofp(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVOFP_BIN, "--port", std::to_string(host.port())});
    return runProgram(args, dir);
  }
  void script(std::map<std::string, ScriptedReply> byType) {
    std::lock_guard lock(mutex);
    replies = std::move(byType);
  }
  // The host queries other than lookups since the `from`th, by type.
  std::vector<std::string> callsSince(size_t from) {
    std::vector<std::string> out;
    auto queries = host.queries();
    for (size_t i = from; i < queries.size(); ++i)
      if (param(queries[i], "type") != "fileinfo") out.push_back(param(queries[i], "type"));
    return out;
  }

  fs::path dir;
  LoopbackServer host;
  std::mutex mutex;  // the host's threads read the replies a row scripts
  std::map<std::string, ScriptedReply> replies;
};

TEST_F(CliUsage, BadInputIsRefusedBeforeTheHostIsAsked) {
  const std::string small = (dir / "small.txt").string();
  struct Row {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<Row> rows = {
      {{}, "A subcommand is required"},
      {{"get"}, "ID is required"},
      {{"rename", "3/h"}, "NAME is required"},
      {{"move", "3/h"}, "PARENT is required"},
      {{"restore", "3/t", "3", "extra"}, "was not expected"},
      {{"put", small}, "PARENT is required"},
      {{"mkdir", "3"}, "NAME is required"},
      {{"update", "3/h"}, "FILE is required"},
      {{"rename", "3/h", "a/b"}, "halvofp: rename 3/h: \"a/b\" is not a name"},
      {{"rename", "3/h", ".."}, "halvofp: rename 3/h: \"..\" is not a name"},
      {{"mkdir", "3", ""}, "halvofp: mkdir : \"\" is not a name"},
      {{"put", small, "3", "--name", "x/y"}, "halvofp: put x/y: \"x/y\" is not a name"},
      {{"put", (dir / "missing").string(), "3"},
       "halvofp: put missing: cannot read " + (dir / "missing").string() +
           " (No such file or directory)"},
      {{"put", (dir / "folder").string(), "3"},
       "halvofp: put folder: " + (dir / "folder").string() + " is not a regular file"},
      {{"update", "3/h", (dir / "missing").string()}, "halvofp: update 3/h: cannot read"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    ProgramRun run = halvofp(row.args);
    EXPECT_EQ(run.rc, 2) << run.err;
    EXPECT_NE(run.err.find(row.err), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
  EXPECT_EQ(host.requestCount(), 0u);
}

TEST_F(CliUsage, HelpNamesEveryCommand) {
  ProgramRun run = halvofp({"--help"});
  EXPECT_EQ(run.rc, 0);
  for (const char* command :
       {"ls", "stat", "changes", "watch", "mount", "unmount", "status", "get", "rename", "move",
        "trash", "restore", "forget", "touch", "put", "mkdir", "update"})
    EXPECT_NE(run.out.find("\n  " + std::string(command) + " "), std::string::npos) << command;
}

// Each command's framework call shows in the host queries it leads to: a
// wrong call (a move for a restore, a task for a touch) asks the host
// something else.
TEST_F(CliUsage, EachCommandsCallAndWhatItsFailureReadsLike) {
  const std::string small = (dir / "small.txt").string();
  const std::string local = (dir / "local-copy").string();
  std::ofstream(local, std::ios::binary) << std::string("a\0b\n\xff", 5);
  using Args = std::vector<std::string>;
  using Replies = std::map<std::string, ScriptedReply>;
  struct Row {
    Args args;
    Replies replies;
    int rc;
    std::string out;  // a part of stdout
    std::string err;  // all of stderr
    std::vector<std::string> calls;
  };
  const ScriptedReply refused(200, R"({"status_code":500,"error_code":3,"error_msg":"no"})");
  const std::vector<Row> rows = {
      {Args{"get", "3/nope"}, Replies{}, 1, "",
       "halvofp: get 3/nope: not found (NSCocoaErrorDomain 4610)\n", Args{}},
      {Args{"get", "3/h", "-"},
       Replies{
           {"download", ScriptedReply(200, R"({"status_code":200,"filehash":"abc","filesize":5,)"
                                           R"("fullpath":")" +
                                               local + R"("})")}},
       0, std::string("a\0b\n\xff", 5), "", Args{"download", "updatestatus"}},
      {Args{"rename", "3/h", "b.txt"}, Replies{{"rename", refused}}, 1, "",
       "halvofp: rename 3/h: refused by the host (NSCocoaErrorDomain 513)\n", Args{"rename"}},
      {Args{"move", "3/h", "3/d"},
       Replies{{"remove", ScriptedReply(200, R"({"status_code":200})")}}, 1, "",
       "halvofp: move 3/h: not confirmed by the host (NSCocoaErrorDomain 3328)\n", Args{"remove"}},
      {Args{"trash", "3/h"}, Replies{}, 0,
       "parentItemIdentifier:    NSFileProviderTrashContainerItemIdentifier\n", "",
       Args{"deletefile"}},
      {Args{"restore", "3/t"}, Replies{}, 0, "parentItemIdentifier:    3\n", "",
       Args{"recoverfile"}},
      {Args{"restore", "3/t", "3/d"}, Replies{}, 0, "parentItemIdentifier:    3/d\n", "",
       Args{"recoverfile"}},
      {Args{"restore", "3/h"}, Replies{}, 1, "", "halvofp: restore 3/h: not in the trash\n",
       Args{}},
      {Args{"forget", "3/h"}, Replies{}, 0, "forgot 3/h: the host dropped its sync record", "",
       Args{"deletesyncdb"}},
      {Args{"touch", "3/h"}, Replies{}, 0, "filename:                a.txt\n", "", Args{}},
      {Args{"put", small, "3"},
       Replies{{"create", ScriptedReply(200, R"({"status_code":500,"error_code":40309,)"
                                             R"("error_msg":"no room"})")}},
       1, "",
       "halvofp: put small.txt: the transfer failed: error 40309 \"no room\" "
       "(NSCocoaErrorDomain 5120)\n",
       Args{"create"}},
      {Args{"mkdir", "3/h", "New"}, Replies{}, 1, "", "halvofp: mkdir New: 3/h is not a folder\n",
       Args{}},
      {Args{"get", "3/d"}, Replies{}, 2, "",
       "halvofp: get 3/d: a folder has no contents to fetch\n", Args{}},
      {Args{"update", "3/d", small}, Replies{}, 2, "",
       "halvofp: update 3/d: a folder has no contents to replace\n", Args{}},
      // Asks running mounts, never the host.
      {Args{"status"}, Replies{}, 1, "", "halvofp: no running mount\n", Args{}},
      {Args{"status", (dir / "folder").string(), "--json"}, Replies{}, 1, "",
       "halvofp: " + (dir / "folder").string() + " is not in a running halvofp mount\n", Args{}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    script(row.replies);
    const size_t before = host.queries().size();
    ProgramRun run = halvofp(row.args);
    EXPECT_EQ(run.rc, row.rc);
    EXPECT_NE(run.out.find(row.out), std::string::npos) << run.out;
    EXPECT_EQ(run.err, row.err);
    EXPECT_EQ(callsSince(before), row.calls);
  }
}

TEST_F(CliUsage, CtrlCCancelsAFetchAndLeavesNothingBehind) {
  script(
      {{"download", ScriptedReply(200, R"({"status_code":200,"filehash":"abc","filesize":1048576,)"
                                       R"("uris":[")" +
                                           host.baseUrl() + R"(/blob"]})")}});
  pid_t pid = spawn({HALVOFP_BIN, "--port", std::to_string(host.port()), "get", "3/h",
                     (dir / "out.bin").string()},
                    dir / "get.out", dir / "get.err");
  ASSERT_GT(pid, 0);
  bool transferring = false;
  for (size_t seen = 1; !transferring && host.waitForRequests(seen, std::chrono::seconds(30));
       ++seen)
    transferring = host.requests()[seen - 1].path == "/blob";
  ASSERT_TRUE(transferring) << readFileText(dir / "get.err");
  ::kill(pid, SIGINT);
  EXPECT_EQ(waitExit(pid, std::chrono::seconds(60)), 130);
  EXPECT_EQ(readFileText(dir / "get.err"), "halvofp: get 3/h: cancelled\n");
  EXPECT_FALSE(fs::exists(dir / "out.bin"));
  EXPECT_TRUE(fs::is_empty(dir / "cache" / "halvofp" / "halvo" / "tmp"));
}

}  // namespace
}  // namespace hvfp::test

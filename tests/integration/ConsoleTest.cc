// The halvofp console against the real host app: halvo-hostd with its sample
// cloud on free ports, both run as programs. What a command did is checked
// where it lands: bytes on disk and on stdout against the host's hashes,
// the next listing and change report, and the host's own request log.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "digest/NSDataExpand.h"
#include "records/Json.h"
#include "records/JsonReading.h"
#include "support/ChildProcess.h"

namespace hvfp {
namespace {

namespace fs = std::filesystem;

using test::ProgramRun;
using test::readFileText;

constexpr const char* kTrash = "NSFileProviderTrashContainerItemIdentifier";
constexpr const char* kWorkingSet = "NSFileProviderWorkingSetContainerItemIdentifier";

std::string randomBytes(size_t size) {
  std::mt19937_64 random(size);
  std::string out(size, '\0');
  for (auto& c : out) c = static_cast<char>(random());
  return out;
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 600; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

// One item of the console's --json output.
struct Shown {
  std::string id, name, parent, contentVersion;
  uint64_t size = 0;
};

std::vector<Shown> parseItems(const std::string& lines) {
  std::vector<Shown> items;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);) {
    auto v = objectFromJSONString(line);
    if (!v || !v->find("itemIdentifier")) continue;
    Shown s{std::string(readText(*v, "itemIdentifier").view()),
            std::string(readText(*v, "filename").view()),
            std::string(readText(*v, "parentItemIdentifier").view()), "",
            static_cast<uint64_t>(readInteger(*v, "documentSize"))};
    if (auto* version = v->find("itemVersion"))
      s.contentVersion = std::string(readText(*version, "contentVersion").view());
    items.push_back(s);
  }
  return items;
}

class IntegrationConsole : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::path(::testing::TempDir()) /
           ("console-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(root / "run");
    fs::create_directories(root / "work");
    setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    host = test::spawn(
        {HALVO_HOSTD_BIN, "--root", (root / "store").string(), "--port", "0", "--upload-ports", "0",
         "--download-port", "0", "--admin-port", "0", "--seed", "sample", "--no-bus"},
        root / "hostd.log");
    ASSERT_GT(host, 0);
    ASSERT_TRUE(eventually([&] {
      auto v = objectFromJSONString(readFileText(root / "store" / "hostd.ports.json"));
      if (v && v->find("query")) queryPort = readInteger(*v, "query");
      return queryPort > 0;
    })) << "halvo-hostd did not start; see "
        << (root / "hostd.log");
  }

  void TearDown() override {
    if (host > 0) {
      ::kill(host, SIGTERM);
      test::waitExit(host);
    }
    fs::remove_all(root);
  }

  std::vector<std::string> command(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVOFP_BIN, "--port", std::to_string(queryPort)});
    return args;
  }
  ProgramRun halvofp(std::vector<std::string> args) {
    return test::runProgram(command(std::move(args)), root / "run");
  }
  // The one item a change command printed.
  Shown changed(std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    ProgramRun run = halvofp(args);
    EXPECT_EQ(run.rc, 0) << run.err;
    auto items = parseItems(run.out);
    EXPECT_EQ(items.size(), 1u) << run.out;
    return items.empty() ? Shown{} : items[0];
  }
  std::vector<Shown> list(const std::string& container, const char* how = "ls") {
    std::vector<std::string> args = {"--json", how, container};
    if (std::string(how) == "changes") args.insert(args.end(), {"--anchor", "1"});
    ProgramRun run = halvofp(args);
    EXPECT_EQ(run.rc, 0) << run.err;
    return parseItems(run.out);
  }
  std::optional<Shown> find(const std::vector<Shown>& items, const std::string& name) {
    for (const auto& s : items)
      if (s.name == name) return s;
    return std::nullopt;
  }
  std::string idOf(const std::string& container, const std::string& name) {
    auto item = find(list(container), name);
    return item ? item->id : "";
  }
  std::string fetched(const std::string& id) {
    ProgramRun run = halvofp({"get", id, "-"});
    EXPECT_EQ(run.rc, 0) << run.err;
    return run.out;
  }
  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", (root / "store").string()});
    return test::waitExit(test::spawn(args, root / "ctl.log"));
  }
  size_t hostLines(const std::string& part) {
    std::istringstream in(readFileText(root / "hostd.log"));
    size_t n = 0;
    for (std::string line; std::getline(in, line);) n += line.find(part) != std::string::npos;
    return n;
  }

  fs::path root;
  pid_t host = -1;
  int64_t queryPort = 0;
};

TEST_F(IntegrationConsole, GetDeliversTheHostsExactBytes) {
  const std::string readme = idOf("1", "README.txt"), clip = idOf("3", "clip.mov");
  ASSERT_FALSE(readme.empty());
  ASSERT_FALSE(clip.empty());
  // The host's own copy first, then its download server.
  for (const char* forceUris : {"0", "1"}) {
    ASSERT_EQ(ctl({"force-uris", forceUris}), 0);
    for (const auto& [folder, name, id] :
         {std::tuple{"1", "README.txt", readme}, std::tuple{"3", "clip.mov", clip}}) {
      SCOPED_TRACE(std::string(name) + " force-uris " + forceUris);
      auto listed = find(list(folder), name);
      ASSERT_TRUE(listed);
      const std::string out = fetched(id);
      EXPECT_EQ(out.size(), listed->size);
      EXPECT_NE(listed->contentVersion.find(sha1HexDigest(out)), std::string::npos);

      const fs::path dest = root / "work" / ("copy-" + std::string(forceUris));
      ProgramRun toFile = halvofp({"--json", "get", id, dest.string()});
      ASSERT_EQ(toFile.rc, 0) << toFile.err;
      EXPECT_TRUE(readFileText(dest) == out);
      EXPECT_EQ(parseItems(toFile.out).at(0).id, id);
      ASSERT_EQ(halvofp({"get", id, (root / "work").string()}).rc, 0);
      EXPECT_TRUE(readFileText(root / "work" / name) == out);
    }
  }
}

// Each step's item leaves one place and shows in another, in the listing
// and in the change report the framework would ask for next.
TEST_F(IntegrationConsole, RenameMoveTrashAndRestoreShowInListingsAndChangeReports) {
  const std::string reports = idOf("1", "Reports");
  std::string readme = idOf("1", "README.txt"), notes = idOf("1", "notes.md");
  ASSERT_FALSE(reports.empty());
  struct Step {
    std::vector<std::string> args;
    std::string name;      // as it is now called
    std::string gone;      // the name no longer listed in `from`
    std::string from, to;  // containers
  };
  const std::vector<Step> steps = {
      {{"rename", readme, "READ-ME.txt"}, "READ-ME.txt", "README.txt", "1", "1"},
      {{"move", readme, reports}, "READ-ME.txt", "READ-ME.txt", "1", reports},
      {{"trash", notes}, "notes.md", "notes.md", "1", kTrash},
      {{"restore", notes}, "notes.md", "notes.md", kTrash, "1"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.args[0]);
    Shown item = changed(step.args);
    EXPECT_EQ(item.name, step.name);
    EXPECT_EQ(item.parent, step.to);

    auto now = find(list(step.to), step.name);
    ASSERT_TRUE(now);
    EXPECT_EQ(now->id, item.id);
    EXPECT_FALSE(find(list(step.from), step.gone));

    auto reported = find(list(kWorkingSet, "changes"), step.name);
    ASSERT_TRUE(reported);
    EXPECT_EQ(reported->id, item.id);
    EXPECT_EQ(reported->parent, step.to);
    if (step.to != kTrash) {
      EXPECT_TRUE(find(list(step.to, "changes"), step.name));
    }
  }
}

TEST_F(IntegrationConsole, PutMkdirAndUpdateRoundTripTheBytes) {
  Shown inbox = changed({"mkdir", "1", "Inbox"});
  EXPECT_EQ(inbox.parent, "1");
  ASSERT_TRUE(find(list("1"), "Inbox"));

  struct Row {
    std::string name, parent, bytes;
  };
  const std::vector<Row> rows = {{"small.bin", "1", randomBytes(300 * 1024 + 7)},
                                 {"empty.txt", "1", ""},
                                 {"inside.bin", inbox.id, randomBytes(1500 * 1024)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    writeFile(root / "work" / row.name, row.bytes);
    Shown made = changed({"put", (root / "work" / row.name).string(), row.parent});
    EXPECT_EQ(made.parent, row.parent);
    EXPECT_TRUE(fetched(made.id) == row.bytes);
    auto listed = find(list(row.parent), row.name);
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->size, row.bytes.size());
  }

  const std::string small = idOf("1", "small.bin"), edited = randomBytes(70 * 1024);
  writeFile(root / "work" / "edited", edited);
  Shown updated = changed({"update", small, (root / "work" / "edited").string()});
  EXPECT_EQ(updated.id, small);
  EXPECT_TRUE(fetched(small) == edited);
  EXPECT_EQ(find(list("1"), "small.bin")->size, edited.size());

  // Contents the cloud holds already: announced, never sent.
  const size_t creates = hostLines("type=create "), inits = hostLines("type=uploadinit "),
               pieces = hostLines("PUT /upload_part");
  Shown copy = changed({"put", (root / "work" / "edited").string(), "1", "--name", "copy.bin"});
  EXPECT_NE(copy.id, small);
  EXPECT_TRUE(fetched(copy.id) == edited);
  EXPECT_EQ(hostLines("type=create "), creates + 1);
  EXPECT_EQ(hostLines("type=uploadinit "), inits);
  EXPECT_EQ(hostLines("PUT /upload_part"), pieces);
}

TEST_F(IntegrationConsole, CtrlCDuringPutAbandonsTheUploadSession) {
  writeFile(root / "work" / "big.bin", randomBytes(3 * 1048576));
  ASSERT_EQ(ctl({"fault", "--target", "piece", "--kind", "slow", "--delay", "200", "--chunk",
                 "20000", "--count", "-1"}),
            0);
  pid_t put = test::spawn(command({"put", (root / "work" / "big.bin").string(), "1"}),
                          root / "put.out", root / "put.err");
  ASSERT_GT(put, 0);
  ASSERT_TRUE(eventually([&] { return hostLines("type=uploadreq ") > 0; }))
      << readFileText(root / "put.err");
  ::kill(put, SIGINT);
  EXPECT_EQ(test::waitExit(put, std::chrono::seconds(60)), 130);
  const std::string said = readFileText(root / "put.err");
  EXPECT_NE(said.find("halvofp: put big.bin: cancelled\n"), std::string::npos) << said;
  // The console ends only after the session was abandoned.
  EXPECT_EQ(hostLines("type=uploadabort "), 1u) << readFileText(root / "hostd.log");
  ASSERT_EQ(ctl({"clear-faults"}), 0);
  EXPECT_FALSE(find(list("1"), "big.bin"));
}

}  // namespace
}  // namespace hvfp

// The real halvo-hostd binary as a child process: restart safety after
// kill -9, the loopback-only rule, and ctl against a running host.
#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "Ctl.h"
#include "Digest.h"
#include "HostdFixture.h"
#include "support/ChildProcess.h"

namespace hvfp::hostd::test {
namespace {

using ::hvfp::test::spawn;
using ::hvfp::test::unusedLoopbackPort;

// Bounded, so that a hung halvo-hostd fails its test instead of the run.
int waitExit(pid_t pid) { return ::hvfp::test::waitExit(pid, std::chrono::seconds(10)); }

// The ports the running host published, once it has.
std::optional<JsonValue> readPorts(const std::filesystem::path& root) {
  std::ifstream f(root / kPortsFile);
  std::stringstream ss;
  ss << f.rdbuf();
  return objectFromJSONString(ss.str());
}

class HostdProcess : public ::testing::Test {
 protected:
  void TearDown() override { kill9(); }
  // Starts the binary and waits (bounded) for its ports file.
  bool start(const std::vector<std::string>& extra) {
    std::error_code ec;
    std::filesystem::remove(root_.path() / kPortsFile, ec);
    std::vector<std::string> args{
        HALVO_HOSTD_BIN,   "--root", root_.path().string(), "--port", "0",
        "--download-port", "0",      "--admin-port",        "0",      "--no-bus",
        "--quiet"};
    args.insert(args.end(), extra.begin(), extra.end());
    pid_ = spawn(args, root_.path() / "hostd.log");
    for (int i = 0; i < 200; ++i) {
      if (auto v = readPorts(root_.path())) {
        client_ = std::make_unique<httplib::Client>("127.0.0.1", int(intOf(*v, "query")));
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  void kill9() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
  }
  JsonValue query(const std::string& q) { return getJson(*client_, "/provider?" + q); }
  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", root_.path().string()});
    return waitExit(spawn(args, root_.path() / "ctl.log"));
  }

  TempRoot root_;
  pid_t pid_ = -1;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(HostdProcess, AcknowledgedChangesSurviveKill9) {
  int uploadPort = unusedLoopbackPort();
  std::vector<std::string> ports{"--upload-ports", std::to_string(uploadPort)};
  ASSERT_TRUE(start(ports));
  EXPECT_EQ(intOf(query(createQuery("Kept")), "status_code"), 404);  // no mount 1 yet
  ASSERT_EQ(ctl({"add-mount", "--name", "Mine"}), 0);
  auto folder = query(createQuery("Kept"));
  ASSERT_EQ(intOf(folder, "status_code"), 200);
  std::string data(5000, 'z'), server = "http://127.0.0.1:" + std::to_string(uploadPort);
  auto file = query(createQuery("Kept/half.bin", sha1Hex(data), 5000));
  auto init = query(
      "type=uploadinit&host=" + enc(server) + "&filename=half.bin&pathhash=" + strOf(file, "hash") +
      "&filehash=" + sha1Hex(data) + "&storagepoint=x&cookie=&filesize=5000&mount_id=1");
  std::string session = strOf(init, "session");
  auto put = [&](size_t first, size_t last) {
    httplib::Headers range{
        {"x-tb-upload-session", session},
        {"x-tb-upload-range", std::to_string(first) + "-" + std::to_string(last)}};
    auto res = httplib::Client("127.0.0.1", uploadPort)
                   .Put("/upload_part", range, data.substr(first, last + 1 - first),
                        "application/octet-stream");
    return res ? res->status : 0;
  };
  ASSERT_EQ(put(0, 1999), 200);
  auto gone = query(createQuery("Gone"));
  ASSERT_EQ(intOf(query("type=deletefile&uuidhash=" + strOf(gone, "hash") + "&mount_id=1"),
                  "status_code"),
            200);

  kill9();
  ASSERT_TRUE(start(ports));
  auto info = query("type=fileinfo&uuidhash=" + strOf(folder, "hash") + "&mount_id=1");
  EXPECT_EQ(strOf(info, "filename"), "Kept");
  EXPECT_EQ(intOf(query("type=fileinfo&uuidhash=" + strOf(gone, "hash") + "&mount_id=1"), "status"),
            7);
  auto steps = "&host=" + enc(server) + "&session=" + session + "&cookie=";
  EXPECT_EQ(intOf(query("type=uploadreq" + steps), "offset"), 2000);
  EXPECT_EQ(put(2000, 4999), 200);
  EXPECT_EQ(intOf(query("type=uploadfinish" + steps + "&filesize=5000"), "status_code"), 200);
}

TEST_F(HostdProcess, SeedAndCtlCommandsChangeTheCloud) {
  ASSERT_TRUE(start({"--seed", "sample", "--upload-ports", "0"}));
  EXPECT_EQ(listOf(query("type=links")).size(), 3u);
  const std::pair<std::vector<std::string>, int> commands[] = {
      {{"add-folder", "--mount", "3", "--name", "Albums"}, 0},
      {{"add-file", "--mount", "3", "--parent-path", "Albums", "--name", "x.jpg", "--size", "3000"},
       0},
      {{"rename", "--mount", "3", "--path", "Albums/x.jpg", "--name", "y.jpg"}, 0},
      {{"move", "--mount", "3", "--path", "Albums/y.jpg", "--to-path", "2024"}, 0},
      {{"trash", "--mount", "3", "--path", "2024/y.jpg"}, 0},
      {{"restore", "--mount", "3", "--path", "2024/y.jpg"}, 0},
      {{"write", "--mount", "3", "--path", "2024/y.jpg", "--text", "tiny"}, 0},
      {{"delete", "--mount", "3", "--path", "Albums"}, 0},
      {{"rename", "--mount", "3", "--path", "nope", "--name", "z"}, 1},
      {{"fault", "--target", "blob", "--kind", "cut", "--after", "5", "--count", "-1"}, 0},
      {{"fault", "--target", "piece", "--kind", "explode"}, 1},
      {{"clear-faults"}, 0},
      {{"sync-log"}, 0},
  };
  for (const auto& [args, exit] : commands) EXPECT_EQ(ctl(args), exit) << args[0];
  ASSERT_EQ(ctl({"fault", "--help"}), 0);
  std::ifstream help(root_.path() / "ctl.log");
  std::string text(std::istreambuf_iterator<char>(help), {});
  for (const char* word : {"piece@PORT", "cut", "slow", "--after", "--chunk"})
    EXPECT_NE(text.find(word), std::string::npos) << word;
  bool found = false;
  for (auto& e : listOf(query("type=changefiles&lasttime=0")))
    if (strOf(e, "webpath") == "2024/y.jpg") found = intOf(e, "filesize") == 4;
  EXPECT_TRUE(found);
  ASSERT_EQ(ctl({"move-port", "0"}), 0);
  auto ports = readPorts(root_.path());
  ASSERT_TRUE(ports);
  auto res = httplib::Client("127.0.0.1", int(intOf(*ports, "query"))).Get("/provider?type=links");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_FALSE(client_->Get("/provider?type=links"));  // the old port is closed
}

TEST_F(HostdProcess, NonLoopbackBindIsRefusedWithExitCode2AndCtlWithoutAHostFails) {
  auto log = root_.path() / "bind.log";
  pid_t pid = spawn(
      {HALVO_HOSTD_BIN, "--root", root_.path().string(), "--bind", "0.0.0.0", "--no-bus"}, log);
  EXPECT_EQ(waitExit(pid), 2);
  std::ifstream f(log);
  EXPECT_NE(std::string(std::istreambuf_iterator<char>(f), {}).find("loopback"), std::string::npos);
  EXPECT_EQ(ctl({"status"}), 2);
}

}  // namespace
}  // namespace hvfp::hostd::test

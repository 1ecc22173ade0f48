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

class HostdProcess : public ::testing::Test {
 protected:
  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  // Starts the binary and waits (bounded) for its ports file.
  bool start(const std::vector<std::string>& extra) {
    std::error_code ec;
    std::filesystem::remove(root_.path() / kPortsFile, ec);
    std::vector<std::string> args{HALVO_HOSTD_BIN, "--root", root_.path().string(), "--port", "0",
                                  "--download-port", "0", "--admin-port", "0", "--no-bus", "--quiet"};
    args.insert(args.end(), extra.begin(), extra.end());
    pid_ = spawn(args, root_.path() / "hostd.log");
    for (int i = 0; i < 200; ++i) {
      std::ifstream f(root_.path() / kPortsFile);
      std::stringstream ss;
      ss << f.rdbuf();
      if (auto v = objectFromJSONString(ss.str())) {
        client_ = std::make_unique<httplib::Client>("127.0.0.1", static_cast<int>(intOf(*v, "query")));
        adminPort_ = static_cast<int>(intOf(*v, "admin"));
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  void kill9() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  JsonValue query(const std::string& q) {
    auto res = client_->Get(("/provider?" + q).c_str());
    auto v = res ? objectFromJSONString(res->body) : std::nullopt;
    return v ? *v : JsonValue();
  }
  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", root_.path().string()});
    return waitExit(spawn(args, root_.path() / "ctl.log"));
  }

  TempRoot root_;
  pid_t pid_ = -1;
  int adminPort_ = 0;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(HostdProcess, AcknowledgedChangesSurviveKill9) {
  int uploadPort = unusedLoopbackPort();
  std::vector<std::string> ports{"--upload-ports", std::to_string(uploadPort)};
  ASSERT_TRUE(start(ports));
  auto folder = query("type=create&webpath=Kept&filehash=&filesize=0&createtime=1&lasttime=2&mount_id=1&dir=1");
  EXPECT_EQ(intOf(folder, "status_code"), 404);  // an empty store has no mount 1 yet
  ASSERT_EQ(ctl({"add-mount", "--name", "Mine"}), 0);
  folder = query("type=create&webpath=Kept&filehash=&filesize=0&createtime=1&lasttime=2&mount_id=1&dir=1");
  ASSERT_EQ(intOf(folder, "status_code"), 200);
  std::string data(5000, 'z');
  auto file = query("type=create&webpath=Kept%2Fhalf.bin&filehash=" + sha1Hex(data) +
                    "&filesize=5000&createtime=1&lasttime=2&mount_id=1&dir=0");
  std::string server = "http://127.0.0.1:" + std::to_string(uploadPort);
  auto init = query("type=uploadinit&host=" + enc(server) + "&filename=half.bin&pathhash=" + strOf(file, "hash") +
                    "&filehash=" + sha1Hex(data) + "&storagepoint=x&cookie=&filesize=5000&mount_id=1");
  std::string session = strOf(init, "session");
  httplib::Client up("127.0.0.1", uploadPort);
  auto piece = up.Put("/upload_part", {{"x-tb-upload-session", session}, {"x-tb-upload-range", "0-1999"}},
                      data.substr(0, 2000), "application/octet-stream");
  ASSERT_TRUE(piece);
  ASSERT_EQ(piece->status, 200);
  auto gone = query("type=create&webpath=Gone&filehash=&filesize=0&createtime=1&lasttime=2&mount_id=1&dir=1");
  ASSERT_EQ(intOf(query("type=deletefile&uuidhash=" + strOf(gone, "hash") + "&mount_id=1"), "status_code"), 200);

  kill9();
  ASSERT_TRUE(start(ports));
  auto info = query("type=fileinfo&uuidhash=" + strOf(folder, "hash") + "&mount_id=1");
  EXPECT_EQ(intOf(info, "status_code"), 200);
  EXPECT_EQ(strOf(info, "filename"), "Kept");
  EXPECT_EQ(intOf(query("type=fileinfo&uuidhash=" + strOf(gone, "hash") + "&mount_id=1"), "status"), 7);
  auto resumed = query("type=uploadreq&host=" + enc(server) + "&session=" + session + "&cookie=");
  EXPECT_EQ(intOf(resumed, "offset"), 2000);
  httplib::Client up2("127.0.0.1", uploadPort);
  auto rest = up2.Put("/upload_part", {{"x-tb-upload-session", session}, {"x-tb-upload-range", "2000-4999"}},
                      data.substr(2000), "application/octet-stream");
  ASSERT_TRUE(rest);
  EXPECT_EQ(rest->status, 200);
  auto done = query("type=uploadfinish&host=" + enc(server) + "&session=" + session + "&cookie=&filesize=5000");
  EXPECT_EQ(intOf(done, "status_code"), 200);
}

TEST_F(HostdProcess, SeedAndCtlCommandsChangeTheCloud) {
  ASSERT_TRUE(start({"--seed", "sample", "--upload-ports", "0"}));
  EXPECT_EQ(listOf(query("type=links")).size(), 3u);
  EXPECT_EQ(ctl({"add-folder", "--mount", "3", "--name", "Albums"}), 0);
  EXPECT_EQ(ctl({"add-file", "--mount", "3", "--parent-path", "Albums", "--name", "x.jpg", "--size", "3000"}), 0);
  EXPECT_EQ(ctl({"rename", "--mount", "3", "--path", "Albums/x.jpg", "--name", "y.jpg"}), 0);
  EXPECT_EQ(ctl({"move", "--mount", "3", "--path", "Albums/y.jpg", "--to-path", "2024"}), 0);
  EXPECT_EQ(ctl({"trash", "--mount", "3", "--path", "2024/y.jpg"}), 0);
  EXPECT_EQ(ctl({"restore", "--mount", "3", "--path", "2024/y.jpg"}), 0);
  EXPECT_EQ(ctl({"write", "--mount", "3", "--path", "2024/y.jpg", "--text", "tiny"}), 0);
  EXPECT_EQ(ctl({"delete", "--mount", "3", "--path", "Albums"}), 0);
  EXPECT_EQ(ctl({"rename", "--mount", "3", "--path", "nope", "--name", "z"}), 1);
  bool found = false;
  for (auto& e : listOf(query("type=changefiles&lasttime=0")))
    if (strOf(e, "webpath") == "2024/y.jpg") found = intOf(e, "filesize") == 4;
  EXPECT_TRUE(found);
  ASSERT_EQ(ctl({"move-port", "0"}), 0);
  std::ifstream f(root_.path() / kPortsFile);
  std::stringstream ss;
  ss << f.rdbuf();
  auto ports = objectFromJSONString(ss.str());
  ASSERT_TRUE(ports);
  httplib::Client moved("127.0.0.1", static_cast<int>(intOf(*ports, "query")));
  auto res = moved.Get("/provider?type=links");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_FALSE(client_->Get("/provider?type=links"));  // the old port is closed
}

TEST_F(HostdProcess, NonLoopbackBindIsRefusedWithExitCode2) {
  auto log = root_.path() / "bind.log";
  pid_t pid = spawn({HALVO_HOSTD_BIN, "--root", root_.path().string(), "--bind", "0.0.0.0", "--no-bus"}, log);
  EXPECT_EQ(waitExit(pid), 2);
  std::ifstream f(log);
  std::string text((std::istreambuf_iterator<char>(f)), {});
  EXPECT_NE(text.find("loopback"), std::string::npos);
}

TEST_F(HostdProcess, CtlWithoutAHostFailsClearly) {
  EXPECT_EQ(ctl({"status"}), 2);
}

}  // namespace
}  // namespace hvfp::hostd::test

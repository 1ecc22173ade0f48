// Host events on a private session bus: ctl changes announce the changed
// folders (type 2); a port move announces the new port (type 1). The
// provider's own requests announce nothing.
#include <condition_variable>
#include <mutex>

#include "HostdFixture.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"
#include "platform/ipc/MessagePort.h"
#include "support/PrivateBus.h"

namespace hvfp::hostd::test {
namespace {

class HostdEvents : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!hvfp::test::PrivateBus::available()) GTEST_SKIP() << "no dbus-daemon";
    bus_ = std::make_unique<hvfp::test::PrivateBus>();
    ASSERT_TRUE(bus_->ok()) << bus_->error();
    listener_ = HostEventListener::start([this](const std::optional<std::string>& text) {
      std::lock_guard lock(mutex_);
      if (text) events_.push_back(*text);
      cv_.notify_all();
    });
    ASSERT_TRUE(listener_);
    HostConfig c;
    c.root = root_.path();
    c.port = c.downloadPort = c.adminPort = 0;
    c.uploadPorts = {0};
    c.quiet = true;
    c.seed = "sample";
    host_ = std::make_unique<Host>(c);
    std::string why;
    ASSERT_TRUE(host_->start(&why)) << why;
  }
  void TearDown() override {
    if (host_) host_->stop();
    host_.reset();
    listener_.reset();
    bus_.reset();
  }
  // The next event, waiting at most 5 s.
  std::optional<JsonValue> nextEvent() {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, std::chrono::seconds(5), [&] { return !events_.empty(); })) return std::nullopt;
    auto text = events_.front();
    events_.erase(events_.begin());
    return objectFromJSONString(text);
  }
  Reply ctl(const std::string& cmd, Params p) { return host_->control(cmd, p); }

  TempRoot root_;
  std::unique_ptr<hvfp::test::PrivateBus> bus_;
  std::unique_ptr<HostEventListener> listener_;
  std::unique_ptr<Host> host_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> events_;
};

TEST_F(HostdEvents, CtlChangesAnnounceTheChangedFolder) {
  auto reports = host_->store().itemAt(1, "Reports");
  ASSERT_TRUE(reports);
  ctl("add-file", {{"mount", "1"}, {"parent-path", "Reports"}, {"name", "n.txt"}, {"text", "hi"}});
  auto e = nextEvent();
  ASSERT_TRUE(e);
  EXPECT_EQ(intOf(*e, "type"), 2);
  EXPECT_EQ(intOf(*e, "mountid"), 1);
  EXPECT_EQ(strOf(*e, "hash"), reports->uuid);
  ctl("move", {{"mount", "1"}, {"path", "Reports/n.txt"}, {"to-path", ""}});
  auto from = nextEvent(), to = nextEvent();
  ASSERT_TRUE(from && to);
  EXPECT_EQ(strOf(*from, "hash"), reports->uuid);
  EXPECT_EQ(strOf(*to, "hash"), "");
  ctl("add-mount", {{"name", "More"}});
  auto top = nextEvent();
  ASSERT_TRUE(top);
  EXPECT_EQ(intOf(*top, "mountid"), 0);
}

TEST_F(HostdEvents, PortMoveAnnouncesTheNewPort) {
  auto r = ctl("move-port", {{"port", "0"}});
  ASSERT_EQ(r.status, 200);
  auto e = nextEvent();
  ASSERT_TRUE(e);
  EXPECT_EQ(intOf(*e, "type"), 1);
  EXPECT_EQ(intOf(*e, "port"), host_->queryPort());
}

TEST_F(HostdEvents, MessagePortAnswersEveryNotice) {
  auto remote = MessagePortRemote::create(dbus::kPortName);
  ASSERT_TRUE(remote);
  auto reply = remote->sendRequest(5, R"({"path":"a"})", 1.0, 10.0);
  ASSERT_TRUE(reply);
  auto v = objectFromJSONString(*reply);
  ASSERT_TRUE(v);
  EXPECT_EQ(intOf(*v, "status_code"), 200);
}

}  // namespace
}  // namespace hvfp::hostd::test

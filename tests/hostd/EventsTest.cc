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

class HostdEvents : public HostFixture {
 protected:
  void SetUp() override {
    if (!hvfp::test::PrivateBus::available()) GTEST_SKIP() << "no dbus-daemon";
    bus_ = std::make_unique<hvfp::test::PrivateBus>();
    ASSERT_TRUE(bus_->ok()) << bus_->error();
    auto listener = HostEventListener::listen([this](const std::optional<std::string>& text) {
      std::lock_guard lock(mutex_);
      if (text) events_.push_back(*text);
      cv_.notify_all();
    });
    ASSERT_TRUE(listener) << listener.failure().message;
    listener_ = std::move(*listener);
    HostFixture::SetUp();
  }
  void configure(HostConfig& c) override { c.useBus = true; }
  void TearDown() override {
    HostFixture::TearDown();
    host_.reset();  // before the bus it is on goes away
  }
  // The next event, waiting at most 5 s.
  std::optional<JsonValue> nextEvent() {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, std::chrono::seconds(5), [&] { return !events_.empty(); }))
      return std::nullopt;
    auto text = events_.front();
    events_.erase(events_.begin());
    return objectFromJSONString(text);
  }

  std::unique_ptr<hvfp::test::PrivateBus> bus_;
  std::unique_ptr<HostEventListener> listener_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> events_;
};

TEST_F(HostdEvents, CtlChangesAnnounceTheChangedFolder) {
  std::string reports = strOf(child(1, "", "Reports"), "uuidhash");
  ctl("add-file", "mount=1&parent-path=Reports&name=n.txt&text=hi");
  auto e = nextEvent();
  ASSERT_TRUE(e);
  EXPECT_EQ(intOf(*e, "type"), 2);
  EXPECT_EQ(intOf(*e, "mountid"), 1);
  EXPECT_EQ(strOf(*e, "hash"), reports);
  ctl("move", "mount=1&path=Reports%2Fn.txt&to-path=");
  auto from = nextEvent(), to = nextEvent();
  ASSERT_TRUE(from && to);
  EXPECT_EQ(strOf(*from, "hash"), reports);
  EXPECT_EQ(strOf(*to, "hash"), "");
  ctl("add-mount", "name=More");
  auto top = nextEvent();
  ASSERT_TRUE(top);
  EXPECT_EQ(intOf(*top, "mountid"), 0);
}

TEST_F(HostdEvents, PortMoveAnnouncesTheNewPortAndTheMessagePortAnswers) {
  ctl("move-port", "port=0");
  auto e = nextEvent();
  ASSERT_TRUE(e);
  EXPECT_EQ(intOf(*e, "type"), 1);
  EXPECT_EQ(intOf(*e, "port"), host_->queryPort());

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

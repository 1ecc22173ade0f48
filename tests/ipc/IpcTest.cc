// The ipc endpoints on a private bus per test (set as the session bus for the
// test's duration), and without any bus at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"
#include "platform/ipc/MessagePort.h"
#include "support/PrivateBus.h"

namespace hvfp {
namespace {

class BusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon is not on PATH";
    bus_.emplace();
    ASSERT_TRUE(bus_->ok()) << bus_->error();
    start();
  }
  virtual void start() {}  // the endpoints a test group shares, once the bus is up

  std::optional<test::PrivateBus> bus_;
};

// The endpoint, or a failure of the test saying why there is none.
template <typename T>
std::unique_ptr<T> take(Result<std::unique_ptr<T>> endpoint) {
  EXPECT_TRUE(endpoint) << endpoint.failure().message;
  return endpoint ? std::move(*endpoint) : nullptr;
}

// Collects what a callback is given on another thread; waitFor() returns once
// `count` entries arrived. The limit only turns a lost entry into a failed
// comparison instead of a hang.
template <typename T>
class Log {
 public:
  void add(T entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    changed_.notify_all();
  }
  auto callback() {
    return [this](const T& entry) { add(entry); };
  }
  std::vector<T> waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return entries_.size() >= count; });
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> entries_;
};

using Events = std::vector<std::optional<std::string>>;
using EventLog = Log<std::optional<std::string>>;

// A listener logging into log_, and an emitter.
class IpcHostEvents : public BusTest {
 protected:
  void start() override {
    listener_ = take(HostEventListener::listen(log_.callback()));
    emitter_ = take(HostEventEmitter::open());
    ASSERT_TRUE(listener_ && emitter_);
  }

  EventLog log_;
  std::unique_ptr<HostEventListener> listener_;
  std::unique_ptr<HostEventEmitter> emitter_;
};

TEST_F(IpcHostEvents, EveryListenerGetsEachEventsExactTextInOrder) {
  EventLog second;
  auto listener2 = take(HostEventListener::listen(second.callback()));
  ASSERT_TRUE(listener2);

  // Text the bus cannot carry is refused without spoiling the emitter.
  EXPECT_FALSE(emitter_->emit("bad \xff\xfe utf-8"));
  EXPECT_FALSE(emitter_->emit(std::string("nul\0inside", 10)));
  Events sent = {
      std::string(R"({"type":1,"port":8123})"),
      std::string(""),
      std::string(R"({"name":"Gr\u00fc\u00dfe \/ 日本語 ✓","q":"a\"b\\c"})"),
      std::string("line one\nline two\ttab"),
      std::string(20000, 'x'),
  };
  for (int i = 0; i < 30; ++i) sent.push_back(R"({"seq":)" + std::to_string(i) + "}");
  for (const auto& text : sent) ASSERT_TRUE(emitter_->emit(*text));

  EXPECT_EQ(log_.waitFor(sent.size()), sent);
  EXPECT_EQ(second.waitFor(sent.size()), sent);
}

TEST_F(IpcHostEvents, SignalWithoutExactlyOneTextArrivesAsNoObject) {
  sd_bus* r = nullptr;  // a connection of the test's own, to send what the emitter cannot
  ASSERT_GE(sd_bus_open_user(&r), 0);
  std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> closer(r, sd_bus_flush_close_unref);
  using namespace dbus;
  auto text = [&](const char* path, const char* interface, const char* member, const char* s) {
    return sd_bus_emit_signal(r, path, interface, member, "s", s);
  };
  ASSERT_GE(sd_bus_emit_signal(r, kEventPath, kEventInterface, kEventMember, "i", 42), 0);
  ASSERT_GE(sd_bus_emit_signal(r, kEventPath, kEventInterface, kEventMember, "ss", "a", "b"), 0);
  ASSERT_GE(sd_bus_emit_signal(r, kEventPath, kEventInterface, kEventMember, ""), 0);
  // Same member on another path or interface, or another member: not a host event at all.
  ASSERT_GE(text("/elsewhere", kEventInterface, kEventMember, "p"), 0);
  ASSERT_GE(text(kEventPath, "org.example.Other", kEventMember, "i"), 0);
  ASSERT_GE(text(kEventPath, kEventInterface, "OtherEvent", "m"), 0);
  ASSERT_GE(text(kEventPath, kEventInterface, kEventMember, "last"), 0);
  ASSERT_GE(sd_bus_flush(r), 0);

  Events expected = {std::nullopt, std::nullopt, std::nullopt, std::string("last")};
  EXPECT_EQ(log_.waitFor(expected.size()), expected);
}

TEST_F(IpcHostEvents, ConcurrentEmitsAllArriveInEachSendersOrder) {
  constexpr int kThreads = 4, kEach = 50;
  std::atomic<int> failures{0};
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kEach; ++i)
          if (!emitter_->emit(std::to_string(t) + ":" + std::to_string(i))) ++failures;
      });
    }
  }
  ASSERT_EQ(failures.load(), 0);

  Events got = log_.waitFor(kThreads * kEach);
  ASSERT_EQ(got.size(), size_t(kThreads * kEach));
  std::vector<int> next(kThreads, 0);
  for (const auto& event : got) {
    ASSERT_TRUE(event);
    int t = std::stoi(event->substr(0, event->find(':')));
    EXPECT_EQ(std::stoi(event->substr(event->find(':') + 1)), next[t]++) << "sender " << t;
  }
}

TEST_F(IpcHostEvents, ListenerStopsWhetherIdleOrBusy) {
  listener_.reset();  // idle: must return without any event arriving to wake the thread

  std::jthread sender([&](std::stop_token stop) {
    while (!stop.stop_requested()) emitter_->emit("busy");
  });
  for (int round = 0; round < 3; ++round) {
    EventLog busy;
    auto listener = take(HostEventListener::listen(busy.callback()));
    ASSERT_TRUE(listener);
    EXPECT_THAT(busy.waitFor(3), ::testing::SizeIs(::testing::Ge(3u)));
  }  // destroyed mid-stream; the callback's log dies right after
}

using Request = std::pair<int32_t, std::string>;
using Reply = std::optional<std::string>;

std::string echoReply(int32_t msgid, const std::string& data) {
  return data == "empty reply" ? std::string() : std::to_string(msgid) + ":" + data;
}

// A server on the port name that logs each request and echoes it; "slow" is
// held until release() so that the caller gives up first.
class IpcMessagePort : public BusTest {
 protected:
  void start() override {
    server_ = take(MessagePortServer::start(dbus::kPortName, handler()));
    ASSERT_TRUE(server_);
    remote_ = MessagePortRemote::create(dbus::kPortName);
    ASSERT_TRUE(remote_);
  }
  void TearDown() override { release(); }  // before the server joins its thread

  MessagePortServer::Handler handler() {
    return [this](int32_t msgid, const std::string& data) {
      log_.add({msgid, data});
      if (data == "slow") released_.wait(false);
      return echoReply(msgid, data);
    };
  }
  void release() {
    released_ = true;
    released_.notify_all();
  }

  std::atomic<bool> released_{false};
  Log<Request> log_;
  std::unique_ptr<MessagePortServer> server_;
  std::unique_ptr<MessagePortRemote> remote_;
};

TEST_F(IpcMessagePort, RequestReachesTheHandlerExactlyAndItsReplyComesBack) {
  std::string large(300000, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = char(i * 7 + 3);
  std::vector<Request> sent = {
      {1, "hello"},
      {-7, ""},
      {std::numeric_limits<int32_t>::max(), std::string("bin\0\xff\x80\x01", 7)},
      {std::numeric_limits<int32_t>::min(), "Grüße, 日本語 ✓"},
      {42, large},
      {5, "empty reply"},
  };
  for (const auto& [msgid, data] : sent) {
    SCOPED_TRACE(msgid);
    EXPECT_EQ(remote_->sendRequest(msgid, data, 5, 5), Reply(echoReply(msgid, data)));
  }
  EXPECT_EQ(log_.waitFor(0), sent);
}

TEST_F(IpcMessagePort, RemoteExistsOnlyWhileTheNameHasAnOwner) {
  EXPECT_FALSE(MessagePortRemote::create("org.example.nobody"));
  server_.reset();  // idle: must return without a request to wake its thread
  EXPECT_FALSE(MessagePortRemote::create(dbus::kPortName));
  EXPECT_EQ(remote_->sendRequest(1, "anyone?", 5, 5), std::nullopt);

  // The name is free as soon as the old server is gone.
  server_ = take(MessagePortServer::start(dbus::kPortName, echoReply));
  ASSERT_TRUE(server_);
  EXPECT_EQ(remote_->sendRequest(2, "back", 5, 5), Reply("2:back"));
}

TEST_F(IpcMessagePort, SecondServerForATakenNameIsRefused) {
  bool secondCalled = false;
  auto wrong = [&](int32_t, const std::string&) {
    secondCalled = true;
    return std::string();
  };
  auto second = MessagePortServer::start(dbus::kPortName, wrong);
  EXPECT_FALSE(second);
  EXPECT_NE(second.failure().message, "");
  EXPECT_EQ(remote_->sendRequest(3, "still", 5, 5), Reply("3:still"));
  EXPECT_FALSE(secondCalled);
}

TEST_F(IpcMessagePort, HandlerSlowerThanTheTimeOutGivesNoReplyAndThePortRecovers) {
  EXPECT_EQ(remote_->sendRequest(1, "slow", 0.2, 0.3), std::nullopt);
  release();
  // The late reply to the first call must not be taken for this one's.
  EXPECT_EQ(remote_->sendRequest(2, "next", 5, 5), Reply("2:next"));
  EXPECT_EQ(remote_->sendRequest(3, "again", 5, 5), Reply("3:again"));
}

// The session bus address names a socket that does not exist, in a directory
// of the test's own, so no bus on the machine is reached.
TEST(IpcNoBus, EveryEndpointIsEmptyWithAReason) {
  const char* old = getenv("DBUS_SESSION_BUS_ADDRESS");
  std::optional<std::string> previous = old ? std::optional<std::string>(old) : std::nullopt;
  char dir[] = "/tmp/hvfp-nobus-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + std::string(dir) + "/missing").c_str(), 1);

  bool called = false;
  auto listener = HostEventListener::listen([&](const auto&) { called = true; });
  auto emitter = HostEventEmitter::open();
  auto server = MessagePortServer::start(dbus::kPortName, echoReply);
  EXPECT_FALSE(listener || emitter || server);
  for (const auto* failure : {&listener.failure(), &emitter.failure(), &server.failure()})
    EXPECT_NE(failure->message, "");
  EXPECT_FALSE(MessagePortRemote::create(dbus::kPortName));
  EXPECT_FALSE(called);

  if (previous) {
    setenv("DBUS_SESSION_BUS_ADDRESS", previous->c_str(), 1);
  } else {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace hvfp

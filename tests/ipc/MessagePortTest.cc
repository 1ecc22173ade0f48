#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BusFixture.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/MessagePort.h"

namespace hvfp {
namespace {

using Request = std::pair<int32_t, std::string>;

// What the server's handler was given, written on the server thread.
class RequestLog {
 public:
  void add(int32_t msgid, const std::string& data) {
    std::lock_guard lock(mutex_);
    requests_.emplace_back(msgid, data);
  }
  std::vector<Request> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  std::mutex mutex_;
  std::vector<Request> requests_;
};

// Lets a test hold the handler until the caller has given up.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

std::string echoReply(int32_t msgid, const std::string& data) {
  return data == "empty reply" ? std::string() : std::to_string(msgid) + ":" + data;
}

using IpcMessagePort = test::BusTest;

TEST_F(IpcMessagePort, RequestReachesTheHandlerExactlyAndItsReplyComesBack) {
  RequestLog log;
  std::string why;
  auto server = MessagePortServer::start(
      dbus::kPortName,
      [&](int32_t msgid, const std::string& data) {
        log.add(msgid, data);
        return echoReply(msgid, data);
      },
      &why);
  ASSERT_TRUE(server) << why;
  auto remote = MessagePortRemote::create(dbus::kPortName);
  ASSERT_TRUE(remote);

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
    auto reply = remote->sendRequest(msgid, data, 5, 5);
    ASSERT_TRUE(reply) << "msgid " << msgid;
    EXPECT_EQ(*reply, echoReply(msgid, data)) << "msgid " << msgid;
  }
  EXPECT_EQ(log.requests(), sent);
}

TEST_F(IpcMessagePort, RemoteExistsOnlyWhileTheNameHasAnOwner) {
  EXPECT_FALSE(MessagePortRemote::create(dbus::kPortName));

  std::string why;
  auto server = MessagePortServer::start(dbus::kPortName, echoReply, &why);
  ASSERT_TRUE(server) << why;
  auto remote = MessagePortRemote::create(dbus::kPortName);
  ASSERT_TRUE(remote);
  EXPECT_FALSE(MessagePortRemote::create("org.example.nobody"));

  server.reset();  // idle: must return without a request to wake its thread
  EXPECT_FALSE(MessagePortRemote::create(dbus::kPortName));
  EXPECT_EQ(remote->sendRequest(1, "anyone?", 5, 5), std::nullopt);

  // The name is free as soon as the old server is gone.
  server = MessagePortServer::start(dbus::kPortName, echoReply, &why);
  ASSERT_TRUE(server) << why;
  EXPECT_EQ(remote->sendRequest(2, "back", 5, 5), std::optional<std::string>("2:back"));
}

TEST_F(IpcMessagePort, SecondServerForATakenNameIsRefused) {
  std::string why;
  auto first = MessagePortServer::start(dbus::kPortName, echoReply, &why);
  ASSERT_TRUE(first) << why;

  std::string secondWhy;
  bool secondCalled = false;
  auto second = MessagePortServer::start(
      dbus::kPortName,
      [&](int32_t, const std::string&) {
        secondCalled = true;
        return std::string("wrong server");
      },
      &secondWhy);
  EXPECT_FALSE(second);
  EXPECT_NE(secondWhy, "");

  auto remote = MessagePortRemote::create(dbus::kPortName);
  ASSERT_TRUE(remote);
  EXPECT_EQ(remote->sendRequest(3, "still", 5, 5), std::optional<std::string>("3:still"));
  EXPECT_FALSE(secondCalled);
}

TEST_F(IpcMessagePort, HandlerSlowerThanTheTimeOutGivesNoReplyAndThePortRecovers) {
  Gate gate;
  std::string why;
  auto server = MessagePortServer::start(
      dbus::kPortName,
      [&](int32_t msgid, const std::string& data) {
        if (msgid == 1) gate.wait();
        return echoReply(msgid, data);
      },
      &why);
  ASSERT_TRUE(server) << why;
  auto remote = MessagePortRemote::create(dbus::kPortName);
  ASSERT_TRUE(remote);

  EXPECT_EQ(remote->sendRequest(1, "slow", 0.2, 0.3), std::nullopt);
  gate.open();
  // The late reply to the first call must not be taken for this one's.
  EXPECT_EQ(remote->sendRequest(2, "next", 5, 5), std::optional<std::string>("2:next"));
  EXPECT_EQ(remote->sendRequest(3, "again", 5, 5), std::optional<std::string>("3:again"));
}

}  // namespace
}  // namespace hvfp

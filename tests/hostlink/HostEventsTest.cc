#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"
#include "platform/ipc/MessagePort.h"
#include "support/LoopbackServer.h"
#include "support/PrivateBus.h"
#include "support/SignalRecorder.h"

namespace hvfp {
namespace {

class HostlinkEvents : public ::testing::Test {
 protected:
  void SetUp() override {
    setLogSink(LogSink::Capture);
    client.start(NSFileProviderDomain{"hostlink-events-test", "Test"});
    signals.attach(*client.providerManager());
  }
  void TearDown() override { setLogSink(LogSink::Stderr); }
  std::string lastSignal() { return signals.containers.empty() ? "" : signals.containers.back(); }

  HalvoProviderClient client;
  test::SignalRecorder signals;
};

TEST_F(HostlinkEvents, StartSetsDefaultsAndTemporaryDirectory) {
  EXPECT_EQ(client.nPort(), 24753);
  EXPECT_EQ(client.strHost(), "http://127.0.0.1");
  EXPECT_NE(client.strTempPath().find("halvofp/hostlink-events-test/tmp"), std::string::npos);
  EXPECT_TRUE(client.mUploadQueue());
}

TEST_F(HostlinkEvents, PortEventMovesTheVeryNextRequest) {
  test::LoopbackServer server;
  server.enqueue({200, R"({"list":[{"filename":"Docs"}]})"});
  client.onRecvFromApp(R"({"type":1,"port":)" + std::to_string(server.port()) + "}");
  EXPECT_EQ(client.getLinks().size(), 1u);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=links"});
}

TEST_F(HostlinkEvents, PortReadings) {
  client.onRecvFromApp(R"({"type":"1","port":"25000"})");
  EXPECT_EQ(client.nPort(), 25000);
  client.onRecvFromApp(R"({"type":1,"port":"x"})");
  EXPECT_EQ(client.nPort(), 0);
  client.setNPort(9);
  client.onRecvFromApp(R"({"type":1})");
  EXPECT_EQ(client.nPort(), 0);
  client.setNPort(9);
  for (auto ignored :
       {R"({"type":3})", R"({"port":1})", R"({"type":null,"port":1})", "[1]", "not json"})
    client.onRecvFromApp(std::string(ignored));
  EXPECT_EQ(client.nPort(), 9);
}

TEST_F(HostlinkEvents, ChangeEventsSignalTheirContainer) {
  const std::pair<const char*, std::string> cases[] = {
      {R"({"type":2,"mountid":12,"hash":"ab34"})", "12/ab34"},
      {R"({"type":2,"mountid":12})", "12"},
      {R"({"type":2})", std::string(NSFileProviderRootContainerItemIdentifier)},
      {R"({"type":2,"mountid":0,"hash":"ab"})",
       std::string(NSFileProviderRootContainerItemIdentifier)},
      {R"({"type":2,"mountid":"7","hash":5})", "7"},
      {R"({"type":"2","mountid":"x","hash":"h"})",
       std::string(NSFileProviderRootContainerItemIdentifier)},
  };
  std::vector<HostEvent> tapped;
  client.setEventTap([&](const HostEvent& e) { tapped.push_back(e); });
  for (const auto& [event, container] : cases) {
    client.onRecvFromApp(std::string(event));
    EXPECT_EQ(lastSignal(), container) << event;
    EXPECT_EQ(tapped.back().object, event);
    EXPECT_EQ(tapped.back().signalled, container);
  }
  EXPECT_EQ(signals.containers.size(), std::size(cases));
  // The tap sees every event, also those that signal nothing.
  client.onRecvFromApp(std::nullopt);
  client.onRecvFromApp(std::string(R"({"type":1,"port":9})"));
  client.setEventTap(nullptr);
  client.onRecvFromApp(std::string(R"({"type":2})"));
  ASSERT_EQ(tapped.size(), std::size(cases) + 2);
  EXPECT_EQ(tapped[std::size(cases)].object, std::nullopt);
  EXPECT_EQ(tapped.back().signalled, std::nullopt);
}

TEST_F(HostlinkEvents, LogLines) {
  takeCapturedLog();
  client.onRecvFromApp(std::nullopt);
  client.onRecvFromApp(std::string(R"({"type":3})"));
  EXPECT_EQ(takeCapturedLog(), (std::vector<std::string>{"onRecvFromApp error for str",
                                                         R"(onRecvFromApp {"type":3})"}));
}

TEST_F(HostlinkEvents, SecondStartBeginsAfresh) {
  client.setNPort(9);
  client.setStrHost("http://127.0.0.2");
  client.addAddFileInFo(std::make_shared<AddFileInfo>(AddFileInfo{"__fp/fs/5", "new", 3}));
  client.addRootChangeName(std::make_shared<RootChangeName>(RootChangeName{"12", "Docs(2)"}));
  OperationQueue* first = client.mUploadQueue();
  client.start(NSFileProviderDomain{"hostlink-events-test", "Test"});
  EXPECT_EQ(client.nPort(), 24753);
  EXPECT_EQ(client.strHost(), "http://127.0.0.1");
  EXPECT_FALSE(client.getAddFileInfo("__fp/fs/5"));
  EXPECT_EQ(client.checkRootChangeName("12"), "");
  EXPECT_NE(client.mUploadQueue(), first);
}

// Uploads hold the client: it waits for every queue it made, up to its exit
// wait; an upload stuck beyond that is left running and named in the log.
TEST(HostlinkClient, GoesOnceItsUploadsAreDoneOrItsExitWaitIsOver) {
  setLogSink(LogSink::Capture);
  std::atomic<int> finished{0};
  auto upload = [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ++finished;
  };
  {
    HalvoProviderClient client;
    EXPECT_EQ(client.mUploadQueue(), nullptr);
    for (int i = 0; i < 2; ++i) {  // the second start replaces the queue
      client.start(NSFileProviderDomain{"hostlink-client-test", "Test"});
      client.mUploadQueue()->addOperationWithBlock(upload);
    }
  }
  EXPECT_EQ(finished.load(), 2);

  struct Gate {
    std::mutex mutex;
    std::condition_variable cv;
    bool open = false;
  };
  auto gate = std::make_shared<Gate>();  // the stuck upload keeps its own
  {
    HalvoProviderClient client;
    client.start(NSFileProviderDomain{"hostlink-client-test", "Test"});
    client.setExitWait(std::chrono::milliseconds(0));
    client.mUploadQueue()->addOperationWithBlock([gate] {
      std::unique_lock lock(gate->mutex);
      gate->cv.wait(lock, [&] { return gate->open; });
    });
    takeCapturedLog();
  }
  EXPECT_EQ(
      takeCapturedLog(),
      std::vector<std::string>{"HalvoProviderClient gone with 1 uploads unfinished after 0 ms"});
  {
    std::lock_guard lock(gate->mutex);
    gate->open = true;
  }
  gate->cv.notify_all();
  setLogSink(LogSink::Stderr);
}

TEST(HostlinkMessagePortNames, Table) {
  EXPECT_EQ(HalvoProviderClient::getChangeStatus(0), "");
  EXPECT_EQ(HalvoProviderClient::getChangeStatus(14), "");
  EXPECT_EQ(HalvoProviderClient::getChangeStatus(1), "MessagePort_Links");
  EXPECT_EQ(HalvoProviderClient::getChangeStatus(13), "MessagePort_ChangeFile");
}

class HostlinkOverBus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon not installed";
    bus = std::make_unique<test::PrivateBus>();
    ASSERT_TRUE(bus->ok()) << bus->error();
    setLogSink(LogSink::Capture);
    client.start(NSFileProviderDomain{"hostlink-bus-test", "Test"});
    signals.attach(*client.providerManager());
  }
  void TearDown() override { setLogSink(LogSink::Stderr); }

  std::unique_ptr<test::PrivateBus> bus;  // outlives the client's listener
  HalvoProviderClient client;
  test::SignalRecorder signals;
};

TEST_F(HostlinkOverBus, EmittedEventReachesTheManager) {
  auto emitter = HostEventEmitter::open();
  ASSERT_TRUE(emitter) << emitter.failure().message;
  ASSERT_TRUE((*emitter)->emit(R"({"type":2,"mountid":12,"hash":"ab34"})"));
  ASSERT_TRUE(signals.waitFor(1));
  EXPECT_EQ(signals.containers[0], "12/ab34");
}

TEST_F(HostlinkOverBus, MessagePortGivesUpWhenNobodyListens) {
  takeCapturedLog();
  EXPECT_EQ(client.sendData(5, "x"), "");
  EXPECT_TRUE(takeCapturedLog().empty());  // no port, nothing sent
  EXPECT_EQ(client.sendDataMore(5, "x", 5), "");
}

// The host's port fails the first `failures` requests (its handler throws,
// so the caller gets an error reply) and then answers `answer`.
TEST_F(HostlinkOverBus, MessagePortAttemptsAndReplies) {
  using Log = std::vector<std::string>;
  struct Case {
    int32_t msgid;
    std::string content;
    int64_t attemptsMade;
    int failures;
    std::string answer;
    std::string reply;
    Log log;
  };
  const std::string fail = "sendData ret fail:MessagePort_FileInfo,error num ";
  const std::string send = "sendData MessagePort_FileInfo:x";
  const Case cases[] = {
      {13, "文件", 0, 0, R"({"status_code":200})", R"({"status_code":200})",
       Log{"sendData MessagePort_ChangeFile:文件",
           R"(sendData ret:MessagePort_ChangeFile,{"status_code":200})"}},
      // Bytes that are not UTF-8 are no text.
      {3, "x", 0, 0, "\xff\xfe", "", Log{send, "sendData ret:MessagePort_FileInfo,"}},
      {3, "x", 0, 2, "ok", "ok",
       Log{send, fail + "0", send, fail + "1", send, "sendData ret:MessagePort_FileInfo,ok"}},
      {3, "x", 0, 5, "never", "",
       Log{send, fail + "0", send, fail + "1", send, fail + "2", send, fail + "3", send,
           fail + "4"}},
      {3, "x", 3, 5, "never", "", Log{send, fail + "3", send, fail + "4"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log.back());
    std::vector<std::pair<int32_t, std::string>> received;
    auto server =
        MessagePortServer::start(dbus::kPortName, [&](int32_t id, const std::string& data) {
          received.emplace_back(id, data);
          if (received.size() <= size_t(c.failures)) throw std::runtime_error("not now");
          return c.answer;
        });
    ASSERT_TRUE(server) << server.failure().message;
    takeCapturedLog();
    EXPECT_EQ(client.sendDataMore(c.msgid, c.content, c.attemptsMade), c.reply);
    server->reset();  // its thread is done with `received`
    std::vector<std::string> log;
    for (auto& line : takeCapturedLog())
      if (line.rfind("sendData", 0) == 0) log.push_back(line);
    EXPECT_EQ(log, c.log);
    const size_t attempts = (c.log.size() + 1) / 2;
    EXPECT_EQ(received, (std::vector<std::pair<int32_t, std::string>>(
                            attempts, std::pair<int32_t, std::string>{c.msgid, c.content})));
  }
}

// A restart that cannot reach the bus keeps the listener it had; one that
// can replaces it. Either way events keep coming.
TEST_F(HostlinkOverBus, RestartKeepsHearingHostEvents) {
  const std::string address = bus->address();
  auto emitter = HostEventEmitter::open();
  ASSERT_TRUE(emitter) << emitter.failure().message;
  for (bool reachable : {false, true}) {
    SCOPED_TRACE(reachable);
    if (!reachable) setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    takeCapturedLog();
    client.start(NSFileProviderDomain{"hostlink-bus-test", "Test"});
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    if (reachable)
      EXPECT_THAT(takeCapturedLog(), testing::IsEmpty());
    else
      EXPECT_THAT(takeCapturedLog(), testing::ElementsAre(testing::StartsWith(
                                         "host events: cannot listen again, the current listener "
                                         "stays: ")));
    EXPECT_TRUE(client.hearsHostEvents());
    const std::string hash = reachable ? "b" : "a";
    ASSERT_TRUE((*emitter)->emit(R"({"type":2,"mountid":12,"hash":")" + hash + R"("})"));
    ASSERT_TRUE(signals.waitForContainer("12/" + hash));
  }
}

}  // namespace
}  // namespace hvfp

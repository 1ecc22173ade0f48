#include <gtest/gtest.h>

#include <chrono>
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

// Uploads hold the client; it must not go while any queue it made runs one.
TEST(HostlinkClient, GoesOnlyOnceEveryUploadQueueIsDone) {
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

TEST_F(HostlinkOverBus, MessagePortRetriesUntilTheHostListens) {
  std::unique_ptr<MessagePortServer> late;
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    auto started = MessagePortServer::start(
        dbus::kPortName, [](int32_t, const std::string&) { return std::string("ok"); });
    if (started) late = std::move(*started);
  });
  std::string reply = client.sendData(1, "x");
  starter.join();
  EXPECT_EQ(reply, "ok");
}

TEST_F(HostlinkOverBus, MessagePortRoundTrip) {
  std::vector<std::pair<int32_t, std::string>> received;
  auto server = MessagePortServer::start(dbus::kPortName, [&](int32_t id, const std::string& data) {
    received.emplace_back(id, data);
    return std::string(R"({"status_code":200})");
  });
  ASSERT_TRUE(server);
  takeCapturedLog();
  EXPECT_EQ(client.sendData(13, "文件"), R"({"status_code":200})");
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], (std::pair<int32_t, std::string>{13, "文件"}));
  EXPECT_EQ(takeCapturedLog(), (std::vector<std::string>{
                                   "sendData MessagePort_ChangeFile:文件",
                                   R"(sendData ret:MessagePort_ChangeFile,{"status_code":200})"}));
}

}  // namespace
}  // namespace hvfp

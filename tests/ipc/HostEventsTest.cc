#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BusFixture.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"

namespace hvfp {
namespace {

using Events = std::vector<std::optional<std::string>>;

// Collects what a listener's callback receives, from the listener thread.
class EventLog {
 public:
  HostEventListener::Callback callback() {
    return [this](const std::optional<std::string>& object) {
      std::lock_guard lock(mutex_);
      events_.push_back(object);
      changed_.notify_all();
    };
  }

  // Returns once `count` events have arrived. The limit is only there so a
  // lost event fails the comparison that follows instead of hanging.
  Events waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Events events_;
};

// A connection of the test's own, to send what HostEventEmitter cannot.
class RawBus {
 public:
  RawBus() { sd_bus_open_user(&bus_); }
  ~RawBus() { sd_bus_flush_close_unref(bus_); }
  sd_bus* get() const { return bus_; }

 private:
  sd_bus* bus_ = nullptr;
};

using IpcHostEvents = test::BusTest;

TEST_F(IpcHostEvents, EveryListenerGetsEachEventsExactTextInOrder) {
  EventLog first, second;
  std::string why;
  auto listener1 = HostEventListener::start(first.callback(), &why);
  ASSERT_TRUE(listener1) << why;
  auto listener2 = HostEventListener::start(second.callback(), &why);
  ASSERT_TRUE(listener2) << why;
  auto emitter = HostEventEmitter::open(&why);
  ASSERT_TRUE(emitter) << why;

  Events sent = {
      std::string(R"({"type":1,"port":8123})"),
      std::string(""),
      std::string(R"({"name":"Gr\u00fc\u00dfe \/ 日本語 ✓","q":"a\"b\\c"})"),
      std::string("line one\nline two\ttab"),
      std::string(20000, 'x'),
  };
  for (int i = 0; i < 30; ++i) sent.push_back(R"({"seq":)" + std::to_string(i) + "}");
  for (const auto& text : sent) ASSERT_TRUE(emitter->emit(*text));

  EXPECT_EQ(first.waitFor(sent.size()), sent);
  EXPECT_EQ(second.waitFor(sent.size()), sent);

  // Another connection: ordering across connections is not promised, so only after the above.
  auto other = HostEventEmitter::open(&why);
  ASSERT_TRUE(other) << why;
  ASSERT_TRUE(other->emit(R"({"from":"other"})"));
  sent.push_back(std::string(R"({"from":"other"})"));
  EXPECT_EQ(first.waitFor(sent.size()), sent);
  EXPECT_EQ(second.waitFor(sent.size()), sent);
}

TEST_F(IpcHostEvents, SignalWithoutExactlyOneTextArrivesAsNoObject) {
  EventLog log;
  std::string why;
  auto listener = HostEventListener::start(log.callback(), &why);
  ASSERT_TRUE(listener) << why;

  RawBus raw;
  ASSERT_TRUE(raw.get());
  using namespace dbus;
  ASSERT_GE(sd_bus_emit_signal(raw.get(), kEventPath, kEventInterface, kEventMember, "i", 42), 0);
  ASSERT_GE(
      sd_bus_emit_signal(raw.get(), kEventPath, kEventInterface, kEventMember, "ss", "a", "b"), 0);
  ASSERT_GE(sd_bus_emit_signal(raw.get(), kEventPath, kEventInterface, kEventMember, ""), 0);
  // Same name on another path or interface, or another member: not a host event at all.
  ASSERT_GE(sd_bus_emit_signal(raw.get(), "/elsewhere", kEventInterface, kEventMember, "s", "p"),
            0);
  ASSERT_GE(sd_bus_emit_signal(raw.get(), kEventPath, "org.example.Other", kEventMember, "s", "i"),
            0);
  ASSERT_GE(sd_bus_emit_signal(raw.get(), kEventPath, kEventInterface, "OtherEvent", "s", "m"), 0);
  ASSERT_GE(sd_bus_emit_signal(raw.get(), kEventPath, kEventInterface, kEventMember, "s", "last"),
            0);
  ASSERT_GE(sd_bus_flush(raw.get()), 0);

  Events expected = {std::nullopt, std::nullopt, std::nullopt, std::string("last")};
  EXPECT_EQ(log.waitFor(expected.size()), expected);
}

TEST_F(IpcHostEvents, EmitRefusesTextTheBusCannotCarryAndStaysUsable) {
  EventLog log;
  std::string why;
  auto listener = HostEventListener::start(log.callback(), &why);
  ASSERT_TRUE(listener) << why;
  auto emitter = HostEventEmitter::open(&why);
  ASSERT_TRUE(emitter) << why;

  EXPECT_FALSE(emitter->emit("bad \xff\xfe utf-8"));
  EXPECT_FALSE(emitter->emit(std::string("nul\0inside", 10)));
  EXPECT_TRUE(emitter->emit("fine"));

  Events expected = {std::string("fine")};
  EXPECT_EQ(log.waitFor(expected.size()), expected);
}

TEST_F(IpcHostEvents, ConcurrentEmitsAllArriveInEachSendersOrder) {
  EventLog log;
  std::string why;
  auto listener = HostEventListener::start(log.callback(), &why);
  ASSERT_TRUE(listener) << why;
  auto emitter = HostEventEmitter::open(&why);
  ASSERT_TRUE(emitter) << why;

  constexpr int kThreads = 4, kEach = 50;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        if (!emitter->emit(std::to_string(t) + ":" + std::to_string(i))) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_EQ(failures.load(), 0);

  Events got = log.waitFor(kThreads * kEach);
  ASSERT_EQ(got.size(), size_t(kThreads * kEach));
  std::vector<int> next(kThreads, 0);
  for (const auto& event : got) {
    ASSERT_TRUE(event);
    int t = std::stoi(event->substr(0, event->find(':')));
    int i = std::stoi(event->substr(event->find(':') + 1));
    EXPECT_EQ(i, next[t]) << "sender " << t;
    next[t] = i + 1;
  }
}

TEST_F(IpcHostEvents, ListenerStopsWhetherIdleOrBusy) {
  std::string why;
  {
    EventLog idle;
    auto listener = HostEventListener::start(idle.callback(), &why);
    ASSERT_TRUE(listener) << why;
  }  // must return without any event arriving to wake the thread

  auto emitter = HostEventEmitter::open(&why);
  ASSERT_TRUE(emitter) << why;
  std::atomic<bool> done{false};
  std::thread sender([&] {
    while (!done) emitter->emit("busy");
  });
  struct StopSender {
    std::atomic<bool>& done;
    std::thread& sender;
    ~StopSender() {
      done = true;
      sender.join();
    }
  } stopSender{done, sender};
  for (int round = 0; round < 5; ++round) {
    EventLog busy;
    auto listener = HostEventListener::start(busy.callback(), &why);
    ASSERT_TRUE(listener) << why;
    EXPECT_THAT(busy.waitFor(3), ::testing::SizeIs(::testing::Ge(3u)));
  }  // destroyed mid-stream; the callback's log dies right after
}

}  // namespace
}  // namespace hvfp

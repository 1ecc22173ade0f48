// Forged host events on a private session bus, as any process on the bus can
// send them: texts that are not JSON or nested past any depth, hashes that
// climb out of folders, control characters, extreme numbers, a large text,
// signals of the wrong shape, and a flood. The console's watch must hear
// every one in order, signal exactly the containers the well-formed ones
// name, ask the host for exactly those change reports, print nothing a
// terminal would act on and write nothing outside the provider's folders.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "cli/Console.h"
#include "hostile/HostileHost.h"
#include "hostile/Sandbox.h"
#include "hostlink/HalvoProviderClient.h"
#include "hostlink/NSStringExpand.h"
#include "platform/Log.h"
#include "platform/fileprovider/NSFileProviderManager.h"
#include "platform/ipc/DBusNames.h"
#include "support/PrivateBus.h"
#include "support/SignalRecorder.h"

namespace hvfp::test {
namespace {

using namespace std::chrono_literals;

// Sends event signals as an arbitrary process would, in any shape.
class Forger {
 public:
  Forger() { ok_ = sd_bus_open_user(&bus_) >= 0; }
  ~Forger() {
    if (bus_) sd_bus_flush_close_unref(bus_);
  }
  bool ok() const { return ok_; }

  bool text(const std::string& json) { return emit("s", json.c_str()); }
  bool number(int32_t n) { return emit("i", n); }
  bool twoTexts() { return emit("ss", "{\"type\":2,\"mountid\":5}", "x"); }
  bool textList() { return emit("as", 1, "{\"type\":2,\"mountid\":5}"); }
  bool nothing() {
    return sd_bus_emit_signal(bus_, dbus::kEventPath, dbus::kEventInterface, dbus::kEventMember,
                              nullptr) >= 0 &&
           sd_bus_flush(bus_) >= 0;
  }
  // The right text on another object or interface: not a host event.
  bool elsewhere(const std::string& json) {
    return sd_bus_emit_signal(bus_, "/elsewhere", dbus::kEventInterface, dbus::kEventMember, "s",
                              json.c_str()) >= 0 &&
           sd_bus_emit_signal(bus_, dbus::kEventPath, "com.example.Other", dbus::kEventMember, "s",
                              json.c_str()) >= 0 &&
           sd_bus_flush(bus_) >= 0;
  }

 private:
  template <typename... Args>
  bool emit(const char* signature, Args... args) {
    return sd_bus_emit_signal(bus_, dbus::kEventPath, dbus::kEventInterface, dbus::kEventMember,
                              signature, args...) >= 0 &&
           sd_bus_flush(bus_) >= 0;
  }

  sd_bus* bus_ = nullptr;
  bool ok_ = false;
};

TEST(HostileEvents, ForgedEventsSignalOnlyWhatTheyNameAndPrintSafely) {
  if (!PrivateBus::available()) GTEST_SKIP() << "no dbus-daemon";
  Sandbox sandbox;
  ASSERT_TRUE(sandbox.ok());
  PrivateBus bus;
  ASSERT_TRUE(bus.ok()) << bus.error();
  setLogSink(LogSink::Silent);
  HostileHost host;
  const std::string contentUrl = host.contentUrl();
  host.set([contentUrl](const std::string& query) { return wellFormed(query, contentUrl); },
           std::nullopt);
  const auto before = sandbox.snapshot();

  Forger forger;
  ASSERT_TRUE(forger.ok());
  std::ostringstream out, err;
  std::atomic<bool> stop{false};
  int status = -1;
  {
    HalvoProviderClient client;
    cli::Console console(client, cli::ConsoleOptions{.port = host.server.port()}, out, err);
    SignalRecorder signals;
    signals.attach(*NSFileProviderManager::managerForDomain({"halvo", "halvo"}));
    std::thread watch([&] { status = console.watch(stop); });
    // The watch hears events once it has started: until a probe's change
    // report reaches the host, probe again.
    for (int probe = 0; probe < 600 && host.server.requestCount() == 0; ++probe) {
      ASSERT_TRUE(forger.text(R"({"type":2,"mountid":1,"hash":"ready"})"));
      host.server.waitForRequests(1, 100ms);
    }
    ASSERT_GT(host.server.requestCount(), 0u) << "the watch never started";

    const std::string controls = "\\u001b[2J\\u009b31m\\u0000\\n";
    const std::string large =
        R"({"type":2,"mountid":7,"pad":")" + std::string(1 << 20, 'p') + "\"}";
    struct Case {
      std::string event;
      std::optional<std::string> signalled;  // none: signals nothing
    };
    const Case cases[] = {
        {R"({"type":2,"mountid":5,"hash":"../../victim/x"})", "5/../../victim/x"},
        {R"({"type":2,"mountid":5,"hash":")" + controls + "\"}",
         "5/\x1b[2J\xc2\x9b"
         "31m" +
             std::string(1, '\0') + "\n"},
        {R"({"type":2,"mountid":-1,"hash":"/"})", "-1//"},
        {R"({"type":2,"mountid":"99999999999999999999"})", "9223372036854775807"},
        {R"({"type":2,"mountid":1e308,"hash":["x"]})", "9223372036854775807"},
        {R"({"type":2,"mountid":{"a":1}})", "NSFileProviderRootContainerItemIdentifier"},
        {large, "7"},
        {R"({"type":2,"mountid":5})" + std::string(1000, ' ') + "x", std::nullopt},
        {R"({"type":)" + std::string(100000, '[') + std::string(100000, ']') + "}", std::nullopt},
        {"not json at all", std::nullopt},
        {R"([{"type":2,"mountid":5}])", std::nullopt},
        {R"({"type":3,"mountid":5})", std::nullopt},
        {R"({"type":null,"mountid":5})", std::nullopt},
    };
    std::vector<std::string> expectedSignals;
    std::vector<std::string> expectedQueries;
    for (const Case& c : cases) {
      ASSERT_TRUE(forger.text(c.event)) << c.event.substr(0, 60);
      if (!c.signalled) continue;
      expectedSignals.push_back(*c.signalled);
      if (*c.signalled == "NSFileProviderRootContainerItemIdentifier") {
        expectedQueries.push_back("type=links");
        continue;
      }
      auto slash = c.signalled->find('/');
      const std::string hash = slash == std::string::npos ? "" : c.signalled->substr(slash + 1);
      expectedQueries.push_back("type=files&uuidhash=" + urlEncoded(hash) +
                                "&mount_id=" + c.signalled->substr(0, slash));
    }
    // Signals of the wrong shape, or from elsewhere, are events without a
    // text (or none at all): nothing is signalled.
    ASSERT_TRUE(forger.number(2));
    ASSERT_TRUE(forger.twoTexts());
    ASSERT_TRUE(forger.textList());
    ASSERT_TRUE(forger.nothing());
    ASSERT_TRUE(forger.elsewhere(R"({"type":2,"mountid":5,"hash":"elsewhere"})"));
    // A flood of well-formed events: each is heard and reported.
    for (int i = 0; i < 500; ++i) {
      ASSERT_TRUE(forger.text(R"({"type":2,"mountid":6,"hash":"f)" + std::to_string(i) + "\"}"));
      expectedSignals.push_back("6/f" + std::to_string(i));
      expectedQueries.push_back("type=files&uuidhash=f" + std::to_string(i) + "&mount_id=6");
    }
    // Port events move the queries, even to nowhere; the last one brings
    // them back.
    for (const char* port : {"0", "-5", "1e308", "\"70000\""})
      ASSERT_TRUE(forger.text(std::string(R"({"type":1,"port":)") + port + "}"));
    ASSERT_TRUE(forger.text(R"({"type":1,"port":)" + std::to_string(host.server.port()) + "}"));
    ASSERT_TRUE(forger.text(R"({"type":2,"mountid":9,"hash":"last"})"));
    expectedSignals.push_back("9/last");
    expectedQueries.push_back("type=files&uuidhash=last&mount_id=9");

    ASSERT_TRUE(signals.waitForContainer("9/last"));
    // Reports run in the order of their events: the last one's comes last.
    auto lastAsked = [&] {
      auto queries = host.server.queries();
      return !queries.empty() && queries.back() == expectedQueries.back();
    };
    for (size_t n = 1; !lastAsked() && n < 100000; ++n) host.server.waitForRequests(n, 60s);
    ASSERT_TRUE(lastAsked());
    stop = true;
    watch.join();
    // The probes are left out: any of them may or may not have been reported.
    std::vector<std::string> heard, asked;
    {
      std::lock_guard lock(signals.mutex);
      for (const auto& container : signals.containers)
        if (container != "1/ready") heard.push_back(container);
    }
    for (const auto& query : host.server.queries())
      if (query != "type=files&uuidhash=ready&mount_id=1") asked.push_back(query);
    EXPECT_EQ(heard, expectedSignals);
    EXPECT_EQ(asked, expectedQueries);
    EXPECT_EQ(client.nPort(), host.server.port());
  }
  EXPECT_EQ(status, 0);
  const std::string printed = out.str();
  EXPECT_FALSE(hasTerminalControls(printed + err.str()));
  EXPECT_NE(printed.find("signalled 5/../../victim/x\n"), std::string::npos);
  EXPECT_NE(printed.find("signalled 5/?[2J?31m??\n"), std::string::npos);
  EXPECT_NE(printed.find("event (null)\n"), std::string::npos) << "a signal without a text";
  EXPECT_EQ(err.str().find("no answer"), std::string::npos) << err.str();
  EXPECT_EQ(Sandbox::changesOutside(before, sandbox.snapshot(), {"cache/halvofp/"}),
            std::vector<std::string>{});
  setLogSink(LogSink::Stderr);
}

}  // namespace
}  // namespace hvfp::test

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>

#include "cli/Console.h"
#include "cli/ItemFormat.h"
#include "cli/ProgressBar.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/ipc/HostEvents.h"
#include "support/LoopbackServer.h"
#include "support/PrivateBus.h"

namespace hvfp::cli {
namespace {

using test::LoopbackServer;

class CliConsole : public ::testing::Test {
 protected:
  void SetUp() override {
    auto cache = std::filesystem::path(::testing::TempDir()) / "cli-cache";
    setenv("XDG_CACHE_HOME", cache.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  }
  int run(std::function<int(Console&)> command, ConsoleOptions options = {}) {
    if (!options.port) options.port = server.port();
    Console console(client, options, out, err);
    return command(console);
  }
  LoopbackServer server;
  HalvoProviderClient client;
  std::ostringstream out, err;
};

constexpr const char* kLinks =
    R"({"list":[{"filename":"Docs","mount_id":3,"lasttime":300},{"filename":"Work","mount_id":5,"lasttime":200},)"
    R"({"filename":"Docs","mount_id":4,"lasttime":100}]})";

TEST_F(CliConsole, ListsMountsAsATableWithCollisionNames) {
  server.enqueue({200, kLinks});
  EXPECT_EQ(run([](Console& c) { return c.ls("NSFileProviderRootContainerItemIdentifier"); }), 0);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=links"});
  EXPECT_EQ(out.str(),
            "NAME     IDENTIFIER  KIND   SIZE  MODIFIED\n"
            "Docs     4           mount     -  1970-01-01 00:01:40\n"
            "Work     5           mount     -  1970-01-01 00:03:20\n"
            "Docs(2)  3           mount     -  1970-01-01 00:05:00\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(CliConsole, JsonHasEveryPropertyByName) {
  server.enqueue(
      {200,
       R"({"list":[{"filename":"a.pdf","mount_id":3,"uuidhash":"h1","webpath":"d/a.pdf",)"
       R"("filehash":"f","filesize":1536,"status":0,"lasttime":1700000000,"creatortime":0}],"lasttime":9})"});
  ConsoleOptions options;
  options.json = true;
  EXPECT_EQ(run([](Console& c) { return c.ls("3/d"); }, options), 0);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=files&uuidhash=d&mount_id=3"});
  EXPECT_EQ(
      out.str(),
      R"({"capabilities":127,"childItemCount":null,"contentModificationDate":1700000000,)"
      R"("contentType":"com.adobe.pdf","creationDate":0,"documentSize":1536,"filename":"a.pdf",)"
      R"("itemIdentifier":"3\/h1","itemVersion":{"contentVersion":"{\"filehash\":\"f\",\"filesize\":1536}",)"
      R"("metadataVersion":"{\"delete\":0,\"hash\":\"h1\",\"status\":0}"},)"
      R"("lastUsedDate":1700000000,"parentItemIdentifier":"3\/d"})"
      "\n");
}

TEST_F(CliConsole, NoHostIsAnErrorNotAnEmptyTable) {
  int deadPort;
  {
    LoopbackServer gone;
    deadPort = gone.port();
  }
  ConsoleOptions options;
  options.port = deadPort;
  EXPECT_EQ(
      run([](Console& c) { return c.ls("NSFileProviderRootContainerItemIdentifier"); }, options),
      1);
  EXPECT_EQ(out.str(), "");
  EXPECT_NE(
      err.str().find("no answer from the host at http://127.0.0.1:" + std::to_string(deadPort)),
      std::string::npos)
      << err.str();
}

TEST_F(CliConsole, ContainersNeedNoHost) {
  ConsoleOptions options;
  options.port = 1;  // nothing listens there
  EXPECT_EQ(run([](Console& c) { return c.ls("NSFileProviderWorkingSetContainerItemIdentifier"); },
                options),
            0);
  EXPECT_EQ(out.str(), "NAME  IDENTIFIER  KIND  SIZE  MODIFIED\n");
  EXPECT_EQ(
      run([](Console& c) { return c.stat("NSFileProviderTrashContainerItemIdentifier"); }, options),
      0);
  EXPECT_NE(out.str().find("capabilities:            63"), std::string::npos);
}

TEST_F(CliConsole, StatOfAnUnknownItem) {
  server.enqueue({404, R"({"status_code":404,"error_code":2,"error_msg":"no such item"})"});
  EXPECT_EQ(run([](Console& c) { return c.stat("3/nope"); }), 1);
  EXPECT_EQ(err.str(), "halvofp: the host knows no item 3/nope (NSCocoaErrorDomain 4610)\n");
}

TEST_F(CliConsole, ChangesReportsFromTheGivenAnchor) {
  server.enqueue(
      {200, R"({"list":[{"filename":"x","mount_id":3,"uuidhash":"h","status":7}],"lasttime":42})"});
  EXPECT_EQ(run([](Console& c) {
              return c.changes("NSFileProviderWorkingSetContainerItemIdentifier", "17");
            }),
            0);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=changefiles&lasttime=0"});
  EXPECT_NE(out.str().find("finished at anchor 17\n"), std::string::npos) << out.str();
}

TEST_F(CliConsole, ControlCharactersInNamesNeverReachTheTerminal) {
  server.enqueue(
      {200, R"({"list":[{"filename":"evil\u001b[2Jname\n","mount_id":3,"uuidhash":"h"}]})"});
  EXPECT_EQ(run([](Console& c) { return c.ls("3"); }), 0);
  EXPECT_NE(out.str().find("evil?[2Jname?"), std::string::npos) << out.str();
  EXPECT_EQ(out.str().find('\x1b'), std::string::npos);
}

// Text that one thread writes while another waits for a part of it. No put
// area, so every write comes through the lock.
class SharedText : public std::streambuf {
 public:
  std::string text() {
    std::lock_guard lock(mutex_);
    return text_;
  }
  bool waitFor(const std::string& part) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10),
                             [&] { return text_.find(part) != std::string::npos; });
  }

 protected:
  int_type overflow(int_type c) override {
    if (c == traits_type::eof()) return traits_type::not_eof(c);
    char ch = traits_type::to_char_type(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::lock_guard lock(mutex_);
    text_.append(s, static_cast<size_t>(n));
    changed_.notify_all();
    return n;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
};

// Host events come over the bus while the provider's log goes on, as with
// "halvofp -v watch": each event is printed, and a change event is followed
// by the change report of the container it signalled.
TEST_F(CliConsole, WatchPrintsEventsAndChangeReportsAndLeavesTheLogAlone) {
  if (!test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon not installed";
  test::PrivateBus bus;
  ASSERT_TRUE(bus.ok()) << bus.error();
  setLogSink(LogSink::Capture);
  server.enqueue({200,
                  R"({"list":[{"filename":"new.txt","mount_id":12,"uuidhash":"n1",)"
                  R"("webpath":"ab34/new.txt","filesize":2048,"lasttime":300}],"lasttime":5})"});
  const std::string change = R"({"type":2,"mountid":12,"hash":"ab34"})";
  SharedText outText, errText;
  std::ostream watchOut(&outText), watchErr(&errText);
  {
    HalvoProviderClient watched;
    ConsoleOptions options;
    options.port = server.port();
    Console console(watched, options, watchOut, watchErr);
    std::atomic<bool> stop{false};
    std::jthread watching([&] { EXPECT_EQ(console.watch(stop), 0); });
    struct StopFirst {
      std::atomic<bool>& stop;
      ~StopFirst() { stop = true; }
    } stopFirst{stop};
    ASSERT_TRUE(errText.waitFor("watching host events"));
    auto emitter = HostEventEmitter::open();
    ASSERT_TRUE(emitter) << emitter.failure().message;
    ASSERT_TRUE((*emitter)->emit(change));
    ASSERT_TRUE((*emitter)->emit(R"({"type":3})"));
    ASSERT_TRUE(outText.waitFor("event {\"type\":3}\n"));
  }
  EXPECT_EQ(outText.text(), "event " + change +
                                "\n"
                                "signalled 12/ab34\n"
                                "NAME     IDENTIFIER  KIND                  SIZE  MODIFIED\n"
                                "new.txt  12/n1       public.plain-text  2.0 KiB  "
                                "1970-01-01 00:05:00\n"
                                "event {\"type\":3}\n");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=files&uuidhash=ab34&mount_id=12"});
  EXPECT_THAT(takeCapturedLog(),
              ::testing::IsSupersetOf({"onRecvFromApp " + change,
                                       std::string("enumerateChangesForObserver 12/ab34,2,2"),
                                       std::string(R"(onRecvFromApp {"type":3})")}));
  setLogSink(LogSink::Stderr);
}

TEST(CliFormat, Sizes) {
  EXPECT_EQ(humanSize(0), "0 B");
  EXPECT_EQ(humanSize(1023), "1023 B");
  EXPECT_EQ(humanSize(1536), "1.5 KiB");
  EXPECT_EQ(humanSize(5368709120), "5.0 GiB");
  EXPECT_EQ(humanSize(UINT64_MAX), "16 EiB");
}

TEST(CliFormat, ProgressLines) {
  struct Row {
    uint64_t done;
    int64_t total;
    double rate;
    int bar;
    std::string line;
  };
  const std::vector<Row> rows = {
      {0, -1, 0, 10, "get a  0 B"},
      {2048, -1, 1024, 10, "get a  2.0 KiB  1.0 KiB/s"},
      {0, 4096, 0, 10, "get a  [----------]    0%  0 B / 4.0 KiB"},
      {1024, 4096, 512, 10, "get a  [##--------]   25%  1.0 KiB / 4.0 KiB  512 B/s  0:06 left"},
      {1536, 4096, 1024, 0, "get a   37%  1.5 KiB / 4.0 KiB  1.0 KiB/s  0:03 left"},
      {4096, 4096, 1024, 4, "get a  [####]  100%  4.0 KiB / 4.0 KiB  1.0 KiB/s"},
      // Past the total the task first named: full, never more.
      {5000, 4096, 1024, 4, "get a  [####]  100%  4.9 KiB / 4.0 KiB  1.0 KiB/s"},
      {0, 0, 0, 4, "get a  [####]  100%  0 B / 0 B"},
      {0, 10737418240, 1048576, 0, "get a    0%  0 B / 10 GiB  1.0 MiB/s  2:50:40 left"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(progressLine("get a", row.done, row.total, row.rate, row.bar), row.line);
}

}  // namespace
}  // namespace hvfp::cli

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "cli/Console.h"
#include "cli/ItemFormat.h"
#include "support/LoopbackServer.h"

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
    Console console(options, out, err);
    return command(console);
  }
  LoopbackServer server;
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

TEST(CliFormat, Sizes) {
  EXPECT_EQ(humanSize(0), "0 B");
  EXPECT_EQ(humanSize(1023), "1023 B");
  EXPECT_EQ(humanSize(1536), "1.5 KiB");
  EXPECT_EQ(humanSize(5368709120), "5.0 GiB");
  EXPECT_EQ(humanSize(UINT64_MAX), "16 EiB");
}

}  // namespace
}  // namespace hvfp::cli

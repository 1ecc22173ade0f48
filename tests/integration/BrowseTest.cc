// The provider against the real host app: halvo-hostd with its sample cloud
// on free ports and a private session bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "extension/FileProviderEnumerator.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "records/JsonReading.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/SignalRecorder.h"

namespace hvfp {
namespace {

namespace fs = std::filesystem;

using test::spawn;
using test::waitExit;

struct Collector : NSFileProviderEnumerationObserver, NSFileProviderChangeObserver {
  std::vector<NSFileProviderItemRef> items;
  std::string anchor;
  void didEnumerateItems(std::vector<NSFileProviderItemRef> b) override { items = std::move(b); }
  void finishEnumeratingUpToPage(std::optional<std::string>) override {}
  void didUpdateItems(std::vector<NSFileProviderItemRef> b) override { items = std::move(b); }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override {}
  void finishEnumeratingChangesUpToSyncAnchor(std::string a, bool) override {
    anchor = std::move(a);
  }
  void finishEnumeratingWithError(const Error&) override {}

  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (auto& item : items) out.push_back(item->filename().value_or("(null)"));
    return out;
  }
};

class IntegrationBrowse : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon not installed";
    bus = std::make_unique<test::PrivateBus>();
    ASSERT_TRUE(bus->ok()) << bus->error();
    root = fs::path(::testing::TempDir()) / ("browse-" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root);
    setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    host = spawn({HALVO_HOSTD_BIN, "--root", root.string(), "--port", "0", "--upload-ports", "0",
                  "--download-port", "0", "--admin-port", "0", "--seed", "sample", "--quiet"},
                 root / "hostd.log");
    ASSERT_GT(host, 0);
    ASSERT_TRUE(readQueryPort()) << "halvo-hostd did not start; see " << (root / "hostd.log");
    setLogSink(LogSink::Silent);
    extension = std::make_unique<FileProviderExtension>(
        client, NSFileProviderDomain{"integration", "Integration"});
    client.onRecvFromApp(R"({"type":1,"port":)" + std::to_string(queryPort) + "}");
    signals.attach(*client.providerManager());
  }

  void TearDown() override {
    extension.reset();
    if (host > 0) {
      ::kill(host, SIGTERM);
      waitExit(host);
    }
    fs::remove_all(root);
  }

  bool readQueryPort() {
    for (int i = 0; i < 200; ++i) {
      std::ifstream in(root / "hostd.ports.json");
      std::stringstream text;
      text << in.rdbuf();
      if (auto v = objectFromJSONString(text.str()); v && v->find("query")) {
        queryPort = readInteger(*v, "query");
        return queryPort > 0;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {HALVO_HOSTD_BIN, "ctl", "--root", root.string()});
    return waitExit(spawn(args, root / "ctl.log"));
  }

  Collector list(const std::string& container) {
    Collector c;
    extension->enumeratorForContainerItemIdentifier(container, {}, nullptr)
        ->enumerateItemsForObserver(c, "");
    return c;
  }

  std::unique_ptr<test::PrivateBus> bus;  // outlives the client's listener
  fs::path root;
  pid_t host = -1;
  int64_t queryPort = 0;
  HalvoProviderClient client;
  std::unique_ptr<FileProviderExtension> extension;
  test::SignalRecorder signals;
};

TEST_F(IntegrationBrowse, SampleCloudShowsMountsWithDisplayNames) {
  Collector mounts = list(std::string(NSFileProviderRootContainerItemIdentifier));
  auto names = mounts.names();
  ASSERT_EQ(names.size(), 3u);
  EXPECT_EQ(std::count(names.begin(), names.end(), "Docs"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), "Docs(2)"), 1);

  std::string renamed;
  for (auto& item : mounts.items)
    if (item->filename() == "Docs(2)") renamed = item->itemIdentifier();
  std::optional<std::string> lookedUp;
  extension->itemForIdentifier(renamed, {}, [&](NSFileProviderItemRef item, std::optional<Error>) {
    if (item) lookedUp = item->filename();
  });
  EXPECT_EQ(lookedUp, "Docs(2)");

  Collector trash = list(std::string(NSFileProviderTrashContainerItemIdentifier));
  ASSERT_FALSE(trash.items.empty());
  EXPECT_EQ(trash.items[0]->parentItemIdentifier(),
            std::string(NSFileProviderTrashContainerItemIdentifier));
}

TEST_F(IntegrationBrowse, ChangeFromAnotherDeviceSignalsTheFolderAndShowsInItsReport) {
  Collector mounts = list(std::string(NSFileProviderRootContainerItemIdentifier));
  ASSERT_FALSE(mounts.items.empty());
  std::string mount = mounts.items[0]->itemIdentifier();

  ASSERT_EQ(ctl({"add-folder", "--mount", mount, "--name", "From elsewhere"}), 0);
  ASSERT_TRUE(signals.waitForContainer(mount)) << "no host event signalled mount " << mount;

  auto enumerator = extension->enumeratorForContainerItemIdentifier(mount, {}, nullptr);
  Collector changes;
  enumerator->enumerateChangesForObserver(changes, "7");
  auto names = changes.names();
  EXPECT_NE(std::find(names.begin(), names.end(), "From elsewhere"), names.end());
  EXPECT_EQ(changes.anchor, "7");

  Collector delta;
  extension
      ->enumeratorForContainerItemIdentifier(
          std::string(NSFileProviderWorkingSetContainerItemIdentifier), {}, nullptr)
      ->enumerateChangesForObserver(delta, "1");
  names = delta.names();
  EXPECT_NE(std::find(names.begin(), names.end(), "From elsewhere"), names.end());
}

}  // namespace
}  // namespace hvfp

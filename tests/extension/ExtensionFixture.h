// Shared by the extension tests: an extension started against a loopback
// host in a private cache folder with no session bus, and observers that
// record every call the enumerators make. One test per process (gtest
// discovery), so the client singleton starts fresh each time.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "support/LoopbackServer.h"

namespace hvfp::test {

inline const std::string kRoot(NSFileProviderRootContainerItemIdentifier);
inline const std::string kTrash(NSFileProviderTrashContainerItemIdentifier);
inline const std::string kWorkingSet(NSFileProviderWorkingSetContainerItemIdentifier);

// One call made on an observer, in the order made.
struct ObserverCall {
  std::string what;  // "items", "finish", "update", "delete", "error"
  std::vector<NSFileProviderItemRef> items;
  std::optional<std::string> page;  // next page or anchor
  bool moreComing = false;
};

class RecordingObserver : public NSFileProviderEnumerationObserver,
                          public NSFileProviderChangeObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemRef> items) override {
    calls.push_back({"items", std::move(items), std::nullopt, false});
  }
  void finishEnumeratingUpToPage(std::optional<std::string> nextPage) override {
    calls.push_back({"finish", {}, std::move(nextPage), false});
  }
  void didUpdateItems(std::vector<NSFileProviderItemRef> items) override {
    calls.push_back({"update", std::move(items), std::nullopt, false});
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override {
    calls.push_back({"delete", {}, std::nullopt, false});
  }
  void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool moreComing) override {
    calls.push_back({"finish", {}, std::move(anchor), moreComing});
  }
  void finishEnumeratingWithError(const Error&) override {
    calls.push_back({"error", {}, std::nullopt, false});
  }

  std::vector<std::string> sequence() const {
    std::vector<std::string> out;
    for (const auto& c : calls) out.push_back(c.what);
    return out;
  }
  // Names of the one batch's items, in order.
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& c : calls)
      for (const auto& item : c.items) out.push_back(std::string(orNull(item->filename())));
    return out;
  }
  std::vector<std::string> parents() const {
    std::vector<std::string> out;
    for (const auto& c : calls)
      for (const auto& item : c.items)
        out.push_back(std::string(orNull(item->parentItemIdentifier())));
    return out;
  }

  std::vector<ObserverCall> calls;
};

class ExtensionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/hvfp-ext-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    dir_ = pattern;
    setenv("XDG_CACHE_HOME", (dir_ + "/cache").c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir_ + "/no-bus").c_str(), 1);
    setLogSink(LogSink::Capture);
    extension = std::make_unique<FileProviderExtension>(NSFileProviderDomain{"test", "Test"});
    startLog = takeCapturedLog();
    auto& client = HalvoProviderClient::shareHalvoProviderClient();
    client.setStrHost("http://127.0.0.1");
    client.setNPort(server.port());
  }
  void TearDown() override {
    extension.reset();
    setLogSink(LogSink::Stderr);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  std::shared_ptr<FileProviderEnumerator> enumerator(const std::string& container) {
    return extension->enumeratorForContainerItemIdentifier(container, {}, nullptr);
  }
  static HalvoProviderClient& client() { return HalvoProviderClient::shareHalvoProviderClient(); }

  LoopbackServer server;
  std::unique_ptr<FileProviderExtension> extension;
  std::vector<std::string> startLog;

 private:
  std::string dir_;
};

}  // namespace hvfp::test

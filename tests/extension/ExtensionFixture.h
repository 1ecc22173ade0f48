// Shared by the extension tests: an extension on a client of the test's own,
// started against a loopback host in a private cache folder with no session
// bus, and observers that record every call the enumerators make.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
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

using Lines = std::vector<std::string>;
// The three dates of an item line for a record without times.
inline const std::string kEpochDates =
    "1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000";

// A mount entry of a listing, and a listing reply of entries.
inline std::string mount(size_t id, const std::string& name, int lasttime) {
  return "{\"filename\":\"" + name + "\",\"mount_id\":" + std::to_string(id) +
         ",\"uuidhash\":\"\",\"lasttime\":" + std::to_string(lasttime) + ",\"status\":0}";
}

inline std::string list(const Lines& entries) {
  std::string out = "{\"list\":[";
  for (size_t i = 0; i < entries.size(); ++i) out += (i ? "," : "") + entries[i];
  return out + "],\"lasttime\":99}";
}

// Records every call the enumerators make on an observer: its name in order
// ("finish" followed by the page or anchor given, and " more" when more is
// coming) and every item reported, in order.
class RecordingObserver : public NSFileProviderEnumerationObserver,
                          public NSFileProviderChangeObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemRef> batch) override {
    add("items", std::move(batch));
  }
  void finishEnumeratingUpToPage(std::optional<std::string> nextPage) override {
    add(nextPage ? "finish " + *nextPage : "finish");
  }
  void didUpdateItems(std::vector<NSFileProviderItemRef> batch) override {
    add("update", std::move(batch));
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override { add("delete"); }
  void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool moreComing) override {
    add("finish " + anchor + (moreComing ? " more" : ""));
  }
  void finishEnumeratingWithError(const Error&) override { add("error"); }

  Lines each(const std::function<std::optional<std::string>(NSFileProviderItem&)>& field) const {
    Lines out;
    for (const auto& item : items) out.push_back(std::string(orNull(field(*item))));
    return out;
  }
  Lines names() const {
    return each([](auto& i) { return i.filename(); });
  }
  Lines parents() const {
    return each([](auto& i) { return i.parentItemIdentifier(); });
  }

  Lines sequence;
  std::vector<NSFileProviderItemRef> items;

 private:
  void add(std::string what, std::vector<NSFileProviderItemRef> batch = {}) {
    sequence.push_back(std::move(what));
    items.insert(items.end(), batch.begin(), batch.end());
  }
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
    extension =
        std::make_unique<FileProviderExtension>(client, NSFileProviderDomain{"test", "Test"});
    startLog = takeCapturedLog();
    client.setNPort(server.port());
  }
  void TearDown() override {
    extension.reset();
    setLogSink(LogSink::Stderr);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  std::shared_ptr<FileProviderEnumerator> enumerator(const std::string& container) {
    return std::static_pointer_cast<FileProviderEnumerator>(
        extension->enumeratorForContainerItemIdentifier(container, {}, nullptr));
  }
  // A listing of `container` against the next queued reply.
  RecordingObserver listing(const std::string& container) {
    RecordingObserver observer;
    enumerator(container)->enumerateItemsForObserver(observer, "");
    return observer;
  }

  LoopbackServer server;
  HalvoProviderClient client;
  std::unique_ptr<FileProviderExtension> extension;
  Lines startLog;

 private:
  std::string dir_;
};

}  // namespace hvfp::test

// Renames through the extension against halvo-hostd in the same process:
// 1,000 files in one folder, renamed by modifications issued from 8 threads
// at once, each a rename task on the extension's task queue (a "rename" and a
// "fileinfo" query to the host). A round ends when every handler has run.
// Prints:
//   renames ok <n> of <total>       per round, handlers that got an item
//   metric rename_rate <renames/s>  the median round
// The provider's log goes to the Silent sink.
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchUtil.h"
#include "Digest.h"
#include "Host.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/fileprovider/ItemTemplate.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFiles = 1000;
constexpr int kThreads = 8;
constexpr int kRounds = 3;

// Counts handler calls until every rename of a round has answered.
class Countdown {
 public:
  explicit Countdown(int n) : left_(n) {}
  void done(bool ok) {
    std::lock_guard lock(mutex_);
    if (ok) ++ok_;
    if (--left_ == 0) zero_.notify_all();
  }
  int wait() {
    std::unique_lock lock(mutex_);
    zero_.wait(lock, [&] { return left_ == 0; });
    return ok_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable zero_;
  int left_;
  int ok_ = 0;
};

// One round: every file gets the name "<round>-<i>".
double round(hvfp::FileProviderExtension& extension, const std::vector<std::string>& ids,
             const std::string& folder, int number) {
  Countdown countdown(static_cast<int>(ids.size()));
  auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (size_t i = t; i < ids.size(); i += kThreads) {
        hvfp::NSFileProviderItemTemplate item;
        item.identifier = ids[i];
        item.parentIdentifier = folder;
        item.name = std::to_string(number) + "-" + std::to_string(i);
        extension.modifyItem(
            item, std::nullopt, hvfp::NSFileProviderItemFields::Filename, std::nullopt, 0, {},
            [&](hvfp::NSFileProviderItemRef answer, uint64_t, bool,
                std::optional<hvfp::Error> error) { countdown.done(answer && !error); });
      }
    });
  for (auto& t : threads) t.join();
  int ok = countdown.wait();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("renames ok %d of %zu\n", ok, ids.size());
  return static_cast<double>(ids.size()) / seconds;
}

}  // namespace

int main() {
  char pattern[] = "/tmp/bench-rename-XXXXXX";
  fs::path root = ::mkdtemp(pattern);
  setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (root / "no-bus").string()).c_str(), 1);
  hvfp::setLogSink(hvfp::LogSink::Silent);

  hvfp::hostd::HostConfig config;
  config.root = root / "host";
  config.port = config.downloadPort = config.adminPort = 0;
  config.uploadPorts = {0};
  config.useBus = false;
  config.quiet = true;
  hvfp::hostd::Host host(config);
  if (auto started = host.start(); !started.ok()) {
    std::printf("host did not start: %s\n", started.failure().message.c_str());
    return 1;
  }
  auto mount = host.store().addMount("Bench", 1);
  auto folder = mount ? host.store().makeFolder(mount->id, "names", 1, 1)
                      : hvfp::hostd::Result<hvfp::hostd::Item>(mount.failure());
  auto added = folder ? host.store().addManyFiles(mount->id, folder->uuid, kFiles, "file-",
                                                  hvfp::hostd::sha1Hex("x"), 1)
                      : hvfp::hostd::Result<size_t>(folder.failure());
  if (!added) {
    std::printf("no files to rename: %s\n", added.failure().message.c_str());
    return 1;
  }
  const int64_t mountId = mount->id;
  const std::string folderUuid = folder->uuid;
  std::vector<std::string> ids;
  host.store().forEachChild(mountId, folderUuid, [&](const hvfp::hostd::Item& item) {
    ids.push_back(std::to_string(mountId) + "/" + item.uuid);
  });

  std::vector<double> rates;
  {
    hvfp::HalvoProviderClient client;
    hvfp::FileProviderExtension extension(client, {"bench", "Bench"});
    client.setNPort(host.queryPort());
    const std::string parent = std::to_string(mountId) + "/" + folderUuid;
    for (int r = 0; r < kRounds; ++r) rates.push_back(round(extension, ids, parent, r));
  }
  std::sort(rates.begin(), rates.end());
  hvfp::bench::printMetric("rename_rate", rates[rates.size() / 2]);
  host.stop();
  std::error_code ec;
  fs::remove_all(root, ec);
  return 0;
}

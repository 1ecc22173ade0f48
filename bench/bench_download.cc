// Content fetch against halvo-hostd's download server, in process.
//
//   download_1g: a 1 GiB file fetched through the extension (host queries,
//   transfer with its SHA-1 check, the copy moved into place), against
//   `curl -o` of the same address followed by `sha1sum` of the result, both
//   run as child processes; median of alternating rounds.
//   download_4g_peak_rss_mib: the peak resident memory of a process that
//   does nothing but fetch a 4 GiB file (this program run again as a child).
//
// Prints only "ratio download_1g <ours/reference>" and
// "metric download_4g_peak_rss_mib <n>"; anything that goes wrong is one
// "error ..." line on stderr and exit status 1. Big files live under a
// temporary folder on disk, removed at the end.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "BenchHost.h"
#include "BenchUtil.h"
#include "Blobs.h"
#include "Digest.h"
#include "Host.h"
#include "Seed.h"
#include "Store.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"

namespace fs = std::filesystem;
using namespace hvfp;

namespace {

constexpr uint64_t kOneGiB = 1ull << 30;
constexpr uint64_t kFourGiB = 4ull << 30;
constexpr int kRounds = 5;

fs::path gWork;  // removed on every way out

[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "error %s\n", why.c_str());
  std::error_code ignored;
  if (!gWork.empty()) fs::remove_all(gWork, ignored);
  std::exit(1);
}

template <typename Fn>
double seconds(Fn&& fn) {
  auto start = std::chrono::steady_clock::now();
  fn();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One fetch through the extension; the path of the contents, or none.
std::optional<std::string> fetch(FileProviderExtension& extension, const std::string& identifier) {
  std::promise<std::optional<std::string>> done;
  extension.fetchContentsForItemWithIdentifier(
      identifier, std::nullopt, {},
      [&](std::optional<std::string> path, NSFileProviderItemRef, std::optional<Error> error) {
        done.set_value(error ? std::nullopt : path);
      });
  return done.get_future().get();
}

// The child of the memory measurement: fetches and prints its peak in KiB.
int fetchChild(int port, const std::string& identifier, const fs::path& cacheHome) {
  bench::providerEnvironment(cacheHome);
  HalvoProviderClient client;
  FileProviderExtension extension(client, {"bench", "Bench"});
  client.setNPort(port);
  auto path = fetch(extension, identifier);
  if (!path) return 1;
  std::printf("%ld\n", bench::peakKiB());
  return 0;
}

std::string run(const std::string& command) {
  std::string out;
  FILE* p = ::popen(command.c_str(), "r");
  if (!p) return out;
  char buf[256];
  while (std::fgets(buf, sizeof buf, p)) out += buf;
  ::pclose(p);
  return out;
}

// A file of zeros that takes no disk space; its hash is its real SHA-1.
std::string sparseZeros(hostd::BlobStore& blobs, uint64_t size) {
  hostd::Sha1 h;
  std::vector<char> zeros(8 << 20, 0);
  for (uint64_t done = 0; done < size; done += zeros.size())
    h.update(zeros.data(), static_cast<size_t>(std::min<uint64_t>(zeros.size(), size - done)));
  fs::path tmp = blobs.tempPath("sparse");
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) die("cannot make a sparse file");
  ::close(fd);
  auto adopted = blobs.adopt(tmp, h.hex());
  if (!adopted.ok()) die("cannot adopt the sparse blob");
  return h.hex();
}

// The item identifier of a new file of those contents.
std::string place(hostd::Host& host, int64_t mount, const std::string& name,
                  const std::string& hash, uint64_t size) {
  auto item = hostd::placeBlob(host.store(), mount, name, hash, size, 1);
  if (!item.ok()) die("cannot place " + name + ": " + item.failure().message);
  return std::to_string(mount) + "/" + item->uuid;
}

void downloadRatio(hostd::Host& host, FileProviderExtension& extension, const fs::path& work,
                   int64_t mount) {
  auto generated = host.blobs().generate(kOneGiB, 11);
  if (!generated.ok()) die("cannot make the 1 GiB blob");
  const std::string hash = generated.value();
  const std::string identifier = place(host, mount, "one.bin", hash, kOneGiB);
  const std::string url = host.downloadUrl(hash);
  const fs::path reference = work / "reference.bin";
  const std::string command =
      "curl -s -o " + reference.string() + " " + url + " && sha1sum " + reference.string();

  std::vector<double> ours, theirs;
  for (int round = 0; round < kRounds; ++round) {
    std::optional<std::string> copy;
    ours.push_back(seconds([&] { copy = fetch(extension, identifier); }));
    if (!copy) die("the fetch failed");
    fs::remove(*copy);
    std::string out;
    theirs.push_back(seconds([&] { out = run(command); }));
    if (out.rfind(hash, 0) != 0) die("curl and sha1sum gave: " + out);
    fs::remove(reference);
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  bench::printRatio("download_1g", median(ours) / median(theirs));
}

void peakMemory(hostd::Host& host, const fs::path& work, int64_t mount) {
  const std::string hash = sparseZeros(host.blobs(), kFourGiB);
  const std::string identifier = place(host, mount, "four.bin", hash, kFourGiB);
  const fs::path cacheHome = work / "child-cache";
  std::string self = fs::read_symlink("/proc/self/exe").string();
  std::string out = run(self + " --fetch " + std::to_string(host.queryPort()) + " " + identifier +
                        " " + cacheHome.string());
  if (out.empty()) die("the fetching child failed");
  std::printf("metric download_4g_peak_rss_mib %.1f\n", std::stol(out) / 1024.0);
  std::error_code ignored;
  fs::remove_all(cacheHome, ignored);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--fetch")
    return fetchChild(std::atoi(argv[2]), argv[3], argv[4]);

  char pattern[] = "/var/tmp/bench-download-XXXXXX";
  if (!::mkdtemp(pattern)) die("cannot make a temporary folder");
  const fs::path work = pattern;
  gWork = work;
  struct statvfs vfs {};
  ::statvfs(work.c_str(), &vfs);
  if (static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize < kFourGiB + 4 * kOneGiB)
    die("not enough free disk space under " + work.string());

  bench::providerEnvironment(work / "cache");
  // Contents always travel through the download server.
  hostd::Host host(bench::hostConfig(work / "host", true));
  if (auto started = host.start(); !started.ok()) die("host: " + started.failure().message);
  auto mount = host.store().addMount("Bench", 1);
  if (!mount.ok()) die("cannot add a mount");
  {
    HalvoProviderClient client;
    FileProviderExtension extension(client, {"bench", "Bench"});
    client.setNPort(host.queryPort());
    downloadRatio(host, extension, work, mount->id);
  }
  peakMemory(host, work, mount->id);
  host.stop();
  std::error_code ignored;
  fs::remove_all(work, ignored);
  return 0;
}

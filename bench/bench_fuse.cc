// The folder through the kernel: `halvofp mount` (the release program, as a
// child process) against halvo-hostd in this process, each side measured
// against the plain tools on the same host in the same run:
//
//   fuse_read_cold    dd bs=1M of a 1 GiB file on a freshly started mount
//                     (lookups, listings, fetch, hash check, reads) over
//                     curl -o of its download address plus dd of the result
//   fuse_read_cached  dd bs=1M of that file once it was read, over dd of the
//                     mount's own local copy
//   fuse_ls_cold      ls -lR of 10,000 files in 100 folders on a freshly
//                     started mount over the 101 listing queries sent by curl
//   fuse_write        cp of a 1 GiB file into the mount and sync of it
//                     (fsync: returns once the upload reported) over the
//                     framework's creation call with the same file, made
//                     here in process, until its handler reports; each side
//                     starts from a synced disk and, as root, a dropped page
//                     cache
//   fuse_ls_100k      the mount process's resident memory once a 100,000-entry
//                     folder was listed, over the size of that listing's reply
//
// Prints only "ratio <name> <ours/reference>" (medians of alternating
// rounds) and "metric <name> <n>" lines; a failure is one "error ..." line on
// stderr and exit status 1. Each round's times go to stderr. Arguments pick
// parts (read, write, ls, memory). Without /dev/fuse it says so on stderr
// and measures nothing. Big files live under a temporary folder, removed at
// the end.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchHost.h"
#include "BenchUtil.h"
#include "Digest.h"
#include "Host.h"
#include "Seed.h"
#include "Store.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/fileprovider/ItemTemplate.h"

extern char** environ;

namespace fs = std::filesystem;
using namespace hvfp;

namespace {

constexpr uint64_t kOneGiB = uint64_t{1} << 30;
constexpr int kColdRounds = 5;
constexpr int kWriteRounds = 5;
constexpr int kRounds = 5;

fs::path gWork;  // removed on every way out

[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "error %s\n", why.c_str());
  std::error_code ignored;
  if (!gWork.empty()) {
    // A mount left behind would keep the folder busy.
    std::system(
        ("for m in " + gWork.string() + "/mnt-*; do umount -l \"$m\" 2>/dev/null; done").c_str());
    fs::remove_all(gWork, ignored);
  }
  std::exit(1);
}

template <typename Fn>
double seconds(Fn&& fn) {
  auto start = std::chrono::steady_clock::now();
  fn();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Each round's times on stderr, for looking into a ratio.
void detail(const char* name, double ours, double reference) {
  std::fprintf(stderr, "%s: ours %.3f s, reference %.3f s\n", name, ours, reference);
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void sh(const std::string& command) {
  if (std::system(command.c_str()) != 0) die("failed: " + command);
}

std::string output(const std::string& command) {
  std::string out;
  FILE* p = ::popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  ::pclose(p);
  return out;
}

bool mountedAt(const fs::path& dir) {
  std::ifstream in("/proc/self/mountinfo");
  std::string field = " ";
  field.append(dir.string()).append(" ");
  for (std::string line; std::getline(in, line);)
    if (line.find(field) != std::string::npos && line.find("fuse.halvofp") != std::string::npos)
      return true;
  return false;
}

// CPU time a process has used so far, all its threads together.
double cpuSecondsOf(pid_t pid) {
  double total = 0;
  std::error_code ec;
  for (auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    std::ifstream in(task.path() / "schedstat");
    double ns = 0;
    if (in >> ns) total += ns / 1e9;
  }
  return total;
}

long residentKiBOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

// One `halvofp mount --foreground` child with a cache folder of its own.
class Mount {
 public:
  Mount(int port, const std::string& name) {
    dir_ = gWork / ("mnt-" + name);
    cache_ = gWork / ("cache-" + name);
    fs::create_directories(dir_);
    fs::create_directories(cache_);
    std::vector<std::string> args = {
        HALVOFP_BIN,          "mount",    dir_.string(), "--foreground", "--port",
        std::to_string(port), "--domain", name,          "--cache-size", "8G"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env = {
        "XDG_CACHE_HOME=" + cache_.string(),
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + (gWork / "no-bus").string(),
        "PATH=" + std::string(std::getenv("PATH"))};
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, HALVOFP_BIN, nullptr, nullptr, argv.data(), envp.data()) != 0)
      die("cannot start halvofp");
    for (int i = 0; i < 600 && !mountedAt(dir_); ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) die("halvofp mount ended at once");
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!mountedAt(dir_)) die("halvofp did not mount");
  }
  ~Mount() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    std::error_code ignored;
    fs::remove_all(cache_, ignored);
    fs::remove(dir_, ignored);
  }
  const fs::path& dir() const { return dir_; }
  const fs::path& cache() const { return cache_; }
  pid_t pid() const { return pid_; }

 private:
  fs::path dir_, cache_;
  pid_t pid_ = -1;
};

std::string listingUrl(hostd::Host& host, int64_t mount, const std::string& uuid) {
  return "http://127.0.0.1:" + std::to_string(host.queryPort()) +
         "/provider?type=files&uuidhash=" + uuid + "&mount_id=" + std::to_string(mount);
}

// The local copy a mount keeps of a file of `size` bytes.
fs::path copyIn(const fs::path& cache, uint64_t size) {
  for (auto& e : fs::recursive_directory_iterator(cache))
    if (e.is_regular_file() && e.file_size() == size) return e.path();
  die("the mount kept no copy");
}

void reads(hostd::Host& host, int64_t mount) {
  auto generated = host.blobs().generate(kOneGiB, 7);
  if (!generated.ok()) die("cannot make the 1 GiB blob");
  const std::string hash = generated.value();
  if (!hostd::placeBlob(host.store(), mount, "one.bin", hash, kOneGiB, 1).ok())
    die("cannot place the 1 GiB file");
  const std::string url = host.downloadUrl(hash);
  const fs::path reference = gWork / "reference.bin";
  const std::string dd = " of=/dev/null bs=1M status=none";

  std::vector<double> ours, theirs;
  // Round 0 is not counted: the first gigabyte of page cache a guest takes
  // after its memory was handed back costs several times the next, and
  // whichever side ran first would pay for it.
  for (int round = 0; round <= kColdRounds; ++round) {
    double our = 0;
    {
      Mount fresh(host.queryPort(), "cold" + std::to_string(round));
      our = seconds([&] { sh("dd if=" + (fresh.dir() / "Bench/one.bin").string() + dd); });
    }
    double their = seconds([&] {
      sh("curl -s -f -o " + reference.string() + " " + url + " && dd if=" + reference.string() +
         dd);
    });
    fs::remove(reference);
    if (round == 0) continue;
    ours.push_back(our);
    theirs.push_back(their);
    detail("fuse_read_cold", our, their);
  }
  bench::printRatio("fuse_read_cold", median(ours) / median(theirs));

  Mount mounted(host.queryPort(), "cached");
  const fs::path file = mounted.dir() / "Bench/one.bin";
  sh("dd if=" + file.string() + dd);
  const fs::path copy = copyIn(mounted.cache(), kOneGiB);
  ours.clear();
  theirs.clear();
  for (int round = 0; round < kRounds; ++round) {
    ours.push_back(seconds([&] { sh("dd if=" + file.string() + dd); }));
    theirs.push_back(seconds([&] { sh("dd if=" + copy.string() + dd); }));
    detail("fuse_read_cached", ours.back(), theirs.back());
  }
  bench::printRatio("fuse_read_cached", median(ours) / median(theirs));
}

void listings(hostd::Host& host) {
  auto mount = host.store().addMount("Tree", 1);
  if (!mount.ok()) die("cannot add a mount");
  std::vector<std::string> urls = {listingUrl(host, mount->id, "")};
  for (int i = 0; i < 100; ++i) {
    auto folder = host.store().makeFolder(mount->id, "folder-" + std::to_string(i), 1, 1);
    if (!folder.ok() ||
        !host.store()
             .addManyFiles(mount->id, folder->uuid, 100, "file-", hostd::sha1Hex("x"), 1)
             .ok())
      die("cannot fill the tree");
    urls.push_back(listingUrl(host, mount->id, folder->uuid));
  }
  std::string curl = "curl -s -f";
  for (auto& u : urls) curl += " '" + u + "'";
  curl += " > /dev/null";

  std::vector<double> ours, theirs;
  for (int round = 0; round < kRounds; ++round) {
    {
      Mount fresh(host.queryPort(), "ls" + std::to_string(round));
      const std::string ls = "ls -lR " + (fresh.dir() / "Tree").string();
      const double before = cpuSecondsOf(fresh.pid());
      ours.push_back(seconds([&] { sh(ls + " > /dev/null"); }));
      std::fprintf(stderr, "fuse_ls_cold: the mount used %.3f s of CPU\n",
                   cpuSecondsOf(fresh.pid()) - before);
      if (round == 0 && std::stoi(output(ls + " | grep -c ' file-'")) != 10000)
        die("ls -lR did not show 10,000 files");
    }
    theirs.push_back(seconds([&] { sh(curl); }));
    detail("fuse_ls_cold", ours.back(), theirs.back());
  }
  bench::printRatio("fuse_ls_cold", median(ours) / median(theirs));
}

void bigFolder(hostd::Host& host) {
  auto mount = host.store().addMount("Big", 1);
  if (!mount.ok()) die("cannot add a mount");
  auto folder = host.store().makeFolder(mount->id, "big", 1, 1);
  if (!folder.ok() ||
      !host.store()
           .addManyFiles(mount->id, folder->uuid, 100000, "file-", hostd::sha1Hex("x"), 1)
           .ok())
    die("cannot fill the big folder");
  const size_t reply =
      output("curl -s -f '" + listingUrl(host, mount->id, folder->uuid) + "'").size();
  Mount fresh(host.queryPort(), "big");
  const fs::path big = fresh.dir() / "Big/big";
  if (std::stoi(output("ls -f " + big.string() + " | wc -l")) != 100002)
    die("the big folder did not list 100,000 files");
  const long kib = residentKiBOf(fresh.pid());
  bench::printMetric("fuse_ls_100k_rss_mib", kib / 1024.0);
  bench::printMetric("fuse_ls_100k_rss_over_reply", kib * 1024.0 / static_cast<double>(reply));
}

// The framework's creation call for `source`, in this process, until its
// handler reports.
double createInProcess(FileProviderExtension& extension, HalvoProviderClient& client, int64_t mount,
                       const fs::path& source, const std::string& name) {
  NSFileProviderItemTemplate item;
  item.identifier = "__fp/" + name;
  item.parentIdentifier = std::to_string(mount);
  item.name = name;
  item.size = kOneGiB;
  std::promise<std::string> done;
  double s = seconds([&] {
    extension.createItemBasedOnTemplate(
        item, 0, source.string(), 0, {},
        [&](NSFileProviderItemRef reported, uint64_t, bool, std::optional<Error> error) {
          done.set_value(error        ? "error " + std::to_string(error->code)
                         : !reported ? "no item"
                                     : "");
        });
    if (auto failed = done.get_future().get(); !failed.empty())
      die("the creation in process failed (" + failed + ")");
  });
  client.mUploadQueue()->waitUntilAllOperationsAreFinished();
  return s;
}

// Each side of a write round starts from the same state: nothing of the
// other's left to write back (a close that makes its file durable would wait
// for it), no page cache filled by earlier rounds (the host keeps every
// gigabyte either side sent, and reclaiming it would fall on whichever side
// allocates more), and the source file read into the cache. Dropping the
// cache needs root; without it the rounds only sync.
void settle(const fs::path& source) {
  sh("sync; (echo 1 > /proc/sys/vm/drop_caches) 2>/dev/null; cat " + source.string() +
     " > /dev/null");
}

void writes(hostd::Host& host, int64_t mount) {
  const fs::path source = gWork / "source.bin";
  sh("head -c " + std::to_string(kOneGiB) + " /dev/urandom > " + source.string());
  HalvoProviderClient client;
  FileProviderExtension extension(client, {"bench", "Bench"});
  client.setNPort(host.queryPort());
  Mount mounted(host.queryPort(), "write");
  std::vector<double> ours, theirs;
  for (int round = 0; round < kWriteRounds; ++round) {
    const std::string name = "w" + std::to_string(round) + ".bin";
    const fs::path target = mounted.dir() / "Bench" / name;
    bench::stamp(source, 2 * round);
    settle(source);
    double copied = 0;
    ours.push_back(seconds([&] {
      copied = seconds([&] { sh("cp " + source.string() + " " + target.string()); });
      sh("sync " + target.string());
    }));
    std::fprintf(stderr, "fuse_write: cp took %.3f s of it\n", copied);
    bench::stamp(source, 2 * round + 1);
    settle(source);
    theirs.push_back(createInProcess(extension, client, mount, source, "r" + name));
    detail("fuse_write", ours.back(), theirs.back());
    // What both sides made goes, so the disk holds at most a few copies.
    sh("rm -f " + target.string());
    sh("rm -rf " + (mounted.dir() / ".Trash").string() + "/*");
  }
  bench::printRatio("fuse_write", median(ours) / median(theirs));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> parts;
  for (int i = 1; i < argc; ++i)
    if (argv[i][0] != '-') parts.push_back(argv[i]);  // bench/run.sh passes options for others
  auto wanted = [&](const std::string& part) {
    return parts.empty() || std::find(parts.begin(), parts.end(), part) != parts.end();
  };
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    std::fprintf(stderr, "skipped: /dev/fuse is missing or not usable\n");
    return 0;
  }
  char pattern[] = "/var/tmp/bench-fuse-XXXXXX";
  if (!::mkdtemp(pattern)) die("cannot make a temporary folder");
  gWork = pattern;
  struct statvfs vfs {};
  ::statvfs(gWork.c_str(), &vfs);
  if (static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize < 10 * kOneGiB)
    die("not enough free disk space under " + gWork.string());

  bench::providerEnvironment(gWork / "cache");
  // Contents always travel through the download server.
  hostd::Host host(bench::hostConfig(gWork / "host", true));
  if (auto started = host.start(); !started.ok()) die("host: " + started.failure().message);
  auto mount = host.store().addMount("Bench", 1);
  if (!mount.ok()) die("cannot add a mount");

  if (wanted("read")) reads(host, mount->id);
  if (wanted("write")) writes(host, mount->id);
  if (wanted("ls")) listings(host);
  if (wanted("memory")) bigFolder(host);

  host.stop();
  std::error_code ignored;
  fs::remove_all(gWork, ignored);
  return 0;
}

// halvo-hostd under load: a 100,000-entry folder listing, and the host's
// peak memory while it streams a 4 GiB download and takes a 4 GiB upload in
// 10 MiB pieces. Prints "metric <name> <value>" lines; every loop is bounded.
#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Blobs.h"
#include "Digest.h"
#include "Host.h"
#include "Seed.h"
#include "Store.h"
#include "records/Json.h"

namespace fs = std::filesystem;
using namespace hvfp::hostd;

namespace {

// The host binary of the same build tree: <build>/bench/.. -> <build>/hostd/halvo-hostd.
std::string hostBinary() {
  std::error_code ec;
  auto self = fs::read_symlink("/proc/self/exe", ec);
  return (self.parent_path().parent_path() / "hostd" / "halvo-hostd").string();
}

constexpr uint64_t kBig = 4ull << 30;
constexpr uint64_t kPiece = 10ull << 20;

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

int64_t intOf(const hvfp::JsonValue& v, const char* key) {
  auto m = v.find(key);
  if (!m) return -1;
  if (auto i = std::get_if<int64_t>(&m->storage())) return *i;
  if (auto u = std::get_if<uint64_t>(&m->storage())) return static_cast<int64_t>(*u);
  return -1;
}

std::string strOf(const hvfp::JsonValue& v, const char* key) {
  auto m = v.find(key);
  return m && m->string() ? *m->string() : "";
}

long vmHwmKib(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

void listing(const fs::path& root) {
  HostConfig c;
  c.root = root / "listing";
  c.port = c.downloadPort = c.adminPort = 0;
  c.uploadPorts = {0};
  c.useBus = false;
  c.quiet = true;
  Host host(c);
  if (auto started = host.start(); !started.ok()) {
    std::printf("listing: %s\n", started.failure().message.c_str());
    return;
  }
  auto m = host.store().addMount("Bench", 1);
  auto folder = host.store().makeFolder(m->id, "big", 1, 1);
  if (!host.store().addManyFiles(m->id, folder->uuid, 100000, "file-", sha1Hex("x"), 1).ok()) {
    std::printf("listing: cannot fill the folder\n");
    return;
  }
  httplib::Client client("127.0.0.1", host.queryPort());
  client.set_read_timeout(60, 0);
  std::string path =
      "/provider?type=files&uuidhash=" + folder->uuid + "&mount_id=" + std::to_string(m->id);
  double best = 1e9;
  size_t entries = 0;
  for (int round = 0; round < 3; ++round) {
    auto start = std::chrono::steady_clock::now();
    auto res = client.Get(path.c_str());
    double t = seconds(start);
    if (!res) continue;
    best = std::min(best, t);
    if (round == 0) {
      auto v = hvfp::objectFromJSONString(res->body);
      auto list = v ? v->find("list") : nullptr;
      entries = list && list->array() ? list->array()->size() : 0;
    }
  }
  std::printf("listing entries %zu\n", entries);
  std::printf("metric hostd_listing_100k_seconds %.3f\n", best);
  host.stop();
}

pid_t spawnHost(const fs::path& root) {
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::dup2(null, 2);
    std::string bin = hostBinary();
    ::execl(bin.c_str(), bin.c_str(), "--root", root.c_str(), "--port", "0", "--upload-ports", "0",
            "--download-port", "0", "--admin-port", "0", "--no-bus", "--quiet", "--force-uris",
            nullptr);
    ::_exit(127);
  }
  return pid;
}

std::optional<hvfp::JsonValue> waitPorts(const fs::path& root) {
  for (int i = 0; i < 400; ++i) {
    std::ifstream f(root / kPortsFile);
    std::stringstream ss;
    ss << f.rdbuf();
    if (auto v = hvfp::objectFromJSONString(ss.str())) return v;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return std::nullopt;
}

void memory(const fs::path& root) {
  fs::path hroot = root / "memory";
  fs::create_directories(hroot);
  std::string bigHash;
  {
    // A 4 GiB blob of zeros, sparse on disk; its name is its real SHA-1.
    auto store = Store::open(hroot / "hostd.sqlite");
    BlobStore blobs(hroot);
    if (!store.ok() || !blobs.prepare().ok()) {
      std::printf("memory: cannot prepare the store\n");
      return;
    }
    Sha1 h;
    std::vector<char> zeros(kPiece, 0);
    for (uint64_t done = 0; done < kBig; done += zeros.size()) h.update(zeros.data(), zeros.size());
    bigHash = h.hex();
    fs::path tmp = blobs.tempPath("sparse");
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(kBig)) != 0) return;
    ::close(fd);
    auto m = (*store)->addMount("Bench", 1);
    if (!blobs.adopt(tmp, bigHash).ok() || !m.ok() ||
        !placeBlob(**store, m->id, "zeros.bin", bigHash, kBig, 1).ok()) {
      std::printf("memory: cannot place the blob\n");
      return;
    }
  }
  pid_t pid = spawnHost(hroot);
  auto ports = waitPorts(hroot);
  if (!ports) {
    std::printf("memory: host did not start\n");
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return;
  }
  int dport = static_cast<int>(intOf(*ports, "download"));
  int qport = static_cast<int>(intOf(*ports, "query"));
  auto uploadsV = ports->find("uploads");
  int uport = static_cast<int>(std::get<int64_t>(uploadsV->array()->front().storage()));

  std::string cmd = "curl -s -o /dev/null -w '%{http_code} %{size_download}' http://127.0.0.1:" +
                    std::to_string(dport) + "/blob/" + bigHash;
  auto start = std::chrono::steady_clock::now();
  FILE* p = ::popen(cmd.c_str(), "r");
  char out[128] = {0};
  if (p) {
    if (!std::fgets(out, sizeof out, p)) out[0] = 0;
    ::pclose(p);
  }
  std::printf("download: %s bytes in %.1f s\n", out, seconds(start));
  std::printf("metric hostd_download_peak_mib %.1f\n", vmHwmKib(pid) / 1024.0);

  // Upload of the same size under another name: new contents so the bytes
  // really travel (a different first byte changes the hash).
  Sha1 h;
  std::string piece(kPiece, '\0');
  piece[0] = 1;
  h.update(piece.data(), piece.size());
  std::string zeros(kPiece, '\0');
  for (uint64_t done = kPiece; done < kBig; done += kPiece)
    h.update(zeros.data(), std::min(kPiece, kBig - done));
  std::string upHash = h.hex();
  httplib::Client q("127.0.0.1", qport);
  q.set_read_timeout(120, 0);
  std::string server = "http://127.0.0.1:" + std::to_string(uport);
  auto create = q.Get(("/provider?type=create&webpath=up.bin&filehash=" + upHash + "&filesize=" +
                       std::to_string(kBig) + "&createtime=1&lasttime=1&mount_id=1&dir=0")
                          .c_str());
  auto created = create ? hvfp::objectFromJSONString(create->body) : std::nullopt;
  std::string uuid = created ? strOf(*created, "hash") : "";
  auto init =
      q.Get(("/provider?type=uploadinit&host=" + httplib::detail::encode_query_param(server) +
             "&filename=up.bin&pathhash=" + uuid + "&filehash=" + upHash +
             "&storagepoint=x&cookie=&filesize=" + std::to_string(kBig) + "&mount_id=1")
                .c_str());
  auto opened = init ? hvfp::objectFromJSONString(init->body) : std::nullopt;
  std::string session = opened ? strOf(*opened, "session") : "";
  httplib::Client up("127.0.0.1", uport);
  up.set_write_timeout(60, 0);
  start = std::chrono::steady_clock::now();
  uint64_t sent = 0;
  for (uint64_t off = 0; off < kBig && !session.empty(); off += kPiece) {
    uint64_t len = std::min(kPiece, kBig - off);  // the last piece is shorter
    std::string range = std::to_string(off) + "-" + std::to_string(off + len - 1);
    auto res =
        up.Put("/upload_part", {{"x-tb-upload-session", session}, {"x-tb-upload-range", range}},
               off == 0 ? piece : zeros.substr(0, len), "application/octet-stream");
    if (!res || res->status != 200) break;
    sent = off + len;
  }
  auto finish =
      q.Get(("/provider?type=uploadfinish&host=" + httplib::detail::encode_query_param(server) +
             "&session=" + session + "&cookie=&filesize=" + std::to_string(kBig))
                .c_str());
  std::printf("upload: %llu bytes in %.1f s, close %s\n", static_cast<unsigned long long>(sent),
              seconds(start), finish ? finish->body.substr(0, 40).c_str() : "no reply");
  std::printf("metric hostd_upload_peak_mib %.1f\n", vmHwmKib(pid) / 1024.0);
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
}

}  // namespace

int main() {
  char pattern[] = "/tmp/bench-hostd-XXXXXX";
  fs::path root = ::mkdtemp(pattern);
  struct statvfs vfs {};
  ::statvfs(root.c_str(), &vfs);
  uint64_t freeBytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  listing(root);
  if (freeBytes > kBig + (2ull << 30))
    memory(root);
  else
    std::printf("memory: skipped, only %llu bytes free\n",
                static_cast<unsigned long long>(freeBytes));
  std::error_code ec;
  fs::remove_all(root, ec);
  return 0;
}

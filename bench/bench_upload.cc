// A new file created end to end against halvo-hostd in this process: the
// framework's creation call until its handler reports (staging copy hashed
// as it is written, "create", session, pieces straight to the upload server,
// close). The reference does the same work with the usual tools, as child
// processes, against the same upload server:
//   cp              the copy
//   sha1sum         the hash of the copy
//   dd | curl -T -  the copy's bytes: the upload server takes pieces of at
//                   most 256 MiB, so each 256 MiB range of the copy is read
//                   by dd and sent by one curl as one PUT with the session
//                   and range headers the server wants (an explicit
//                   Content-Length, no chunked encoding, "Expect:" off, as
//                   the provider sends them)
// Its session is opened before the clock starts ("create" and "uploadinit"
// need the hash), and closed ("uploadfinish", which makes the host keep the
// bytes) inside the timed part, as the provider's own close is.
//
// Prints "ratio upload_1g <ours/reference>" from the median of alternating
// rounds, and "metric upload_4g_peak_rss_mib <n>": the process's peak
// resident memory (host included) while a 4 GiB file is created.
#include <fcntl.h>
#include <httplib.h>
#include <stdlib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "BenchHost.h"
#include "BenchUtil.h"
#include "Host.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "records/Json.h"
#include "records/JsonReading.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kOneGiB = uint64_t{1} << 30;
constexpr uint64_t kFourGiB = uint64_t{4} << 30;
constexpr uint64_t kCurlPiece = uint64_t{256} << 20;
constexpr int kRounds = 3;

double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool writeAll(int fd, const char* data, size_t count) {
  while (count > 0) {
    ssize_t n = ::write(fd, data, count);
    if (n <= 0) return false;
    data += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

// Pseudo-random contents that no compression or deduplication shortcuts.
bool fillFile(const fs::path& path, uint64_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  std::vector<uint64_t> block((size_t{1} << 20) / 8);
  uint64_t state = 0x9E3779B97F4A7C15ull;
  bool ok = true;
  for (uint64_t done = 0; ok && done < size; done += block.size() * 8) {
    for (auto& word : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    ok = writeAll(fd, reinterpret_cast<const char*>(block.data()),
                  static_cast<size_t>(std::min<uint64_t>(block.size() * 8, size - done)));
  }
  return ::close(fd) == 0 && ok;
}

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

std::string textOf(const hvfp::JsonValue& v, const char* key) {
  return std::string(hvfp::readText(v, key).view());
}

class Bench {
 public:
  explicit Bench(fs::path root) : root_(std::move(root)) {}

  bool start() {
    host_ = std::make_unique<hvfp::hostd::Host>(hvfp::bench::hostConfig(root_ / "host", false));
    if (!host_->start()) return false;
    auto mount = host_->store().addMount("Bench", 1);
    if (!mount) return false;
    mountId_ = mount->id;
    hvfp::bench::providerEnvironment(root_ / "cache");
    extension_ = std::make_unique<hvfp::FileProviderExtension>(
        client_, hvfp::NSFileProviderDomain{"bench", "Bench"});
    client_.setNPort(host_->queryPort());
    query_ = std::make_unique<httplib::Client>("127.0.0.1", host_->queryPort());
    query_->set_read_timeout(600, 0);
    return true;
  }
  ~Bench() {
    extension_.reset();
    if (host_) host_->stop();
  }

  // Seconds from the creation call to its handler; negative on failure.
  double ours(const fs::path& source, uint64_t size, const std::string& name) {
    hvfp::NSFileProviderItemTemplate item;
    item.identifier = "__fp/" + name;
    item.parentIdentifier = std::to_string(mountId_);
    item.name = name;
    item.size = size;
    auto done = std::make_shared<std::promise<bool>>();
    auto start = std::chrono::steady_clock::now();
    extension_->createItemBasedOnTemplate(
        item, 0, source.string(), 0, {},
        [done](hvfp::NSFileProviderItemRef reported, uint64_t, bool,
               std::optional<hvfp::Error> error) { done->set_value(reported && !error); });
    bool ok = done->get_future().get();
    double seconds = since(start);
    client_.mUploadQueue()->waitUntilAllOperationsAreFinished();
    return ok ? seconds : -1;
  }

  double reference(const fs::path& source, uint64_t size, const std::string& name) {
    // Untimed: the session the pieces go to.
    std::string hash = sha1Of(source);
    auto created = get("type=create&webpath=" + name + "&filehash=" + hash +
                       "&filesize=" + std::to_string(size) +
                       "&createtime=1&lasttime=1&mount_id=" + std::to_string(mountId_) + "&dir=0");
    std::string server = host_->uploadUrls().front();
    std::string host = httplib::detail::encode_query_param(server);
    auto opened = get("type=uploadinit&host=" + host + "&filename=" + name +
                      "&pathhash=" + textOf(created, "hash") + "&filehash=" + hash +
                      "&storagepoint=&cookie=&filesize=" + std::to_string(size) +
                      "&mount_id=" + std::to_string(mountId_));
    std::string session = textOf(opened, "session");
    if (session.empty()) return -1;
    fs::path copy = root_ / "copy.bin";
    std::vector<std::string> sends;
    for (uint64_t offset = 0; offset < size; offset += kCurlPiece) {
      uint64_t length = std::min(kCurlPiece, size - offset);
      sends.push_back("dd if=" + copy.string() + " bs=4M skip=" + std::to_string(offset) +
                      " count=" + std::to_string(length) +
                      " iflag=skip_bytes,count_bytes status=none | curl -s -f -o /dev/null -T -"
                      " -H 'Expect:' -H 'Transfer-Encoding:' -H 'x-tb-upload-session: " +
                      session + "' -H 'x-tb-upload-range: " + std::to_string(offset) + "-" +
                      std::to_string(offset + length - 1) + "' -H 'Content-Length: " +
                      std::to_string(length) + "' " + server + "/upload_part");
    }

    auto start = std::chrono::steady_clock::now();
    bool ok = run("cp " + source.string() + " " + copy.string()) &&
              run("sha1sum " + copy.string() + " > /dev/null");
    for (const auto& send : sends) ok = ok && run(send);
    fprintf(stderr, "ref before close %.3f\n", since(start));
    auto closed = get("type=uploadfinish&host=" + host + "&session=" + session +
                      "&cookie=&filesize=" + std::to_string(size));
    double seconds = since(start);
    fprintf(stderr, "ref %.3f\n", seconds);
    fs::remove(copy);
    return ok && hvfp::readInteger(closed, "status_code") == 200 ? seconds : -1;
  }

  // Peak resident memory, in MiB, while a file of `size` bytes is created.
  double peakWhileCreating(const fs::path& source, uint64_t size) {
    hvfp::bench::resetPeak();
    double seconds = ours(source, size, "big.bin");
    return seconds < 0 ? -1 : hvfp::bench::peakKiB() / 1024.0;
  }

 private:
  hvfp::JsonValue get(const std::string& query) {
    auto res = query_->Get(("/provider?" + query).c_str());
    auto value = res ? hvfp::objectFromJSONString(res->body) : std::nullopt;
    return value ? *value : hvfp::JsonValue();
  }
  static std::string sha1Of(const fs::path& path) {
    FILE* p = ::popen(("sha1sum " + path.string()).c_str(), "r");
    char out[64] = {0};
    if (p) {
      if (!std::fgets(out, sizeof out, p)) out[0] = 0;
      ::pclose(p);
    }
    return std::string(out, strnlen(out, 40));
  }

  fs::path root_;
  std::unique_ptr<hvfp::hostd::Host> host_;
  int64_t mountId_ = 0;
  hvfp::HalvoProviderClient client_;
  std::unique_ptr<hvfp::FileProviderExtension> extension_;
  std::unique_ptr<httplib::Client> query_;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  hvfp::setLogSink(hvfp::LogSink::Silent);
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/hvfp-bench-upload-XXXXXX";
  if (!::mkdtemp(pattern.data())) return 1;
  fs::path root = pattern;
  struct statvfs vfs {};
  ::statvfs(root.c_str(), &vfs);
  const uint64_t freeBytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  {
    Bench bench(root);
    fs::path source = root / "source.bin";
    if (!bench.start() || !fillFile(source, kOneGiB)) {
      std::printf("upload_1g: cannot set up\n");
    } else {
      std::vector<double> ours, reference;
      for (int round = 0; round < kRounds; ++round) {
        hvfp::bench::stamp(source, 2 * round);
        ours.push_back(bench.ours(source, kOneGiB, "ours-" + std::to_string(round) + ".bin"));
        fprintf(stderr, "ours %.3f\n", ours.back());
        hvfp::bench::stamp(source, 2 * round + 1);
        reference.push_back(
            bench.reference(source, kOneGiB, "ref-" + std::to_string(round) + ".bin"));
      }
      if (*std::min_element(ours.begin(), ours.end()) < 0 ||
          *std::min_element(reference.begin(), reference.end()) < 0)
        std::printf("upload_1g: a round failed\n");
      else
        hvfp::bench::printRatio("upload_1g", median(ours) / median(reference));
    }
    fs::remove(source);
    // The source (sparse but for its first bytes), the staging copy, the
    // host's session file and its blob.
    if (freeBytes > 3 * kFourGiB + kOneGiB) {
      int fd = ::open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      bool made = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(kFourGiB)) == 0;
      if (fd >= 0) ::close(fd);
      hvfp::bench::stamp(source, 99);
      double peak = made ? bench.peakWhileCreating(source, kFourGiB) : -1;
      if (peak < 0)
        std::printf("upload_4g: failed\n");
      else
        hvfp::bench::printMetric("upload_4g_peak_rss_mib", peak);
    } else {
      std::printf("upload_4g: skipped, only %llu bytes free\n",
                  static_cast<unsigned long long>(freeBytes));
    }
  }
  std::error_code ec;
  fs::remove_all(root, ec);
  return 0;
}

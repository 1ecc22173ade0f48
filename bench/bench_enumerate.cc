// Folder listing and item lookup against bare libcurl (+ simdjson) on the
// same loopback URL, measured in the same run and alternated so drift in the
// machine's load falls on both sides.
//
// The host is a LoopbackServer in a forked child, so its copies of the 25 MB
// reply count neither in our peak memory nor against either side's heap.
// Prints:
//   ratio enumerate_100k <ours/reference>       our listing time over GET + DOM parse
//   metric enumerate_100k_peak_over_reply <x>   peak RSS growth of one listing / reply bytes
//   ratio lookup_rate <ours/bare>               lookups per second over bare GETs per second
//   metric enumerate_100k_log_silent <x>         the listing ratio with the log silenced
// Our side logs as the product does (100,000 item lines per listing); the
// lines are written to /dev/null, which stderr points to once the benchmark
// library has read its flags.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <signal.h>
#include <simdjson.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchUtil.h"
#include "RatioReporter.h"
#include "extension/FileProviderEnumerator.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "support/LoopbackServer.h"

namespace {

constexpr int kEntries = 100000;
constexpr int kRounds = 9;
constexpr int kLookupThreads = 8;
constexpr int kLookupsPerThread = 400;
constexpr const char* kOurs = "enumerate_100k/FileProviderEnumerator";
constexpr const char* kOursSilent = "enumerate_100k/FileProviderEnumerator_log_silent";
constexpr const char* kReference = "enumerate_100k/curl_get+simdjson_dom";
constexpr const char* kLookupOurs = "lookup_rate/itemForIdentifier_x8";
constexpr const char* kLookupBare = "lookup_rate/curl_get_x8";

std::string hex(uint64_t seed, size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(length, '0');
  for (size_t i = 0; i < length; ++i) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    out[i] = kDigits[(seed >> 59) & 15];
  }
  return out;
}

// Entries shaped like the host's: about 250 bytes each.
std::string folderReply() {
  std::string body = "{\"list\":[";
  body.reserve(size_t{kEntries} * 270);
  for (int i = 0; i < kEntries; ++i) {
    const std::string name = "file_" + std::to_string(100000 + i) + ".pdf";
    body += i ? ",{" : "{";
    body += "\"filename\":\"" + name + "\",\"mount_id\":3,\"webpath\":\"projects/2023/reports/" +
            name + "\",\"dir\":0,\"filehash\":\"" + hex(i, 40) +
            "\",\"filesize\":" + std::to_string(1000 + i * 7) + ",\"uuidhash\":\"" +
            hex(i + kEntries, 32) +
            "\",\"up_hash\":\"folderhash\",\"lasttime\":" + std::to_string(1700000000 + i) +
            ",\"creatortime\":1690000000,\"status\":0}";
  }
  return body + "],\"lasttime\":1700100000}";
}

constexpr const char* kFileInfoReply =
    R"({"status_code":200,"error_code":0,"filename":"report.pdf","mount_id":3,"webpath":"projects/report.pdf",)"
    R"("dir":0,"filehash":"0a1b2c3d4e5f60718293a4b5c6d7e8f901234567","filesize":52133,"uuidhash":"h1",)"
    R"("up_hash":"folderhash","lasttime":1700000000,"creatortime":1690000000,"status":0})";

struct Host {
  pid_t pid = -1;
  int listingPort = 0;
  int lookupPort = 0;
  size_t replyBytes = 0;
};

// Forked before any thread exists; the child serves until the parent ends.
std::optional<Host> startHost() {
  int fds[2];
  if (::pipe(fds) != 0) return std::nullopt;
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(0);
    std::string body = folderReply();
    hvfp::test::LoopbackServer listing, lookup;
    int ports[3] = {listing.port(), lookup.port(), static_cast<int>(body.size())};
    listing.setDefault({200, std::move(body)});
    lookup.setDefault({200, kFileInfoReply});
    if (::write(fds[1], ports, sizeof ports) != sizeof ports) ::_exit(1);
    for (;;) ::pause();
  }
  ::close(fds[1]);
  int ports[3] = {0, 0, 0};
  const bool ok = ::read(fds[0], ports, sizeof ports) == sizeof ports;
  ::close(fds[0]);
  if (!ok) return std::nullopt;
  return Host{pid, ports[0], ports[1], static_cast<size_t>(ports[2])};
}

std::string listingUrl(const Host& host) {
  return "http://127.0.0.1:" + std::to_string(host.listingPort) +
         "/provider?type=files&uuidhash=folderhash&mount_id=3";
}

std::string lookupUrl(const Host& host) {
  return "http://127.0.0.1:" + std::to_string(host.lookupPort) +
         "/provider?type=fileinfo&uuidhash=h1&mount_id=3";
}

hvfp::HalvoProviderClient& client() {
  return hvfp::HalvoProviderClient::shareHalvoProviderClient();
}

class CountingObserver : public hvfp::NSFileProviderEnumerationObserver {
 public:
  void didEnumerateItems(std::vector<hvfp::NSFileProviderItemRef> items) override {
    count += items.size();
    ++batches;
  }
  void finishEnumeratingUpToPage(std::optional<std::string>) override { finished = true; }
  void finishEnumeratingWithError(const hvfp::Error&) override {}
  size_t count = 0;
  int batches = 0;
  bool finished = false;
};

bool enumerateOnce(const Host& host) {
  client().setNPort(host.listingPort);
  hvfp::FileProviderEnumerator enumerator(client(), "3/folderhash", 2);
  CountingObserver observer;
  enumerator.enumerateItemsForObserver(observer, "");
  return observer.count == kEntries && observer.batches == 1 && observer.finished;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// A bare keep-alive GET: what a program that only wants the bytes would write.
class BareGet {
 public:
  BareGet() : curl_(curl_easy_init()) {}
  ~BareGet() { curl_easy_cleanup(curl_); }
  BareGet(const BareGet&) = delete;
  BareGet& operator=(const BareGet&) = delete;

  bool get(const std::string& url, std::string& body) {
    body.clear();
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_PROXY, "");
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body);
    return curl_easy_perform(curl_) == CURLE_OK;
  }

 private:
  CURL* curl_;
};

bool referenceOnce(const Host& host, BareGet& get, simdjson::dom::parser& parser) {
  std::string body;
  if (!get.get(listingUrl(host), body)) return false;
  simdjson::dom::element doc;
  if (parser.parse(body).get(doc) != simdjson::SUCCESS) return false;
  simdjson::dom::array list;
  return doc["list"].get(list) == simdjson::SUCCESS && list.size() == kEntries;
}

template <typename PerThread>
bool runThreads(PerThread perThread) {
  std::atomic<bool> ok{true};
  std::vector<std::thread> threads;
  for (int t = 0; t < kLookupThreads; ++t)
    threads.emplace_back([&] {
      if (!perThread()) ok = false;
    });
  for (auto& t : threads) t.join();
  return ok;
}

bool lookupsOurs(const Host& host, hvfp::FileProviderExtension& extension) {
  client().setNPort(host.lookupPort);
  return runThreads([&] {
    int found = 0;
    for (int i = 0; i < kLookupsPerThread; ++i)
      extension.itemForIdentifier("3/h1", {}, [&](auto item, auto) { found += item ? 1 : 0; });
    return found == kLookupsPerThread;
  });
}

bool lookupsBare(const Host& host) {
  const std::string url = lookupUrl(host);
  return runThreads([&] {
    BareGet get;
    std::string body;
    for (int i = 0; i < kLookupsPerThread; ++i)
      if (!get.get(url, body)) return false;
    return true;
  });
}

std::optional<long> statusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(field) + ":";
  while (std::getline(status, line))
    if (line.rfind(prefix, 0) == 0) return std::stol(line.substr(prefix.size()));
  return std::nullopt;
}

long residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

// Peak RSS growth of one listing, taken first in a fresh process so no heap
// kept from earlier runs hides part of it.
std::optional<double> peakOverReply(const Host& host) {
  {
    std::ofstream reset("/proc/self/clear_refs");
    reset << "5";
  }
  const long before = residentBytes();
  if (!enumerateOnce(host)) return std::nullopt;
  const auto hwm = statusKiB("VmHWM");
  if (!hwm) return std::nullopt;
  return static_cast<double>(*hwm * 1024 - before) / static_cast<double>(host.replyBytes);
}

void timed(benchmark::State& state, const std::function<bool()>& body) {
  for (auto _ : state) {
    if (!body()) {
      state.SkipWithError("run failed");
      break;
    }
  }
}

void registerRound(const char* name, std::function<bool()> body) {
  benchmark::RegisterBenchmark(name, [body](benchmark::State& s) { timed(s, body); })
      ->Iterations(2)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

// The extension's start makes a cache folder and looks for a session bus;
// both are pointed somewhere private and empty.
std::string privateEnvironment() {
  char pattern[] = "/tmp/hvfp-bench-enum-XXXXXX";
  if (!::mkdtemp(pattern)) return {};
  const std::string dir = pattern;
  ::setenv("XDG_CACHE_HOME", (dir + "/cache").c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir + "/no-bus").c_str(), 1);
  return dir;
}

}  // namespace

int main(int argc, char** argv) {
  auto host = startHost();
  if (!host) {
    std::fprintf(stderr, "cannot start the host\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  FILE* complaints = hvfp::bench::sendStderrToDevNull();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::string dir = privateEnvironment();
  hvfp::FileProviderExtension extension(client(), hvfp::NSFileProviderDomain{"bench", "Bench"});

  const auto peak = peakOverReply(*host);
  BareGet referenceGet;
  simdjson::dom::parser parser;
  const Host h = *host;
  for (int round = 0; round < kRounds; ++round) {
    registerRound(kOurs, [h] { return enumerateOnce(h); });
    registerRound(kReference,
                  [h, &referenceGet, &parser] { return referenceOnce(h, referenceGet, parser); });
    registerRound(kOursSilent, [h] {
      hvfp::setLogSink(hvfp::LogSink::Silent);
      const bool ok = enumerateOnce(h);
      hvfp::setLogSink(hvfp::LogSink::Stderr);
      return ok;
    });
    registerRound(kLookupOurs, [h, &extension] { return lookupsOurs(h, extension); });
    registerRound(kLookupBare, [h] { return lookupsBare(h); });
  }

  hvfp::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  ::kill(host->pid, SIGKILL);
  ::waitpid(host->pid, nullptr, 0);
  if (!dir.empty()) std::system(("rm -rf '" + dir + "'").c_str());

  const auto ours = reporter.medianSeconds(kOurs);
  const auto silent = reporter.medianSeconds(kOursSilent);
  const auto reference = reporter.medianSeconds(kReference);
  const auto lookupOurs = reporter.medianSeconds(kLookupOurs);
  const auto lookupBare = reporter.medianSeconds(kLookupBare);
  if (!ours || !silent || !reference || !lookupOurs || !lookupBare || !peak) {
    std::fprintf(complaints, "no ratio: a side did not run\n");
    return 1;
  }
  std::fflush(stdout);
  std::printf("metric enumerate_100k_log_silent %.3f\n", *silent / *reference);
  std::printf("ratio enumerate_100k %.3f\n", *ours / *reference);
  std::printf("metric enumerate_100k_peak_over_reply %.3f\n", *peak);
  // Equal work on both sides, so the rate ratio is the inverse time ratio.
  std::printf("ratio lookup_rate %.3f\n", *lookupBare / *lookupOurs);
  return 0;
}

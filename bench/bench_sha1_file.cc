// Whole-file SHA-1 of the upload path against OpenSSL's bare digest loop over
// the same warm file, measured in the same run and alternated so drift in the
// machine's load falls on both sides. Prints "ratio sha1_file <ours/reference>".
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "RatioReporter.h"
#include "digest/FileMD5Hash.h"

namespace {

constexpr size_t kFileBytes = size_t{512} << 20;
constexpr size_t kBufferBytes = size_t{1} << 20;
constexpr int kRounds = 8;
constexpr const char* kOurs = "sha1_file/FileSHA1";
constexpr const char* kReference = "sha1_file/openssl_evp_loop";

// The file is unlinked as soon as it exists and reached through its
// descriptor's /proc path, so it disappears however the program ends.
class ScratchFile {
 public:
  ScratchFile() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/hvfp_bench_sha1_XXXXXX";
    fd_ = ::mkstemp(pattern.data());
    if (fd_ < 0) return;
    ::unlink(pattern.c_str());
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~ScratchFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  bool fill(size_t bytes) {
    if (fd_ < 0) return false;
    auto buffer = std::make_unique<uint64_t[]>(kBufferBytes / 8);
    uint64_t state = 0x9E3779B97F4A7C15ull;
    for (size_t done = 0; done < bytes; done += kBufferBytes) {
      for (size_t i = 0; i < kBufferBytes / 8; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        buffer[i] = state;
      }
      if (!writeAll(reinterpret_cast<const char*>(buffer.get()), kBufferBytes)) return false;
    }
    return true;
  }

  const std::string& path() const { return path_; }

 private:
  bool writeAll(const char* data, size_t count) {
    while (count > 0) {
      const ssize_t n = ::write(fd_, data, count);
      if (n <= 0) return false;
      data += n;
      count -= static_cast<size_t>(n);
    }
    return true;
  }

  int fd_ = -1;
  std::string path_;
};

// What a program that wants nothing but the digest would write.
std::optional<std::string> referenceSha1(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  auto buffer = std::make_unique_for_overwrite<unsigned char[]>(kBufferBytes);
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr);
  ssize_t n;
  while ((n = ::read(fd, buffer.get(), kBufferBytes)) > 0) {
    EVP_DigestUpdate(ctx, buffer.get(), static_cast<size_t>(n));
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, md, &length);
  EVP_MD_CTX_free(ctx);
  ::close(fd);
  if (n < 0) return std::nullopt;
  return std::string(reinterpret_cast<char*>(md), length);
}

template <typename Digest>
void runDigest(benchmark::State& state, const std::string& path, Digest digest) {
  for (auto _ : state) {
    auto result = digest(path);
    if (!result) {
      state.SkipWithError("digest failed");
      break;
    }
    benchmark::DoNotOptimize(result);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  ScratchFile file;
  if (!file.fill(kFileBytes)) {
    std::fprintf(stderr, "cannot write the scratch file\n");
    return 1;
  }
  const std::string path = file.path();
  if (!referenceSha1(path)) {  // also brings the whole file into the page cache
    std::fprintf(stderr, "cannot read the scratch file\n");
    return 1;
  }

  auto ours = [](const std::string& p) { return hvfp::FileSHA1::FileMD5HashCreateWithPath(p, 0); };
  for (int round = 0; round < kRounds; ++round) {
    benchmark::RegisterBenchmark(kOurs, [&](benchmark::State& s) { runDigest(s, path, ours); })
        ->Iterations(2)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(kReference,
                                 [&](benchmark::State& s) { runDigest(s, path, referenceSha1); })
        ->Iterations(2)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }

  hvfp::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const auto oursMean = reporter.medianSeconds(kOurs);
  const auto referenceMean = reporter.medianSeconds(kReference);
  if (!oursMean || !referenceMean || *referenceMean <= 0) {
    std::fprintf(stderr, "no ratio: a side did not run\n");
    return 1;
  }
  std::fflush(stdout);
  std::printf("ratio sha1_file %.3f\n", *oursMean / *referenceMean);
  return 0;
}

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "digest/DigestDetail.h"
#include "digest/FileMD5Hash.h"
#include "digest/NSDataExpand.h"

namespace hvfp {
namespace {

namespace fs = std::filesystem;

class DigestFileSha1 : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::path(::testing::TempDir()) / "digest-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  std::string writeFile(const std::string& name, const std::string& bytes) {
    const fs::path path = dir_ / name;
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path.string();
  }

  static std::string randomBytes(size_t count) {
    std::mt19937_64 gen(42);
    std::string bytes(count, '\0');
    for (auto& b : bytes) b = static_cast<char>(gen() & 0xFF);
    return bytes;
  }

  fs::path dir_;
};

TEST_F(DigestFileSha1, EmptyFileGivesDigestOfNothing) {
  const auto path = writeFile("empty", "");
  EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(path, 0),
            "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(DigestFileSha1, MultiMegabyteFileSameDigestForEveryStepLength) {
  // Not a multiple of any read block, so the last read is a short one.
  const std::string bytes = randomBytes((3u << 20) + 12345);
  const auto path = writeFile("big", bytes);
  const std::string expected = sha1HexDigest(bytes);
  for (int64_t step : {int64_t{0}, int64_t{1}, int64_t{4096}, int64_t{1000003}}) {
    EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(path, step), expected) << "step " << step;
  }
}

TEST_F(DigestFileSha1, UnopenableOrUnreadablePathsGiveNullopt) {
  EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath((dir_ / "missing").string(), 0), std::nullopt);
  EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath("", 0), std::nullopt);
  EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(dir_.string(), 0), std::nullopt);
}

// A read source over a fixed buffer that hands out at most `chunk` bytes per
// call and can fail once a given number of bytes has gone out.
struct ScriptedSource {
  std::string bytes;
  size_t chunk;
  size_t failAfter = std::string::npos;
  int failErrno = EIO;
  int interruptions = 0;  // EINTR failures still to give before the next read
  size_t offset = 0;

  ssize_t operator()(char* buffer, size_t capacity) {
    if (interruptions > 0) {
      --interruptions;
      errno = EINTR;
      return -1;
    }
    if (offset >= failAfter) {
      errno = failErrno;
      return -1;
    }
    const size_t n = std::min({capacity, chunk, bytes.size() - offset});
    std::memcpy(buffer, bytes.data() + offset, n);
    offset += n;
    return static_cast<ssize_t>(n);
  }
};

TEST(DigestFileSha1Reads, ShortReadsAndInterruptionsDoNotChangeTheDigest) {
  ScriptedSource source{std::string(100000, 'x'), 777};
  source.interruptions = 3;
  const std::string expected = sha1HexDigest(source.bytes);
  EXPECT_EQ(detail::sha1OfReads(std::ref(source), 4096), expected);
  EXPECT_EQ(source.offset, source.bytes.size());
}

TEST(DigestFileSha1Reads, ErrorAfterPartWasReadGivesNullopt) {
  ScriptedSource source{std::string(100000, 'x'), 4096};
  source.failAfter = 50000;
  EXPECT_EQ(detail::sha1OfReads(std::ref(source), 4096), std::nullopt);
  EXPECT_GE(source.offset, 50000u);  // the failure came part-way, not at the start
}

TEST(DigestFileSha1Reads, ErrorOnFirstReadGivesNullopt) {
  ScriptedSource source{"abc", 4096};
  source.failAfter = 0;
  source.failErrno = EISDIR;
  EXPECT_EQ(detail::sha1OfReads(std::ref(source), 4096), std::nullopt);
}

}  // namespace
}  // namespace hvfp

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "digest/DigestDetail.h"
#include "digest/FileMD5Hash.h"
#include "digest/NSDataExpand.h"

namespace hvfp {
namespace {

using Vectors = std::vector<std::pair<std::string, std::string>>;

std::string randomBytes(size_t count, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string bytes(count, '\0');
  for (auto& b : bytes) b = static_cast<char>(gen() & 0xFF);
  return bytes;
}

TEST(DigestBuffers, Sha1AndMd5MatchTheStandardVectors) {
  const Vectors sha1 = {
      // FIPS 180, plus embedded zero bytes
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
      {std::string("a\0b", 3), "4a3dec2d1f8245280855c42db0ee4239f917fdb8"},
  };
  for (const auto& [input, hex] : sha1) EXPECT_EQ(sha1HexDigest(input), hex) << input.size();
  const Vectors md5 = {
      // RFC 1321
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [input, hex] : md5) EXPECT_EQ(md5Data2String(input), hex) << input;
  // The raw form is the sixteen bytes the hex form spells.
  EXPECT_EQ(md5HexDigest("abc"),
            "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72");
}

TEST(DigestCrc32, CheckValuesForSeveralReflectedPolynomials) {
  EXPECT_EQ(crc32("123456789"), 0xCBF43926u);
  EXPECT_EQ(crc32(""), 0u);
  const std::pair<uint32_t, uint32_t> checks[] = {
      {0x82F63B78u, 0xE3069283u},  // CRC-32C
      {0xC8DF352Fu, 0x1697D06Au},  // AUTOSAR
      {0xD419CC15u, 0x87315576u},  // BASE91-D
  };
  for (const auto& [polynomial, check] : checks)
    EXPECT_EQ(crc32WithSeed("123456789", 0xFFFFFFFFu, polynomial), check) << polynomial;
}

// The default polynomial goes through zlib, whose register conventions differ
// from ours; the bit-by-bit table loop here is the definition it must match.
uint32_t referenceCrc(std::string_view bytes, uint32_t seed, uint32_t polynomial) {
  uint32_t table[256];
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ ((c & 1u) ? polynomial : 0u);
    table[n] = c;
  }
  uint32_t crc = seed;
  for (unsigned char b : bytes) crc = (crc >> 8) ^ table[(crc ^ b) & 0xFF];
  return ~crc;
}

TEST(DigestCrc32, FastAndGenericPathsAgreeWithTheTableForEverySeedAndLength) {
  const std::string data = randomBytes(70001, 7);
  for (uint32_t polynomial : {0xEDB88320u, 0x82F63B78u}) {
    for (uint32_t seed : {0xFFFFFFFFu, 0u, 0x12345678u, 0xDEADBEEFu}) {
      for (size_t length : {size_t{0}, size_t{1}, size_t{15}, data.size()}) {
        SCOPED_TRACE(testing::Message() << polynomial << " " << seed << " " << length);
        const auto part = std::string_view(data).substr(0, length);
        EXPECT_EQ(crc32WithSeed(part, seed, polynomial), referenceCrc(part, seed, polynomial));
      }
    }
  }
}

TEST(DigestBase64, Rfc4648VectorsBothWaysWithAndWithoutPadding) {
  const Vectors vectors = {
      {"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [bytes, text] : vectors) {
    SCOPED_TRACE(bytes);
    EXPECT_EQ(base64Encoded(bytes), text);
    EXPECT_EQ(base64Decoded(text), bytes);
    std::string bare = text;
    std::erase(bare, '=');
    EXPECT_EQ(base64Decoded(bare), bytes);
  }
  EXPECT_EQ(base64Encoded(""), std::nullopt);
}

TEST(DigestBase64, LongInputHasNoLineBreaksAndRoundTrips) {
  const std::string data = randomBytes((3u << 20) + 1000, 11);  // spans more than one chunk
  const auto text = base64Encoded(data);
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(text->size(), (data.size() + 2) / 3 * 4);
  EXPECT_EQ(text->find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(base64Decoded(*text), data);
}

TEST(DigestBase64, DecodingSkipsEverythingOutsideTheAlphabet) {
  EXPECT_EQ(base64Decoded("Zm9v\r\nYmFy\n"), "foobar");
  EXPECT_EQ(base64Decoded(" Z m\t9 v Y\nm F y "), "foobar");
  EXPECT_EQ(base64Decoded("Zg==Zm8="), std::string("f\x06"
                                                   "f"));  // "=" does not end the text
  EXPECT_EQ(base64Decoded("Z\xE7"), "f");  // only the low seven bits are looked up: 'g'
  // Nothing decodable at all, or a lone sextet that makes no byte.
  for (const char* text : {"", "==== \r\n!*", "Z"}) EXPECT_EQ(base64Decoded(text), std::nullopt);
}

// The step length the callers pass does not change how the file is read, so
// one is enough here; how the reads fall is covered by the scripted reads below.
TEST(DigestFileSha1, DigestOfTheWholeFileAndNoneForWhatCannotBeRead) {
  std::string dir = (std::filesystem::path(::testing::TempDir()) / "digest-XXXXXX").string();
  ASSERT_NE(::mkdtemp(dir.data()), nullptr) << std::strerror(errno);
  const std::string path = dir + "/f";
  // The large one is not a multiple of any read block, so its last read is a short one.
  for (const std::string& bytes : {std::string(), randomBytes((3u << 20) + 12345, 42)}) {
    std::ofstream(path, std::ios::binary) << bytes;
    EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(path, 4096), sha1HexDigest(bytes))
        << bytes.size();
  }
  for (const std::string& unreadable : {dir + "/missing", std::string(), dir})
    EXPECT_EQ(FileSHA1::FileMD5HashCreateWithPath(unreadable, 0), std::nullopt) << unreadable;
  std::filesystem::remove_all(dir);
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

// However the reads fall (single bytes, around SHA-1's 64-byte block and its
// 56-byte padding edge, around and past the block length asked for), the
// digest is that of the whole.
TEST(DigestFileSha1Reads, EveryChunkingGivesTheDigestOfTheWhole) {
  for (size_t size : {0, 1, 55, 56, 63, 64, 65, 4095, 4096, 4097, 100000}) {
    const std::string bytes = randomBytes(size, static_cast<uint32_t>(size));
    const std::string expected = sha1HexDigest(bytes);
    for (size_t chunk : {1, 55, 64, 65, 777, 4096, 1 << 20}) {
      for (size_t block : {64, 4096, 1 << 20}) {
        SCOPED_TRACE(testing::Message() << size << " bytes, reads of " << chunk << " of " << block);
        ScriptedSource source{.bytes = bytes, .chunk = chunk};
        EXPECT_EQ(detail::sha1OfReads(std::ref(source), block), expected);
        EXPECT_EQ(source.offset, size);
      }
    }
  }
}

TEST(DigestFileSha1Reads, InterruptionsAreRetriedOtherErrorsGiveNullopt) {
  const std::string bytes(100000, 'x');
  ScriptedSource retried{.bytes = bytes, .chunk = 777, .interruptions = 3};
  EXPECT_EQ(detail::sha1OfReads(std::ref(retried), 4096), sha1HexDigest(bytes));
  EXPECT_EQ(retried.offset, bytes.size());
  for (auto [failAfter, failErrno] :
       {std::pair{size_t{0}, EISDIR}, std::pair{size_t{50000}, EIO}}) {
    ScriptedSource failing{bytes, 4096, failAfter, failErrno};
    EXPECT_EQ(detail::sha1OfReads(std::ref(failing), 4096), std::nullopt) << failAfter;
    EXPECT_GE(failing.offset, failAfter);  // the failure came where it was placed, not earlier
  }
}

}  // namespace
}  // namespace hvfp

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "digest/NSDataExpand.h"

namespace hvfp {
namespace {

std::string randomBytes(size_t count, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string bytes(count, '\0');
  for (auto& b : bytes) b = static_cast<char>(gen() & 0xFF);
  return bytes;
}

TEST(DigestBuffers, Sha1MatchesFips180Vectors) {
  EXPECT_EQ(sha1HexDigest(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1HexDigest("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(sha1HexDigest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(sha1HexDigest(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(DigestBuffers, Sha1CoversEmbeddedZeroBytes) {
  EXPECT_NE(sha1HexDigest(std::string("a\0b", 3)), sha1HexDigest("a"));
}

TEST(DigestBuffers, Md5MatchesRfc1321Vectors) {
  const std::pair<std::string, std::string> vectors[] = {
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
  for (const auto& [input, hex] : vectors) {
    EXPECT_EQ(md5Data2String(input), hex) << input;
  }
}

TEST(DigestBuffers, Md5RawDigestIsSixteenBytesOfTheHexForm) {
  const std::string raw = md5HexDigest("abc");
  ASSERT_EQ(raw.size(), 16u);
  EXPECT_EQ(static_cast<unsigned char>(raw[0]), 0x90);
  EXPECT_EQ(static_cast<unsigned char>(raw[15]), 0x72);
}

TEST(DigestCrc32, StandardCheckValue) {
  EXPECT_EQ(crc32("123456789"), 0xCBF43926u);
  EXPECT_EQ(crc32(""), 0u);
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

TEST(DigestCrc32, FastPathAgreesWithTableForEverySeed) {
  const std::string data = randomBytes(70001, 7);
  for (uint32_t seed : {0xFFFFFFFFu, 0u, 0x12345678u, 0xDEADBEEFu}) {
    for (size_t length : {size_t{1}, size_t{15}, data.size()}) {
      const auto part = std::string_view(data).substr(0, length);
      EXPECT_EQ(crc32WithSeed(part, seed, 0xEDB88320u), referenceCrc(part, seed, 0xEDB88320u))
          << "seed " << seed << " length " << length;
    }
  }
}

TEST(DigestCrc32, EmptyInputGivesInvertedSeed) {
  EXPECT_EQ(crc32WithSeed(std::string_view{}, 0x12345678u, 0xEDB88320u), ~0x12345678u);
  EXPECT_EQ(crc32WithSeed(std::string_view{}, 0x12345678u, 0x82F63B78u), ~0x12345678u);
}

TEST(DigestCrc32, OtherReflectedPolynomials) {
  EXPECT_EQ(crc32WithSeed("123456789", 0xFFFFFFFFu, 0x82F63B78u), 0xE3069283u);  // CRC-32C
  EXPECT_EQ(crc32WithSeed("123456789", 0xFFFFFFFFu, 0xC8DF352Fu), 0x1697D06Au);  // AUTOSAR
  EXPECT_EQ(crc32WithSeed("123456789", 0xFFFFFFFFu, 0xD419CC15u), 0x87315576u);  // BASE91-D
}

TEST(DigestBase64, EncodesRfc4648Vectors) {
  EXPECT_EQ(base64Encoded("f"), "Zg==");
  EXPECT_EQ(base64Encoded("fo"), "Zm8=");
  EXPECT_EQ(base64Encoded("foo"), "Zm9v");
  EXPECT_EQ(base64Encoded("foob"), "Zm9vYg==");
  EXPECT_EQ(base64Encoded("fooba"), "Zm9vYmE=");
  EXPECT_EQ(base64Encoded("foobar"), "Zm9vYmFy");
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

TEST(DigestBase64, DecodesRfc4648VectorsWithAndWithoutPadding) {
  const std::pair<std::string, std::string> vectors[] = {
      {"Zg==", "f"},        {"Zm8=", "fo"},        {"Zm9v", "foo"},
      {"Zm9vYg==", "foob"}, {"Zm9vYmE=", "fooba"}, {"Zm9vYmFy", "foobar"},
  };
  for (const auto& [text, bytes] : vectors) {
    EXPECT_EQ(base64Decoded(text), bytes) << text;
    std::string bare = text;
    std::erase(bare, '=');
    EXPECT_EQ(base64Decoded(bare), bytes) << bare;
  }
}

TEST(DigestBase64, SkipsEverythingOutsideTheAlphabet) {
  EXPECT_EQ(base64Decoded("Zm9v\r\nYmFy\n"), "foobar");
  EXPECT_EQ(base64Decoded(" Z m\t9 v Y\nm F y "), "foobar");
  EXPECT_EQ(base64Decoded("Zg==Zm8="), std::string("f\x06"
                                                   "f"));  // "=" does not end the text
  EXPECT_EQ(base64Decoded("Z\xE7"), "f");  // only the low seven bits are looked up: 'g'
}

TEST(DigestBase64, NothingDecodableGivesNullopt) {
  EXPECT_EQ(base64Decoded(""), std::nullopt);
  EXPECT_EQ(base64Decoded("==== \r\n!*"), std::nullopt);
  EXPECT_EQ(base64Decoded("Z"), std::nullopt);  // a lone sextet makes no byte
}

}  // namespace
}  // namespace hvfp

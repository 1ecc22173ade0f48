#include "digest/NSDataExpand.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <climits>

#include "digest/DigestDetail.h"
#include "platform/Bytes.h"

namespace hvfp {

namespace {

constexpr uint32_t kCrc32Polynomial = 0xEDB88320u;

// One-shot digest as raw bytes; empty only if libcrypto itself fails, which
// callers cannot act on any better than on a wrong digest.
std::string rawDigest(const EVP_MD* md, std::string_view bytes) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), out, &length, md, nullptr) != 1) return {};
  return std::string(reinterpret_cast<const char*>(out), length);
}

std::string hexOf(const std::string& raw) {
  return lowerHex(reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
}

// Built on every call so any polynomial works without shared state.
std::array<uint32_t, 256> crcTable(uint32_t polynomial) {
  std::array<uint32_t, 256> table{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ ((c & 1u) ? polynomial : 0u);
    table[n] = c;
  }
  return table;
}

uint32_t crcGeneric(const unsigned char* bytes, uint32_t count, uint32_t seed,
                    uint32_t polynomial) {
  const auto table = crcTable(polynomial);
  uint32_t crc = seed;
  for (uint32_t i = 0; i < count; ++i) crc = (crc >> 8) ^ table[(crc ^ bytes[i]) & 0xFFu];
  return ~crc;
}

// Base64 alphabet values by 7-bit code; kSkip for everything else.
constexpr unsigned char kSkip = 0xFF;

constexpr std::array<unsigned char, 128> makeDecodeTable() {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<unsigned char, 128> table{};
  table.fill(kSkip);
  for (size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  }
  return table;
}

constexpr auto kDecodeTable = makeDecodeTable();

// Appends the bytes that `count` (2 to 4) collected sextets stand for.
void emitGroup(const unsigned char (&s)[4], int count, std::string& out) {
  out.push_back(static_cast<char>((s[0] << 2) | (s[1] >> 4)));
  if (count > 2) out.push_back(static_cast<char>((s[1] << 4) | (s[2] >> 2)));
  if (count > 3) out.push_back(static_cast<char>((s[2] << 6) | s[3]));
}

}  // namespace

std::string sha1HexDigest(std::string_view bytes) { return hexOf(rawDigest(EVP_sha1(), bytes)); }

std::string md5HexDigest(std::string_view bytes) { return rawDigest(EVP_md5(), bytes); }

std::string md5Data2String(std::string_view bytes) { return hexOf(md5HexDigest(bytes)); }

uint32_t crc32WithSeed(std::string_view bytes, uint32_t seed, uint32_t polynomial) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto count = static_cast<uint32_t>(bytes.size());
  if (polynomial != kCrc32Polynomial) return crcGeneric(data, count, seed, polynomial);
  // zlib inverts the register on entry and on exit, so handing it ~seed runs
  // the same register as ours. It must not see a null buffer: zlib answers
  // that with its initial value instead of a CRC, so nothing-to-do is ours.
  if (count == 0) return ~seed;
  return static_cast<uint32_t>(::crc32(~seed, data, count));
}

uint32_t crc32(std::string_view bytes) {
  return crc32WithSeed(bytes, 0xFFFFFFFFu, kCrc32Polynomial);
}

std::optional<std::string> base64Encoded(std::string_view bytes) {
  if (bytes.empty()) return std::nullopt;
  // EVP_EncodeBlock takes an int length; whole 3-byte groups per chunk keep
  // the padding at the true end.
  constexpr size_t kChunk = 3u << 20;
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::string piece;
  for (size_t at = 0; at < bytes.size(); at += kChunk) {
    const size_t n = std::min(kChunk, bytes.size() - at);
    piece.resize((n + 2) / 3 * 4 + 1);  // EVP_EncodeBlock writes a terminating zero.
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(piece.data()),
                                        reinterpret_cast<const unsigned char*>(bytes.data() + at),
                                        static_cast<int>(n));
    if (written < 0) return std::nullopt;
    text.append(piece.data(), static_cast<size_t>(written));
  }
  return text;
}

std::optional<std::string> base64Decoded(std::string_view text) {
  std::string out;
  out.reserve(3 * (text.size() / 4) + 3);
  unsigned char group[4];
  int collected = 0;
  for (char c : text) {
    const unsigned char value = kDecodeTable[static_cast<unsigned char>(c) & 0x7Fu];
    if (value == kSkip) continue;
    group[collected++] = value;
    if (collected == 4) {
      emitGroup(group, 4, out);
      collected = 0;
    }
  }
  if (collected >= 2) emitGroup(group, collected, out);
  if (out.empty()) return std::nullopt;
  return out;
}

}  // namespace hvfp

// NSDataExpand: digests and encodings over byte buffers (SHA-1, MD5, CRC-32,
// base64), a small utility set kept complete even where nothing in the
// provider calls it yet.
//
// Pure functions: they borrow the caller's bytes for the call only, return
// values the caller owns, keep nothing between calls, and may run on any
// thread at the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace hvfp {

// 40-character lowercase hexadecimal SHA-1 of the bytes.
std::string sha1HexDigest(std::string_view bytes);

// The raw 16-byte MD5 digest (not hexadecimal, despite the historical name).
std::string md5HexDigest(std::string_view bytes);

// 32-character lowercase hexadecimal MD5 of the bytes.
std::string md5Data2String(std::string_view bytes);

// CRC over the bytes with any polynomial in reflected (LSB-first) form, the
// register starting at `seed` and inverted at the end. Only the low 32 bits
// of the byte count are honoured.
uint32_t crc32WithSeed(std::string_view bytes, uint32_t seed, uint32_t polynomial);

// The standard CRC-32 (ISO-HDLC / IEEE 802.3): seed 0xFFFFFFFF, polynomial 0xEDB88320.
uint32_t crc32(std::string_view bytes);

// Base64 with the standard alphabet and "=" padding, no line breaks;
// nullopt for an empty buffer.
std::optional<std::string> base64Encoded(std::string_view bytes);

// Decodes base64 leniently: every character outside the alphabet ("="
// included) is skipped wherever it stands. nullopt when no byte decodes.
std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace hvfp

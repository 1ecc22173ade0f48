#include "driver/Names.h"

#include <cstdint>

namespace hvfp::driver {
namespace {

constexpr std::string_view kFullwidthSolidus = "\xEF\xBC\x8F";   // U+FF0F
constexpr std::string_view kFullwidthFullStop = "\xEF\xBC\x8E";  // U+FF0E
constexpr std::string_view kSymbolForNull = "\xE2\x90\x80";      // U+2400

// Cuts at most `limit` bytes without splitting a UTF-8 sequence.
std::string_view cut(std::string_view text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

uint32_t fnv1a(std::string_view text) {
  uint32_t h = 2166136261u;
  for (unsigned char c : text) h = (h ^ c) * 16777619u;
  return h;
}

}  // namespace

std::string linuxName(const std::optional<std::string>& hostName) {
  if (!hostName || hostName->empty()) return std::string(kUnnamed);
  if (*hostName == ".") return std::string(kFullwidthFullStop);
  if (*hostName == "..") return std::string(kFullwidthFullStop) + std::string(kFullwidthFullStop);
  std::string out;
  out.reserve(hostName->size());
  for (char c : *hostName) {
    if (c == '/')
      out += kFullwidthSolidus;
    else if (c == '\0')
      out += kSymbolForNull;
    else
      out += c;
  }
  if (out.size() > kNameMax) out.resize(cut(out, kNameMax).size());
  return out;
}

std::string distinctName(std::string_view name, std::string_view identifier, unsigned attempt) {
  size_t dot = name.rfind('.');
  if (dot == 0 || dot == std::string_view::npos || name.size() - dot > 16) dot = name.size();
  std::string_view ext = name.substr(dot);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string tag = "~";
  uint32_t h = fnv1a(identifier);
  for (int shift = 20; shift >= 0; shift -= 4) tag += kHex[(h >> shift) & 0xF];
  if (attempt > 0) {
    tag += '-';
    tag += std::to_string(attempt);
  }
  std::string_view stem = cut(name.substr(0, dot), kNameMax - tag.size() - ext.size());
  std::string out;
  out.reserve(stem.size() + tag.size() + ext.size());
  out.append(stem).append(tag).append(ext);
  return out;
}

}  // namespace hvfp::driver

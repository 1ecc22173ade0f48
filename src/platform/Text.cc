#include "platform/Text.h"

#include <limits>

namespace hvfp {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Repeated slashes collapsed, a trailing slash removed (a lone "/" stays).
std::string fixSlashes(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

size_t startOfLastComponent(const std::string& fixed) {
  size_t slash = fixed.rfind('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

}  // namespace

int64_t integerValue(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Accumulate as a negative number so INT64_MIN is reachable.
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  int64_t value = 0;
  bool overflow = false;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (overflow) continue;
    if (value < (kMin + digit) / 10) {
      overflow = true;
      continue;
    }
    value = value * 10 - digit;
  }
  if (overflow) return negative ? kMin : std::numeric_limits<int64_t>::max();
  if (negative) return value;
  return value == kMin ? std::numeric_limits<int64_t>::max() : -value;
}

int32_t intValue(std::string_view text) {
  int64_t v = integerValue(text);
  if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v);
}

std::string lastPathComponent(std::string_view path) {
  std::string fixed = fixSlashes(path);
  if (fixed.size() <= 1) return fixed;
  return fixed.substr(startOfLastComponent(fixed));
}

std::string_view pathExtensionView(std::string_view path) {
  // Repeated slashes never change the last component; only trailing ones do.
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path.size() <= 1) return {};
  size_t slash = path.rfind('/');
  size_t start = slash == std::string_view::npos ? 0 : slash + 1;
  size_t dot = path.rfind('.');
  if (dot == std::string_view::npos || dot <= start || dot + 1 == path.size()) return {};
  return path.substr(dot + 1);
}

std::string pathExtension(std::string_view path) { return std::string(pathExtensionView(path)); }

std::string deletingLastPathComponent(std::string_view path) {
  std::string fixed = fixSlashes(path);
  if (fixed.empty() || fixed == "/") return fixed;
  size_t start = startOfLastComponent(fixed);
  if (start == 0) return {};
  if (start == 1) return "/";
  return fixed.substr(0, start - 1);
}

}  // namespace hvfp

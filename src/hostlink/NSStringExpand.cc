#include "hostlink/NSStringExpand.h"

#include "platform/Text.h"

namespace hvfp {
namespace {

bool keptLiterally(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '~';
}

}  // namespace

std::string urlEncoded(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (keptLiterally(c)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xF]);
    }
  }
  return out;
}

std::string getFilename(std::string_view path) { return lastPathComponent(path); }
std::string getExt(std::string_view path) { return pathExtension(path); }
std::string getParent(std::string_view path) { return deletingLastPathComponent(path); }

}  // namespace hvfp

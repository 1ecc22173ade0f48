#include "platform/ContentType.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace hvfp {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 40> kTypes{{
    {"7z", "org.7-zip.7-zip-archive"},
    {"aac", "public.aac-audio"},
    {"avi", "public.avi"},
    {"bmp", "com.microsoft.bmp"},
    {"c", "public.c-source"},
    {"cpp", "public.c-plus-plus-source"},
    {"csv", "public.comma-separated-values-text"},
    {"doc", "com.microsoft.word.doc"},
    {"docx", "org.openxmlformats.wordprocessingml.document"},
    {"gif", "com.compuserve.gif"},
    {"gz", "org.gnu.gnu-zip-archive"},
    {"h", "public.c-header"},
    {"heic", "public.heic"},
    {"htm", "public.html"},
    {"html", "public.html"},
    {"jpeg", "public.jpeg"},
    {"jpg", "public.jpeg"},
    {"js", "com.netscape.javascript-source"},
    {"json", "public.json"},
    {"key", "com.apple.keynote.key"},
    {"m4a", "com.apple.m4a-audio"},
    {"md", "net.daringfireball.markdown"},
    {"mov", "com.apple.quicktime-movie"},
    {"mp3", "public.mp3"},
    {"mp4", "public.mpeg-4"},
    {"pdf", "com.adobe.pdf"},
    {"png", "public.png"},
    {"ppt", "com.microsoft.powerpoint.ppt"},
    {"pptx", "org.openxmlformats.presentationml.presentation"},
    {"py", "public.python-script"},
    {"rtf", "public.rtf"},
    {"sh", "public.shell-script"},
    {"svg", "public.svg-image"},
    {"tar", "public.tar-archive"},
    {"tif", "public.tiff"},
    {"tiff", "public.tiff"},
    {"txt", "public.plain-text"},
    {"xls", "com.microsoft.excel.xls"},
    {"xlsx", "org.openxmlformats.spreadsheetml.sheet"},
    {"zip", "public.zip-archive"},
}};

}  // namespace

void ContentType::appendIdentifierForExtension(std::string& out, std::string_view ext) {
  char buf[16];
  std::string lower;
  std::string_view key;
  auto toLower = [](unsigned char c) { return static_cast<char>(std::tolower(c)); };
  if (ext.size() <= sizeof buf) {
    std::transform(ext.begin(), ext.end(), buf, toLower);
    key = std::string_view(buf, ext.size());
  } else {
    lower.resize(ext.size());
    std::transform(ext.begin(), ext.end(), lower.begin(), toLower);
    key = lower;
  }
  auto it = std::lower_bound(kTypes.begin(), kTypes.end(), key,
                             [](const auto& entry, std::string_view k) { return entry.first < k; });
  if (it != kTypes.end() && it->first == key) {
    out.append(it->second);
    return;
  }
  out.append("dyn.").append(key);
}

ContentType ContentType::typeWithFilenameExtension(std::string_view ext) {
  ContentType type;
  appendIdentifierForExtension(type.identifier, ext);
  return type;
}

}  // namespace hvfp

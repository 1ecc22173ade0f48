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

ContentType ContentType::typeWithFilenameExtension(std::string_view ext) {
  std::string lower(ext);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  auto it = std::lower_bound(kTypes.begin(), kTypes.end(), lower,
                             [](const auto& entry, const std::string& key) { return entry.first < key; });
  if (it != kTypes.end() && it->first == lower) return {std::string(it->second)};
  return {"dyn." + lower};
}

}  // namespace hvfp

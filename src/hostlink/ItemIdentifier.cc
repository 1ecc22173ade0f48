#include "hostlink/ItemIdentifier.h"

#include <algorithm>
#include <cctype>

#include "platform/Text.h"

namespace hvfp {

std::string createItemIdentifier(int64_t mountId, std::string_view uuidhash) {
  std::string out = std::to_string(mountId);
  if (!uuidhash.empty()) {
    out.push_back('/');
    out.append(uuidhash);
  }
  return out;
}

ParsedIdentifier parseItemIdentifier(std::string_view identifier) {
  ParsedIdentifier out;
  size_t slash = identifier.find('/');
  out.hasSlash = slash != std::string_view::npos;
  std::string_view mountText = out.hasSlash ? identifier.substr(0, slash) : identifier;
  if (out.hasSlash) out.strUuidHash = std::string(identifier.substr(slash + 1));
  out.nMountID = integerValue(mountText);
  return out;
}

bool checkItemIndentifierRight(std::string_view identifier) {
  static constexpr std::string_view kProvisional = "__fp/";
  auto it =
      std::search(identifier.begin(), identifier.end(), kProvisional.begin(), kProvisional.end(),
                  [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
  return it == identifier.end();
}

}  // namespace hvfp

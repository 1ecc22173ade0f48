// Fuzzes item identifiers: what createItemIdentifier makes parses back to
// its mount and hash, any text parses to the integer value of what stands
// before its first "/", and exactly the texts holding "__fp/" in any letter
// case are refused as provisional.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "hostlink/ItemIdentifier.h"
#include "platform/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  const hvfp::ParsedIdentifier parsed = hvfp::parseItemIdentifier(text);
  const size_t slash = text.find('/');
  if (parsed.hasSlash != (slash != std::string::npos)) std::abort();
  if (parsed.nMountID != hvfp::integerValue(text.substr(0, slash))) std::abort();
  if (parsed.strUuidHash != (parsed.hasSlash ? text.substr(slash + 1) : "")) std::abort();

  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (hvfp::checkItemIndentifierRight(text) != (lower.find("__fp/") == std::string::npos))
    std::abort();

  if (size >= 8) {
    int64_t mount;
    std::memcpy(&mount, data, sizeof mount);
    const std::string hash = text.substr(8);
    const std::string id = hvfp::createItemIdentifier(mount, hash);
    const hvfp::ParsedIdentifier back = hvfp::parseItemIdentifier(id);
    if (back.nMountID != mount || back.strUuidHash != hash || back.hasSlash != !hash.empty())
      std::abort();
  }
  return 0;
}

// Item identifiers: the text the framework stores for an item. A mount's root
// folder is the mount id alone ("12"); any other item is mount id, "/" and
// its uuid hash ("12/ab/cd": only the first "/" separates). The framework's
// own provisional identifiers contain "__fp/" and are never sent to the host.
// Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/fileprovider/ContainerIdentifiers.h"

namespace hvfp {

struct ParsedIdentifier {
  int64_t nMountID = 0;
  std::string strUuidHash;  // empty for a mount root (or any text without "/")
  bool hasSlash = false;
};

// "%ld/%@" of mount id and hash, or "%ld" when the hash is empty.
std::string createItemIdentifier(int64_t mountId, std::string_view uuidhash);
// Splits at the first "/"; the mount id is the integer value of the text
// before it, so each container identifier parses to mount 0.
ParsedIdentifier parseItemIdentifier(std::string_view identifier);
// False for provisional identifiers ("__fp/" anywhere, any letter case).
bool checkItemIndentifierRight(std::string_view identifier);

}  // namespace hvfp

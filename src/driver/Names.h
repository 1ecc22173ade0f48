// How host names become Linux file names in the folder.
//
// A host may name an item anything; a Linux directory entry cannot be empty,
// "." or "..", cannot hold "/" or NUL, and cannot be longer than 255 bytes.
// Such names are shown with the offending characters replaced by look-alikes
// so the item stays reachable: "/" by the fullwidth solidus U+FF0F, each "."
// of "." and ".." by the fullwidth full stop U+FF0E, NUL by the symbol for
// null U+2400, and an empty or absent name as "(unnamed)". Longer names are
// cut at a character boundary.
//
// When two children of a folder would show the same name, the one that held
// it first keeps it and the other is shown as "stem~XXXXXX.ext", where
// XXXXXX comes from its identifier only: the suffix does not depend on
// listing order and stays the same for the life of the item.
//
// Pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hvfp::driver {

inline constexpr std::string_view kUnnamed = "(unnamed)";
inline constexpr size_t kNameMax = 255;

std::string linuxName(const std::optional<std::string>& hostName);

// The `attempt`-th alternative for `name` (attempt 0 first), for the item
// `identifier`. Never equal to `name`; at most kNameMax bytes.
std::string distinctName(std::string_view name, std::string_view identifier, unsigned attempt);

}  // namespace hvfp::driver

// The framework's three container identifiers. Compared by exact text.
#pragma once

#include <string_view>

namespace hvfp {

inline constexpr std::string_view NSFileProviderRootContainerItemIdentifier =
    "NSFileProviderRootContainerItemIdentifier";
inline constexpr std::string_view NSFileProviderTrashContainerItemIdentifier =
    "NSFileProviderTrashContainerItemIdentifier";
inline constexpr std::string_view NSFileProviderWorkingSetContainerItemIdentifier =
    "NSFileProviderWorkingSetContainerItemIdentifier";

inline bool isContainerIdentifier(std::string_view id) {
  return id == NSFileProviderRootContainerItemIdentifier ||
         id == NSFileProviderTrashContainerItemIdentifier ||
         id == NSFileProviderWorkingSetContainerItemIdentifier;
}

}  // namespace hvfp

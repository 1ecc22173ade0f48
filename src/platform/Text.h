// Text rules of the platform that the provider's formats depend on: the
// integer value of a text and the path-component rules of its string type.
// Pure functions, callable from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace hvfp {

// Leading white space skipped, an optional sign, then decimal digits up to the
// first other character; no digits gives 0. Saturates at the 64-bit limits.
int64_t integerValue(std::string_view text);
// The same reading held to the 32-bit range.
int32_t intValue(std::string_view text);

// Path rules: repeated "/" count as one and a trailing "/" is ignored.
std::string lastPathComponent(std::string_view path);
// Extension of the last component: the part after its last "."; empty when
// the component has no ".", starts with its only ".", or ends with ".".
std::string pathExtension(std::string_view path);
// The same extension as a view into `path`, without copying.
std::string_view pathExtensionView(std::string_view path);
std::string deletingLastPathComponent(std::string_view path);

}  // namespace hvfp

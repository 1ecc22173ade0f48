// String helpers of the host link: query-value encoding, the SHA-1 of a text
// and the path-component helpers. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

// The SHA-1 of a text is the SHA-1 of its bytes: sha1HexDigest() of
// digest/NSDataExpand.h serves both.
#include "digest/NSDataExpand.h"

namespace hvfp {

// Every UTF-8 byte that is not an ASCII letter, digit, "-", "_" or "~" is
// written as "%" and two uppercase hex digits ("." too, unlike RFC 3986).
std::string urlEncoded(std::string_view text);
std::string getFilename(std::string_view path);  // last path component
std::string getExt(std::string_view path);       // extension of the last component
std::string getParent(std::string_view path);    // path without its last component

}  // namespace hvfp

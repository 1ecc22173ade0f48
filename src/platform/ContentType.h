// ContentType: a uniform type identifier ("public.folder", "public.jpeg", ...).
// A plain value; the extension table is fixed and read-only.
#pragma once

#include <string>
#include <string_view>

namespace hvfp {

struct ContentType {
  std::string identifier;

  static ContentType folder() { return {"public.folder"}; }
  static ContentType data() { return {"public.data"}; }
  // Case-insensitive table lookup; an unknown extension gives "dyn.<ext>".
  static ContentType typeWithFilenameExtension(std::string_view ext);
  // Appends the identifier typeWithFilenameExtension would give, without
  // making the object (the per-item log line asks for every item's type).
  static void appendIdentifierForExtension(std::string& out, std::string_view ext);

  bool operator==(const ContentType&) const = default;
};

}  // namespace hvfp

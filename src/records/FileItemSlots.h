// The keys an HVFileItem reads, gathered in one pass over a JSON object so
// that reading a record costs one walk over its members whatever their
// order. A repeated key keeps its last value.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "records/JsonReading.h"

namespace hvfp {

enum class FileItemKey : uint8_t {
  ErrorMsg,
  ErrorCode,
  StatusCode,
  Root,
  FileName,
  MountId,
  WebPath,
  Dir,
  FileHash,
  FileSize,
  UuidHash,
  UpHash,
  LastTime,
  LastId,
  LastName,
  CreatorTime,
  Lock,
  LockId,
  Status,
  Property,
  ChildCount,
  Count
};

std::optional<FileItemKey> fileItemKeyOf(std::string_view key);

struct FileItemSlots {
  std::array<JsonScalar, static_cast<size_t>(FileItemKey::Count)> at;
  JsonScalar& operator[](FileItemKey k) { return at[static_cast<size_t>(k)]; }
  const JsonScalar& operator[](FileItemKey k) const { return at[static_cast<size_t>(k)]; }
};

}  // namespace hvfp

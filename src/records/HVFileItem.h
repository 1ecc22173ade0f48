// HVFileItem: the host's record of one file, folder or mount root; the source
// of every provider item. Its two version encodings are what the framework
// stores with an item and hands back on modification, so their bytes are a
// stored format: compact JSON, keys sorted, keys of null texts left out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "records/RequestRet.h"

namespace hvfp {

struct FileItemSlots;

// Capability bits of an item.
namespace ItemCapability {
inline constexpr uint64_t Reading = 1, Writing = 2, Reparenting = 4, Renaming = 8, Trashing = 16,
                          Deleting = 32, Evicting = 64;
}  // namespace ItemCapability

struct HVFileItem : RequestRet {
  HVFileItem() = default;
  HVFileItem(const HVFileItem&) = default;
  HVFileItem& operator=(const HVFileItem&) = default;
  // A record from a listing borrows its texts from the listing's reply; a
  // moved-out record may outlive that, so moving copies like copying does.
  HVFileItem(HVFileItem&& other) : HVFileItem(static_cast<const HVFileItem&>(other)) {}
  HVFileItem& operator=(HVFileItem&& other) {
    return *this = static_cast<const HVFileItem&>(other);
  }

  bool bRoot = false;  // a mount root, shown at the top level
  NullableString strFileName = "";
  int64_t nMountID = 0;
  NullableString strWebPath = "";  // path inside the mount; its extension gives the type
  bool bDir = false;
  NullableString strFileHash = "";
  uint64_t ullFileSize = 0;
  NullableString strUuidHash = "";
  NullableString strUpHash = "";  // the parent folder's uuid hash; empty under the mount root
  uint64_t ullLastTime = 0;
  int64_t nLastID = 0;
  NullableString strLastName = "";
  uint64_t ullCreatorTime = 0;
  int64_t nLock = 0;
  int64_t nLockID = 0;
  int64_t nStatus = -1;  // -1: not filled; 6 or 7: in the trash; 4: restored
  NullableString strProperty = "";
  int64_t nChildItemCount = 0;
  bool bDelete = false;  // set once the item went to the trash

  // Not filled when `json` is not an object or its "error_code" is not 0.
  void setValueWithJson(const JsonValue& json) override;
  // The same rules over values gathered by the streaming listing parser.
  void fill(const FileItemSlots& slots);

  std::string contentVersion() const;  // {"filehash":..,"filesize":..}
  void appendContentVersion(std::string& out) const;
  std::string metadataVersion() const;  // {"delete":..,"hash":..,"property":..,"status":..}
  uint64_t capabilities() const;        // 67 for a mount root, else 127
};

using HVFileItemRef = std::shared_ptr<HVFileItem>;

}  // namespace hvfp

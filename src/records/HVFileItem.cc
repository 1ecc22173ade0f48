#include "records/HVFileItem.h"

#include "records/FileItemSlots.h"

namespace hvfp {

// Dispatch by length, then by a telling letter: a listing reads this for
// every member of every entry.
std::optional<FileItemKey> fileItemKeyOf(std::string_view key) {
  using K = FileItemKey;
  auto is = [&](std::string_view name, K k) -> std::optional<K> {
    return key == name ? std::optional<K>(k) : std::nullopt;
  };
  switch (key.size()) {
    case 3:
      return is("dir", K::Dir);
    case 4:
      return key[0] == 'r' ? is("root", K::Root) : is("lock", K::Lock);
    case 6:
      if (key[0] == 's') return is("status", K::Status);
      return key[1] == 'a' ? is("lastid", K::LastId) : is("lockid", K::LockId);
    case 7:
      return key[0] == 'w' ? is("webpath", K::WebPath) : is("up_hash", K::UpHash);
    case 8:
      switch (key[0]) {
        case 'f':
          if (key[4] == 'n') return is("filename", K::FileName);
          return key[4] == 'h' ? is("filehash", K::FileHash) : is("filesize", K::FileSize);
        case 'm':
          return is("mount_id", K::MountId);
        case 'u':
          return is("uuidhash", K::UuidHash);
        case 'l':
          return key[4] == 't' ? is("lasttime", K::LastTime) : is("lastname", K::LastName);
        case 'p':
          return is("property", K::Property);
        default:
          return std::nullopt;
      }
    case 9:
      return is("error_msg", K::ErrorMsg);
    case 10:
      return key[0] == 'e' ? is("error_code", K::ErrorCode) : is("childcount", K::ChildCount);
    case 11:
      return key[0] == 's' ? is("status_code", K::StatusCode) : is("creatortime", K::CreatorTime);
    default:
      return std::nullopt;
  }
}

void HVFileItem::setValueWithJson(const JsonValue& json) {
  const JsonObject* object = json.object();
  if (!object) return;
  FileItemSlots slots;
  for (const auto& [key, value] : *object)
    if (auto k = fileItemKeyOf(key)) slots[*k] = JsonScalar::of(&value);
  fill(slots);
}

void HVFileItem::fill(const FileItemSlots& s) {
  using K = FileItemKey;
  strErrorMsg = textReading(s[K::ErrorMsg]);
  nErrorCode = integerReading32(s[K::ErrorCode]);
  nStatusCode = integerReading32(s[K::StatusCode]);
  if (nErrorCode != 0) return;  // an error reply describes no item
  bRoot = integerReading(s[K::Root]) > 0;
  strFileName = textReading(s[K::FileName]);
  nMountID = integerReading(s[K::MountId]);
  strWebPath = textReading(s[K::WebPath]);
  bDir = integerReading(s[K::Dir]) > 0;
  strFileHash = textReading(s[K::FileHash]);
  ullFileSize = static_cast<uint64_t>(integerReading(s[K::FileSize]));
  strUuidHash = textReading(s[K::UuidHash]);
  strUpHash = textReading(s[K::UpHash]);
  ullLastTime = static_cast<uint64_t>(integerReading(s[K::LastTime]));
  nLastID = integerReading(s[K::LastId]);
  strLastName = textReading(s[K::LastName]);
  ullCreatorTime = static_cast<uint64_t>(integerReading(s[K::CreatorTime]));
  nLock = integerReading(s[K::Lock]);
  nLockID = integerReading(s[K::LockId]);
  nStatus = integerReading(s[K::Status]);
  strProperty = textReading(s[K::Property]);
  if (bDir) nChildItemCount = integerReading(s[K::ChildCount]);
}

// Keys are written in sorted order by hand: these bytes are compared by the
// framework, so equal records must always give equal versions.
std::string HVFileItem::contentVersion() const {
  std::string out;
  appendContentVersion(out);
  return out;
}

void HVFileItem::appendContentVersion(std::string& out) const {
  JsonWriter w(out);
  w.beginObject();
  if (strFileHash) w.key("filehash").value(*strFileHash);
  w.key("filesize").value(static_cast<int64_t>(ullFileSize));
  w.endObject();
}

std::string HVFileItem::metadataVersion() const {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("delete").value(int64_t{bDelete ? 1 : 0});
  if (strUuidHash) w.key("hash").value(*strUuidHash);
  if (strProperty) w.key("property").value(*strProperty);
  w.key("status").value(nStatus);
  w.endObject();
  return out;
}

uint64_t HVFileItem::capabilities() const {
  using namespace ItemCapability;
  if (bRoot) return Reading | Writing | Evicting;
  return Reading | Writing | Reparenting | Renaming | Trashing | Deleting | Evicting;
}

}  // namespace hvfp

#include "records/HVFileItem.h"

#include "records/FileItemSlots.h"

namespace hvfp {

std::optional<FileItemKey> fileItemKeyOf(std::string_view key) {
  using K = FileItemKey;
  static constexpr std::pair<std::string_view, K> kKeys[] = {
      {"error_msg", K::ErrorMsg}, {"error_code", K::ErrorCode}, {"status_code", K::StatusCode},
      {"root", K::Root},          {"filename", K::FileName},    {"mount_id", K::MountId},
      {"webpath", K::WebPath},    {"dir", K::Dir},              {"filehash", K::FileHash},
      {"filesize", K::FileSize},  {"uuidhash", K::UuidHash},    {"up_hash", K::UpHash},
      {"lasttime", K::LastTime},  {"lastid", K::LastId},        {"lastname", K::LastName},
      {"creatortime", K::CreatorTime}, {"lock", K::Lock},       {"lockid", K::LockId},
      {"status", K::Status},      {"property", K::Property},    {"childcount", K::ChildCount},
  };
  for (const auto& [name, k] : kKeys)
    if (name.size() == key.size() && name == key) return k;
  return std::nullopt;
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
  JsonWriter w(out);
  w.beginObject();
  if (strFileHash) w.key("filehash").value(*strFileHash);
  w.key("filesize").value(static_cast<int64_t>(ullFileSize));
  w.endObject();
  return out;
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

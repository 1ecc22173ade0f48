#include "records/ReplyRecords.h"

#include "records/HVFileItem.h"

namespace hvfp {

void RequestRet::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  strErrorMsg = readText(json, "error_msg");
  nErrorCode = readInteger32(json, "error_code");
  nStatusCode = readInteger32(json, "status_code");
}

void RetOpen::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  strFileHash = readText(json, "filehash");
  strUuidHash = readText(json, "hash");
  strFullPath = readText(json, "fullpath");
  ullFileSize = static_cast<uint64_t>(readInteger(json, "filesize"));
  ullDateline = static_cast<uint64_t>(readInteger(json, "dateline"));
  nLock = readInteger32(json, "lock");
  nLockID = nLock != 0 ? readInteger32(json, "lock_member_id") : 0;
  urlArray = readTextList(json, "uris");
}

void RetCreateFile::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  nState = readInteger32(json, "state");
  strHash = readText(json, "hash");
  strUpHash = readText(json, "up_hash");
  strFileHash = readText(json, "filehash");
  strStoragePoint = readText(json, "storage_point");
  if (!strStoragePoint) strStoragePoint = "";
  strWebpath = readText(json, "fullpath");
  ullFileSize = static_cast<uint64_t>(readInteger(json, "filesize"));
  ullLastDateline = static_cast<uint64_t>(readInteger(json, "last_dateline"));
  arrayServers = readTextList(json, "uploads");
  arrayCacheServers = readTextList(json, "cache_uploads");
}

void RetUploadInit::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  piecelen = readInteger32(json, "piecelen");
  session = readText(json, "session");
}

void RetUploadReq::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  offset = static_cast<uint64_t>(readInteger(json, "offset"));
}

void RetMoveFile::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  strHash = readText(json, "hash");
  strWebpath = readText(json, "fullpath");
}

void ProviderDeleteInfo::setValueWithJson(const JsonValue& json) {
  if (!json.isObject()) return;
  RequestRet::setValueWithJson(json);
  strHash = readText(json, "hash");
  strUpHash = readText(json, "uphash");
  nMountID = readInteger32(json, "mount_id");
}

}  // namespace hvfp

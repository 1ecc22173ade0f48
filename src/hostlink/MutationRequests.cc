// Mutations: the host-link requests that change something on the host's
// side (rename, move, trash, restore) and the three notices (a copy for the
// host's cache, an item's local status, dropping a sync record).
#include "hostlink/HalvoProviderClient.h"

namespace hvfp {
namespace {

QueryList itemQuery(const char* type, const ParsedIdentifier& id) {
  QueryList list;
  addValueForString(list, "type", type);
  addValueForString(list, "uuidhash", id.strUuidHash);
  addValueForInteger(list, "mount_id", id.nMountID);
  return list;
}

// Trash, restore and the notices act on mount items only: a mount root or a
// provisional identifier is never sent.
std::optional<ParsedIdentifier> mountItem(const std::string& identifier) {
  if (!checkItemIndentifierRight(identifier)) return std::nullopt;
  ParsedIdentifier id = parseItemIdentifier(identifier);
  if (!id.hasSlash) return std::nullopt;
  return id;
}

}  // namespace

RetNameFileRef HalvoProviderClient::renameFile(const std::string& identifier,
                                               const std::string& filename) const {
  if (!checkItemIndentifierRight(identifier)) return nullptr;
  ParsedIdentifier id = parseItemIdentifier(identifier);
  QueryList list;
  addValueForString(list, "type", "rename");
  addValueForString(list, "uuidhash", id.strUuidHash);
  addValueForString(list, "filename", filename);
  addValueForInteger(list, "mount_id", id.nMountID);
  return requestRecord<RetNameFile>(list);
}

RetMoveFileRef HalvoProviderClient::removeFile(const std::string& identifier,
                                               const std::string& parentIdentifier) const {
  // Only the item is tested: a parent made moments ago may still be
  // provisional, and the host judges what it is told.
  if (!checkItemIndentifierRight(identifier)) return nullptr;
  ParsedIdentifier id = parseItemIdentifier(identifier);
  ParsedIdentifier parent = parseItemIdentifier(parentIdentifier);
  QueryList list = itemQuery("remove", id);
  addValueForString(list, "parent_uuidhash", parent.strUuidHash);
  addValueForInteger(list, "parent_mount_id", parent.nMountID);
  return requestRecord<RetMoveFile>(list);
}

RequestRetRef HalvoProviderClient::deleteFile(const std::string& identifier) const {
  auto id = mountItem(identifier);
  if (!id) return nullptr;
  return requestRecord<RequestRet>(itemQuery("deletefile", *id));
}

RequestRetRef HalvoProviderClient::recoverFile(const std::string& identifier) const {
  auto id = mountItem(identifier);
  if (!id) return nullptr;
  return requestRecord<RequestRet>(itemQuery("recoverfile", *id));
}

void HalvoProviderClient::addFileToCache(const std::string& path,
                                         const std::string& filehash) const {
  QueryList list;
  addValueForString(list, "type", "addcache");
  addValueForString(list, "path", path);
  addValueForString(list, "filehash", filehash);
  (void)syncRequestByArray(list, kMaxRecordReply);
}

void HalvoProviderClient::updateStauts(const std::string& identifier, int64_t status) const {
  auto id = mountItem(identifier);
  if (!id) return;
  QueryList list = itemQuery("updatestatus", *id);
  addValueForInteger(list, "status", status);
  (void)syncRequestByArray(list, kMaxRecordReply);
}

void HalvoProviderClient::deleteSyncDB(const std::string& identifier) const {
  auto id = mountItem(identifier);
  if (!id) return;
  (void)syncRequestByArray(itemQuery("deletesyncdb", *id), kMaxRecordReply);
}

}  // namespace hvfp

// Listings and lookups: the read-only queries of the host link.
#include "hostlink/HalvoProviderClient.h"
#include "records/FileItemListing.h"

namespace hvfp {
namespace {

QueryList itemQuery(const char* type, int64_t mountId, const std::string& uuidhash) {
  QueryList list;
  addValueForString(list, "type", type);
  addValueForString(list, "uuidhash", uuidhash);
  addValueForInteger(list, "mount_id", mountId);
  return list;
}

QueryList typeQuery(const char* type) {
  QueryList list;
  addValueForString(list, "type", type);
  return list;
}

}  // namespace

std::vector<HVFileItemRef> HalvoProviderClient::listing(const QueryList& list,
                                                        uint64_t* lasttime) const {
  auto parsed = readFileItemListing(syncRequestByArray(list));
  if (!parsed) return {};
  if (lasttime) *lasttime = parsed->lasttime;
  return std::move(parsed->list);
}

std::vector<HVFileItemRef> HalvoProviderClient::getLinks() const {
  auto records = listing(typeQuery("links"), nullptr);
  for (auto& record : records) {
    record->bRoot = true;
    record->bDir = true;
  }
  return records;
}

std::vector<HVFileItemRef> HalvoProviderClient::getTrash() const {
  return listing(typeQuery("trash"), nullptr);
}

std::vector<HVFileItemRef> HalvoProviderClient::getFiles(int64_t mountId,
                                                         const std::string& uuidhash,
                                                         uint64_t& lasttime) const {
  return listing(itemQuery("files", mountId, uuidhash), &lasttime);
}

std::vector<HVFileItemRef> HalvoProviderClient::getFiles(const std::string& identifier,
                                                         uint64_t& lasttime) const {
  if (!checkItemIndentifierRight(identifier)) return {};
  ParsedIdentifier id = parseItemIdentifier(identifier);
  return getFiles(id.nMountID, id.strUuidHash, lasttime);
}

std::vector<HVFileItemRef> HalvoProviderClient::getChangeFiles(uint64_t& lasttime) const {
  QueryList list = typeQuery("changefiles");
  addValueForULongLong(list, "lasttime", lasttime);
  return listing(list, &lasttime);
}

HVFileItemRef HalvoProviderClient::getFileInfo(int64_t mountId, const std::string& uuidhash) const {
  return requestRecord<HVFileItem>(itemQuery("fileinfo", mountId, uuidhash));
}

HVFileItemRef HalvoProviderClient::getFileInfo(const std::string& identifier) const {
  if (!checkItemIndentifierRight(identifier)) return nullptr;
  ParsedIdentifier id = parseItemIdentifier(identifier);
  return getFileInfo(id.nMountID, id.strUuidHash);
}

RetOpenRef HalvoProviderClient::getDownloadInfo(int64_t mountId,
                                                const std::string& uuidhash) const {
  return requestRecord<RetOpen>(itemQuery("download", mountId, uuidhash));
}

RetOpenRef HalvoProviderClient::getDownloadInfo(const std::string& identifier) const {
  if (!checkItemIndentifierRight(identifier)) return nullptr;
  ParsedIdentifier id = parseItemIdentifier(identifier);
  return getDownloadInfo(id.nMountID, id.strUuidHash);
}

}  // namespace hvfp

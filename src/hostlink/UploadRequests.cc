// Upload control: announcing a new item ("create") and the four steps of an
// upload session, which the host carries out with the upload server named
// in "host" and answers for.
#include "hostlink/HalvoProviderClient.h"

namespace hvfp {
namespace {

QueryList sessionQuery(const char* type, const std::string& host,
                       const std::optional<std::string>& session,
                       const std::optional<std::string>& cookie) {
  QueryList list;
  addValueForString(list, "type", type);
  addValueForString(list, "host", host);
  addValueForString(list, "session", session);
  addValueForString(list, "cookie", cookie);
  return list;
}

}  // namespace

RetCreateFileRef HalvoProviderClient::createFile(int64_t mountId, const std::string& webpath,
                                                 bool dir, const std::string& filehash,
                                                 uint64_t filesize, uint64_t createtime,
                                                 uint64_t lasttime) const {
  QueryList list;
  addValueForString(list, "type", "create");
  addValueForString(list, "webpath", webpath);
  addValueForString(list, "filehash", filehash);
  addValueForULongLong(list, "filesize", filesize);
  addValueForULongLong(list, "createtime", createtime);
  addValueForULongLong(list, "lasttime", lasttime);
  addValueForInteger(list, "mount_id", mountId);
  addValueForInteger(list, "dir", dir ? 1 : 0);
  return requestRecord<RetCreateFile>(list);
}

RetUploadInitRef HalvoProviderClient::uploadInit(const std::string& host,
                                                 const std::string& fileName,
                                                 const std::string& pathHash,
                                                 const std::string& fileHash, uint64_t fileSize,
                                                 int64_t mountid,
                                                 const std::optional<std::string>& storagepoint,
                                                 const std::optional<std::string>& cookie) const {
  QueryList list;
  addValueForString(list, "type", "uploadinit");
  addValueForString(list, "host", host);
  addValueForString(list, "filename", fileName);
  addValueForString(list, "pathhash", pathHash);
  addValueForString(list, "filehash", fileHash);
  addValueForString(list, "storagepoint", storagepoint);
  addValueForString(list, "cookie", cookie);
  addValueForULongLong(list, "filesize", fileSize);
  addValueForInteger(list, "mount_id", mountid);
  return requestRecord<RetUploadInit>(list);
}

RetUploadReqRef HalvoProviderClient::uploadReq(const std::string& host,
                                               const std::optional<std::string>& session,
                                               const std::optional<std::string>& cookie) const {
  return requestRecord<RetUploadReq>(sessionQuery("uploadreq", host, session, cookie));
}

RequestRetRef HalvoProviderClient::uploadFinish(const std::string& host,
                                                const std::optional<std::string>& session,
                                                uint64_t filesize,
                                                const std::optional<std::string>& cookie) const {
  QueryList list = sessionQuery("uploadfinish", host, session, cookie);
  addValueForULongLong(list, "filesize", filesize);
  return requestRecord<RequestRet>(list);
}

RequestRetRef HalvoProviderClient::uploadAbort(const std::string& host,
                                               const std::optional<std::string>& session,
                                               const std::optional<std::string>& cookie) const {
  return requestRecord<RequestRet>(sessionQuery("uploadabort", host, session, cookie));
}

}  // namespace hvfp

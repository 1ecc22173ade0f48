// The upload task's creation, its two bodies (folder, file), the server
// rotation and its reports. The attempt against one server is in
// UploadAttempt.cc, the pieces in UploadPieces.cc.
#include "tasks/UploadTask.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "hostlink/HalvoProviderClient.h"
#include "hostlink/ItemIdentifier.h"
#include "hostlink/NSStringExpand.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "tasks/UploadStaging.h"

namespace hvfp {
namespace {

constexpr const char* kReadFileMessage = "文件读取失败";
constexpr const char* kNoServerMessage = "无服务器地址";
constexpr const char* kServersSilentMessage = "上传服务器无响应";
constexpr const char* kUnexpectedMessage = "上传失败";

// Longest hash, path or address taken from a reply; real ones are far shorter.
constexpr size_t kMaxReplyName = 4096;

Error uploadError(int64_t code, std::optional<std::string> message) {
  Error error = Error::cocoa(ErrorCode::CloudNetworkFailure);
  error.userInfo["error"] = code;
  if (message) error.userInfo["message"] = std::move(*message);
  return error;
}

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7f;
  });
}

// One path component the host named: not empty, no "/", not "." or "..".
bool isNameComponent(std::string_view name) {
  return !name.empty() && name.size() <= kMaxReplyName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && !hasControlCharacter(name);
}

// A path inside a mount: components joined by single "/", no leading "/".
bool isWebpath(std::string_view path) {
  if (path.empty() || path.size() > kMaxReplyName) return false;
  for (size_t start = 0;;) {
    size_t end = path.find('/', start);
    if (!isNameComponent(path.substr(start, end - start))) return false;
    if (end == std::string_view::npos) return true;
    start = end + 1;
  }
}

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() > prefix.size() &&
         ::strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool isServerAddress(std::string_view address) {
  return address.size() <= kMaxReplyName && !hasControlCharacter(address) &&
         address.find(' ') == std::string_view::npos &&
         (startsWithNoCase(address, "http://") || startsWithNoCase(address, "https://"));
}

std::string joinWebpath(std::string_view parent, std::string_view name) {
  if (parent.empty()) return std::string(name);
  std::string path(parent);
  path += '/';
  path += name;
  return path;
}

// Cache servers first, each list in its order; duplicates stay.
std::vector<std::string> usableServers(const RetCreateFile& reply) {
  std::vector<std::string> servers;
  for (const auto* list : {&reply.arrayCacheServers, &reply.arrayServers})
    for (const std::string& address : *list)
      if (isServerAddress(address)) servers.push_back(address);
  return servers;
}

}  // namespace

UploadTask::UploadTask(HalvoProviderClient& client, std::string itemIdentifier,
                       std::string parentIdentifier, uint64_t filesize, uint64_t createTime,
                       uint64_t lastTime, bool dir, std::string filename,
                       std::optional<std::string> fullpath, uint64_t itemfields)
    : HVTask(client) {
  nProviderItemFields = itemfields;
  if (auto pending = client.getAddFileInfo(parentIdentifier)) {
    nMountID = pending->nMountID;
    strWebpath = joinWebpath(pending->strWebpath, filename);
  } else if (parentIdentifier.find('/') != std::string::npos) {
    nMountID = parseItemIdentifier(parentIdentifier).nMountID;
    // A parent the host does not confirm leaves the path empty: the host
    // then refuses the creation rather than placing it somewhere else.
    HVFileItemRef parent = client.getFileInfo(parentIdentifier);
    if (parent && parent->nStatusCode == 200)
      strWebpath = joinWebpath(parent->strWebPath.view(), filename);
  } else {
    nMountID = integerValue(parentIdentifier);
    strWebpath = filename;
  }
  mItemIdentifier = std::move(itemIdentifier);
  mParentIdentifier = std::move(parentIdentifier);
  ullFilesize = filesize;
  ullCreateTime = createTime;
  ullLastTime = lastTime;
  bDir = dir;
  strFilename = std::move(filename);
  strFullpath = std::move(fullpath);

  // Items made inside this folder before the host has answered for it
  // find their path here.
  if (bDir && !client.getAddFileInfo(mItemIdentifier))
    client.addAddFileInFo(std::make_shared<AddFileInfo>(AddFileInfo{
        .itemidentifier = mItemIdentifier, .strWebpath = strWebpath, .nMountID = nMountID}));

  const uint64_t pending = nProviderItemFields & ~NSFileProviderItemFields::Contents;
  createHandler_.setFallback([pending](auto& handler) {
    handler(nullptr, pending, false, uploadError(kErrorUnexpected, kUnexpectedMessage));
  });
}

void UploadTask::setMProgress(std::shared_ptr<Progress> progress) {
  if (progress) progress->setTotalUnitCount(static_cast<int64_t>(ullFilesize));
  HVTask::setMProgress(std::move(progress));
}

uint64_t UploadTask::getSendSize(uint64_t filesize) {
  if (filesize < 10485760) return 1048576;
  if (filesize < 104857600) return 4194304;
  if (filesize < 1073741824) return 8388608;
  return 10485760;
}

void UploadTask::body() {
  if (!bExit) {  // else cancelled while queued, and answered then
    if (bDir)
      uploadFolder();
    else
      uploadFile();
  }
  closeFile();
  removeStagingCopy();
  releaseProgressHandlers();
}

void UploadTask::failAfterException() {
  closeFile();
  setError(kErrorUnexpected, kUnexpectedMessage);
  releaseProgressHandlers();
}

void UploadTask::uploadFolder() {
  RetCreateFileRef reply =
      client().createFile(nMountID, strWebpath, true, "", 0, ullCreateTime, ullLastTime);
  if (!reply || reply->nStatusCode != 200 || !takeCreateReply(*reply, true))
    return setError(reply ? reply->nErrorCode : 0, reply ? reply->strErrorMsg.toOptional() : "");
  setFinish();
}

void UploadTask::uploadFile() {
  if (!initUpload()) {
    if (!bExit) setError(kErrorReadFile, kReadFileMessage);
    return;
  }
  if (bExit) return;
  if (strFilehash.size() != 40) return setError(kErrorReadFile, kReadFileMessage);

  RetCreateFileRef reply = client().createFile(nMountID, strWebpath, false, strFilehash,
                                               ullFilesize, ullCreateTime, ullLastTime);
  if (!reply || reply->nStatusCode != 200)
    return setError(reply ? reply->nErrorCode : 0, reply ? reply->strErrorMsg.toOptional() : "");
  // State 1 with a hash: the cloud holds these bytes already. A success
  // whose names cannot be used counts as no usable reply.
  const bool stored = reply->nState == 1 && !reply->strHash.empty();
  if (!takeCreateReply(*reply, stored)) return setError(reply->nErrorCode, reply->strErrorMsg);
  if (stored) return setFinish();

  std::vector<std::string> servers = usableServers(*reply);
  if (servers.empty()) return setError(kErrorNoServer, kNoServerMessage);
  strStoragePoint = std::string(reply->strStoragePoint.view());
  rotateServers(servers);
}

bool UploadTask::takeCreateReply(const RetCreateFile& reply, bool needHash) {
  std::string_view hash = reply.strHash.view(), upHash = reply.strUpHash.view(),
                   webpath = reply.strWebpath.view();
  // The hashes become item identifiers ("%ld/%@"); the path goes back to
  // the host in every later step.
  if ((needHash || !hash.empty()) && !isNameComponent(hash)) return false;
  if ((!upHash.empty() && !isNameComponent(upHash)) || !isWebpath(webpath)) return false;
  strUuidHash = hash;
  strUpHash = upHash;
  strWebpath = webpath;
  return true;
}

// Cache servers are tried first; after the end of the list the first server
// is tried again, so with servers A and B the turns go A, B, A, A, B, A, A, B.
void UploadTask::rotateServers(const std::vector<std::string>& servers) {
  size_t p = 0;
  std::chrono::milliseconds turnPause = timing.firstTurnPause;
  for (int turn = 1;; ++turn) {
    if (bExit) return;
    std::string server;
    if (p < servers.size()) {
      server = servers[p++];
    } else {
      server = servers[0];
      p = 0;
    }
    if (startUpload(server) != Step::Failed || !bResetServer) return;
    // Servers that never answer must not hold the task forever.
    if (turn >= timing.maxTurns) return setError(kErrorServersSilent, kServersSilentMessage);
    if (!pause(turnPause)) return;
    turnPause = std::min(turnPause * 2, timing.lastTurnPause);
  }
}

bool UploadTask::initUpload() {
  if (bDir) return true;
  strTemppath.clear();
  if (!strFullpath || strFullpath->empty()) return false;
  // An empty temporary directory would put the copy at the file-system root.
  const std::string tempPath = client().strTempPath();
  if (tempPath.empty() || tempPath.front() != '/') return false;
  const std::string digest =
      sha1HexDigest(fmt::format("{}-{}-{}", nMountID, strWebpath, *strFullpath));
  const std::string staging = tempPath + "/upload_" + digest;
  if (::unlink(staging.c_str()) != 0 && errno != ENOENT) return false;
  auto copy = stageCopyWithSHA1(*strFullpath, staging, bExit);
  if (!copy) return false;
  strTemppath = staging;
  strFilehash = std::move(copy->sha1);
  return true;
}

void UploadTask::setFinish() {
  // Without its own hash the item would take the mount root's identifier.
  if (strUuidHash.empty()) return setError(kErrorUnexpected, kUnexpectedMessage);
  auto record = std::make_shared<HVFileItem>();
  record->bRoot = false;
  record->strFileName = getFilename(strWebpath);
  record->nMountID = nMountID;
  record->strWebPath = strWebpath;
  record->bDir = bDir;
  record->strFileHash = bDir ? NullableString() : NullableString(strFilehash);
  record->ullFileSize = ullFilesize;
  record->strUuidHash = strUuidHash;
  record->strUpHash = strUpHash;
  record->ullLastTime = ullLastTime;
  record->ullCreatorTime = ullCreateTime;
  auto item = FileProviderItem::initWithHVFileItem(record);
  item->setParentIdentifier(createItemIdentifier(nMountID, strUpHash));

  if (const auto& progress = mProgress())
    progress->setCompletedUnitCount(static_cast<int64_t>(ullFilesize));
  createHandler_(std::move(item), nProviderItemFields & ~NSFileProviderItemFields::Contents, false,
                 std::nullopt);
  client().addFileToCache(strTemppath, strFilehash);
  removeStagingCopy();
}

void UploadTask::setError(int64_t code, std::optional<std::string> msg) {
  createHandler_(nullptr, nProviderItemFields & ~NSFileProviderItemFields::Contents, false,
                 uploadError(code, std::move(msg)));
  removeStagingCopy();
}

void UploadTask::removeStagingCopy() {
  if (strTemppath.empty()) return;
  ::unlink(strTemppath.c_str());
  strTemppath.clear();
}

void UploadTask::cancelled() {
  createHandler_(nullptr, 0, false, Error::cocoa(ErrorCode::Cancelled));
  std::shared_ptr<TransferTask> transfer;
  {
    MutexLock lock(lock_);
    transfer = uploadTask;
    wake_.notify_all();  // ends a pause at once
  }
  if (transfer) transfer->cancel();
}

void UploadTask::paused() {
  MutexLock lock(lock_);
  if (uploadTask) uploadTask->suspend();
}

void UploadTask::resumed() {
  MutexLock lock(lock_);
  if (uploadTask) uploadTask->resume();
}

bool UploadTask::pause(std::chrono::milliseconds length) {
  MutexLock lock(lock_);
  wake_.wait_for(lock, length, [this] { return bExit.load(); });
  return !bExit;
}

}  // namespace hvfp

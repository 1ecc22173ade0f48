// HalvoProviderClient: the provider's one client of the host app.
//
// It owns the host query channel (a blocking HTTP GET per query to the
// host's loopback server), the request families built on it, the upload
// queue, the host-event listener and two small registries. The process entry
// makes or takes one (shareHalvoProviderClient) and hands it to the
// extension; everything below the entry is given its client and never
// reaches for the process's own. A client outlives everything it is given to.
// The process's client goes at exit: it gives queued uploads a bounded time
// to finish (kExitWait) and leaves the rest to end with the process.
//
// Threads: every operation may be called from any thread at any time after
// start; queries block the calling thread until the host has answered.
// Host events arrive on the listener's thread. The query port is atomic;
// the rest of the shared state is guarded by the mutex named on it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "hostlink/ItemIdentifier.h"
#include "hostlink/QueryList.h"
#include "platform/ThreadAnnotations.h"
#include "platform/dispatch/OperationQueue.h"
#include "platform/fileprovider/NSFileProviderManager.h"
#include "platform/ipc/HostEvents.h"
#include "records/HVFileItem.h"
#include "records/ReplyRecords.h"

namespace hvfp {

// What the client made of one host event, for whoever watches them.
struct HostEvent {
  std::optional<std::string> object;     // the event's text; none when it carried none
  std::optional<std::string> signalled;  // the container signalled to the manager, if any
};

// How a query ended. Only the channel's own failures count: a reply with an
// error status is delivered, and its body goes to the caller as any other.
struct QueryOutcome {
  uint64_t number = 0;  // the query's place among the client's queries; 0: none yet
  bool delivered = false;
  long httpStatus = 0;  // 0 without a reply
  std::string failure;  // why nothing usable came; empty when delivered
};

class HalvoProviderClient {
 public:
  static constexpr int64_t kDefaultPort = 24753;
  static constexpr const char* kDefaultHost = "http://127.0.0.1";

  // The process's client, for the process entry to hand down. Destroyed at
  // exit, after everything the entry made with it.
  static HalvoProviderClient& shareHalvoProviderClient();

  // How long destruction waits for queued uploads by default.
  static constexpr std::chrono::milliseconds kExitWait{10000};

  // Not started: no queue, no manager, no listener.
  HalvoProviderClient() = default;
  // Stops hearing host events, then waits for the queued uploads, so that an
  // upload about to finish can still report, but at most exitWait(): an
  // upload stuck on a silent server must not hold the process's exit. What
  // is still queued or running then is logged and left to end with the
  // process; its queue's threads are not joined. So a client destroyed
  // before its process exits must have no upload left by then.
  ~HalvoProviderClient();
  HalvoProviderClient(const HalvoProviderClient&) = delete;
  HalvoProviderClient& operator=(const HalvoProviderClient&) = delete;

  // --- start, host events, message port ----------------------------------
  // Makes the upload queue and empty registries, binds the domain's manager,
  // sets the default host and port, takes the domain's temporary directory
  // and subscribes to host events. A second call does it all again.
  void start(const NSFileProviderDomain& domain);
  void stop() {}
  // One host event; `object` is the event's text, or nullopt when the event
  // carried no text. Runs on the event listener's thread.
  void onRecvFromApp(const std::optional<std::string>& object) EXCLUDES(mTapLock);
  // Called with each host event once the client has handled it, on the
  // thread that delivered it. When setEventTap returns, the tap it replaced
  // is neither running nor called again; so a tap must not set the tap.
  using EventTap = std::function<void(const HostEvent& event)>;
  void setEventTap(EventTap tap) EXCLUDES(mTapLock);
  // Notifies the host app through its message port: up to 5 attempts 0.5 s
  // apart; the reply text, or the empty text when every attempt failed.
  std::string sendData(int64_t msgid, const std::string& content);
  std::string sendDataMore(int64_t msgid, const std::string& content, int64_t attempts);
  static std::string getChangeStatus(int32_t msgid);

  std::shared_ptr<NSFileProviderManager> providerManager() const;
  // Whether start found a session bus to hear host events on.
  bool hearsHostEvents() const;
  // Null before start. A second start replaces it; the old one keeps
  // running what it holds until the client goes.
  OperationQueue* mUploadQueue() const;
  std::chrono::milliseconds exitWait() const;
  void setExitWait(std::chrono::milliseconds wait);

  // --- properties -------------------------------------------------------
  std::string strHost() const;
  void setStrHost(std::string host);
  int64_t nPort() const { return nPort_.load(); }
  void setNPort(int64_t port) { nPort_.store(port); }
  std::string strTempPath() const;
  void setStrTempPath(std::string path);
  // Values of the piece headers; never given a value, so never sent.
  std::string userAgentString;
  std::string languageWithRequestString;

  // --- the channel ------------------------------------------------------
  // The largest replies taken. A listing of a hundred thousand entries is
  // tens of megabytes; every other reply is one small record, and a larger
  // one is refused before it is parsed into a value tree, which would take
  // many times its size. A reply over its limit is no answer: the transfer
  // stops there, and the outcome says why.
  static constexpr size_t kMaxListingReply = size_t{256} << 20;
  static constexpr size_t kMaxRecordReply = size_t{4} << 20;

  // "<host>:<port>/provider?<query>", host and port read once.
  std::string urlFor(const QueryList& list) const;
  std::string syncRequestByArray(const QueryList& list, size_t maxReply = kMaxListingReply) const;
  // The reply body; the empty text when the channel failed.
  std::string syncRequest(const std::string& url, size_t maxReply = kMaxListingReply) const;
  // The outcome of the query that finished last.
  QueryOutcome lastOutcome() const;

  // --- listings and lookups ---------------------------------------------
  // Listings give an empty list when the reply is not a JSON object; the
  // folder and change listings then leave `lasttime` as it was, and
  // otherwise store the reply's "lasttime" (0 when missing).
  std::vector<HVFileItemRef> getLinks() const;
  std::vector<HVFileItemRef> getTrash() const;
  std::vector<HVFileItemRef> getFiles(int64_t mountId, const std::string& uuidhash,
                                      uint64_t& lasttime) const;
  std::vector<HVFileItemRef> getFiles(const std::string& identifier, uint64_t& lasttime) const;
  std::vector<HVFileItemRef> getChangeFiles(uint64_t& lasttime) const;
  // Lookups give nullptr when the reply is not a JSON object; the record's
  // own status is for the caller to judge.
  HVFileItemRef getFileInfo(int64_t mountId, const std::string& uuidhash) const;
  HVFileItemRef getFileInfo(const std::string& identifier) const;
  RetOpenRef getDownloadInfo(int64_t mountId, const std::string& uuidhash) const;
  RetOpenRef getDownloadInfo(const std::string& identifier) const;

  // --- mutations ----------------------------------------------------------
  // The four with a reply give none for a provisional identifier (and, for
  // deleteFile and recoverFile, for a mount root) without asking the host,
  // and none when the reply is not a JSON object; the record's status is for
  // the caller to judge. The three notices send and read nothing back.
  RetNameFileRef renameFile(const std::string& identifier, const std::string& filename) const;
  RetMoveFileRef removeFile(const std::string& identifier,
                            const std::string& parentIdentifier) const;
  RequestRetRef deleteFile(const std::string& identifier) const;
  RequestRetRef recoverFile(const std::string& identifier) const;
  void addFileToCache(const std::string& path, const std::string& filehash) const;
  void updateStauts(const std::string& identifier, int64_t status) const;
  void deleteSyncDB(const std::string& identifier) const;

  // --- upload control ---------------------------------------------------
  // Each gives none when the reply is not a JSON object. Absent or empty
  // host, session, storage point and cookie are sent as empty values.
  RetCreateFileRef createFile(int64_t mountId, const std::string& webpath, bool dir,
                              const std::string& filehash, uint64_t filesize, uint64_t createtime,
                              uint64_t lasttime) const;
  RetUploadInitRef uploadInit(const std::string& host, const std::string& fileName,
                              const std::string& pathHash, const std::string& fileHash,
                              uint64_t fileSize, int64_t mountid,
                              const std::optional<std::string>& storagepoint,
                              const std::optional<std::string>& cookie) const;
  RetUploadReqRef uploadReq(const std::string& host, const std::optional<std::string>& session,
                            const std::optional<std::string>& cookie) const;
  RequestRetRef uploadFinish(const std::string& host, const std::optional<std::string>& session,
                             uint64_t filesize, const std::optional<std::string>& cookie) const;
  RequestRetRef uploadAbort(const std::string& host, const std::optional<std::string>& session,
                            const std::optional<std::string>& cookie) const;

  // --- registries -------------------------------------------------------
  // Pending additions: folders made in the domain that the host may not
  // know yet, keyed by the identifier the framework gave them.
  // A copy of the entry, taken under the list's lock: a later registration
  // of the same identifier updates the stored entry in place, and upload
  // tasks on other threads read what they were given.
  std::optional<AddFileInfo> getAddFileInfo(const std::string& identifier) const;
  void addAddFileInFo(const AddFileInfoRef& info);
  // Root renames: display names enumeration gave mount roots.
  void addRootChangeName(const RootChangeNameRef& entry);
  std::string checkRootChangeName(const std::string& identifier) const;
  // Empties both registries (start does this).
  void resetRegistries();

 private:
  std::vector<HVFileItemRef> listing(const QueryList& list, uint64_t* lasttime) const;
  // One record from a reply of at most kMaxRecordReply; none when it is not
  // a JSON object.
  template <typename Record>
  std::shared_ptr<Record> requestRecord(const QueryList& list) const {
    auto parsed = objectFromJSONString(syncRequestByArray(list, kMaxRecordReply));
    if (!parsed || !parsed->isObject()) return nullptr;
    return initWithJson<Record>(*parsed);
  }
  // Polls the queues until they are idle or `wait` is over; what is left.
  static size_t waitForUploads(const std::vector<std::unique_ptr<OperationQueue>>& queues,
                               std::chrono::milliseconds wait);
  // Listens anew; the old listener is replaced only once the new one hears.
  void subscribeToHostEvents() EXCLUDES(mPropsLock);
  // The container the event signalled, if it signalled one.
  std::optional<std::string> handleEvent(const std::optional<std::string>& object);

  mutable Mutex mPropsLock;
  std::shared_ptr<NSFileProviderManager> providerManager_ GUARDED_BY(mPropsLock);
  // The current upload queue is the last; earlier starts left the others.
  std::vector<std::unique_ptr<OperationQueue>> uploadQueues_ GUARDED_BY(mPropsLock);
  std::unique_ptr<HostEventListener> eventListener_ GUARDED_BY(mPropsLock);
  std::string strHost_ GUARDED_BY(mPropsLock) = kDefaultHost;
  std::string strTempPath_ GUARDED_BY(mPropsLock);
  std::atomic<int64_t> nPort_{kDefaultPort};
  std::chrono::milliseconds exitWait_ GUARDED_BY(mPropsLock) = kExitWait;

  Mutex mSendLock;  // one message-port exchange at a time; guards no data

  Mutex mTapLock;  // held while the tap runs
  EventTap tap_ GUARDED_BY(mTapLock);

  mutable std::atomic<uint64_t> queriesMade_{0};
  mutable Mutex mOutcomeLock;
  mutable QueryOutcome lastOutcome_ GUARDED_BY(mOutcomeLock);

  mutable Mutex mLock;
  std::vector<AddFileInfoRef> mMutableArray GUARDED_BY(mLock);  // pending additions
  mutable Mutex mRootChangeNameLock;
  // Keyed by identifier: a host may list thousands of mounts under one name.
  std::unordered_map<std::string, RootChangeNameRef> mRootChangeNameArray
      GUARDED_BY(mRootChangeNameLock);
};

}  // namespace hvfp

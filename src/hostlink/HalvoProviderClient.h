// HalvoProviderClient: the provider's one client of the host app.
//
// A process singleton (shareHalvoProviderClient), never destroyed. It owns the
// host query channel (a blocking HTTP GET per query to the host's loopback
// server), the request families built on it, the upload queue, and two small
// registries. Every operation may be called from any thread at any time after
// start; queries block the calling thread until the host has answered.
// Shared state: the query port is atomic, the host and temporary path are
// read under a lock, each registry has its own mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "hostlink/ItemIdentifier.h"
#include "hostlink/QueryList.h"
#include "platform/dispatch/OperationQueue.h"
#include "platform/fileprovider/NSFileProviderManager.h"
#include "platform/ipc/HostEvents.h"
#include "records/HVFileItem.h"
#include "records/ReplyRecords.h"

namespace hvfp {

class HalvoProviderClient {
 public:
  static constexpr int64_t kDefaultPort = 24753;
  static constexpr const char* kDefaultHost = "http://127.0.0.1";

  static HalvoProviderClient& shareHalvoProviderClient();

  // --- start, host events, message port ----------------------------------
  // Makes the upload queue and empty registries, binds the domain's manager,
  // sets the default host and port, takes the domain's temporary directory
  // and subscribes to host events. A second call does it all again.
  void start(const NSFileProviderDomain& domain);
  void stop() {}
  // One host event; `object` is the event's text, or nullopt when the event
  // carried no text. Runs on the event listener's thread.
  void onRecvFromApp(const std::optional<std::string>& object);
  // Notifies the host app through its message port: up to 5 attempts 0.5 s
  // apart; the reply text, or the empty text when every attempt failed.
  std::string sendData(int64_t msgid, const std::string& content);
  std::string sendDataMore(int64_t msgid, const std::string& content, int64_t attempts);
  static std::string getChangeStatus(int32_t msgid);

  std::shared_ptr<NSFileProviderManager> providerManager() const;
  // Whether start found a session bus to hear host events on.
  bool hearsHostEvents() const;
  std::shared_ptr<OperationQueue> mUploadQueue() const;

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
  // "<host>:<port>/provider?<query>", host and port read once.
  std::string urlFor(const QueryList& list) const;
  std::string syncRequestByArray(const QueryList& list) const;
  // The reply body; the empty text on any failure (see SharedSession).
  static std::string syncRequest(const std::string& url);

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

  // --- registries -------------------------------------------------------
  // Pending additions: folders made in the domain that the host may not
  // know yet, keyed by the identifier the framework gave them.
  AddFileInfoRef getAddFileInfo(const std::string& identifier) const;
  void addAddFileInFo(const AddFileInfoRef& info);
  // Root renames: display names enumeration gave mount roots.
  void addRootChangeName(const RootChangeNameRef& entry);
  std::string checkRootChangeName(const std::string& identifier) const;
  // Empties both registries (start does this).
  void resetRegistries();

 private:
  HalvoProviderClient() = default;
  std::vector<HVFileItemRef> listing(const QueryList& list, uint64_t* lasttime) const;
  std::string lookup(const QueryList& list) const;

  mutable std::mutex mPropsLock;  // guards the strings and objects below
  std::shared_ptr<NSFileProviderManager> providerManager_;
  std::shared_ptr<OperationQueue> mUploadQueue_;
  // Queues replaced by a second start keep running what they hold.
  std::vector<std::shared_ptr<OperationQueue>> retiredQueues_;
  std::unique_ptr<HostEventListener> eventListener_;
  std::mutex mSendLock;  // one message-port exchange at a time
  std::string strHost_ = kDefaultHost;
  std::string strTempPath_;
  std::atomic<int64_t> nPort_{kDefaultPort};

  mutable std::mutex mLock;  // guards mMutableArray
  std::vector<AddFileInfoRef> mMutableArray;
  mutable std::mutex mRootChangeNameLock;  // guards mRootChangeNameArray
  // Keyed by identifier: a host may list thousands of mounts under one name.
  std::unordered_map<std::string, RootChangeNameRef> mRootChangeNameArray;
};

}  // namespace hvfp

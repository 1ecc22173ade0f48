#include "hostlink/HalvoProviderClient.h"

#include <thread>

#include "platform/Log.h"
#include "platform/http/SharedSession.h"

namespace hvfp {
namespace {

static_assert(HalvoProviderClient::kMaxListingReply <= SharedSession::kMaxBody);

// How often destruction looks whether the uploads are done.
constexpr auto kUploadPoll = std::chrono::milliseconds(10);

}  // namespace

HalvoProviderClient& HalvoProviderClient::shareHalvoProviderClient() {
  static HalvoProviderClient client;
  return client;
}

HalvoProviderClient::~HalvoProviderClient() {
  // The listener first: an event arriving now must not find a client that is
  // half gone. Then the queues, whose uploads still use the rest.
  std::unique_ptr<HostEventListener> listener;
  std::vector<std::unique_ptr<OperationQueue>> queues;
  std::chrono::milliseconds wait;
  {
    MutexLock lock(mPropsLock);
    listener = std::move(eventListener_);
    queues = std::move(uploadQueues_);
    wait = exitWait_;
  }
  listener.reset();
  const size_t left = waitForUploads(queues, wait);
  if (left == 0) return;  // the queues join their idle workers
  log("HalvoProviderClient gone with {} uploads unfinished after {} ms", left, wait.count());
  for (auto& queue : queues) (void)queue.release();
}

size_t HalvoProviderClient::waitForUploads(
    const std::vector<std::unique_ptr<OperationQueue>>& queues, std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    size_t left = 0;
    for (const auto& queue : queues) left += queue->operationCount();
    if (left == 0 || std::chrono::steady_clock::now() >= deadline) return left;
    std::this_thread::sleep_for(kUploadPoll);
  }
}

std::chrono::milliseconds HalvoProviderClient::exitWait() const {
  MutexLock lock(mPropsLock);
  return exitWait_;
}

void HalvoProviderClient::setExitWait(std::chrono::milliseconds wait) {
  MutexLock lock(mPropsLock);
  exitWait_ = wait;
}

std::string HalvoProviderClient::strHost() const {
  MutexLock lock(mPropsLock);
  return strHost_;
}

void HalvoProviderClient::setStrHost(std::string host) {
  MutexLock lock(mPropsLock);
  strHost_ = std::move(host);
}

std::string HalvoProviderClient::strTempPath() const {
  MutexLock lock(mPropsLock);
  return strTempPath_;
}

void HalvoProviderClient::setStrTempPath(std::string path) {
  MutexLock lock(mPropsLock);
  strTempPath_ = std::move(path);
}

std::string HalvoProviderClient::urlFor(const QueryList& list) const {
  return strHost() + ":" + std::to_string(nPort()) + "/provider?" + getKeyByString(list);
}

std::string HalvoProviderClient::syncRequestByArray(const QueryList& list, size_t maxReply) const {
  return syncRequest(urlFor(list), maxReply);
}

std::string HalvoProviderClient::syncRequest(const std::string& url, size_t maxReply) const {
  QueryOutcome outcome;
  outcome.number = ++queriesMade_;
  Result<HttpReply> reply = SharedSession::get(url, maxReply);
  std::string body;
  if (reply) {
    outcome.delivered = true;
    outcome.httpStatus = reply->status;
    body = std::move(reply->body);
  } else {
    outcome.httpStatus = reply.failure().status;
    outcome.failure = reply.failure().message;
  }
  MutexLock lock(mOutcomeLock);
  lastOutcome_ = std::move(outcome);
  return body;
}

QueryOutcome HalvoProviderClient::lastOutcome() const {
  MutexLock lock(mOutcomeLock);
  return lastOutcome_;
}

std::optional<AddFileInfo> HalvoProviderClient::getAddFileInfo(
    const std::string& identifier) const {
  MutexLock lock(mLock);
  for (const auto& entry : mMutableArray)
    if (entry->itemidentifier == identifier) return *entry;
  return std::nullopt;
}

void HalvoProviderClient::addAddFileInFo(const AddFileInfoRef& info) {
  if (!info) return;
  MutexLock lock(mLock);
  for (const auto& entry : mMutableArray) {
    if (entry->itemidentifier == info->itemidentifier) {
      entry->strWebpath = info->strWebpath;
      entry->nMountID = info->nMountID;
      return;
    }
  }
  mMutableArray.push_back(info);
}

void HalvoProviderClient::addRootChangeName(const RootChangeNameRef& entry) {
  if (!entry) return;
  MutexLock lock(mRootChangeNameLock);
  auto [it, added] = mRootChangeNameArray.try_emplace(entry->itemidentifier, entry);
  if (!added) it->second->strName = entry->strName;
}

std::string HalvoProviderClient::checkRootChangeName(const std::string& identifier) const {
  MutexLock lock(mRootChangeNameLock);
  auto it = mRootChangeNameArray.find(identifier);
  return it == mRootChangeNameArray.end() ? std::string() : it->second->strName;
}

void HalvoProviderClient::resetRegistries() {
  {
    MutexLock lock(mLock);
    mMutableArray.clear();
  }
  MutexLock lock(mRootChangeNameLock);
  mRootChangeNameArray.clear();
}

}  // namespace hvfp

#include "hostlink/HalvoProviderClient.h"

#include "platform/http/SharedSession.h"

namespace hvfp {

HalvoProviderClient& HalvoProviderClient::shareHalvoProviderClient() {
  // Never destroyed: tasks and listener threads may still use it during exit.
  static HalvoProviderClient* client = new HalvoProviderClient;
  return *client;
}

std::string HalvoProviderClient::strHost() const {
  std::lock_guard lock(mPropsLock);
  return strHost_;
}

void HalvoProviderClient::setStrHost(std::string host) {
  std::lock_guard lock(mPropsLock);
  strHost_ = std::move(host);
}

std::string HalvoProviderClient::strTempPath() const {
  std::lock_guard lock(mPropsLock);
  return strTempPath_;
}

void HalvoProviderClient::setStrTempPath(std::string path) {
  std::lock_guard lock(mPropsLock);
  strTempPath_ = std::move(path);
}

std::string HalvoProviderClient::urlFor(const QueryList& list) const {
  return strHost() + ":" + std::to_string(nPort()) + "/provider?" + getKeyByString(list);
}

std::string HalvoProviderClient::syncRequestByArray(const QueryList& list) const {
  return syncRequest(urlFor(list));
}

std::string HalvoProviderClient::syncRequest(const std::string& url) {
  return SharedSession::get(url);
}

AddFileInfoRef HalvoProviderClient::getAddFileInfo(const std::string& identifier) const {
  std::lock_guard lock(mLock);
  for (const auto& entry : mMutableArray)
    if (entry->itemidentifier == identifier) return entry;
  return nullptr;
}

void HalvoProviderClient::addAddFileInFo(const AddFileInfoRef& info) {
  if (!info) return;
  std::lock_guard lock(mLock);
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
  std::lock_guard lock(mRootChangeNameLock);
  auto [it, added] = mRootChangeNameArray.try_emplace(entry->itemidentifier, entry);
  if (!added) it->second->strName = entry->strName;
}

std::string HalvoProviderClient::checkRootChangeName(const std::string& identifier) const {
  std::lock_guard lock(mRootChangeNameLock);
  auto it = mRootChangeNameArray.find(identifier);
  return it == mRootChangeNameArray.end() ? std::string() : it->second->strName;
}

void HalvoProviderClient::resetRegistries() {
  {
    std::lock_guard lock(mLock);
    mMutableArray.clear();
  }
  std::lock_guard lock(mRootChangeNameLock);
  mRootChangeNameArray.clear();
}

}  // namespace hvfp

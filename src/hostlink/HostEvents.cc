// Start, host events and message-port notifications of the host client.
#include "platform/ipc/HostEvents.h"

#include <simdjson.h>

#include <chrono>
#include <thread>

#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/ipc/DBusNames.h"
#include "platform/ipc/MessagePort.h"

namespace hvfp {
namespace {

constexpr int64_t kMaxSendAttempts = 5;
constexpr auto kSendRetryPause = std::chrono::milliseconds(500);
constexpr double kSendTimeout = 1.0;
constexpr double kReceiveTimeout = 10.0;

// A JSON number, boolean or text has an integer value; null, arrays and
// objects do not.
std::optional<int64_t> integerValueOf(const JsonValue* v) {
  if (!v || v->isNull() || v->isArray() || v->isObject()) return std::nullopt;
  return integerReading(JsonScalar::of(v));
}

}  // namespace

void HalvoProviderClient::start(const NSFileProviderDomain& domain) {
  resetRegistries();
  auto manager = NSFileProviderManager::managerForDomain(domain);
  setNPort(kDefaultPort);
  std::string tempPath;
  if (manager) tempPath = manager->temporaryDirectoryURLWithError().value_or("");
  {
    MutexLock lock(mPropsLock);
    uploadQueues_.push_back(std::make_unique<OperationQueue>());
    providerManager_ = manager;
    strHost_ = kDefaultHost;
    strTempPath_ = std::move(tempPath);
  }
  subscribeToHostEvents();
}

void HalvoProviderClient::subscribeToHostEvents() {
  // The new listener is made before the old one goes, so a restart that
  // cannot reach the bus keeps hearing events on the connection it had. An
  // event sent while both listen is handled twice: it sets the same port or
  // signals the same container again, which changes nothing.
  auto listener = HostEventListener::listen(
      [this](const std::optional<std::string>& object) { onRecvFromApp(object); });
  if (!listener) {
    if (hearsHostEvents())
      log("host events: cannot listen again, the current listener stays: {}",
          listener.failure().message);
    else
      log("host events unavailable, running without them: {}", listener.failure().message);
    return;
  }
  std::unique_ptr<HostEventListener> previous = std::move(*listener);
  {
    MutexLock lock(mPropsLock);
    std::swap(previous, eventListener_);
  }
  // Outside the lock: its thread may be in an event that needs the lock.
  previous.reset();
}

std::shared_ptr<NSFileProviderManager> HalvoProviderClient::providerManager() const {
  MutexLock lock(mPropsLock);
  return providerManager_;
}

bool HalvoProviderClient::hearsHostEvents() const {
  MutexLock lock(mPropsLock);
  return eventListener_ != nullptr;
}

OperationQueue* HalvoProviderClient::mUploadQueue() const {
  MutexLock lock(mPropsLock);
  return uploadQueues_.empty() ? nullptr : uploadQueues_.back().get();
}

void HalvoProviderClient::setEventTap(EventTap tap) {
  MutexLock lock(mTapLock);
  tap_ = std::move(tap);
}

void HalvoProviderClient::onRecvFromApp(const std::optional<std::string>& object) {
  HostEvent event{object, handleEvent(object)};
  MutexLock lock(mTapLock);
  if (tap_) tap_(event);
}

std::optional<std::string> HalvoProviderClient::handleEvent(
    const std::optional<std::string>& object) {
  if (!object) {
    log("onRecvFromApp error for str");
    return std::nullopt;
  }
  log("onRecvFromApp {}", *object);
  auto event = objectFromJSONString(*object);
  if (!event || !event->isObject()) return std::nullopt;
  auto type = integerValueOf(event->find("type"));
  if (!type) return std::nullopt;
  if (*type == 1) {
    setNPort(integerValueOf(event->find("port")).value_or(0));
    return std::nullopt;
  }
  auto manager = providerManager();
  if (*type != 2 || !manager) return std::nullopt;
  int64_t mountId = integerValueOf(event->find("mountid")).value_or(0);
  const JsonValue* hash = event->find("hash");
  std::string uuidhash = hash && hash->string() ? *hash->string() : std::string();
  std::string container = mountId == 0 ? std::string(NSFileProviderRootContainerItemIdentifier)
                                       : createItemIdentifier(mountId, uuidhash);
  manager->signalEnumeratorForContainerItemIdentifier(container, [](std::optional<Error>) {});
  return container;
}

std::string HalvoProviderClient::getChangeStatus(int32_t msgid) {
  static constexpr const char* kNames[] = {
      "MessagePort_Links",      "MessagePort_Files",        "MessagePort_FileInfo",
      "MessagePort_Download",   "MessagePort_CreateFile",   "MessagePort_UploadInit",
      "MessagePort_UploadReq",  "MessagePort_UploadFinish", "MessagePort_UploadAbort",
      "MessagePort_RenameFile", "MessagePort_RemoveFile",   "MessagePort_DeleteFile",
      "MessagePort_ChangeFile"};
  if (msgid < 1 || msgid > 13) return {};
  return kNames[msgid - 1];
}

std::string HalvoProviderClient::sendData(int64_t msgid, const std::string& content) {
  return sendDataMore(msgid, content, 0);
}

std::string HalvoProviderClient::sendDataMore(int64_t msgid, const std::string& content,
                                              int64_t attempts) {
  const std::string name = getChangeStatus(static_cast<int32_t>(msgid));
  for (int64_t k = attempts; k < kMaxSendAttempts; ++k) {
    bool sent = false;
    std::optional<std::string> reply;
    {
      // The lock covers one attempt's port traffic only, never the log of
      // its failure or the pause, so other callers' attempts can go between.
      MutexLock lock(mSendLock);
      auto port = MessagePortRemote::create(dbus::kPortName);
      if (port) {
        log("sendData {}:{}", name, content);
        sent = true;
        reply =
            port->sendRequest(static_cast<int32_t>(msgid), content, kSendTimeout, kReceiveTimeout);
      }
    }
    if (reply) {
      // Bytes that are not UTF-8 decode to no text at all.
      if (!simdjson::validate_utf8(reply->data(), reply->size())) reply->clear();
      log("sendData ret:{},{}", name, *reply);
      return *reply;
    }
    if (sent) log("sendData ret fail:{},error num {}", name, k);
    std::this_thread::sleep_for(kSendRetryPause);
  }
  return {};
}

}  // namespace hvfp

#include "extension/FileProviderExtension.h"

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"
#include "tasks/DownloadTask.h"

namespace hvfp {
namespace {

// A mount shown under a collision name must keep that name when looked up
// alone, or the framework would see it renamed back.
void applyRegisteredRootName(const HalvoProviderClient& client, FileProviderItem& item) {
  if (!item.isRoot()) return;
  std::string name = client.checkRootChangeName(item.itemIdentifier());
  if (!name.empty()) item.setFileName(name);
}

}  // namespace

FileProviderExtension::FileProviderExtension(HalvoProviderClient& client,
                                             const NSFileProviderDomain& domain)
    : client_(client), mTaskQueue_(std::make_unique<OperationQueue>()) {
  client_.start(domain);
  log("FileProvider 6.2.3.20010");
}

// Waits for queued tasks: they hold handlers the framework expects called.
FileProviderExtension::~FileProviderExtension() = default;

NSFileProviderEnumeratorRef FileProviderExtension::enumeratorForContainerItemIdentifier(
    const std::string& containerItemIdentifier, const NSFileProviderRequest& request,
    Error* error) {
  (void)request;
  (void)error;
  const int64_t anchor = nCurrentAnchor_.fetch_add(1) + 1;
  return std::make_shared<FileProviderEnumerator>(client_, containerItemIdentifier, anchor);
}

std::shared_ptr<Progress> FileProviderExtension::itemForIdentifier(
    const std::string& identifier, const NSFileProviderRequest& request,
    ItemCompletionHandler completionHandler) {
  log("FileProviderExtension itemForIdentifier:{},{},{}", identifier,
      request.isSystemRequest ? 1 : 0, request.isFileViewerRequest ? 1 : 0);
  std::shared_ptr<FileProviderItem> item =
      FileProviderItem::initWithItemIdentifier(identifier, client_);
  if (item) {
    applyRegisteredRootName(client_, *item);
    item->test();
  }
  if (completionHandler) {
    if (item)
      completionHandler(std::move(item), std::nullopt);
    else
      completionHandler(nullptr, Error::cocoa(ErrorCode::LookupFailed));
  }
  return Progress::make();
}

// The version asked for is not compared: the contents the host names when the
// task runs are the ones delivered.
std::shared_ptr<Progress> FileProviderExtension::fetchContentsForItemWithIdentifier(
    const std::string& itemIdentifier, const std::optional<NSFileProviderItemVersion>&,
    const NSFileProviderRequest&, NSFileProviderFetchHandler completionHandler) {
  auto progress = Progress::make();
  auto task = std::make_shared<DownloadTask>(client_, *mTaskQueue_, itemIdentifier);
  task->setMProgress(progress);
  task->setDownloadHandler(std::move(completionHandler));
  mTaskQueue_->addOperation(std::move(task));
  return progress;
}

std::shared_ptr<Progress> FileProviderExtension::createItemBasedOnTemplate(
    NSFileProviderItem&, uint64_t, const std::optional<std::string>&, uint64_t,
    const NSFileProviderRequest&, NSFileProviderItemChangeHandler completionHandler) {
  if (completionHandler)
    completionHandler(nullptr, 0, false, Error::cocoa(ErrorCode::FeatureUnsupported));
  return Progress::make();
}

std::shared_ptr<Progress> FileProviderExtension::modifyItem(
    NSFileProviderItem&, const std::optional<NSFileProviderItemVersion>&, uint64_t,
    const std::optional<std::string>&, uint64_t, const NSFileProviderRequest&,
    NSFileProviderItemChangeHandler completionHandler) {
  if (completionHandler)
    completionHandler(nullptr, 0, false, Error::cocoa(ErrorCode::FeatureUnsupported));
  return Progress::make();
}

std::shared_ptr<Progress> FileProviderExtension::deleteItemWithIdentifier(
    const std::string&, const std::optional<NSFileProviderItemVersion>&, uint64_t,
    const NSFileProviderRequest&, NSFileProviderDeleteHandler completionHandler) {
  if (completionHandler) completionHandler(std::nullopt);
  return Progress::make();
}

}  // namespace hvfp

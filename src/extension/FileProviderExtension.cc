#include "extension/FileProviderExtension.h"

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"
#include "tasks/UploadTask.h"

namespace hvfp {
namespace {

// A mount shown under a collision name must keep that name when looked up
// alone, or the framework would see it renamed back.
void applyRegisteredRootName(const HalvoProviderClient& client, FileProviderItem& item) {
  if (!item.isRoot()) return;
  std::string name = client.checkRootChangeName(item.itemIdentifier());
  if (!name.empty()) item.setFileName(name);
}

// Seconds since 1970 as the host counts them: whole, never negative (a date
// before 1970 has no place in the unsigned count and reads as 1970).
uint64_t wholeSeconds(const std::optional<Date>& date) {
  if (!date || !(*date > 0)) return 0;
  if (*date >= 18446744073709551615.0) return UINT64_MAX;
  return static_cast<uint64_t>(*date);
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

// Not built yet: every handler still gets its one answer.
std::shared_ptr<Progress> FileProviderExtension::fetchContentsForItemWithIdentifier(
    const std::string&, const std::optional<NSFileProviderItemVersion>&,
    const NSFileProviderRequest&, NSFileProviderFetchHandler completionHandler) {
  if (completionHandler)
    completionHandler(std::nullopt, nullptr, Error::cocoa(ErrorCode::FeatureUnsupported));
  return Progress::make();
}

std::shared_ptr<Progress> FileProviderExtension::createItemBasedOnTemplate(
    NSFileProviderItem& itemTemplate, uint64_t fields, const std::optional<std::string>& contents,
    uint64_t, const NSFileProviderRequest& request,
    NSFileProviderItemChangeHandler completionHandler) {
  const int system = request.isSystemRequest ? 1 : 0;
  const int viewer = request.isFileViewerRequest ? 1 : 0;
  if (request.requestingExecutable)
    log("FileProviderExtension createItemBasedOnTemplate:{},{},{}", system, viewer,
        *request.requestingExecutable);
  else
    log("FileProviderExtension createItemBasedOnTemplate:{},{}", system, viewer);
  auto progress = Progress::make();
  queueUpload(itemTemplate, fields, contents, progress, std::move(completionHandler));
  return progress;
}

std::shared_ptr<Progress> FileProviderExtension::modifyItem(
    NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>&,
    uint64_t changedFields, const std::optional<std::string>& contents, uint64_t,
    const NSFileProviderRequest&, NSFileProviderItemChangeHandler completionHandler) {
  auto progress = Progress::make();
  if (uploadNewContents(item, changedFields, contents, progress, completionHandler))
    return progress;
  if (completionHandler)
    completionHandler(nullptr, 0, false, Error::cocoa(ErrorCode::FeatureUnsupported));
  return progress;
}

// The first rule of a modification: new contents are uploaded whatever else
// changed; the fields still pending after the upload bring the rest.
bool FileProviderExtension::uploadNewContents(NSFileProviderItem& item, uint64_t changedFields,
                                              const std::optional<std::string>& contents,
                                              const std::shared_ptr<Progress>& progress,
                                              NSFileProviderItemChangeHandler& completionHandler) {
  if (!(changedFields & NSFileProviderItemFields::Contents)) return false;
  queueUpload(item, changedFields, contents, progress, std::move(completionHandler));
  return true;
}

void FileProviderExtension::queueUpload(NSFileProviderItem& item, uint64_t fields,
                                        const std::optional<std::string>& contents,
                                        const std::shared_ptr<Progress>& progress,
                                        NSFileProviderItemChangeHandler completionHandler) {
  // Read in the order the task takes them.
  std::string identifier = item.itemIdentifier();
  std::string parent = item.parentItemIdentifier().value_or("");
  const uint64_t size = item.documentSize().value_or(0);
  const uint64_t created = wholeSeconds(item.creationDate());
  const uint64_t modified = wholeSeconds(item.contentModificationDate());
  // Only the folder type itself: a package conforms to it but is a file.
  const bool dir = item.contentType() == ContentType::folder();
  std::string filename = item.filename().value_or("");
  auto task =
      std::make_shared<UploadTask>(client_, std::move(identifier), std::move(parent), size, created,
                                   modified, dir, std::move(filename), contents, fields);
  task->setMProgress(progress);
  task->setCreateHandler(std::move(completionHandler));
  OperationQueue* queue = client_.mUploadQueue();
  (queue ? *queue : *mTaskQueue_).addOperation(std::move(task));
}

std::shared_ptr<Progress> FileProviderExtension::deleteItemWithIdentifier(
    const std::string&, const std::optional<NSFileProviderItemVersion>&, uint64_t,
    const NSFileProviderRequest&, NSFileProviderDeleteHandler completionHandler) {
  if (completionHandler) completionHandler(std::nullopt);
  return Progress::make();
}

}  // namespace hvfp

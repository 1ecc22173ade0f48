#include "extension/FileProviderExtension.h"

#include <iterator>

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"
#include "records/Json.h"
#include "records/JsonReading.h"
#include "tasks/ChangeTasks.h"
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

std::string FileProviderExtension::getChangeFields(uint64_t changedFields) {
  static constexpr const char* kNames[] = {
      "NSFileProviderItemContents,",
      "NSFileProviderItemFilename,",
      "NSFileProviderItemParentItemIdentifier,",
      "NSFileProviderItemLastUsedDate,",
      "NSFileProviderItemTagData,",
      "NSFileProviderItemFavoriteRank,",
      "NSFileProviderItemCreationDate,",
      "NSFileProviderItemContentModificationDate,",
      "NSFileProviderItemFileSystemFlags,",
      "NSFileProviderItemExtendedAttributes,",
  };
  std::string out;
  out.reserve(1000);
  for (size_t bit = 0; bit < std::size(kNames); ++bit)
    if (changedFields & (uint64_t{1} << bit)) out.append(kNames[bit]);
  return out;
}

std::shared_ptr<Progress> FileProviderExtension::modifyItem(
    NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>& baseVersion,
    uint64_t changedFields, const std::optional<std::string>& contents, uint64_t options,
    const NSFileProviderRequest& request, NSFileProviderItemChangeHandler completionHandler) {
  (void)contents;
  (void)options;
  (void)request;
  log("FileProviderExtension modifyItem:{},{},{}", orNull(item.filename()), item.itemIdentifier(),
      getChangeFields(changedFields));
  if (baseVersion) {
    if (!baseVersion->contentVersion.empty()) log("contentVersion:{}", baseVersion->contentVersion);
    if (!baseVersion->metadataVersion.empty())
      log("metadataVersion:{}", baseVersion->metadataVersion);
  }
  auto progress = Progress::make();

  if (changedFields & NSFileProviderItemFields::Contents) {
    // UPLOAD TASK GOES HERE: new contents, whatever else changed, are an
    // upload on the client's upload queue. Until it exists the change is
    // refused.
    if (completionHandler)
      completionHandler(nullptr, 0, false, Error::cocoa(ErrorCode::FeatureUnsupported));
    return progress;
  }
  if (auto task = changeTask(item, baseVersion, changedFields)) {
    // The calling order every task expects: progress, handler, queue.
    task->setMProgress(progress);
    task->setHandler(std::move(completionHandler));
    mTaskQueue_->addOperation(std::move(task));
  } else {
    answerFromHost(item.itemIdentifier(), item.parentItemIdentifier(), completionHandler);
  }
  return progress;
}

std::shared_ptr<ItemChangeTask> FileProviderExtension::changeTask(
    NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>& baseVersion,
    uint64_t changedFields) {
  namespace Field = NSFileProviderItemFields;
  const std::string identifier = item.itemIdentifier();
  const std::string parent = item.parentItemIdentifier().value_or("");
  // A rename that comes with a move is carried out as the rename alone.
  if (changedFields & Field::Filename)
    return std::make_shared<RenameTask>(client_, identifier, parent, item.filename().value_or(""),
                                        changedFields);
  if (!(changedFields & Field::ParentItemIdentifier)) return nullptr;
  if (parent == NSFileProviderTrashContainerItemIdentifier)
    return std::make_shared<DeleteTask>(client_, identifier, parent, changedFields);
  const BaseVersion base = readBaseVersion(baseVersion);
  if (!base.trashedHere)
    return std::make_shared<RemoveTask>(client_, identifier, parent, changedFields);
  // Marked trashed here, but in a state a restore must not touch: the host's
  // current record answers, rather than leave the framework waiting.
  if (base.status == 1 || base.status == 3) return nullptr;
  return std::make_shared<RecoverTask>(client_, identifier, parent, item.filename().value_or(""),
                                       base.filehash, static_cast<uint64_t>(base.filesize),
                                       changedFields);
}

FileProviderExtension::BaseVersion FileProviderExtension::readBaseVersion(
    const std::optional<NSFileProviderItemVersion>& baseVersion) {
  BaseVersion base;
  if (!baseVersion) return base;
  if (auto content = objectFromJSONString(baseVersion->contentVersion);
      content && content->isObject()) {
    base.filehash = std::string(readText(*content, "filehash").view());
    base.filesize = readInteger(*content, "filesize");
  }
  if (auto metadata = objectFromJSONString(baseVersion->metadataVersion);
      metadata && metadata->isObject()) {
    // Only this system marks an item deleted in its version (after moving
    // it to the trash), so "delete" above 0 means a move back out.
    base.trashedHere = readInteger(*metadata, "delete") > 0;
    base.status = readInteger(*metadata, "status");
  }
  return base;
}

void FileProviderExtension::answerFromHost(const std::string& identifier,
                                           const std::optional<std::string>& parent,
                                           const NSFileProviderItemChangeHandler& handler) {
  // The changed attributes stay here: the answer is the host's record.
  auto fresh = FileProviderItem::initWithItemIdentifier(identifier, client_);
  if (fresh) {
    if (parent) fresh->setParentIdentifier(*parent);
    applyRegisteredRootName(client_, *fresh);
  }
  if (!handler) return;
  if (fresh)
    handler(std::move(fresh), 0, false, std::nullopt);
  else
    handler(nullptr, 0, false, Error::cocoa(ErrorCode::FeatureUnsupported));
}

std::shared_ptr<Progress> FileProviderExtension::deleteItemWithIdentifier(
    const std::string& itemIdentifier, const std::optional<NSFileProviderItemVersion>& baseVersion,
    uint64_t options, const NSFileProviderRequest& request,
    NSFileProviderDeleteHandler completionHandler) {
  (void)baseVersion;
  (void)options;
  (void)request;
  // Only the host's sync record goes; the cloud keeps the item, and the
  // framework is told the deletion is done whatever the host said.
  client_.deleteSyncDB(itemIdentifier);
  if (completionHandler) completionHandler(std::nullopt);
  return Progress::make();
}

}  // namespace hvfp

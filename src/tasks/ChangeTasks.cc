#include "tasks/ChangeTasks.h"

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"

namespace hvfp {
namespace {

constexpr uint64_t kName = NSFileProviderItemFields::Filename;
constexpr uint64_t kParent = NSFileProviderItemFields::ParentItemIdentifier;

// The host refuses to trash an item that is already in the trash with this
// code: what the framework asked for holds, so it is answered as done.
constexpr int64_t kAlreadyDeleted = 5;

bool accepted(const RequestRet* reply) { return reply && reply->nStatusCode == 200; }

}  // namespace

ItemChangeTask::ItemChangeTask(HalvoProviderClient& client, std::string identifier,
                               std::string parent, uint64_t fields, uint64_t cancelPending,
                               uint64_t failurePending, int64_t failureCode)
    : HVTask(client),
      cancelPending_(cancelPending),
      failurePending_(failurePending),
      failureCode_(failureCode) {
  mItemIdentifier = std::move(identifier);
  mParentIdentifier = std::move(parent);
  nProviderItemFields = fields;
  handler_.setFallback([failurePending, failureCode](Guard::Fn& fn) {
    fn(nullptr, failurePending, false, Error::cocoa(failureCode));
  });
}

void ItemChangeTask::report(NSFileProviderItemRef item, uint64_t pending,
                            std::optional<Error> error) {
  handler_(std::move(item), pending, false, std::move(error));
  // The outcome is out (or was dropped after a cancellation): nothing more
  // comes through the progress, and the task may go with its queue's hold.
  releaseProgressHandlers();
}

void ItemChangeTask::body() {
  work();
  releaseProgressHandlers();
}

void ItemChangeTask::cancelled() {
  if (handler_(nullptr, cancelPending_, false, Error::cocoa(ErrorCode::Cancelled)))
    releaseProgressHandlers();
}

RenameTask::RenameTask(HalvoProviderClient& client, std::string identifier,
                       std::string parentidentifier, std::string filename, uint64_t itemfields)
    : ItemChangeTask(client, std::move(identifier), std::move(parentidentifier), itemfields,
                     itemfields & ~kName, itemfields & ~kName, ErrorCode::NoWritePermission),
      strFilename(std::move(filename)) {}

void RenameTask::work() {
  RetNameFileRef reply = client().renameFile(mItemIdentifier, strFilename);
  if (!accepted(reply.get())) return fail(ErrorCode::NoWritePermission);
  // Read afresh, so the item carries the name the host now holds.
  auto item = FileProviderItem::initWithItemIdentifier(mItemIdentifier, client());
  if (!item) return fail(ErrorCode::FeatureUnsupported);
  item->setParentIdentifier(mParentIdentifier);
  // A rename that also moved the item is done: nothing stays pending.
  report(std::move(item), 0, std::nullopt);
}

RemoveTask::RemoveTask(HalvoProviderClient& client, std::string identifier,
                       std::string parentidentifier, uint64_t itemfields)
    : ItemChangeTask(client, std::move(identifier), std::move(parentidentifier), itemfields,
                     itemfields & ~kParent, itemfields & ~kParent, ErrorCode::NoWritePermission) {}

void RemoveTask::work() {
  const uint64_t pending = nProviderItemFields & ~kParent;
  // The record as it was: after the move the old identifier means nothing.
  auto item = FileProviderItem::initWithItemIdentifier(mItemIdentifier, client());
  RetMoveFileRef reply = client().removeFile(mItemIdentifier, mParentIdentifier);
  if (!accepted(reply.get())) return fail(ErrorCode::NoWritePermission);
  // Without the hash the host gave the moved item there is no identifier to
  // hand back; the framework learns the new place from the next listing.
  if (reply->strHash.view().empty()) return fail(ErrorCode::FeatureUnsupported);
  if (!item) return fail(ErrorCode::FeatureUnsupported);
  item->setParentIdentifier(mParentIdentifier);
  const int64_t mount = parseItemIdentifier(mParentIdentifier).nMountID;
  item->setIdentifier(createItemIdentifier(mount, reply->strHash.view()));
  item->test();
  report(std::move(item), pending, std::nullopt);
}

DeleteTask::DeleteTask(HalvoProviderClient& client, std::string identifier,
                       std::string parentidentifier, uint64_t itemfields)
    : ItemChangeTask(client, std::move(identifier), std::move(parentidentifier), itemfields, 0,
                     itemfields & ~kParent, ErrorCode::NoWritePermission) {}

void DeleteTask::work() {
  // Taken before the deletion; its version then says "delete" 1, which is
  // how a later move out of the trash is known for a restore.
  auto item = FileProviderItem::initWithItemIdentifier(mItemIdentifier, client());
  if (item) {
    item->setParentIdentifier(mParentIdentifier);
    item->setDelete();
  }
  const uint64_t pending = nProviderItemFields & ~kParent;
  RequestRetRef reply = client().deleteFile(mItemIdentifier);
  if (accepted(reply.get())) {
    if (item && hasHandler()) item->test();
    report(std::move(item), pending, std::nullopt);
  } else if (reply && reply->nErrorCode == kAlreadyDeleted) {
    report(nullptr, pending, std::nullopt);
  } else {
    fail(ErrorCode::NoWritePermission);
  }
}

RecoverTask::RecoverTask(HalvoProviderClient& client, std::string identifier,
                         std::string parentidentifier, std::string filename, std::string filehash,
                         uint64_t filesize, uint64_t itemfields)
    : ItemChangeTask(client, std::move(identifier), std::move(parentidentifier), itemfields, 0,
                     itemfields & ~kParent, ErrorCode::FeatureUnsupported),
      strFilename(std::move(filename)),
      strFilehash(std::move(filehash)),
      ullFilesize(filesize) {}

void RecoverTask::work() {
  const uint64_t pending = nProviderItemFields & ~kParent;
  // Only items inside a mount can be in the trash; a mount root or a
  // provisional identifier is refused before the host is asked anything.
  if (mItemIdentifier.find('/') == std::string::npos || !checkItemIndentifierRight(mItemIdentifier))
    return fail(ErrorCode::FeatureUnsupported);
  const ParsedIdentifier id = parseItemIdentifier(mItemIdentifier);
  nMountID = id.nMountID;
  HVFileItemRef record = client().getFileInfo(id.nMountID, id.strUuidHash);
  // Status -1: the host answered with an error code, the record is empty.
  if (!record || record->nStatus == -1) return fail(ErrorCode::FeatureUnsupported);
  if (!accepted(client().recoverFile(mItemIdentifier).get()))
    return fail(ErrorCode::FeatureUnsupported);
  // Restored: the new metadata version says so, and the item leaves the trash.
  record->nStatus = 4;
  auto item = FileProviderItem::initWithHVFileItem(std::move(record));
  item->setParentIdentifier(mParentIdentifier);
  report(std::move(item), pending, std::nullopt);
}

}  // namespace hvfp

#include "item/FileProviderItem.h"

#include <fmt/format.h>

#include "hostlink/HalvoProviderClient.h"
#include "item/PlatformDate.h"
#include "platform/Log.h"
#include "platform/Text.h"

namespace hvfp {
namespace {

constexpr uint64_t kContainerCapabilities = ItemCapability::Reading | ItemCapability::Writing |
                                            ItemCapability::Reparenting | ItemCapability::Renaming |
                                            ItemCapability::Trashing | ItemCapability::Deleting;

bool isTrashed(const HVFileItem& record) { return record.nStatus == 6 || record.nStatus == 7; }

// Numbers and dates print as the platform prints an object, "(null)" when
// absent.
void appendNumber(std::string& out, const std::optional<uint64_t>& value) {
  if (value)
    out.append(fmt::format_int(*value).c_str());
  else
    out.append(kNullText);
}

void appendDate(std::string& out, const std::optional<Date>& value) {
  if (value)
    appendPlatformDate(out, *value);
  else
    out.append(kNullText);
}

}  // namespace

std::shared_ptr<FileProviderItem> FileProviderItem::initWithItemIdentifier(
    const std::string& identifier, HalvoProviderClient& client) {
  if (isContainerIdentifier(identifier))
    return std::make_shared<FileProviderItem>(identifier, nullptr);
  HVFileItemRef record = client.getFileInfo(identifier);
  if (!record || record->nStatusCode != 200) return nullptr;
  return std::make_shared<FileProviderItem>(identifier, std::move(record));
}

std::shared_ptr<FileProviderItem> FileProviderItem::initWithHVFileItem(HVFileItemRef record) {
  if (!record) return nullptr;
  std::string identifier = createItemIdentifier(record->nMountID, record->strUuidHash.view());
  return std::make_shared<FileProviderItem>(std::move(identifier), std::move(record));
}

void FileProviderItem::setFileName(const std::string& name) {
  if (mItem_) mItem_->strFileName = name;
}

void FileProviderItem::setDelete() {
  if (mItem_) mItem_->bDelete = true;
}

const std::optional<std::string>& FileProviderItem::evaluateParent() {
  static const std::optional<std::string> kNone;
  if (mItem_ && isTrashed(*mItem_) &&
      mParentItemIdentifier_ != NSFileProviderTrashContainerItemIdentifier)
    mParentItemIdentifier_ = std::string(NSFileProviderTrashContainerItemIdentifier);
  if (mParentItemIdentifier_ && !mParentItemIdentifier_->empty()) return mParentItemIdentifier_;
  if (!mItem_) return kNone;
  if (mItem_->bRoot)
    mParentItemIdentifier_ = std::string(NSFileProviderRootContainerItemIdentifier);
  else
    mParentItemIdentifier_ = createItemIdentifier(mItem_->nMountID, mItem_->strUpHash.view());
  return mParentItemIdentifier_;
}

std::optional<std::string> FileProviderItem::parentItemIdentifier() { return evaluateParent(); }

std::optional<std::string> FileProviderItem::filename() {
  if (!mItem_) return mItemIdentifier_;
  if (!mItem_->strFileName || mItem_->strFileName->empty()) return std::nullopt;
  return mItem_->strFileName;
}

uint64_t FileProviderItem::capabilities() {
  return mItem_ ? mItem_->capabilities() : kContainerCapabilities;
}

ContentType FileProviderItem::contentType() {
  ContentType type;
  appendContentType(type.identifier);
  return type;
}

void FileProviderItem::appendContentType(std::string& out) const {
  if (!mItem_ || mItem_->bDir) {
    out.append(ContentType::folder().identifier);
    return;
  }
  // The stored path, not the display name: a mount shown under a collision
  // name keeps the type of what it really is.
  std::string_view ext = pathExtensionView(mItem_->strWebPath.view());
  if (ext.empty())
    out.append(ContentType::data().identifier);
  else
    ContentType::appendIdentifierForExtension(out, ext);
}

std::optional<NSFileProviderItemVersion> FileProviderItem::itemVersion() {
  if (mItem_) return NSFileProviderItemVersion{mItem_->contentVersion(), mItem_->metadataVersion()};
  if (isContainerIdentifier(mItemIdentifier_))
    return NSFileProviderItemVersion{mItemIdentifier_, mItemIdentifier_};
  return std::nullopt;
}

void FileProviderItem::appendContentVersion(std::string& out) const {
  if (mItem_)
    mItem_->appendContentVersion(out);
  else if (isContainerIdentifier(mItemIdentifier_))
    out.append(mItemIdentifier_);
  else
    out.append(kNullText);
}

void FileProviderItem::appendFilename(std::string& out) const {
  if (!mItem_)
    out.append(mItemIdentifier_);
  else if (mItem_->strFileName.empty())
    out.append(kNullText);
  else
    out.append(mItem_->strFileName.view());
}

std::optional<uint64_t> FileProviderItem::childItemCount() {
  if (!mItem_ || !mItem_->bDir) return std::nullopt;
  return static_cast<uint64_t>(mItem_->nChildItemCount);
}

std::optional<uint64_t> FileProviderItem::documentSize() {
  if (!mItem_) return std::nullopt;
  return mItem_->bDir ? 0 : mItem_->ullFileSize;
}

std::optional<Date> FileProviderItem::creationDate() {
  if (!mItem_) return std::nullopt;
  return static_cast<Date>(mItem_->ullCreatorTime);
}

std::optional<Date> FileProviderItem::contentModificationDate() {
  if (!mItem_) return std::nullopt;
  return static_cast<Date>(mItem_->ullLastTime);
}

std::optional<Date> FileProviderItem::lastUsedDate() { return contentModificationDate(); }

// Written piece by piece rather than through one format string: a listing
// logs every item, so this line is on the path of every enumeration.
void FileProviderItem::test() {
  if (!logEnabled()) {
    // The parent is settled here as when the line is written, so the item
    // reads the same afterwards and from any thread.
    (void)evaluateParent();
    return;
  }
  thread_local std::string line;  // reused: a listing writes one line per item
  line.clear();
  appendFilename(line);
  line.push_back(',');
  line.append(mItemIdentifier_).push_back(',');
  line.append(orNull(evaluateParent())).push_back(',');
  appendNumber(line, capabilities());
  line.push_back(',');
  appendContentType(line);
  line.push_back(',');
  appendContentVersion(line);
  line.push_back(',');
  appendNumber(line, childItemCount());
  line.push_back(',');
  appendNumber(line, documentSize());
  line.push_back(',');
  appendDate(line, creationDate());
  line.push_back(',');
  const auto modified = contentModificationDate();
  const size_t modifiedAt = line.size();
  appendDate(line, modified);
  const size_t modifiedLength = line.size() - modifiedAt;
  line.push_back(',');
  // The last-used date is the modification date; print it once, copy it.
  if (const auto used = lastUsedDate(); used == modified)
    line.append(line, modifiedAt, modifiedLength);
  else
    appendDate(line, used);
  if (mItem_) line.append(mItem_->bRoot ? ",1" : ",0");
  logLine(line);
}

}  // namespace hvfp

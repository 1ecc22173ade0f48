// FileProviderItem: the item handed to the framework for every listing,
// lookup and finished task. A thin view over one host record (or over one of
// the framework's three containers, which have no record): every property is
// computed on read, nothing is cached except the parent identifier.
//
// Ownership: shared (std::shared_ptr) between its maker and the framework.
// It owns its identifiers and shares its record with whoever built it;
// enumerators and tasks may rename the record or mark it deleted before
// handing the item over.
//
// Threads: built and read on one thread at a time. parentItemIdentifier()
// stores what it derives, so an item whose parent is still unset must not be
// read from two threads at once.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/fileprovider/FileProvider.h"
#include "records/HVFileItem.h"

namespace hvfp {

class HalvoProviderClient;

class FileProviderItem : public NSFileProviderItem {
 public:
  // Containers are complete without the host. Any other identifier costs one
  // "fileinfo" query to `client`; nullptr unless the host confirms it with
  // status 200 (provisional identifiers are refused before any query).
  static std::shared_ptr<FileProviderItem> initWithItemIdentifier(const std::string& identifier,
                                                                  HalvoProviderClient& client);
  // No query: the identifier comes from the record's mount id and uuid hash,
  // and the parent is left for parentItemIdentifier() to derive.
  static std::shared_ptr<FileProviderItem> initWithHVFileItem(HVFileItemRef record);

  void setIdentifier(std::string identifier) { mItemIdentifier_ = std::move(identifier); }
  void setParentIdentifier(std::string identifier) {
    mParentItemIdentifier_ = std::move(identifier);
  }
  // Both act on the record only; a container has nothing to rename or delete.
  void setFileName(const std::string& name);
  void setDelete();
  bool isRoot() const { return mItem_ && mItem_->bRoot; }
  // Null for a container item.
  const HVFileItemRef& mItem() const { return mItem_; }

  std::string itemIdentifier() override { return mItemIdentifier_; }
  // A trashed record (status 6 or 7) always answers the trash, overriding any
  // parent set before; otherwise the first derived value sticks.
  std::optional<std::string> parentItemIdentifier() override;
  std::optional<std::string> filename() override;
  uint64_t capabilities() override;
  ContentType contentType() override;
  std::optional<NSFileProviderItemVersion> itemVersion() override;
  std::optional<uint64_t> childItemCount() override;
  std::optional<uint64_t> documentSize() override;
  std::optional<Date> creationDate() override;
  std::optional<Date> contentModificationDate() override;
  std::optional<Date> lastUsedDate() override;

  // One log line with every property, read through the accessors above;
  // no line while the log is silent. Settles the parent either way.
  void test();

  FileProviderItem(std::string identifier, HVFileItemRef record)
      : mItem_(std::move(record)), mItemIdentifier_(std::move(identifier)) {}

 private:
  // The parent, evaluated as parentItemIdentifier() does, without a copy.
  const std::optional<std::string>& evaluateParent();
  void appendFilename(std::string& out) const;
  void appendContentType(std::string& out) const;
  // The content half of itemVersion(), without building the metadata half
  // that the log line does not show.
  void appendContentVersion(std::string& out) const;

  HVFileItemRef mItem_;
  std::string mItemIdentifier_;
  std::optional<std::string> mParentItemIdentifier_;
};

using FileProviderItemRef = std::shared_ptr<FileProviderItem>;

}  // namespace hvfp

// NSFileProviderItemTemplate: an item the framework makes itself, to hand to
// the extension: the template of an item being created (under a provisional
// identifier), or an item as the user now sees it, for a modification.
//
// A plain value with public fields; every property answers its field.
// copyOf() takes a snapshot of any item's properties, so the framework can
// change a copy of what the provider gave it. Not thread-safe; one owner.
#pragma once

#include "platform/fileprovider/FileProvider.h"

namespace hvfp {

struct NSFileProviderItemTemplate : NSFileProviderItem {
  std::string identifier;
  std::optional<std::string> parentIdentifier;
  std::optional<std::string> name;
  uint64_t itemCapabilities = 0;
  ContentType type = ContentType::data();
  std::optional<NSFileProviderItemVersion> version;
  std::optional<uint64_t> children;
  std::optional<uint64_t> size;
  std::optional<Date> created;
  std::optional<Date> modified;
  std::optional<Date> used;

  static NSFileProviderItemTemplate copyOf(NSFileProviderItem& item) {
    NSFileProviderItemTemplate t;
    t.identifier = item.itemIdentifier();
    t.parentIdentifier = item.parentItemIdentifier();
    t.name = item.filename();
    t.itemCapabilities = item.capabilities();
    t.type = item.contentType();
    t.version = item.itemVersion();
    t.children = item.childItemCount();
    t.size = item.documentSize();
    t.created = item.creationDate();
    t.modified = item.contentModificationDate();
    t.used = item.lastUsedDate();
    return t;
  }

  std::string itemIdentifier() override { return identifier; }
  std::optional<std::string> parentItemIdentifier() override { return parentIdentifier; }
  std::optional<std::string> filename() override { return name; }
  uint64_t capabilities() override { return itemCapabilities; }
  ContentType contentType() override { return type; }
  std::optional<NSFileProviderItemVersion> itemVersion() override { return version; }
  std::optional<uint64_t> childItemCount() override { return children; }
  std::optional<uint64_t> documentSize() override { return size; }
  std::optional<Date> creationDate() override { return created; }
  std::optional<Date> contentModificationDate() override { return modified; }
  std::optional<Date> lastUsedDate() override { return used; }
};

}  // namespace hvfp

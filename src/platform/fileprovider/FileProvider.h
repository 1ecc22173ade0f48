// The file-provider framework's types, as plain C++: the domain, items and
// their versions, requests, the observers an enumerator reports to, the
// enumerator and extension interfaces, and the item-field and capability bit
// sets. On Linux the framework's role (calling the extension, keeping the
// replica) is played by the driver and the console; these types are the
// contract between them and the provider.
//
// Items and enumerators are shared (std::shared_ptr). Observers are owned by
// the caller and live until the enumerator has called finish on them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/ContentType.h"
#include "platform/Error.h"
#include "platform/Progress.h"
#include "platform/fileprovider/ContainerIdentifiers.h"

namespace hvfp {

struct NSFileProviderDomain {
  std::string identifier;
  std::string displayName;
};

struct NSFileProviderRequest {
  bool isSystemRequest = false;
  bool isFileViewerRequest = false;
  // The program that asked, when the framework knows it (a path).
  std::optional<std::string> requestingExecutable;
};

// Fields of an item that a creation or modification names.
namespace NSFileProviderItemFields {
inline constexpr uint64_t Contents = 1 << 0, Filename = 1 << 1, ParentItemIdentifier = 1 << 2,
                          LastUsedDate = 1 << 3, TagData = 1 << 4, FavoriteRank = 1 << 5,
                          CreationDate = 1 << 6, ContentModificationDate = 1 << 7,
                          FileSystemFlags = 1 << 8, ExtendedAttributes = 1 << 9;
}  // namespace NSFileProviderItemFields

struct NSFileProviderItemVersion {
  std::string contentVersion;
  std::string metadataVersion;
  bool operator==(const NSFileProviderItemVersion&) const = default;
};

// Dates are seconds since 1970-01-01 00:00:00 UTC.
using Date = double;

class NSFileProviderItem {
 public:
  virtual ~NSFileProviderItem() = default;
  virtual std::string itemIdentifier() = 0;
  virtual std::optional<std::string> parentItemIdentifier() = 0;
  virtual std::optional<std::string> filename() = 0;
  virtual uint64_t capabilities() = 0;
  virtual ContentType contentType() = 0;
  virtual std::optional<NSFileProviderItemVersion> itemVersion() = 0;
  virtual std::optional<uint64_t> childItemCount() = 0;
  virtual std::optional<uint64_t> documentSize() = 0;
  virtual std::optional<Date> creationDate() = 0;
  virtual std::optional<Date> contentModificationDate() = 0;
  virtual std::optional<Date> lastUsedDate() = 0;
};

using NSFileProviderItemRef = std::shared_ptr<NSFileProviderItem>;

class NSFileProviderEnumerationObserver {
 public:
  virtual ~NSFileProviderEnumerationObserver() = default;
  virtual void didEnumerateItems(std::vector<NSFileProviderItemRef> items) = 0;
  // nullopt: no further page.
  virtual void finishEnumeratingUpToPage(std::optional<std::string> nextPage) = 0;
  virtual void finishEnumeratingWithError(const Error& error) = 0;
};

class NSFileProviderChangeObserver {
 public:
  virtual ~NSFileProviderChangeObserver() = default;
  virtual void didUpdateItems(std::vector<NSFileProviderItemRef> items) = 0;
  virtual void didDeleteItemsWithIdentifiers(std::vector<std::string> identifiers) = 0;
  virtual void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool moreComing) = 0;
  virtual void finishEnumeratingWithError(const Error& error) = 0;
};

class NSFileProviderEnumerator {
 public:
  virtual ~NSFileProviderEnumerator() = default;
  virtual void invalidate() = 0;
  virtual void enumerateItemsForObserver(NSFileProviderEnumerationObserver& observer,
                                         const std::string& startingAtPage) = 0;
  virtual void enumerateChangesForObserver(NSFileProviderChangeObserver& observer,
                                           const std::string& fromSyncAnchor) = 0;
  virtual void currentSyncAnchorWithCompletionHandler(
      std::function<void(std::optional<std::string> anchor)> completionHandler) = 0;
};

using NSFileProviderEnumeratorRef = std::shared_ptr<NSFileProviderEnumerator>;

// The completion handlers the framework hands to the extension. Each is
// called exactly once. File locations are file-system paths.
using NSFileProviderItemHandler =
    std::function<void(NSFileProviderItemRef item, std::optional<Error> error)>;
using NSFileProviderFetchHandler = std::function<void(
    std::optional<std::string> fileURL, NSFileProviderItemRef item, std::optional<Error> error)>;
using NSFileProviderItemChangeHandler =
    std::function<void(NSFileProviderItemRef item, uint64_t stillPendingFields,
                       bool shouldFetchContent, std::optional<Error> error)>;
using NSFileProviderDeleteHandler = std::function<void(std::optional<Error> error)>;

// The replicated extension as the framework drives it: lookups, enumerators,
// content fetches, creations, modifications and deletions. Whoever plays the
// framework (the FUSE driver, the console) talks to the provider through
// this interface only. Every call may come from any thread, several at once;
// each returns a progress object at once or after the work that completes
// before the return, and its handler is called exactly once.
class NSFileProviderReplicatedExtension {
 public:
  virtual ~NSFileProviderReplicatedExtension() = default;

  virtual void invalidate() = 0;
  // NSFileProviderEnumerating.
  virtual NSFileProviderEnumeratorRef enumeratorForContainerItemIdentifier(
      const std::string& containerItemIdentifier, const NSFileProviderRequest& request,
      Error* error) = 0;
  virtual std::shared_ptr<Progress> itemForIdentifier(
      const std::string& identifier, const NSFileProviderRequest& request,
      NSFileProviderItemHandler completionHandler) = 0;
  virtual std::shared_ptr<Progress> fetchContentsForItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& requestedVersion,
      const NSFileProviderRequest& request, NSFileProviderFetchHandler completionHandler) = 0;
  // `contents` is the path of the new contents, none for folders.
  virtual std::shared_ptr<Progress> createItemBasedOnTemplate(
      NSFileProviderItem& itemTemplate, uint64_t fields, const std::optional<std::string>& contents,
      uint64_t options, const NSFileProviderRequest& request,
      NSFileProviderItemChangeHandler completionHandler) = 0;
  virtual std::shared_ptr<Progress> modifyItem(
      NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>& baseVersion,
      uint64_t changedFields, const std::optional<std::string>& contents, uint64_t options,
      const NSFileProviderRequest& request, NSFileProviderItemChangeHandler completionHandler) = 0;
  virtual std::shared_ptr<Progress> deleteItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& baseVersion, uint64_t options,
      const NSFileProviderRequest& request, NSFileProviderDeleteHandler completionHandler) = 0;
};

}  // namespace hvfp

// FileProviderExtension: the framework's entry into the provider for one
// domain (NSFileProviderReplicatedExtension). It hands out enumerators,
// answers item lookups from the host, and turns fetches, creations,
// modifications and deletions into tasks on its task queue or the client's
// upload queue.
//
// Ownership: made once per domain by whoever plays the framework (the driver,
// the console) and kept for the life of the domain. It owns mTaskQueue; the
// host client it starts is its maker's and must outlive it and every
// enumerator it hands out. Enumerators are shared with the caller.
//
// Threads: every operation may be called from any thread, several at once.
// Lookups, deletions and modifications answered without a task block the
// calling thread on the host query and call their handler on that thread
// before returning; tasks answer from their queue's threads. The anchor counter is atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "extension/FileProviderEnumerator.h"
#include "platform/Error.h"
#include "platform/Progress.h"
#include "platform/dispatch/OperationQueue.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp {

class HalvoProviderClient;
class ItemChangeTask;

class FileProviderExtension final : public NSFileProviderReplicatedExtension {
 public:
  using ItemCompletionHandler = NSFileProviderItemHandler;

  // initWithDomain: starts `client` for the domain.
  FileProviderExtension(HalvoProviderClient& client, const NSFileProviderDomain& domain);
  ~FileProviderExtension();
  FileProviderExtension(const FileProviderExtension&) = delete;
  FileProviderExtension& operator=(const FileProviderExtension&) = delete;

  int64_t nCurrentAnchor() const { return nCurrentAnchor_.load(); }
  void setNCurrentAnchor(int64_t anchor) { nCurrentAnchor_.store(anchor); }
  OperationQueue& mTaskQueue() { return *mTaskQueue_; }

  // The client, queues and running tasks are left alone: the process ends
  // with the extension.
  void invalidate() override {}

  // Never fails and never asks the host; each enumerator (a
  // FileProviderEnumerator) gets the next anchor. `error` is never written.
  NSFileProviderEnumeratorRef enumeratorForContainerItemIdentifier(
      const std::string& containerItemIdentifier, const NSFileProviderRequest& request,
      Error* error) override;

  // The handler runs exactly once, before the return: with the item, or with
  // NSCocoaErrorDomain 4610 when the host does not confirm the identifier.
  // The progress returned is connected to nothing.
  std::shared_ptr<Progress> itemForIdentifier(const std::string& identifier,
                                              const NSFileProviderRequest& request,
                                              ItemCompletionHandler completionHandler) override;

  // A download task on mTaskQueue; returns before any host query.
  std::shared_ptr<Progress> fetchContentsForItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& requestedVersion,
      const NSFileProviderRequest& request, NSFileProviderFetchHandler completionHandler) override;
  // An upload task on the client's upload queue.
  std::shared_ptr<Progress> createItemBasedOnTemplate(
      NSFileProviderItem& itemTemplate, uint64_t fields, const std::optional<std::string>& contents,
      uint64_t options, const NSFileProviderRequest& request,
      NSFileProviderItemChangeHandler completionHandler) override;
  // One task chosen by the changed fields (contents, then name, then parent:
  // into the trash a deletion, out of it a restore, else a move), or an
  // answer from the host's current record when none of the three changed.
  // Logs the item and the changed fields, and the base version's parts.
  std::shared_ptr<Progress> modifyItem(NSFileProviderItem& item,
                                       const std::optional<NSFileProviderItemVersion>& baseVersion,
                                       uint64_t changedFields,
                                       const std::optional<std::string>& contents, uint64_t options,
                                       const NSFileProviderRequest& request,
                                       NSFileProviderItemChangeHandler completionHandler) override;
  // Tells the host to drop its sync record; always succeeds, before the return.
  std::shared_ptr<Progress> deleteItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& baseVersion, uint64_t options,
      const NSFileProviderRequest& request, NSFileProviderDeleteHandler completionHandler) override;

  // The log names of the named bits set in `changedFields`, in bit order,
  // each with its trailing comma; the empty text when none is set.
  static std::string getChangeFields(uint64_t changedFields);

 private:
  // What a modification reads back from the version this system gave the
  // item; a part that is not a JSON object leaves its defaults.
  struct BaseVersion {
    std::string filehash;
    int64_t filesize = 0;
    bool trashedHere = false;  // "delete" above 0
    int64_t status = 0;
  };
  // The task for a change of name or place; none when neither changed, or
  // for a move out of the trash that must not be a restore.
  std::shared_ptr<ItemChangeTask> changeTask(
      NSFileProviderItem& item, const std::optional<NSFileProviderItemVersion>& baseVersion,
      uint64_t changedFields);
  static BaseVersion readBaseVersion(const std::optional<NSFileProviderItemVersion>& baseVersion);
  // The host's current record of the item under the parent the framework
  // gave, pending 0; 3328 when the host does not confirm the item. Before
  // the return.
  void answerFromHost(const std::string& identifier, const std::optional<std::string>& parent,
                      const NSFileProviderItemChangeHandler& handler);

  HalvoProviderClient& client_;
  std::atomic<int64_t> nCurrentAnchor_{1};
  std::unique_ptr<OperationQueue> mTaskQueue_;
};

}  // namespace hvfp

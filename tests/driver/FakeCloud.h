// FakeCloud: a small in-memory cloud behind the replicated-extension
// protocol, for driving the folder without a host app.
//
// It answers the framework's calls the way the provider does: a folder's
// change report is its whole contents as updates, the trash's is empty, the
// working set's carries the items changed since its cursor; a move to the
// trash marks the item's metadata version "delete":1 and a move out of the
// trash of an item so marked restores it; a deletion forgets the item.
// Fetches, creations and modifications answer from a thread of their own
// after the call returned, as the provider's tasks do; lookups, enumerations
// and deletions answer before the return. Contents versions carry the
// SHA-1 of the contents as "filehash". The progress objects of fetches and
// uploads count bytes: half the contents while held, all once answered.
//
// Tests change the cloud "from another device" with the remote* methods and
// read it back with entry()/childrenOf(). Thread-safe; the destructor waits
// for every answer still running.
#pragma once

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/fileprovider/FileProvider.h"

namespace hvfp::driver::test {

class FakeCloud final : public NSFileProviderReplicatedExtension {
 public:
  struct Entry {
    std::string id;
    std::string parent;
    std::string name;
    bool folder = false;
    std::string contents;
    std::string hash;  // SHA-1 of the contents, kept with them
    Date created = 0;
    Date modified = 0;
    uint64_t capabilities = 127;
    bool trashed = false;
    uint64_t change = 0;  // the cloud's change counter when it last changed
  };

  explicit FakeCloud(std::filesystem::path downloads);
  ~FakeCloud() override;

  // --- changes made elsewhere -------------------------------------------
  std::string remoteAddMount(const std::string& name);
  std::string remoteAddFolder(const std::string& parent, const std::string& name);
  std::string remoteAddFile(const std::string& parent, const std::string& name,
                            const std::string& contents, Date modified = 1700000000);
  void remoteRename(const std::string& id, const std::string& name);
  void remoteMove(const std::string& id, const std::string& parent);
  void remoteTrash(const std::string& id);
  void remoteErase(const std::string& id);
  void remoteWrite(const std::string& id, const std::string& contents);

  // --- what the cloud holds and was asked -------------------------------
  std::optional<Entry> entry(const std::string& id);
  std::optional<Entry> childNamed(const std::string& parent, const std::string& name);
  std::vector<Entry> childrenOf(const std::string& parent);
  // One line per content or change call, in order: "fetch ID", "create NAME",
  // "modify ID contents", "modify ID filename", "modify ID parent", "delete ID".
  std::vector<std::string> calls();
  int fetchesOf(const std::string& id);
  // Full listings of a container (change reports not counted).
  int listingsOf(const std::string& container);
  void countListing(const std::string& container);
  // The next `n` creations and content modifications fail with 5120
  // (error 40309, "no room", as the provider reports a host's refusal).
  void failUploads(int n) { failUploads_ = n; }
  // The next `n` lookups fail with 4610, as the provider reports a host
  // that did not answer.
  void failLookups(int n) { failLookups_ = n; }
  // Every upload of a file of this name fails so.
  void failUploadsOf(const std::string& name);
  // Fetches wait until released (to start several at once).
  void holdFetches(bool hold);
  // Uploads that are not failing wait until released.
  void holdUploads(bool hold);

  // --- the protocol -----------------------------------------------------
  void invalidate() override {}
  NSFileProviderEnumeratorRef enumeratorForContainerItemIdentifier(
      const std::string& container, const NSFileProviderRequest& request, Error* error) override;
  std::shared_ptr<Progress> itemForIdentifier(const std::string& identifier,
                                              const NSFileProviderRequest& request,
                                              NSFileProviderItemHandler completionHandler) override;
  std::shared_ptr<Progress> fetchContentsForItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& requestedVersion,
      const NSFileProviderRequest& request, NSFileProviderFetchHandler completionHandler) override;
  std::shared_ptr<Progress> createItemBasedOnTemplate(
      NSFileProviderItem& itemTemplate, uint64_t fields, const std::optional<std::string>& contents,
      uint64_t options, const NSFileProviderRequest& request,
      NSFileProviderItemChangeHandler completionHandler) override;
  std::shared_ptr<Progress> modifyItem(NSFileProviderItem& item,
                                       const std::optional<NSFileProviderItemVersion>& baseVersion,
                                       uint64_t changedFields,
                                       const std::optional<std::string>& contents, uint64_t options,
                                       const NSFileProviderRequest& request,
                                       NSFileProviderItemChangeHandler completionHandler) override;
  std::shared_ptr<Progress> deleteItemWithIdentifier(
      const std::string& itemIdentifier,
      const std::optional<NSFileProviderItemVersion>& baseVersion, uint64_t options,
      const NSFileProviderRequest& request, NSFileProviderDeleteHandler completionHandler) override;

  // The provider's view of an entry (lock held by the caller).
  NSFileProviderItemRef itemOf(const Entry& e, bool trashMark = false) const;
  std::vector<NSFileProviderItemRef> listing(const std::string& container);
  std::vector<NSFileProviderItemRef> changedSince(uint64_t& cursor);

 private:
  std::string newId(const std::string& parent);
  void later(std::function<void()> work);
  void record(std::string call);
  bool failing(const std::optional<std::string>& name);
  // Blocks while uploads are held, the progress showing half of `size`.
  void waitWhileHeld(bool& hold, Progress& progress, uint64_t size);

  std::filesystem::path downloads_;
  std::mutex mutex_;
  std::condition_variable released_;
  bool holdFetches_ = false;
  bool holdUploads_ = false;
  std::set<std::string> failingNames_;
  std::map<std::string, Entry> entries_;
  std::map<std::string, bool> trashMarks_;  // trashed through the protocol
  std::vector<std::string> calls_;
  std::map<std::string, int> fetches_;
  std::map<std::string, int> listings_;
  uint64_t change_ = 1;
  uint64_t nextId_ = 1;
  std::atomic<int> failUploads_{0};
  std::atomic<int> failLookups_{0};
  std::vector<std::thread> threads_;
};

}  // namespace hvfp::driver::test

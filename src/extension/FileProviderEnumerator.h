// FileProviderEnumerator: lists one container's children for the framework
// and reports its changes since a sync anchor. Every listing is one blocking
// host query delivered to the observer in one batch; the only state kept
// between calls is the host's change cursor (ullLastTime).
//
// Ownership: made by FileProviderExtension, shared with the framework, which
// keeps it until invalidate(). The host client is the extension's. Observers
// are the caller's and are only used during the call.
//
// Threads: one framework thread at a time per enumerator (the cursor has no
// lock). Several enumerators may run at once; the root-rename registry they
// feed is the client's and locked there.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "item/FileProviderItem.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp {

class HalvoProviderClient;

class FileProviderEnumerator : public NSFileProviderEnumerator {
 public:
  // initWithItemIdentifier:currentAnchor:
  FileProviderEnumerator(HalvoProviderClient& client, std::string itemIdentifier,
                         int64_t currentAnchor);

  const std::string& itemIdentifier() const { return itemIdentifier_; }
  void setItemIdentifier(std::string identifier) { itemIdentifier_ = std::move(identifier); }
  int64_t nCurrentAnchor() const { return nCurrentAnchor_; }
  void setNCurrentAnchor(int64_t anchor) { nCurrentAnchor_ = anchor; }
  uint64_t ullLastTime() const { return ullLastTime_; }
  void setUllLastTime(uint64_t lastTime) { ullLastTime_ = lastTime; }

  void invalidate() override;
  // The whole listing in one didEnumerateItems batch; the page is ignored.
  void enumerateItemsForObserver(NSFileProviderEnumerationObserver& observer,
                                 const std::string& startingAtPage) override;
  // The container's current contents as updates, finished at the very
  // anchor given (anchors never advance).
  void enumerateChangesForObserver(NSFileProviderChangeObserver& observer,
                                   const std::string& fromSyncAnchor) override;
  // Decimal text of nCurrentAnchor; the handler runs before the return.
  void currentSyncAnchorWithCompletionHandler(
      std::function<void(std::optional<std::string> anchor)> completionHandler) override;

  // Collision naming: `name` when num is 0, else "name(num+1)"; on a clash
  // with an item's filename (exact, case-sensitive) tries num+1 on the name
  // as first given.
  static std::string checkName(const std::vector<NSFileProviderItemRef>& items,
                               const std::string& name, int64_t num);

 private:
  using Items = std::vector<NSFileProviderItemRef>;

  Items mountItems(bool logEach) const;
  Items trashItems() const;
  Items childItems(uint64_t& lasttime, bool logEach) const;
  Items workingSetChanges();
  // One item per record, parented to this container, in the given order.
  Items itemsUnderContainer(const std::vector<HVFileItemRef>& records, bool logEach) const;

  HalvoProviderClient& client_;
  std::string itemIdentifier_;
  int64_t nCurrentAnchor_ = 0;
  uint64_t ullLastTime_ = 0;
};

}  // namespace hvfp

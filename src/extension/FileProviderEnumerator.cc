#include "extension/FileProviderEnumerator.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"

namespace hvfp {
namespace {

// Stable, so mounts with equal last times keep the host's order and the
// first of two equally named ones keeps the plain name on every listing.
void sortByLastTime(std::vector<HVFileItemRef>& records) {
  std::stable_sort(records.begin(), records.end(),
                   [](const HVFileItemRef& a, const HVFileItemRef& b) {
                     return a->ullLastTime < b->ullLastTime;
                   });
}

// The anchor is only decoded for the log; bytes that are not UTF-8 print as
// the platform's null text, as a failed decoding would.
bool isUtf8(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    size_t extra = lead < 0x80           ? 0
                   : (lead >> 5) == 0x6  ? 1
                   : (lead >> 4) == 0xE  ? 2
                   : (lead >> 3) == 0x1E ? 3
                                         : 4;
    if (extra == 4 || (extra == 1 && lead < 0xC2) || bytes.size() - i <= extra) return false;
    uint32_t code = extra == 0 ? lead : lead & (0x3F >> extra);
    for (size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if ((extra == 2 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
        (extra == 3 && (code < 0x10000 || code > 0x10FFFF)))
      return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace

FileProviderEnumerator::FileProviderEnumerator(HalvoProviderClient& client,
                                               std::string itemIdentifier, int64_t currentAnchor)
    : client_(client), itemIdentifier_(std::move(itemIdentifier)), nCurrentAnchor_(currentAnchor) {
  log("FileProviderEnumerator init {},{}", itemIdentifier_, nCurrentAnchor_);
}

void FileProviderEnumerator::invalidate() {
  log("FileProviderEnumerator invalidate {},{}", itemIdentifier_, nCurrentAnchor_);
}

namespace {

// The first candidate from `num` on that is not taken: the name itself for
// 0, else "name(num+1)". A loop, not recursion: a host may list thousands of
// mounts under one name.
template <typename Taken>
std::string firstFreeName(const std::string& name, int64_t num, Taken taken) {
  for (;; ++num) {
    std::string candidate = num == 0 ? name : fmt::format("{}({})", name, num + 1);
    if (!taken(candidate)) return candidate;
  }
}

}  // namespace

std::string FileProviderEnumerator::checkName(const std::vector<NSFileProviderItemRef>& items,
                                              const std::string& name, int64_t num) {
  return firstFreeName(name, num, [&](const std::string& candidate) {
    for (const auto& item : items)
      if (item->filename() == candidate) return true;
    return false;
  });
}

FileProviderEnumerator::Items FileProviderEnumerator::mountItems(bool logEach) const {
  std::vector<HVFileItemRef> records = client_.getLinks();
  sortByLastTime(records);
  Items items;
  items.reserve(records.size());
  // The names given so far, for the same answer checkName would give
  // without walking every earlier item for every candidate.
  // Names are only ever added, so the search for a name can resume where the
  // last one for the same name stopped.
  std::unordered_set<std::string> given;
  std::unordered_map<std::string, int64_t> resumeAt;
  for (auto& record : records) {
    const std::string name = record->strFileName.value_or(std::string());
    int64_t& from = resumeAt[name];
    const std::string shown = firstFreeName(name, from, [&](const std::string& candidate) {
      if (given.count(candidate) == 0) return false;
      ++from;
      return true;
    });
    const bool renamed = shown != name;
    if (renamed) record->strFileName = shown;
    auto item = FileProviderItem::initWithHVFileItem(record);
    item->setParentIdentifier(itemIdentifier_);
    if (auto filename = item->filename()) given.insert(*filename);
    if (logEach) item->test();
    if (renamed)
      client_.addRootChangeName(
          std::make_shared<RootChangeName>(RootChangeName{item->itemIdentifier(), shown}));
    items.push_back(std::move(item));
  }
  return items;
}

FileProviderEnumerator::Items FileProviderEnumerator::itemsUnderContainer(
    const std::vector<HVFileItemRef>& records, bool logEach) const {
  Items items;
  items.reserve(records.size());
  for (const auto& record : records) {
    auto item = FileProviderItem::initWithHVFileItem(record);
    item->setParentIdentifier(itemIdentifier_);
    if (logEach) item->test();
    items.push_back(std::move(item));
  }
  return items;
}

FileProviderEnumerator::Items FileProviderEnumerator::trashItems() const {
  std::vector<HVFileItemRef> records = client_.getTrash();
  sortByLastTime(records);
  return itemsUnderContainer(records, true);
}

FileProviderEnumerator::Items FileProviderEnumerator::childItems(uint64_t& lasttime,
                                                                 bool logEach) const {
  return itemsUnderContainer(client_.getFiles(itemIdentifier_, lasttime), logEach);
}

FileProviderEnumerator::Items FileProviderEnumerator::workingSetChanges() {
  std::vector<HVFileItemRef> records = client_.getChangeFiles(ullLastTime_);
  Items items;
  items.reserve(records.size());
  for (const auto& record : records) {
    // No parent is set: a working-set item's place comes from its record.
    auto item = FileProviderItem::initWithHVFileItem(record);
    item->test();
    items.push_back(std::move(item));
  }
  return items;
}

void FileProviderEnumerator::enumerateItemsForObserver(NSFileProviderEnumerationObserver& observer,
                                                       const std::string& startingAtPage) {
  (void)startingAtPage;
  log("enumerateItemsForObserver {},{}", itemIdentifier_, nCurrentAnchor_);
  if (itemIdentifier_ == NSFileProviderWorkingSetContainerItemIdentifier) {
    // The working set is filled by change reports only.
    observer.finishEnumeratingUpToPage(std::nullopt);
    return;
  }
  Items items;
  if (itemIdentifier_ == NSFileProviderRootContainerItemIdentifier) {
    items = mountItems(true);
  } else if (itemIdentifier_ == NSFileProviderTrashContainerItemIdentifier) {
    items = trashItems();
  } else {
    uint64_t discarded = 0;  // the full listing does not move the change cursor
    items = childItems(discarded, true);
  }
  observer.didEnumerateItems(std::move(items));
  observer.finishEnumeratingUpToPage(std::nullopt);
}

void FileProviderEnumerator::enumerateChangesForObserver(NSFileProviderChangeObserver& observer,
                                                         const std::string& fromSyncAnchor) {
  const std::optional<std::string> anchorText =
      isUtf8(fromSyncAnchor) ? std::optional<std::string>(fromSyncAnchor) : std::nullopt;
  log("enumerateChangesForObserver {},{},{}", itemIdentifier_, nCurrentAnchor_, orNull(anchorText));
  if (itemIdentifier_ == NSFileProviderRootContainerItemIdentifier) {
    observer.didUpdateItems(mountItems(false));
  } else if (itemIdentifier_ == NSFileProviderWorkingSetContainerItemIdentifier) {
    observer.didUpdateItems(workingSetChanges());
  } else if (itemIdentifier_ != NSFileProviderTrashContainerItemIdentifier) {
    observer.didUpdateItems(childItems(ullLastTime_, false));
  }
  // The framework gets back exactly what it gave: this system keeps no
  // change log to advance an anchor against.
  observer.finishEnumeratingChangesUpToSyncAnchor(fromSyncAnchor, false);
}

void FileProviderEnumerator::currentSyncAnchorWithCompletionHandler(
    std::function<void(std::optional<std::string> anchor)> completionHandler) {
  log("currentSyncAnchorWithCompletionHandler {},{}", itemIdentifier_, nCurrentAnchor_);
  if (completionHandler) completionHandler(std::to_string(nCurrentAnchor_));
}

}  // namespace hvfp

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

// The display names given so far, and the collision rule over them: the
// candidate for num is the name itself for 0, else "name(num+1)", and the
// answer is the first candidate from num on that is not given. Names are only
// ever added, so the candidates a search for a name found taken stay taken
// and the next search for it resumes there: a host may list thousands of
// mounts under one name, and each must not rescan the ones before it.
class GivenNames {
 public:
  void add(const std::optional<std::string>& name) {
    if (name) given_.insert(*name);
  }

  std::string firstFree(const std::string& name, int64_t num) {
    // Every candidate from 0 up to `resume` is known to be taken.
    int64_t& resume = resumeAt_[name];
    const bool fromResume = num >= 0 && num <= resume;
    if (fromResume) num = resume;
    for (;; ++num) {
      std::string candidate = num == 0 ? name : fmt::format("{}({})", name, num + 1);
      if (given_.count(candidate) == 0) return candidate;
      if (fromResume) resume = num + 1;
    }
  }

 private:
  std::unordered_set<std::string> given_;
  std::unordered_map<std::string, int64_t> resumeAt_;
};

}  // namespace

std::string FileProviderEnumerator::checkName(const std::vector<NSFileProviderItemRef>& items,
                                              const std::string& name, int64_t num) {
  GivenNames given;
  for (const auto& item : items) given.add(item->filename());
  return given.firstFree(name, num);
}

FileProviderEnumerator::Items FileProviderEnumerator::mountItems(bool logEach) const {
  std::vector<HVFileItemRef> records = client_.getLinks();
  sortByLastTime(records);
  Items items;
  items.reserve(records.size());
  // checkName's rule against the items so far, kept up as they are added.
  GivenNames given;
  for (auto& record : records) {
    const std::string name = record->strFileName.value_or(std::string());
    const std::string shown = given.firstFree(name, 0);
    const bool renamed = shown != name;
    if (renamed) record->strFileName = shown;
    auto item = FileProviderItem::initWithHVFileItem(record);
    item->setParentIdentifier(itemIdentifier_);
    given.add(item->filename());
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

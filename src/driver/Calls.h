// Calls: what the folder's operations share to call the framework: the
// item templates they hand over, and answers waited for with a bound.
// Internal to the driver's .cc files. Pure helpers; any thread.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "driver/Replica.h"
#include "platform/fileprovider/ContainerIdentifiers.h"
#include "platform/fileprovider/ItemTemplate.h"

namespace hvfp::driver::calls {

inline const std::string kRootId(NSFileProviderRootContainerItemIdentifier);
inline const std::string kTrashId(NSFileProviderTrashContainerItemIdentifier);

namespace Capability {
constexpr uint64_t Writing = 2, Reparenting = 4, Renaming = 8, Trashing = 16, Deleting = 32;
}
namespace Fields = NSFileProviderItemFields;

inline Date nowDate() {
  using namespace std::chrono;
  return static_cast<Date>(duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

inline Date mtimeOf(const struct stat& st) {
  return static_cast<Date>(st.st_mtim.tv_sec) + static_cast<Date>(st.st_mtim.tv_nsec) * 1e-9;
}

inline ContentType typeFor(const std::optional<std::string>& name, bool folder) {
  if (folder) return ContentType::folder();
  if (!name) return ContentType::data();
  size_t dot = name->rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name->size()) return ContentType::data();
  return ContentType::typeWithFilenameExtension(std::string_view(*name).substr(dot + 1));
}

// The item as the user now sees it, for the extension.
inline NSFileProviderItemTemplate templateOf(const NodeInfo& info) {
  NSFileProviderItemTemplate t;
  const ItemRecord& r = info.record;
  t.identifier = r.identifier;
  t.parentIdentifier = info.parentIdentifier;
  t.name = r.filename;
  t.itemCapabilities = r.capabilities;
  t.type = typeFor(r.filename, r.folder);
  t.version = r.version;
  t.size = r.folder ? 0 : r.size;
  t.created = r.created;
  t.modified = r.modified;
  t.used = r.modified;
  return t;
}

// One answer of the framework's change shape, waited for with a bound.
struct ChangeAnswer {
  std::mutex mutex;
  std::condition_variable done;
  bool answered = false;
  NSFileProviderItemRef item;
  std::optional<Error> error;

  NSFileProviderItemChangeHandler handler(const std::shared_ptr<ChangeAnswer>& self) {
    return [self](NSFileProviderItemRef item, uint64_t, bool, std::optional<Error> error) {
      std::lock_guard lock(self->mutex);
      if (self->answered) return;
      self->answered = true;
      self->item = std::move(item);
      self->error = std::move(error);
      self->done.notify_all();
    };
  }
  bool wait(std::chrono::seconds bound) {
    std::unique_lock lock(mutex);
    return done.wait_for(lock, bound, [&] { return answered; });
  }
};

}  // namespace hvfp::driver::calls

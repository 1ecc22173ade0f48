// The console's commands that fetch contents or change the cloud: each one
// framework call (content fetch, creation, modification, deletion), followed
// until its handler answers.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <vector>

#include "cli/Console.h"
#include "cli/ItemFormat.h"
#include "cli/ProgressBar.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "hostlink/ItemIdentifier.h"
#include "item/FileProviderItem.h"
#include "platform/ThreadAnnotations.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "records/Json.h"

namespace hvfp::cli {
namespace fs = std::filesystem;
namespace Field = NSFileProviderItemFields;
namespace {

// A handler's answer, handed from the provider's thread to the console's.
// Shared with the handler, which may run after the console stopped waiting.
template <typename T>
class Answer {
 public:
  void set(T value) {
    MutexLock lock(mutex_);
    if (!value_) value_ = std::move(value);
    ready_.notify_all();
  }
  bool waitFor(std::chrono::milliseconds bound) {
    const auto until = std::chrono::steady_clock::now() + bound;
    MutexLock lock(mutex_);
    while (!value_)
      if (ready_.wait_until(lock, until) == std::cv_status::timeout) break;
    return value_.has_value();
  }
  T take() {
    MutexLock lock(mutex_);
    return std::move(*value_);
  }

 private:
  Mutex mutex_;
  std::condition_variable_any ready_;
  std::optional<T> value_ GUARDED_BY(mutex_);
};

struct Fetched {
  std::optional<std::string> path;
  NSFileProviderItemRef item;
  std::optional<Error> error;
};

struct Changed {
  NSFileProviderItemRef item;
  std::optional<Error> error;
};

NSFileProviderItemChangeHandler changeHandler(const std::shared_ptr<Answer<Changed>>& answer) {
  return [answer](NSFileProviderItemRef item, uint64_t, bool, std::optional<Error> error) {
    answer->set({std::move(item), std::move(error)});
  };
}

// What the framework would accept as an item's name: one path component.
bool isItemName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

Date now() {
  using namespace std::chrono;
  return static_cast<Date>(duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

// The version of an item this system moved to the trash: its metadata
// version says "delete" 1, which is what makes a move out of the trash a
// restore.
std::optional<NSFileProviderItemVersion> trashedHere(
    std::optional<NSFileProviderItemVersion> version) {
  if (!version) version = NSFileProviderItemVersion{};
  auto metadata = objectFromJSONString(version->metadataVersion);
  if (!metadata || !metadata->object()) metadata = JsonValue(JsonObject{});
  metadata->object()->insert_or_assign("delete", 1);
  version->metadataVersion = JSONString(*metadata).value_or(R"({"delete":1})");
  return version;
}

// The folder a trashed item was in, as its host record names it.
std::string originalFolder(NSFileProviderItem& item) {
  if (auto* known = dynamic_cast<FileProviderItem*>(&item); known && known->mItem())
    return createItemIdentifier(known->mItem()->nMountID, known->mItem()->strUpHash.view());
  return std::to_string(parseItemIdentifier(item.itemIdentifier()).nMountID);
}

// Streams the file to `out`; false when it cannot be read or written whole.
bool copyTo(const std::string& path, std::ostream& out) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> buffer(1 << 20);
  while (in && out) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    out.write(buffer.data(), in.gcount());
  }
  out.flush();
  return in.eof() && out;
}

}  // namespace

NSFileProviderItemRef Console::lookUp(const std::string& what, const std::string& identifier) {
  uint64_t before = queriesSoFar();
  NSFileProviderItemRef found;
  std::optional<Error> failure;
  extension_->itemForIdentifier(identifier, {},
                                [&](NSFileProviderItemRef item, std::optional<Error> error) {
                                  found = std::move(item);
                                  failure = std::move(error);
                                });
  if (!hostAnswered(before)) return nullptr;
  if (!found)
    err_ << "halvofp: " << what << ": "
         << errorText(failure.value_or(Error::cocoa(ErrorCode::LookupFailed))) << '\n';
  return found;
}

void Console::follow(Progress& progress, const std::string& label,
                     const std::function<bool(std::chrono::milliseconds)>& answered) {
  ProgressBar bar(err_, options_.terminal, printable(label));
  bool cancelled = false;
  while (!answered(std::chrono::milliseconds(100))) {
    if (!cancelled && interrupted()) {
      // The handler answers the cancellation; the loop then ends.
      cancelled = true;
      bar.clear();
      progress.cancel();
      continue;
    }
    const int64_t done = progress.completedUnitCount(), total = progress.totalUnitCount();
    if (done > 0 || total > 0) bar.update(done, total);
  }
}

int Console::finish(const std::string& what, uint64_t before, const NSFileProviderItemRef& item,
                    const std::optional<Error>& error) {
  if (error && error->domain == NSCocoaErrorDomain && error->code == ErrorCode::Cancelled) {
    err_ << "halvofp: " << what << ": cancelled\n";
    return Exit::Cancelled;
  }
  if (error) {
    if (hostAnswered(before)) err_ << "halvofp: " << what << ": " << errorText(*error) << '\n';
    return Exit::Failed;
  }
  if (item)
    printItem(*item);
  else
    err_ << "halvofp: " << what << ": done; the host named no item\n";
  return Exit::Done;
}

int Console::get(const std::string& identifier, const std::optional<std::string>& dest) {
  const std::string what = "get " + identifier;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  if (item->contentType() == ContentType::folder()) {
    err_ << "halvofp: " << what << ": a folder has no contents to fetch\n";
    return Exit::BadInput;
  }
  const std::string name = item->filename().value_or("");
  std::error_code ec;
  fs::path target = dest.value_or("");
  if (dest != "-" && (!dest || fs::is_directory(target, ec))) {
    if (!isItemName(name)) {
      err_ << "halvofp: " << what << ": the item's name \"" << printable(name)
           << "\" is no file name here; give DEST\n";
      return Exit::BadInput;
    }
    target /= name;
  }

  const uint64_t before = queriesSoFar();
  auto answer = std::make_shared<Answer<Fetched>>();
  auto progress = extension_->fetchContentsForItemWithIdentifier(
      identifier, item->itemVersion(), {},
      [answer](std::optional<std::string> path, NSFileProviderItemRef fetched,
               std::optional<Error> error) {
        answer->set({std::move(path), std::move(fetched), std::move(error)});
      });
  follow(*progress, "get " + name, [&](auto bound) { return answer->waitFor(bound); });
  Fetched got = answer->take();
  if (got.error || !got.path)
    return finish(what, before, nullptr,
                  got.error.value_or(Error::cocoa(ErrorCode::CloudNetworkFailure)));

  if (dest == "-") {
    if (!copyTo(*got.path, out_)) {
      err_ << "halvofp: " << what << ": cannot copy " << *got.path << " to standard output\n";
      return Exit::Failed;
    }
    return Exit::Done;
  }
  fs::copy_file(*got.path, target, fs::copy_options::overwrite_existing, ec);
  if (ec) {
    err_ << "halvofp: " << what << ": cannot write " << target.string() << " (" << ec.message()
         << ")\n";
    return Exit::Failed;
  }
  printItem(got.item ? *got.item : *item);
  return Exit::Done;
}

int Console::change(const std::string& what, NSFileProviderItem& item,
                    const std::optional<NSFileProviderItemVersion>& baseVersion, uint64_t changed,
                    const std::optional<std::string>& contents) {
  const uint64_t before = queriesSoFar();
  auto answer = std::make_shared<Answer<Changed>>();
  auto progress =
      extension_->modifyItem(item, baseVersion, changed, contents, 0, {}, changeHandler(answer));
  follow(*progress, what, [&](auto bound) { return answer->waitFor(bound); });
  Changed got = answer->take();
  return finish(what, before, got.item, got.error);
}

int Console::create(const std::string& what, NSFileProviderItem& itemTemplate, uint64_t fields,
                    const std::optional<std::string>& contents) {
  const uint64_t before = queriesSoFar();
  auto answer = std::make_shared<Answer<Changed>>();
  auto progress = extension_->createItemBasedOnTemplate(itemTemplate, fields, contents, 0, {},
                                                        changeHandler(answer));
  follow(*progress, what, [&](auto bound) { return answer->waitFor(bound); });
  Changed got = answer->take();
  return finish(what, before, got.item, got.error);
}

namespace {

int badName(std::ostream& err, const std::string& what, const std::string& name) {
  err << "halvofp: " << what << ": \"" << printable(name)
      << "\" is not a name (it is empty, \".\", \"..\" or has a \"/\")\n";
  return Exit::BadInput;
}

// The local file whose contents go up; none and a line on `err` when it is
// not a readable regular file.
std::optional<struct stat> contentsFile(std::ostream& err, const std::string& what,
                                        const std::string& file) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0 || ::access(file.c_str(), R_OK) != 0) {
    err << "halvofp: " << what << ": cannot read " << file << " (" << std::strerror(errno) << ")\n";
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    err << "halvofp: " << what << ": " << file << " is not a regular file\n";
    return std::nullopt;
  }
  return st;
}

Date mtimeOf(const struct stat& st) { return static_cast<Date>(st.st_mtim.tv_sec); }

// Unique within the process, which is all a console's creation needs.
std::string provisionalIdentifier() { return "__fp/halvofp-" + std::to_string(::getpid()); }

}  // namespace

bool Console::isFolder(const std::string& what, const std::string& identifier) {
  auto folder = lookUp(what, identifier);
  if (!folder) return false;
  if (folder->contentType() == ContentType::folder()) return true;
  err_ << "halvofp: " << what << ": " << printable(identifier) << " is not a folder\n";
  return false;
}

int Console::rename(const std::string& identifier, const std::string& name) {
  const std::string what = "rename " + identifier;
  if (!isItemName(name)) return badName(err_, what, name);
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  auto edited = NSFileProviderItemTemplate::copyOf(*item);
  edited.name = name;
  return change(what, edited, item->itemVersion(), Field::Filename, std::nullopt);
}

int Console::move(const std::string& identifier, const std::string& parent) {
  const std::string what = "move " + identifier;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  auto edited = NSFileProviderItemTemplate::copyOf(*item);
  edited.parentIdentifier = parent;
  return change(what, edited, item->itemVersion(), Field::ParentItemIdentifier, std::nullopt);
}

int Console::trash(const std::string& identifier) {
  return move(identifier, std::string(NSFileProviderTrashContainerItemIdentifier));
}

int Console::restore(const std::string& identifier, const std::optional<std::string>& parent) {
  const std::string what = "restore " + identifier;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  if (item->parentItemIdentifier() != NSFileProviderTrashContainerItemIdentifier) {
    err_ << "halvofp: " << what << ": not in the trash\n";
    return Exit::Failed;
  }
  auto edited = NSFileProviderItemTemplate::copyOf(*item);
  edited.parentIdentifier = parent ? *parent : originalFolder(*item);
  return change(what, edited, trashedHere(item->itemVersion()), Field::ParentItemIdentifier,
                std::nullopt);
}

int Console::forget(const std::string& identifier) {
  const std::string what = "forget " + identifier;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  const uint64_t before = queriesSoFar();
  auto answer = std::make_shared<Answer<Changed>>();
  auto progress = extension_->deleteItemWithIdentifier(identifier, item->itemVersion(), 0, {},
                                                       [answer](std::optional<Error> error) {
                                                         answer->set({nullptr, std::move(error)});
                                                       });
  follow(*progress, what, [&](auto bound) { return answer->waitFor(bound); });
  Changed got = answer->take();
  if (got.error) return finish(what, before, nullptr, got.error);
  if (options_.json) {
    std::string text;
    JsonWriter(text).beginObject().key("forgotten").value(identifier).endObject();
    out_ << text << '\n';
  } else {
    out_ << "forgot " << printable(identifier)
         << ": the host dropped its sync record; the cloud keeps the item\n";
  }
  return Exit::Done;
}

int Console::touch(const std::string& identifier) {
  const std::string what = "touch " + identifier;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  auto edited = NSFileProviderItemTemplate::copyOf(*item);
  edited.modified = edited.used = now();
  return change(what, edited, item->itemVersion(),
                Field::ContentModificationDate | Field::LastUsedDate, std::nullopt);
}

int Console::put(const std::string& file, const std::string& parent,
                 const std::optional<std::string>& name) {
  const std::string itemName = name.value_or(fs::path(file).filename().string());
  const std::string what = "put " + itemName;
  auto st = contentsFile(err_, what, file);
  if (!st) return Exit::BadInput;
  if (!isItemName(itemName)) return badName(err_, what, itemName);
  if (!isFolder(what, parent)) return Exit::Failed;
  NSFileProviderItemTemplate item;
  item.identifier = provisionalIdentifier();
  item.parentIdentifier = parent;
  item.name = itemName;
  item.size = static_cast<uint64_t>(st->st_size);
  item.created = now();
  item.modified = item.used = mtimeOf(*st);
  return create(what, item,
                Field::Contents | Field::Filename | Field::ParentItemIdentifier |
                    Field::CreationDate | Field::ContentModificationDate,
                fs::absolute(file).string());
}

int Console::mkdir(const std::string& parent, const std::string& name) {
  const std::string what = "mkdir " + name;
  if (!isItemName(name)) return badName(err_, what, name);
  if (!isFolder(what, parent)) return Exit::Failed;
  NSFileProviderItemTemplate item;
  item.identifier = provisionalIdentifier();
  item.parentIdentifier = parent;
  item.name = name;
  item.type = ContentType::folder();
  item.size = 0;
  item.created = item.modified = item.used = now();
  return create(what, item,
                Field::Filename | Field::ParentItemIdentifier | Field::CreationDate |
                    Field::ContentModificationDate,
                std::nullopt);
}

int Console::update(const std::string& identifier, const std::string& file) {
  const std::string what = "update " + identifier;
  auto st = contentsFile(err_, what, file);
  if (!st) return Exit::BadInput;
  auto item = lookUp(what, identifier);
  if (!item) return Exit::Failed;
  if (item->contentType() == ContentType::folder()) {
    err_ << "halvofp: " << what << ": a folder has no contents to replace\n";
    return Exit::BadInput;
  }
  auto edited = NSFileProviderItemTemplate::copyOf(*item);
  edited.size = static_cast<uint64_t>(st->st_size);
  edited.modified = edited.used = mtimeOf(*st);
  return change(what, edited, item->itemVersion(), Field::Contents | Field::ContentModificationDate,
                fs::absolute(file).string());
}

}  // namespace hvfp::cli

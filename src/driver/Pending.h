// Pending: what must survive a crash of the folder, and what it becomes.
//
// A file whose local contents the cloud lacks has a record in the domain's
// pending folder: the contents file, the item it goes to (or, for a file
// never created, the folder and name it is created under) and the version
// the contents were based on. A record and the contents it names are on
// disk (data, name and record fsynced) before the call that wrote it
// returns, so a mount that is killed, or a machine that loses power, sends
// them at the next mount. A record is one small JSON file, replaced
// atomically (written aside, fsynced, renamed over); a record that cannot
// be read is left alone with a log line.
//
// When the contents are sent, the cloud's current item decides what they
// become (`decide`): the item's new contents when the cloud still has the
// version they were based on, nothing when the cloud already has these
// very bytes, and otherwise a new item beside it, named as a conflicted
// copy, so neither change overwrites the other.
//
// Ownership: the journal owns the record files of its own run; records of
// earlier runs are handed out by name and erased when done. Threads: any
// thread; a record is written by one caller at a time.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver/Replica.h"
#include "platform/Result.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::driver {

struct PendingUpload {
  std::string file;        // absolute path of the contents to send
  std::string identifier;  // the item's lasting identifier; empty: never created
  std::string parent;      // identifier of the folder the item is in
  std::string name;        // the item's name in the cloud
  std::optional<NSFileProviderItemVersion> base;  // the version the contents came from
  Date created = 0;

  bool operator==(const PendingUpload&) const = default;
};

std::string encodePending(const PendingUpload& upload);
std::optional<PendingUpload> decodePending(std::string_view text);

// "report.txt" -> "report (conflicted copy 2024-05-01 093000).txt", in
// local time; a name without an extension (or only a leading dot) gets the
// words at its end.
std::string conflictName(std::string_view name, std::time_t when);

// Whether two versions name the same contents: their content hashes when
// both name one, else their content version texts.
bool sameContents(const std::optional<NSFileProviderItemVersion>& a,
                  const std::optional<NSFileProviderItemVersion>& b);

enum class Outcome {
  Contents,      // send them as the item's new contents (or create it)
  ConflictCopy,  // send them as a new item with a conflicted-copy name
  Nothing,       // the cloud already has them
};

// What contents become, given the cloud's item now (`current`: none when
// it is gone or in the trash). For a file that exists in the cloud
// (`existing`), `current` is that item and `base` the version the contents
// came from; for a new file, `current` is whatever the cloud has under its
// name. `localHash` is asked only when needed (it reads the file).
Outcome decide(bool existing, const std::optional<NSFileProviderItemVersion>& base,
               const std::optional<ItemRecord>& current,
               const std::function<std::optional<std::string>()>& localHash);

class Journal {
 public:
  struct Earlier {
    std::string name;  // of the record file
    PendingUpload upload;
  };

  // `folder` is made when missing. Records found there now are earlier
  // runs' (each run names its own records apart).
  explicit Journal(std::string folder);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Makes the record of the inode durable, with the data of the contents
  // file it names. Skips writing a record identical to the one on disk.
  Result<void> record(Ino ino, const PendingUpload& upload) EXCLUDES(mutex_);
  // The inode has no unsent contents any more.
  void erase(Ino ino) EXCLUDES(mutex_);
  bool has(Ino ino) EXCLUDES(mutex_);

  std::vector<Earlier> earlier() const;
  void eraseEarlier(const std::string& name) const;

 private:
  std::string pathOf(Ino ino) const;

  const std::string folder_;
  const std::string run_;  // names this run's records apart from others'
  std::vector<Earlier> earlier_;
  Mutex mutex_;
  std::map<Ino, std::string> written_ GUARDED_BY(mutex_);  // the text on disk
};

// fsync of a folder, so the names made or removed in it last.
void syncFolder(const std::string& folder);

}  // namespace hvfp::driver

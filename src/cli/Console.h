// The console's subcommands. Each makes the one framework call it is named
// for against a running host and prints what the framework would receive.
// A command that changes an item first looks it up, as the framework knows
// the item it changes; a call answered later is followed with a progress
// bar on `err` until its handler runs, and the interrupt flag (Ctrl-C)
// cancels its progress object.
//
// A Console owns the extension for its domain, built on the host client it
// is given, which must outlive it. It is used from one thread, except that
// `watch` also receives host events on the listener's thread and handlers
// run on the provider's threads. It leaves the log sink and signals to its
// maker. Results are exit codes (Exit). Messages for people go to `err`,
// results to `out`.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp {
class FileProviderExtension;
class HalvoProviderClient;
}  // namespace hvfp

namespace hvfp::cli {

struct ConsoleOptions {
  std::optional<int64_t> port;  // delivered as a port event, as the host app would
  bool json = false;
  std::string domain = "halvo";
  bool terminal = false;  // `err` is a terminal: progress bars redrawn in place
};

namespace Exit {
inline constexpr int Done = 0;
inline constexpr int Failed = 1;  // the host did not answer, refused, or the call failed
inline constexpr int BadInput = 2;
inline constexpr int Cancelled = 130;  // as a shell reports a program ended by Ctrl-C
}  // namespace Exit

class Console {
 public:
  Console(HalvoProviderClient& client, ConsoleOptions options, std::ostream& out,
          std::ostream& err);
  ~Console();

  int ls(const std::string& container);
  int stat(const std::string& identifier);
  int changes(const std::string& container, const std::optional<std::string>& anchor);
  // Runs until `stop` becomes true.
  int watch(const std::atomic<bool>& stop);

  // Once `flag` is true, a call still running is cancelled. Must outlive
  // the console.
  void cancelOn(const std::atomic<bool>& flag) { interrupted_ = &flag; }

  // Content fetch, then a copy of the file the handler names to `dest`
  // ("-": `out`; a folder: the item's name in it; none: the item's name
  // in the current directory).
  int get(const std::string& identifier, const std::optional<std::string>& dest);
  int rename(const std::string& identifier, const std::string& name);
  int move(const std::string& identifier, const std::string& parent);
  int trash(const std::string& identifier);
  // Out of the trash into `parent`, by default the folder it was in.
  int restore(const std::string& identifier, const std::optional<std::string>& parent);
  // Deletion: the host drops its sync record of the item.
  int forget(const std::string& identifier);
  // A modification of the item's dates alone.
  int touch(const std::string& identifier);
  // Creation of a file with the contents of `file`, named `name` or as the file.
  int put(const std::string& file, const std::string& parent,
          const std::optional<std::string>& name);
  int mkdir(const std::string& parent, const std::string& name);
  // A modification with the contents of `file`.
  int update(const std::string& identifier, const std::string& file);

 private:
  // One line on `err` and false when the client's last query, if it was
  // made after the one numbered `before`, got no answer from the host.
  bool hostAnswered(uint64_t before);
  uint64_t queriesSoFar() const;
  void printItems(const std::vector<std::shared_ptr<NSFileProviderItem>>& items);
  void printItem(NSFileProviderItem& item);
  bool interrupted() const { return interrupted_ && interrupted_->load(); }
  // The item as the framework knows it; none (and a line on `err`) when
  // the host does not confirm it.
  std::shared_ptr<NSFileProviderItem> lookUp(const std::string& command,
                                             const std::string& identifier);
  // The framework creates items only in a folder it knows.
  bool isFolder(const std::string& what, const std::string& identifier);
  // Draws `progress` until `answered` (which waits up to the time it is
  // given) says the handler ran; cancels it once interrupted.
  void follow(Progress& progress, const std::string& label,
              const std::function<bool(std::chrono::milliseconds)>& answered);
  // The exit code for a call's outcome: prints the item, or the error.
  int finish(const std::string& what, uint64_t before,
             const std::shared_ptr<NSFileProviderItem>& item, const std::optional<Error>& error);
  // A modification of `changed` on `item` (a copy the command edited) and
  // its outcome.
  int change(const std::string& what, NSFileProviderItem& item,
             const std::optional<NSFileProviderItemVersion>& baseVersion, uint64_t changed,
             const std::optional<std::string>& contents);
  int create(const std::string& what, NSFileProviderItem& itemTemplate, uint64_t fields,
             const std::optional<std::string>& contents);

  HalvoProviderClient& client_;
  ConsoleOptions options_;
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<FileProviderExtension> extension_;
  const std::atomic<bool>* interrupted_ = nullptr;
};

}  // namespace hvfp::cli

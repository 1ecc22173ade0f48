// The console's subcommands. Each makes the one framework call it is named
// for against a running host and prints what the framework would receive.
//
// A Console owns the extension for its domain, built on the host client it
// is given, which must outlive it. It is used from one thread, except that
// `watch` also receives host events on the listener's thread. It leaves the
// log sink to its maker. Results are exit codes: 0 done, 1 the host did not
// answer or refused, 2 bad input. Messages for people go to `err`, results
// to `out`.
#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hvfp {
class FileProviderExtension;
class HalvoProviderClient;
class NSFileProviderItem;
}  // namespace hvfp

namespace hvfp::cli {

struct ConsoleOptions {
  std::optional<int64_t> port;  // delivered as a port event, as the host app would
  bool json = false;
  std::string domain = "halvo";
};

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

 private:
  // One line on `err` and false when the client's last query, if it was
  // made after the one numbered `before`, got no answer from the host.
  bool hostAnswered(uint64_t before);
  uint64_t queriesSoFar() const;
  void printItems(const std::vector<std::shared_ptr<NSFileProviderItem>>& items);

  HalvoProviderClient& client_;
  ConsoleOptions options_;
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<FileProviderExtension> extension_;
};

}  // namespace hvfp::cli

#include "cli/Console.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <ostream>
#include <thread>

#include "cli/ItemFormat.h"
#include "extension/FileProviderEnumerator.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/http/SharedSession.h"

namespace hvfp::cli {
namespace {

class CollectingObserver final : public NSFileProviderEnumerationObserver,
                                 public NSFileProviderChangeObserver {
 public:
  std::vector<NSFileProviderItemRef> items;
  std::optional<Error> error;
  std::string anchor;
  bool moreComing = false;

  void didEnumerateItems(std::vector<NSFileProviderItemRef> batch) override { append(batch); }
  void finishEnumeratingUpToPage(std::optional<std::string>) override {}
  void didUpdateItems(std::vector<NSFileProviderItemRef> batch) override { append(batch); }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override {}
  void finishEnumeratingChangesUpToSyncAnchor(std::string a, bool more) override {
    anchor = std::move(a);
    moreComing = more;
  }
  void finishEnumeratingWithError(const Error& e) override { error = e; }

 private:
  void append(std::vector<NSFileProviderItemRef>& batch) {
    items.insert(items.end(), std::make_move_iterator(batch.begin()),
                 std::make_move_iterator(batch.end()));
  }
};

std::string portEvent(int64_t port) { return R"({"type":1,"port":)" + std::to_string(port) + "}"; }

}  // namespace

Console::Console(ConsoleOptions options, std::ostream& out, std::ostream& err)
    : options_(std::move(options)), out_(out), err_(err) {
  setLogSink(options_.verbose ? LogSink::Stderr : LogSink::Silent);
  extension_ = std::make_unique<FileProviderExtension>(
      NSFileProviderDomain{options_.domain, options_.domain});
  if (options_.port)
    HalvoProviderClient::shareHalvoProviderClient().onRecvFromApp(portEvent(*options_.port));
}

Console::~Console() = default;

bool Console::hostAnswered(uint64_t before) {
  if (SharedSession::queriesMade() == before) return true;  // nothing was asked
  QueryOutcome outcome = SharedSession::lastOutcome();
  if (outcome.delivered) return true;
  auto& client = HalvoProviderClient::shareHalvoProviderClient();
  err_ << "halvofp: no answer from the host at " << client.strHost() << ":" << client.nPort()
       << " (" << outcome.failure << "); is halvo-hostd running?\n";
  return false;
}

void Console::printItems(const std::vector<NSFileProviderItemRef>& items) {
  if (options_.json) {
    for (const auto& item : items) out_ << itemJson(*item) << '\n';
  } else {
    printTable(out_, items);
  }
}

int Console::ls(const std::string& container) {
  auto enumerator = extension_->enumeratorForContainerItemIdentifier(container, {}, nullptr);
  CollectingObserver observer;
  uint64_t before = SharedSession::queriesMade();
  enumerator->enumerateItemsForObserver(observer, "");
  enumerator->invalidate();
  if (!hostAnswered(before)) return 1;
  printItems(observer.items);
  return 0;
}

int Console::stat(const std::string& identifier) {
  uint64_t before = SharedSession::queriesMade();
  NSFileProviderItemRef found;
  std::optional<Error> failure;
  extension_->itemForIdentifier(identifier, {},
                                [&](NSFileProviderItemRef item, std::optional<Error> error) {
                                  found = std::move(item);
                                  failure = std::move(error);
                                });
  if (!hostAnswered(before)) return 1;
  if (!found) {
    err_ << "halvofp: the host knows no item " << identifier;
    if (failure) err_ << " (" << failure->domain << " " << failure->code << ")";
    err_ << '\n';
    return 1;
  }
  if (options_.json)
    out_ << itemJson(*found) << '\n';
  else
    printDetails(out_, *found);
  return 0;
}

int Console::changes(const std::string& container, const std::optional<std::string>& anchor) {
  auto enumerator = extension_->enumeratorForContainerItemIdentifier(container, {}, nullptr);
  std::string from = anchor.value_or("");
  if (!anchor)
    enumerator->currentSyncAnchorWithCompletionHandler(
        [&](std::optional<std::string> a) { from = a.value_or(""); });
  CollectingObserver observer;
  uint64_t before = SharedSession::queriesMade();
  enumerator->enumerateChangesForObserver(observer, from);
  enumerator->invalidate();
  if (!hostAnswered(before)) return 1;
  printItems(observer.items);
  if (!options_.json)
    out_ << "finished at anchor " << observer.anchor << (observer.moreComing ? ", more coming" : "")
         << '\n';
  return 0;
}

namespace {

// What host events hand to the watch loop. Shared with the handlers, which
// may still be running on the listener's thread when the loop has ended.
struct WatchInbox {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::string> signalled;
  std::deque<std::string> events;
};

}  // namespace

int Console::watch(const std::atomic<bool>& stop) {
  auto& client = HalvoProviderClient::shareHalvoProviderClient();
  auto manager = client.providerManager();
  if (!client.hearsHostEvents() || !manager) {
    err_ << "halvofp: no session bus, so no host events to watch (is DBUS_SESSION_BUS_ADDRESS "
            "set?)\n";
    return 1;
  }
  // Signals arrive on the event listener's thread; the change reports run
  // here, as the framework would run them after a signal.
  auto inbox = std::make_shared<WatchInbox>();
  setLogCallback([inbox](std::string_view line) {
    constexpr std::string_view kEvent = "onRecvFromApp ";
    if (line.substr(0, kEvent.size()) != kEvent) return;
    std::lock_guard lock(inbox->mutex);
    inbox->events.emplace_back(line.substr(kEvent.size()));
  });
  setLogSink(LogSink::Callback);
  manager->setSignalHandler([inbox](const std::string& container) {
    std::lock_guard lock(inbox->mutex);
    inbox->signalled.push_back(container);
    inbox->wake.notify_one();
  });
  err_ << "watching host events; Ctrl-C to stop\n";
  std::map<std::string, std::shared_ptr<FileProviderEnumerator>> enumerators;
  while (!stop) {
    std::unique_lock lock(inbox->mutex);
    inbox->wake.wait_for(lock, std::chrono::milliseconds(200),
                         [&] { return !inbox->signalled.empty(); });
    for (; !inbox->events.empty(); inbox->events.pop_front())
      out_ << "event " << inbox->events.front() << '\n';
    if (inbox->signalled.empty()) continue;
    std::string container = std::move(inbox->signalled.front());
    inbox->signalled.pop_front();
    lock.unlock();
    out_ << "signalled " << container << '\n';
    auto& enumerator = enumerators[container];
    if (!enumerator)
      enumerator = extension_->enumeratorForContainerItemIdentifier(container, {}, nullptr);
    std::string anchor;
    enumerator->currentSyncAnchorWithCompletionHandler(
        [&](std::optional<std::string> a) { anchor = a.value_or(""); });
    CollectingObserver observer;
    uint64_t before = SharedSession::queriesMade();
    enumerator->enumerateChangesForObserver(observer, anchor);
    if (hostAnswered(before)) printItems(observer.items);
    out_.flush();
  }
  manager->setSignalHandler(nullptr);
  setLogSink(options_.verbose ? LogSink::Stderr : LogSink::Silent);
  setLogCallback(nullptr);
  return 0;
}

}  // namespace hvfp::cli

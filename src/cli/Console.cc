#include "cli/Console.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <ostream>

#include "cli/ItemFormat.h"
#include "extension/FileProviderEnumerator.h"
#include "extension/FileProviderExtension.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/ThreadAnnotations.h"

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

Console::Console(HalvoProviderClient& client, ConsoleOptions options, std::ostream& out,
                 std::ostream& err)
    : client_(client), options_(std::move(options)), out_(out), err_(err) {
  extension_ = std::make_unique<FileProviderExtension>(
      client_, NSFileProviderDomain{options_.domain, options_.domain});
  if (options_.port) client_.onRecvFromApp(portEvent(*options_.port));
}

// An upload still running (a cancelled one abandoning its session) ends
// before the process does.
Console::~Console() {
  if (OperationQueue* uploads = client_.mUploadQueue())
    uploads->waitUntilAllOperationsAreFinished();
}

uint64_t Console::queriesSoFar() const { return client_.lastOutcome().number; }

bool Console::hostAnswered(uint64_t before) {
  QueryOutcome outcome = client_.lastOutcome();
  if (outcome.number == before || outcome.delivered) return true;
  err_ << "halvofp: no answer from the host at " << client_.strHost() << ":" << client_.nPort()
       << " (" << outcome.failure << "); is halvo-hostd running?\n";
  return false;
}

void Console::printItem(NSFileProviderItem& item) {
  if (options_.json)
    out_ << itemJson(item) << '\n';
  else
    printDetails(out_, item);
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
  uint64_t before = queriesSoFar();
  enumerator->enumerateItemsForObserver(observer, "");
  enumerator->invalidate();
  if (!hostAnswered(before)) return 1;
  printItems(observer.items);
  return 0;
}

int Console::stat(const std::string& identifier) {
  uint64_t before = queriesSoFar();
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
  printItem(*found);
  return 0;
}

int Console::changes(const std::string& container, const std::optional<std::string>& anchor) {
  auto enumerator = extension_->enumeratorForContainerItemIdentifier(container, {}, nullptr);
  std::string from = anchor.value_or("");
  if (!anchor)
    enumerator->currentSyncAnchorWithCompletionHandler(
        [&](std::optional<std::string> a) { from = a.value_or(""); });
  CollectingObserver observer;
  uint64_t before = queriesSoFar();
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

// Host events, handed from the listener's thread to the watch loop.
struct WatchInbox {
  Mutex mutex;
  std::condition_variable_any wake;
  std::deque<HostEvent> events GUARDED_BY(mutex);
};

}  // namespace

int Console::watch(const std::atomic<bool>& stop) {
  if (!client_.hearsHostEvents() || !client_.providerManager()) {
    err_ << "halvofp: no session bus, so no host events to watch (is DBUS_SESSION_BUS_ADDRESS "
            "set?)\n";
    return 1;
  }
  // Events arrive on the event listener's thread; the change reports run
  // here, as the framework would run them after a signal.
  WatchInbox inbox;
  client_.setEventTap([&inbox](const HostEvent& event) {
    MutexLock lock(inbox.mutex);
    inbox.events.push_back(event);
    inbox.wake.notify_one();
  });
  err_ << "watching host events; Ctrl-C to stop\n";
  std::map<std::string, NSFileProviderEnumeratorRef> enumerators;
  auto report = [&](const std::string& container) {
    out_ << "signalled " << printable(container) << '\n';
    auto& enumerator = enumerators[container];
    if (!enumerator)
      enumerator = extension_->enumeratorForContainerItemIdentifier(container, {}, nullptr);
    std::string anchor;
    enumerator->currentSyncAnchorWithCompletionHandler(
        [&](std::optional<std::string> a) { anchor = a.value_or(""); });
    CollectingObserver observer;
    uint64_t before = queriesSoFar();
    enumerator->enumerateChangesForObserver(observer, anchor);
    if (hostAnswered(before)) printItems(observer.items);
  };
  while (!stop) {
    MutexLock lock(inbox.mutex);
    if (inbox.events.empty()) {
      inbox.wake.wait_for(lock, std::chrono::milliseconds(200));
      continue;
    }
    HostEvent event = std::move(inbox.events.front());
    inbox.events.pop_front();
    lock.unlock();
    out_ << "event " << printable(std::string(orNull(event.object))) << '\n';
    if (event.signalled) report(*event.signalled);
    out_.flush();
  }
  client_.setEventTap(nullptr);
  return 0;
}

}  // namespace hvfp::cli

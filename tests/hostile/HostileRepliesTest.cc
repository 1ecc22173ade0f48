// A hostile host against every framework call: one table of host replies
// (empty, cut short, stalled, endless, nested past any parser's depth, wrong
// kinds in every field, names that climb out of folders, control and
// invalid characters, extreme numbers, a million entries) by the calls the
// framework and the console make. For every cell: the completion handler or
// observer is called exactly once with what the row expects; nothing is
// written outside the provider's cache folders, and nothing but verified
// copies stays in the domain's temporary directory; console output carries
// no control characters; a reply over its limit is abandoned, not read to
// its end. The calls of a row run at once, on threads of their own, as the
// framework makes them.
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "cli/Console.h"
#include "extension/FileProviderEnumerator.h"
#include "extension/FileProviderExtension.h"
#include "hostile/HostileHost.h"
#include "hostile/Sandbox.h"
#include "hostlink/HalvoProviderClient.h"
#include "platform/Log.h"
#include "platform/dispatch/MainQueue.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "platform/http/SharedSession.h"
#include "records/Json.h"

namespace hvfp::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Hang guard only: every call normally ends in well under a second.
constexpr auto kPatience = 120s;

enum class Call {
  Lookup,
  ListFolder,
  ListMounts,
  ListTrash,
  FolderChanges,
  WorkingSetChanges,
  Fetch,
  CreateFile,
  CreateFolder,
  Rename,
  Move,
  Trash,
  Restore,
  Touch,
  Delete,
  ConsoleLs,
  ConsoleStat,
  ConsoleGet,
  ConsolePut,
  ConsoleMkdir,
  ConsoleRename,
  ConsoleMove,
  ConsoleTrash,
  ConsoleRestore,
  ConsoleTouch,
  ConsoleForget,
  ConsoleUpdate,
};

const char* nameOf(Call call) {
  static constexpr const char* kNames[] = {"lookup",        "list folder",    "list mounts",
                                           "list trash",    "folder changes", "working-set changes",
                                           "fetch",         "create file",    "create folder",
                                           "rename",        "move",           "trash",
                                           "restore",       "touch",          "delete",
                                           "console ls",    "console stat",   "console get",
                                           "console put",   "console mkdir",  "console rename",
                                           "console move",  "console trash",  "console restore",
                                           "console touch", "console forget", "console update"};
  return kNames[static_cast<size_t>(call)];
}

bool enumerates(Call call) {
  return call == Call::ListFolder || call == Call::ListMounts || call == Call::ListTrash ||
         call == Call::FolderChanges || call == Call::WorkingSetChanges;
}

// What each call's handler received, as one line per call.
using Outcomes = std::map<Call, std::string>;

std::string show(const Outcomes& outcomes) {
  std::string out;
  for (const auto& [call, text] : outcomes) out += std::string(nameOf(call)) + ": " + text + "\n";
  return out;
}

Outcomes with(Outcomes base, const Outcomes& changes) {
  for (const auto& [call, text] : changes) base[call] = text;
  return base;
}

Outcomes without(Outcomes base, const std::set<Call>& calls) {
  for (Call call : calls) base.erase(call);
  return base;
}

// The same items from every listing and every change enumeration.
Outcomes listings(const std::string& items) {
  return {{Call::ListFolder, items},
          {Call::ListMounts, items},
          {Call::ListTrash, items},
          {Call::FolderChanges, items + ", anchor 7"},
          {Call::WorkingSetChanges, items + ", anchor 7"}};
}

// What a well-formed host lists.
const std::string kTwoItems = "2 items: 5/h1 'a.txt', 5/h2 'b.txt'";

// The host delivered a reply, but nothing in it is usable.
const Outcomes kUnusable =
    with(listings("0 items"),
         {
             {Call::Lookup, "error 4610"},
             {Call::Fetch, "error 4610"},
             {Call::CreateFile, "error 5120 (error 0) pending 2"},
             {Call::CreateFolder, "error 5120 (error 0) pending 2"},
             {Call::Rename, "error 513"},
             {Call::Move, "error 513"},
             {Call::Trash, "error 513"},
             {Call::Restore, "error 3328"},
             {Call::Touch, "error 3328"},
             {Call::Delete, "done"},
             {Call::ConsoleLs, "exit 0, 1 lines"},
             {Call::ConsoleStat, "exit 1, no item"},
             // The console's change commands look the item (or the parent) up first.
             {Call::ConsoleGet, "exit 1, error 4610"},
             {Call::ConsolePut, "exit 1, error 4610"},
             {Call::ConsoleMkdir, "exit 1, error 4610"},
             {Call::ConsoleRename, "exit 1, error 4610"},
             {Call::ConsoleMove, "exit 1, error 4610"},
             {Call::ConsoleTrash, "exit 1, error 4610"},
             {Call::ConsoleRestore, "exit 1, error 4610"},
             {Call::ConsoleTouch, "exit 1, error 4610"},
             {Call::ConsoleForget, "exit 1, error 4610"},
             {Call::ConsoleUpdate, "exit 1, error 4610"},
         });

// No reply came at all (or one over its limit): the same for the framework,
// but the console says the host did not answer.
const Outcomes kNoAnswer = [] {
  Outcomes out = kUnusable;
  for (int c = static_cast<int>(Call::ConsoleLs); c <= static_cast<int>(Call::ConsoleUpdate); ++c)
    out[static_cast<Call>(c)] = "exit 1, no answer";
  return out;
}();

// Which replies the provider must leave unread past their limit.
enum class Abandons { Nothing, EveryHostReply, TheContents };

struct Row {
  Row(std::string name, HostileHost::Answer host, Outcomes expected,
      std::optional<ScriptedReply> contents = std::nullopt, Abandons abandons = Abandons::Nothing)
      : name(std::move(name)),
        host(std::move(host)),
        expected(std::move(expected)),
        contents(std::move(contents)),
        abandons(abandons) {}

  std::string name;
  HostileHost::Answer host;
  Outcomes expected;                      // calls left out are not made
  std::optional<ScriptedReply> contents;  // the content server's reply; default kContents
  Abandons abandons;
};

HostileHost::Answer always(ScriptedReply reply) {
  return [reply](const std::string&) { return reply; };
}
HostileHost::Answer always(std::string body) { return always(ScriptedReply(200, std::move(body))); }

// Counts the calls of one completion handler and keeps the first one's line.
class Answers {
 public:
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    if (calls_++ == 0) first_ = std::move(line);
    cv_.notify_all();
  }
  std::string waitFirst() {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, kPatience, [&] { return calls_ > 0; })) return "(no answer)";
    return first_;
  }
  int calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  int calls_ = 0;
  std::string first_;
};

// Texts over 40 bytes show their start and length.
std::string shortened(std::string text) {
  if (text.size() <= 40) return text;
  return text.substr(0, 8) + "...(" + std::to_string(text.size()) + " bytes)";
}

std::string itemLine(NSFileProviderItem& item) {
  return shortened(item.itemIdentifier()) + " '" + shortened(std::string(orNull(item.filename()))) +
         "'";
}

std::string errorLine(const Error& error) {
  std::string out = "error " + std::to_string(error.code);
  if (error.domain != NSCocoaErrorDomain) out += " in " + error.domain;
  if (auto it = error.userInfo.find("error"); it != error.userInfo.end())
    if (auto n = std::get_if<int64_t>(&it->second)) out += " (error " + std::to_string(*n) + ")";
  return out;
}

std::string itemsLine(const std::vector<NSFileProviderItemRef>& items) {
  std::string out = std::to_string(items.size()) + " items";
  if (items.empty()) return out;
  out += ": " + itemLine(*items.front());
  if (items.size() == 2) out += ", " + itemLine(*items.back());
  if (items.size() > 2) out += " ... " + itemLine(*items.back());
  return out;
}

// Every call an enumerator makes on it, in order, and the items reported.
class Observer : public NSFileProviderEnumerationObserver, public NSFileProviderChangeObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemRef> batch) override {
    take("items", std::move(batch));
  }
  void finishEnumeratingUpToPage(std::optional<std::string> page) override {
    take(page ? "finish " + *page : "finish");
  }
  void didUpdateItems(std::vector<NSFileProviderItemRef> batch) override {
    take("update", std::move(batch));
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override { take("delete"); }
  void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool more) override {
    take("finish " + anchor + (more ? " more" : ""));
  }
  void finishEnumeratingWithError(const Error& error) override { take(errorLine(error)); }

  std::vector<std::string> sequence;
  std::vector<NSFileProviderItemRef> items;

 private:
  void take(std::string what, std::vector<NSFileProviderItemRef> batch = {}) {
    sequence.push_back(std::move(what));
    items.insert(items.end(), std::make_move_iterator(batch.begin()),
                 std::make_move_iterator(batch.end()));
  }
};

size_t lineCount(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class HostileHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(sandbox.ok());
    setLogSink(LogSink::Silent);
    sandbox.write("files/new.txt", "new contents");
    extension =
        std::make_unique<FileProviderExtension>(client, NSFileProviderDomain{"hostile", "H"});
    client.setNPort(host.server.port());
  }
  void TearDown() override {
    extension.reset();
    setLogSink(LogSink::Stderr);
  }

  // One call, made as the framework makes it; the line its handler got.
  std::string run(Call call, Answers& answers, std::string& consoleOutput) {
    auto handleItem = [&answers](NSFileProviderItemRef item, std::optional<Error> error) {
      answers.add(item ? "item " + itemLine(*item) : error ? errorLine(*error) : "nothing");
    };
    auto handleChange = [&answers](NSFileProviderItemRef item, uint64_t pending, bool fetch,
                                   std::optional<Error> error) {
      std::string line = item ? "item " + itemLine(*item) : error ? errorLine(*error) : "nothing";
      if (pending) line += " pending " + std::to_string(pending);
      if (fetch) line += " fetch";
      answers.add(line);
    };
    auto change = [&](const std::string& parent, uint64_t fields,
                      std::optional<NSFileProviderItemVersion> base = std::nullopt) {
      NSFileProviderItemTemplate item;
      item.identifier = "5/h1";
      item.parentIdentifier = parent;
      item.name = fields & NSFileProviderItemFields::Filename ? "b.txt" : "a.txt";
      extension->modifyItem(item, base, fields, std::nullopt, 0, {}, handleChange);
      return answers.waitFirst();
    };
    namespace F = NSFileProviderItemFields;
    switch (call) {
      case Call::Lookup:
        extension->itemForIdentifier("5/h1", {}, handleItem);
        return answers.waitFirst();
      case Call::ListFolder:
        return list("5/d", answers);
      case Call::ListMounts:
        return list(std::string(NSFileProviderRootContainerItemIdentifier), answers);
      case Call::ListTrash:
        return list(std::string(NSFileProviderTrashContainerItemIdentifier), answers);
      case Call::FolderChanges:
        return changes("5/d", answers);
      case Call::WorkingSetChanges:
        return changes(std::string(NSFileProviderWorkingSetContainerItemIdentifier), answers);
      case Call::Fetch:
        extension->fetchContentsForItemWithIdentifier(
            "5/h1", std::nullopt, {},
            [&answers](std::optional<std::string> path, NSFileProviderItemRef item,
                       std::optional<Error> error) {
              if (!path) return answers.add(error ? errorLine(*error) : "nothing");
              std::ifstream in(*path, std::ios::binary);
              std::string bytes(std::istreambuf_iterator<char>(in), {});
              answers.add("file " + fs::path(*path).filename().string() +
                          (bytes == kContents ? " with the contents" : " with other bytes") +
                          (item ? " of " + itemLine(*item) : ""));
            });
        return answers.waitFirst();
      case Call::CreateFile: {
        NSFileProviderItemTemplate t;
        t.identifier = "__fp/fs/new.txt";
        t.parentIdentifier = "5/d";
        t.name = "new.txt";
        t.size = 12;
        extension->createItemBasedOnTemplate(t, F::Contents | F::Filename,
                                             sandbox.path("files/new.txt").string(), 0, {},
                                             handleChange);
        return answers.waitFirst();
      }
      case Call::CreateFolder: {
        NSFileProviderItemTemplate t;
        t.identifier = "__fp/fs/New";
        t.parentIdentifier = "5";
        t.name = "New";
        t.type = ContentType::folder();
        extension->createItemBasedOnTemplate(t, F::Filename, std::nullopt, 0, {}, handleChange);
        return answers.waitFirst();
      }
      case Call::Rename:
        return change("5/d", F::Filename);
      case Call::Move:
        return change("5/e", F::ParentItemIdentifier);
      case Call::Trash:
        return change(std::string(NSFileProviderTrashContainerItemIdentifier),
                      F::ParentItemIdentifier);
      case Call::Restore:
        return change("5/d", F::ParentItemIdentifier,
                      NSFileProviderItemVersion{"{}", R"({"delete":1,"status":6})"});
      case Call::Touch:
        return change("5/d", F::LastUsedDate);
      case Call::Delete:
        extension->deleteItemWithIdentifier("5/h1", std::nullopt, 0, {},
                                            [&answers](std::optional<Error> error) {
                                              answers.add(error ? errorLine(*error) : "done");
                                            });
        return answers.waitFirst();
      case Call::ConsoleLs:
        return console([](cli::Console& c) { return c.ls("5/d"); }, answers, consoleOutput);
      case Call::ConsoleStat:
        return console([](cli::Console& c) { return c.stat("5/h1"); }, answers, consoleOutput);
      case Call::ConsoleGet:
        return console([](cli::Console& c) { return c.get("5/h1", std::nullopt); }, answers,
                       consoleOutput);
      case Call::ConsolePut:
        return console(
            [this](cli::Console& c) {
              return c.put(sandbox.path("files/new.txt").string(), "5/d", std::nullopt);
            },
            answers, consoleOutput);
      case Call::ConsoleMkdir:
        return console([](cli::Console& c) { return c.mkdir("5/d", "New"); }, answers,
                       consoleOutput);
      case Call::ConsoleRename:
        return console([](cli::Console& c) { return c.rename("5/h1", "b.txt"); }, answers,
                       consoleOutput);
      case Call::ConsoleMove:
        return console([](cli::Console& c) { return c.move("5/h1", "5/e"); }, answers,
                       consoleOutput);
      case Call::ConsoleTrash:
        return console([](cli::Console& c) { return c.trash("5/h1"); }, answers, consoleOutput);
      case Call::ConsoleRestore:
        return console([](cli::Console& c) { return c.restore("5/h1", std::nullopt); }, answers,
                       consoleOutput);
      case Call::ConsoleTouch:
        return console([](cli::Console& c) { return c.touch("5/h1"); }, answers, consoleOutput);
      case Call::ConsoleForget:
        return console([](cli::Console& c) { return c.forget("5/h1"); }, answers, consoleOutput);
      case Call::ConsoleUpdate:
        return console(
            [this](cli::Console& c) {
              return c.update("5/h1", sandbox.path("files/new.txt").string());
            },
            answers, consoleOutput);
    }
    return "(unknown call)";
  }

  std::string list(const std::string& container, Answers& answers) {
    Observer observer;
    extension->enumeratorForContainerItemIdentifier(container, {}, nullptr)
        ->enumerateItemsForObserver(observer, "");
    for (const auto& step : observer.sequence) answers.add(step);
    if (observer.sequence != std::vector<std::string>{"items", "finish"})
      return "calls out of order";
    return itemsLine(observer.items);
  }

  std::string changes(const std::string& container, Answers& answers) {
    Observer observer;
    extension->enumeratorForContainerItemIdentifier(container, {}, nullptr)
        ->enumerateChangesForObserver(observer, "7");
    for (const auto& step : observer.sequence) answers.add(step);
    if (observer.sequence.size() != 2 || observer.sequence[0] != "update")
      return "calls out of order";
    return itemsLine(observer.items) + ", anchor " + observer.sequence[1].substr(7);
  }

  // The console on a client of its own, as the halvofp command runs it.
  std::string console(const std::function<int(cli::Console&)>& command, Answers& answers,
                      std::string& output) {
    HalvoProviderClient own;
    std::ostringstream out, err;
    int status;
    {
      cli::Console c(own, cli::ConsoleOptions{.port = host.server.port()}, out, err);
      status = command(c);
    }
    output = out.str() + err.str();
    answers.add("exit");
    // What the console told: no answer, the error the framework got, or
    // how many lines of results.
    const std::string said = err.str(), line = "exit " + std::to_string(status);
    if (said.find("no answer from the host") != std::string::npos) return line + ", no answer";
    if (said.find("knows no item") != std::string::npos) return line + ", no item";
    if (said.find("is no file name here") != std::string::npos) return line + ", no file name";
    if (said.find("is not a folder") != std::string::npos) return line + ", not a folder";
    if (said.find("not in the trash") != std::string::npos) return line + ", not in the trash";
    if (auto at = said.find("(NSCocoaErrorDomain "); at != std::string::npos)
      return line + ", error " + said.substr(at + 20, said.find(')', at) - at - 20);
    return line + ", " + std::to_string(lineCount(out.str())) + " lines";
  }

  void settle() {
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
    client.mUploadQueue()->waitUntilAllOperationsAreFinished();
    MainQueue::shared().drain();
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
  }

  // Files in the provider's temporary directories, by name.
  std::vector<std::string> temporaryFiles() const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const char* domain : {"hostile", "halvo"})
      for (const auto& e :
           fs::directory_iterator(sandbox.path("cache/halvofp") / domain / "tmp", ec))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  // Transfers leave their files on the engine's thread, just after they report.
  bool waitForNoTransferFiles() const {
    for (auto until = std::chrono::steady_clock::now() + kPatience;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(5ms)) {
      auto names = temporaryFiles();
      if (std::none_of(names.begin(), names.end(),
                       [](const std::string& n) { return n.rfind("transfer-", 0) == 0; }))
        return true;
    }
    return false;
  }
  void clearTemporaryFiles() {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(sandbox.path("cwd"), ec))
      fs::remove_all(e.path(), ec);
    for (const char* domain : {"hostile", "halvo"})
      for (const auto& e :
           fs::directory_iterator(sandbox.path("cache/halvofp") / domain / "tmp", ec))
        fs::remove_all(e.path(), ec);
  }

  void runRow(const Row& row) {
    SCOPED_TRACE(row.name);
    host.set(row.host, row.contents);
    const auto before = sandbox.snapshot();
    const size_t requestsBefore = host.server.requestCount();
    const size_t abandonedBefore = host.server.unfinishedReplies();

    std::vector<Call> calls;
    for (const auto& [call, expected] : row.expected) calls.push_back(call);
    std::vector<Answers> answers(calls.size());
    std::vector<std::string> lines(calls.size()), consoleOutput(calls.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < calls.size(); ++i)
      threads.emplace_back([&, i] { lines[i] = run(calls[i], answers[i], consoleOutput[i]); });
    for (auto& t : threads) t.join();
    settle();

    Outcomes got;
    for (size_t i = 0; i < calls.size(); ++i) {
      got[calls[i]] = lines[i];
      // An enumeration answers with one batch and one finish.
      EXPECT_EQ(answers[i].calls(), enumerates(calls[i]) ? 2 : 1)
          << nameOf(calls[i]) << " answered";
      EXPECT_FALSE(hasTerminalControls(consoleOutput[i]))
          << nameOf(calls[i]) << ": " << consoleOutput[i];
    }
    EXPECT_EQ(show(got), show(row.expected));

    ASSERT_TRUE(waitForNoTransferFiles()) << "a download file outlived its transfer";
    for (const auto& name : temporaryFiles())
      EXPECT_EQ(name, kContentsHash) << "only verified copies stay in the temporary directory";
    // The provider's folders, and the console's working folder, where "get"
    // puts what it fetched under the item's name.
    EXPECT_EQ(Sandbox::changesOutside(before, sandbox.snapshot(), {"cache/halvofp/", "cwd/"}),
              std::vector<std::string>{})
        << "written outside the provider's folders";
    for (const auto& e : fs::directory_iterator(sandbox.path("cwd")))
      EXPECT_EQ(e.path().filename(), "a.txt") << "get writes the item's name, nothing else";
    if (row.abandons != Abandons::Nothing) {
      const size_t requests = host.server.requestCount() - requestsBefore;
      const size_t endless = row.abandons == Abandons::EveryHostReply ? requests : 1;
      EXPECT_GT(requests, 0u);
      EXPECT_TRUE(host.server.waitForUnfinishedReplies(abandonedBefore + endless, kPatience))
          << "replies over their limit are abandoned: "
          << host.server.unfinishedReplies() - abandonedBefore << " of " << endless;
      EXPECT_EQ(host.server.unfinishedReplies() - abandonedBefore, endless);
    }
    clearTemporaryFiles();
  }

  Sandbox sandbox;  // first: the environment the client starts in
  HostileHost host;
  HalvoProviderClient client;
  std::unique_ptr<FileProviderExtension> extension;
};

// Every key a reply record reads, to fill with the wrong kind of value.
const std::vector<std::string> kAllKeys = {
    "error_msg",      "error_code", "status_code", "root",          "filename",      "mount_id",
    "webpath",        "dir",        "filehash",    "filesize",      "uuidhash",      "up_hash",
    "lasttime",       "lastid",     "lastname",    "creatortime",   "lock",          "lockid",
    "status",         "property",   "childcount",  "hash",          "fullpath",      "dateline",
    "lock_member_id", "uris",       "state",       "storage_point", "last_dateline", "uploads",
    "cache_uploads",  "piecelen",   "session",     "offset",        "uphash",        "list"};

std::string everyKey(const std::function<std::string(const std::string& key)>& value,
                     const std::string& first = "") {
  std::string out = first;
  for (const auto& key : kAllKeys) {
    if (first.find("\"" + key + "\"") != std::string::npos) continue;
    out += (out.empty() ? "" : ",") + ("\"" + key + "\":" + value(key));
  }
  return "{" + out + "}";
}

std::string nested(size_t depth, const std::string& inside = "1") {
  return std::string(depth, '[') + inside + std::string(depth, ']');
}

// What a host that answers every query with the record of 5/h1 gets: the
// lookups and the mutations that only need "status_code" 200 go through;
// listings, downloads, creations and moves find nothing they can use.
const Outcomes kRecordForEverything =
    with(listings("0 items"), {
                                  {Call::Lookup, "item 5/h1 'a.txt'"},
                                  {Call::Fetch, "error 5120"},
                                  {Call::CreateFile, "error 5120 (error 0) pending 2"},
                                  {Call::CreateFolder, "error 5120 (error 0) pending 2"},
                                  {Call::Rename, "item 5/h1 'a.txt'"},
                                  {Call::Move, "error 3328"},
                                  {Call::Trash, "item 5/h1 'a.txt'"},
                                  {Call::Restore, "item 5/h1 'a.txt'"},
                                  {Call::Touch, "item 5/h1 'a.txt'"},
                                  {Call::Delete, "done"},
                                  {Call::ConsoleLs, "exit 0, 1 lines"},
                                  {Call::ConsoleStat, "exit 0, 12 lines"},
                                  // The console refuses to create in a file and to restore what is
                                  // not in the trash.
                                  {Call::ConsoleGet, "exit 1, error 5120"},
                                  {Call::ConsolePut, "exit 1, not a folder"},
                                  {Call::ConsoleMkdir, "exit 1, not a folder"},
                                  {Call::ConsoleRename, "exit 0, 12 lines"},
                                  {Call::ConsoleMove, "exit 1, error 3328"},
                                  {Call::ConsoleTrash, "exit 0, 12 lines"},
                                  {Call::ConsoleRestore, "exit 1, not in the trash"},
                                  {Call::ConsoleTouch, "exit 0, 12 lines"},
                                  {Call::ConsoleForget, "exit 0, 1 lines"},
                                  {Call::ConsoleUpdate, "exit 1, error 5120"},
                              });

// What a host gets whose every reply is one record of item 5/h1 with `name`
// that also stands as the only entry of every listing, under `identifier`,
// and whose hash is unusable for a download or creation; `get` is what the
// console's get says of that name.
Outcomes acceptedWithName(const std::string& name, const std::string& identifier,
                          const std::string& get = "exit 2, no file name") {
  const std::string item = "item 5/h1 '" + name + "'";
  const std::string listed = "1 items: " + identifier + " '" + name + "'";
  return with(listings(listed), {
                                    {Call::Lookup, item},
                                    {Call::Fetch, "error 5120"},
                                    {Call::CreateFile, "error 5120 (error 0) pending 2"},
                                    {Call::CreateFolder, "error 5120 (error 0) pending 2"},
                                    {Call::Rename, item},
                                    {Call::Move, "item " + identifier + " '" + name + "'"},
                                    {Call::Trash, item},
                                    // A restore hands back the item the host's record names.
                                    {Call::Restore, "item " + identifier + " '" + name + "'"},
                                    {Call::Touch, item},
                                    {Call::Delete, "done"},
                                    {Call::ConsoleLs, "exit 0, 2 lines"},
                                    {Call::ConsoleStat, "exit 0, 12 lines"},
                                    {Call::ConsoleGet, get},
                                    {Call::ConsolePut, "exit 1, not a folder"},
                                    {Call::ConsoleMkdir, "exit 1, not a folder"},
                                    {Call::ConsoleRename, "exit 0, 12 lines"},
                                    {Call::ConsoleMove, "exit 0, 12 lines"},
                                    {Call::ConsoleTrash, "exit 0, 12 lines"},
                                    {Call::ConsoleRestore, "exit 1, not in the trash"},
                                    {Call::ConsoleTouch, "exit 0, 12 lines"},
                                    {Call::ConsoleForget, "exit 0, 1 lines"},
                                    {Call::ConsoleUpdate, "exit 1, error 5120"},
                                });
}

// Every text a reply record reads set to `text`, status 200, the contents'
// size, and `extra` fields.
std::string everyText(const std::string& text, const std::string& extra = "") {
  std::string quoted;
  appendJsonString(quoted, text);
  std::string fields = R"("status_code":200,"error_code":0,"mount_id":5,"filesize":)" +
                       std::to_string(kContents.size());
  for (const char* key :
       {"error_msg", "filename", "webpath", "filehash", "uuidhash", "up_hash", "lastname",
        "property", "hash", "fullpath", "storage_point", "session", "uphash"})
    fields += std::string(",\"") + key + "\":" + quoted;
  for (const char* key : {"uris", "uploads", "cache_uploads"})
    fields += std::string(",\"") + key + "\":[" + quoted + "]";
  return anyReply(fields + extra);
}

TEST_F(HostileHostTest, EveryCallAnswersOnceAndNothingLeavesTheCache) {
  const std::string contentUrl = host.contentUrl();
  const HostileHost::Answer wellFormedHost = [contentUrl](const std::string& query) {
    return wellFormed(query, contentUrl);
  };
  const std::string record = fileRecord();
  const std::string climbing = "../../victim/x";
  const std::string controls = std::string("a\0b\x1b[2J\xc2\x9b", 9) + "1m\r\n\x7f";
  const std::string huge(100 << 10, 'n');
  const std::string victim = sandbox.path("victim/x").string();

  std::vector<Row> rows = {
      {"a well-formed host, for reference", wellFormedHost,
       with(listings(kTwoItems),
            {
                {Call::Lookup, "item 5/h1 'a.txt'"},
                {Call::Fetch, "file " + kContentsHash + " with the contents of 5/h1 'a.txt'"},
                {Call::CreateFile, "item 5/h2 'new.txt' pending 2"},
                {Call::CreateFolder, "item 5/h2 'new.txt' pending 2"},
                {Call::Rename, "item 5/h1 'a.txt'"},
                {Call::Move, "item 5/h3 'a.txt'"},
                {Call::Trash, "item 5/h1 'a.txt'"},
                {Call::Restore, "item 5/h1 'a.txt'"},
                {Call::Touch, "item 5/h1 'a.txt'"},
                {Call::Delete, "done"},
                {Call::ConsoleLs, "exit 0, 3 lines"},
                {Call::ConsoleStat, "exit 0, 12 lines"},
                {Call::ConsoleGet, "exit 0, 12 lines"},
                {Call::ConsolePut, "exit 0, 12 lines"},
                {Call::ConsoleMkdir, "exit 0, 12 lines"},
                {Call::ConsoleRename, "exit 0, 12 lines"},
                {Call::ConsoleMove, "exit 0, 12 lines"},
                {Call::ConsoleTrash, "exit 0, 12 lines"},
                {Call::ConsoleRestore, "exit 1, not in the trash"},
                {Call::ConsoleTouch, "exit 0, 12 lines"},
                {Call::ConsoleForget, "exit 0, 1 lines"},
                {Call::ConsoleUpdate, "exit 0, 12 lines"},
            })},
      {"an empty body", always(""), kUnusable},
      {"a body that is not JSON", always("<html><body>busy</body></html>"), kUnusable},
      {"JSON that is not an object", always(R"(["status_code",200])"), kUnusable},
      {"a bare JSON text", always(R"("status_code")"), kUnusable},
      {"a record for every query", always(record), kRecordForEverything},
      {"a record under an error status", always(ScriptedReply(500, record)), kRecordForEverything},
      {"a body cut short", always(ScriptedReply::truncated(200, record, 20)), kNoAnswer},
      {"a connection closed without a reply", always(ScriptedReply::dropped()), kNoAnswer},
      {"bytes that are not UTF-8",
       always(anyReply("\"status_code\":200,\"filename\":\"\xff\xfe\"")), kNoAnswer},
      {"an overlong slash", always(anyReply("\"status_code\":200,\"filename\":\"..\xc0\xafx\"")),
       kNoAnswer},
      {"a lone surrogate escape", always(anyReply(R"("status_code":200,"filename":"\ud800")")),
       kUnusable},
      {"nesting past any parser's depth", always(R"({"list":)" + nested(100000) + "}"), kUnusable},
      {"every field but the status nested 300 deep",
       always(everyKey([](const std::string&) { return nested(300); }, R"("status_code":200)")),
       kUnusable},
      {"every field but the status nested 200 deep",
       always(everyKey([](const std::string&) { return nested(200); }, R"("status_code":200)")),
       with(with(kRecordForEverything, listings("1 items: 0 '(null)'")),
            {{Call::Lookup, "item 5/h1 '(null)'"},
             {Call::Rename, "item 5/h1 '(null)'"},
             {Call::Trash, "item 5/h1 '(null)'"},
             {Call::Restore, "item 0 '(null)'"},
             {Call::Touch, "item 5/h1 '(null)'"},
             {Call::ConsoleLs, "exit 0, 2 lines"},
             {Call::ConsoleGet, "exit 2, no file name"}})},
      {"names that climb out of their folder", always(everyText(climbing)),
       acceptedWithName(climbing, "5/" + climbing)},
      {"absolute names and a local path outside the cache",
       [&](const std::string& query) {
         // The host's own copy of the contents: handed over, never written.
         const std::string local = R"(,"filehash":"abc","fullpath":")" + victim + "\"";
         return ScriptedReply(200,
                              everyText("/etc/passwd", typeOf(query) == "download" ? local : ""));
       },
       with(acceptedWithName("/etc/passwd", "5//etc/passwd"),
            {{Call::Fetch, "file x with other bytes of 5/h1 '/etc/passwd'"}})},
      {"NUL, control and C1 characters in every text", always(everyText(controls)),
       acceptedWithName(controls, "5/" + controls)},
      {"texts of 100 KiB", always(everyText(huge)),
       acceptedWithName(shortened(huge), shortened("5/" + huge), "exit 1, error 5120")},
  };
  // Wrong kinds: every key the records read holds the same kind of value;
  // the host's error code, as far as it reads as one, reaches the creations.
  const std::pair<const char*, const char*> kinds[] = {
      {"{}", "0"},
      {"[]", "0"},
      {"null", "0"},
      {"true", "1"},
      {"\"x\"", "0"},
      {"1", "1"},
      {"-1", "-1"},
      {"18446744073709551615", "-1"},
      {"-9223372036854775808", "0"},
      {"1e308", "-1"},
      {"0.5", "0"},
  };
  for (const auto& [kind, code] : kinds) {
    const std::string error = std::string("error 5120 (error ") + code + ") pending 2";
    rows.push_back({std::string("every field ") + kind,
                    always(everyKey([kind](const std::string&) { return kind; })),
                    with(kUnusable, {{Call::CreateFile, error}, {Call::CreateFolder, error}})});
  }
  // A list of one entry that is not an object: a record at its defaults.
  rows.push_back({"a listing entry that is not an object",
                  always(R"({"list":[[[[{"a":[1]}]]]],"lasttime":"x"})"),
                  with(with(kUnusable, listings("1 items: 0 '(null)'")),
                       {{Call::ConsoleLs, "exit 0, 2 lines"}})});

  for (const Row& row : rows) runRow(row);
}

// The limits: a reply over its limit is abandoned and counts as no answer, a
// stalled one is given up, and a listing of a million entries is listed.
TEST_F(HostileHostTest, RepliesOverTheirLimitsStallsAndAMillionEntries) {
  const std::string contentUrl = host.contentUrl();
  const HostileHost::Answer wellFormedHost = [contentUrl](const std::string& query) {
    return wellFormed(query, contentUrl);
  };
  // A record or listing with more than a record's room: 4 MiB of blanks.
  const HostileHost::Answer padded = [contentUrl](const std::string& query) {
    ScriptedReply reply = wellFormed(query, contentUrl);
    reply.body += std::string(HalvoProviderClient::kMaxRecordReply, ' ');
    return reply;
  };
  const std::string record = fileRecord();
  // Calls that make one host query: a stall costs each the stall limit once.
  const Outcomes oneQueryEach = without(kNoAnswer, {Call::CreateFile, Call::Move, Call::Trash});

  // A stall is given up after the stall limit, shortened here to keep the
  // test short; every other row keeps the full limit, as a loaded machine
  // may be slow to send.
  {
    struct ShortStalls {
      ShortStalls() { SharedSession::setStallLimit(4s); }
      ~ShortStalls() { SharedSession::setStallLimit(60s); }
    } shortStalls;
    runRow({"a body that stalls after its first byte",
            always(ScriptedReply::dribbled(200, record, 1, 1h)), oneQueryEach});
  }

  const std::vector<Row> rows = {
      {"replies larger than a record may be", padded,
       with(with(kNoAnswer, listings(kTwoItems)), {{Call::ConsoleLs, "exit 0, 3 lines"}}),
       std::nullopt, Abandons::Nothing},
      {"an endless listing", always(endlessListing()),
       without(kNoAnswer, {Call::ListMounts, Call::ListTrash, Call::FolderChanges,
                           Call::WorkingSetChanges, Call::ConsoleLs}),
       std::nullopt, Abandons::EveryHostReply},
      {"endless contents",
       wellFormedHost,
       {{Call::Fetch, "error 5120"}},
       ScriptedReply::generated(uint64_t{1} << 40),
       Abandons::TheContents},
      {"a million entries",
       always(numberedListing(1000000)),
       {{Call::Lookup, "error 4610"},
        {Call::ListFolder, "1000000 items: 5/h0000000 '(null)' ... 5/h0999999 '(null)'"}}},
  };
  for (const Row& row : rows) runRow(row);
}

}  // namespace
}  // namespace hvfp::test

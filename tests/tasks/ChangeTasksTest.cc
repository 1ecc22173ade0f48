// The rename, move, trash and restore tasks: every report each can make, the
// cancel report and the one-report rule, also under load.
#include <condition_variable>
#include <map>
#include <random>
#include <thread>

#include "TaskFixture.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "tasks/ChangeTasks.h"

namespace hvfp::test {
namespace {

enum class Kind { Rename, Move, Delete, Recover };

// Made in the extension's calling order: task, progress, handler.
std::shared_ptr<HVTask> makeTask(Kind kind, HalvoProviderClient& client, const std::string& id,
                                 const std::string& parent, uint64_t fields,
                                 const std::shared_ptr<Progress>& progress,
                                 NSFileProviderItemChangeHandler handler) {
  switch (kind) {
    case Kind::Rename: {
      auto t = std::make_shared<RenameTask>(client, id, parent, "b.txt", fields);
      t->setMProgress(progress);
      t->setRemameHandler(std::move(handler));
      return t;
    }
    case Kind::Move: {
      auto t = std::make_shared<RemoveTask>(client, id, parent, fields);
      t->setMProgress(progress);
      t->setRemoveHandler(std::move(handler));
      return t;
    }
    case Kind::Delete: {
      auto t = std::make_shared<DeleteTask>(client, id, parent, fields);
      t->setMProgress(progress);
      t->setDeleteHandler(std::move(handler));
      return t;
    }
    case Kind::Recover: {
      auto t = std::make_shared<RecoverTask>(client, id, parent, "a.txt", "abc", 7, fields);
      t->setMProgress(progress);
      t->setRecoverHandler(std::move(handler));
      return t;
    }
  }
  return nullptr;
}

using ChangeTasks = TaskTest;

TEST_F(ChangeTasks, EachOutcomeReachesTheHandlerOnce) {
  const std::string ok = R"({"status_code":200})", garbage = "<html>";
  const std::string unknown = R"({"status_code":404})";
  const std::string rename = "type=rename&uuidhash=h1&filename=b%2Etxt&mount_id=5";
  const std::string info5 = "type=fileinfo&uuidhash=h1&mount_id=5";
  const std::string info12 = "type=fileinfo&uuidhash=aaa&mount_id=12";
  const std::string move =
      "type=remove&uuidhash=aaa&mount_id=12&parent_uuidhash=bbb&"
      "parent_mount_id=12";
  const std::string moveToRoot =
      "type=remove&uuidhash=aaa&mount_id=12&parent_uuidhash=&"
      "parent_mount_id=7";
  const std::string movedCcc = R"({"status_code":200,"hash":"ccc"})";
  const std::string trash = "type=deletefile&uuidhash=h1&mount_id=5";
  const std::string infoAbc = "type=fileinfo&uuidhash=abc&mount_id=12";
  const std::string restore = "type=recoverfile&uuidhash=abc&mount_id=12";
  auto meta = [](const std::string& hash, int del, int status) {
    return R"({"delete":)" + std::to_string(del) + R"(,"hash":")" + hash + R"(","status":)" +
           std::to_string(status) + "}";
  };

  const std::string item12 = record(12, "aaa"), abc = record(12, "abc", 7), h1 = record(5, "h1");
  const std::string failed = "null pending 8 error 513", gone = "null pending 8 error 3328";
  // Every task here is given changed fields 8 besides its own bit.
  const uint64_t own[] = {2, 4, 4, 4};
  auto check = [&](const char* what, Kind kind, const std::string& id, const std::string& parent,
                   const Lines& replies, const Lines& queries, const std::string& answer,
                   const Lines& log = {}) {
    SCOPED_TRACE(what);
    for (const auto& reply : replies) server.enqueue({200, reply});
    ChangeRecorder recorder;
    makeTask(kind, client, id, parent, own[static_cast<int>(kind)] | 8, Progress::make(),
             recorder.handler())
        ->main();
    EXPECT_EQ(recorder.calls(), 1);
    EXPECT_EQ(recorder.first(), answer);
    EXPECT_EQ(newQueries(), queries);
    EXPECT_EQ(takeCapturedLog(), log);
  };
  check("rename done: the name the host now holds, nothing pending", Kind::Rename, "5/h1", "5/p1",
        {ok, record(5, "h1", 0, "b.txt")}, {rename, info5},
        "5/h1 'b.txt' in 5/p1 " + meta("h1", 0, 0) + " pending 0");
  check("rename done, item gone", Kind::Rename, "5/h1", "5/p1", {ok, unknown}, {rename, info5},
        gone);
  check("rename refused", Kind::Rename, "5/h1", "5/p1", {R"({"status_code":403,"error_code":6})"},
        {rename}, failed);
  check("rename answered with no JSON", Kind::Rename, "5/h1", "5/p1", {garbage}, {rename}, failed);
  check("rename of a provisional item", Kind::Rename, "__fp/x", "5/p1", {}, {}, failed);
  check("move: the host's new hash under the destination mount", Kind::Move, "12/aaa", "12/bbb",
        {item12, movedCcc}, {info12, move},
        "12/ccc 'a.txt' in 12/bbb " + meta("aaa", 0, 0) + " pending 8",
        {recordLine("12/ccc", "12/bbb")});
  check("move to a mount root", Kind::Move, "12/aaa", "7", {item12, movedCcc}, {info12, moveToRoot},
        "7/ccc 'a.txt' in 7 " + meta("aaa", 0, 0) + " pending 8", {recordLine("7/ccc", "7")});
  check("move done, but the item was unknown before", Kind::Move, "12/aaa", "12/bbb",
        {unknown, movedCcc}, {info12, move}, gone);
  check("move done without a new hash", Kind::Move, "12/aaa", "12/bbb", {item12, ok},
        {info12, move}, gone);
  check("move refused", Kind::Move, "12/aaa", "12/bbb",
        {item12, R"({"status_code":400,"error_code":2})"}, {info12, move}, failed);
  check("move answered with no JSON", Kind::Move, "12/aaa", "12/bbb", {item12, garbage},
        {info12, move}, failed);
  check("trash done: the item marked deleted, in the trash", Kind::Delete, "5/h1", kTrash, {h1, ok},
        {info5, trash}, "5/h1 'a.txt' in " + kTrash + " " + meta("h1", 1, 0) + " pending 8",
        {recordLine("5/h1", kTrash)});
  check("trash done, item unknown before", Kind::Delete, "5/h1", kTrash, {unknown, ok},
        {info5, trash}, "null pending 8");
  check("trash of an item already there (error 5)", Kind::Delete, "5/h1", kTrash,
        {h1, R"({"status_code":400,"error_code":5})"}, {info5, trash}, "null pending 8");
  check("trash refused (error 6)", Kind::Delete, "5/h1", kTrash,
        {h1, R"({"status_code":400,"error_code":6})"}, {info5, trash}, failed);
  check("trash answered with no JSON", Kind::Delete, "5/h1", kTrash, {h1, garbage}, {info5, trash},
        failed);
  check("trash of a mount root is never sent", Kind::Delete, "5", kTrash,
        {R"({"status_code":200,"root":1,"dir":1,"mount_id":5})"},
        {"type=fileinfo&uuidhash=&mount_id=5"}, failed);
  check("restore done: status 4, the parent given", Kind::Recover, "12/abc", "12/p", {abc, ok},
        {infoAbc, restore}, "12/abc 'a.txt' in 12/p " + meta("abc", 0, 4) + " pending 8");
  check("restore of a mount root asks nothing", Kind::Recover, "12", "12/p", {}, {}, gone);
  check("restore of a provisional item asks nothing", Kind::Recover, "__fp/fs/9", "12/p", {}, {},
        gone);
  check("restore of an item the host answers with an error code", Kind::Recover, "12/abc", "12/p",
        {R"({"status_code":200,"error_code":7,"filename":"a.txt"})"}, {infoAbc}, gone);
  check("restore of an item looked up with no JSON", Kind::Recover, "12/abc", "12/p", {garbage},
        {infoAbc}, gone);
  check("restore refused", Kind::Recover, "12/abc", "12/p", {abc, R"({"status_code":400})"},
        {infoAbc, restore}, gone);
}

// Holds every host reply until opened.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void close() {
    std::lock_guard lock(mutex_);
    open_ = false;
  }
  void pass() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
};

// A host that answers every query at once: the item for "fileinfo", success
// with a new hash for everything else.
ScriptedReply answerAll(const RecordedRequest& request) {
  if (request.query.rfind("type=fileinfo", 0) == 0) return {200, record(5, "h1")};
  return {200, R"({"status_code":200,"hash":"h9"})"};
}

TEST_F(ChangeTasks, CancelReportsOnceWithThePendingFieldsAndTheLateOutcomeIsDropped) {
  Gate gate;
  server.setHandler([&](const RecordedRequest& request) {
    gate.pass();
    return answerAll(request);
  });
  NSFileProviderItemTemplate item;
  item.identifier = "5/h1";
  item.name = "a.txt";
  const NSFileProviderItemVersion trashed{"{}", R"({"delete":1,"status":2})"};
  struct Row {
    const char* what;
    std::string parent;
    uint64_t fields;
    std::optional<NSFileProviderItemVersion> base;
    std::string answer;
    std::string lastQuery;  // the task's work still runs to its end
  };
  const std::vector<Row> rows{
      {"rename", "5/p1", 2 | 8, std::nullopt, "null pending 8 error 3072",
       "type=fileinfo&uuidhash=h1&mount_id=5"},
      {"move", "5/p2", 4 | 8, std::nullopt, "null pending 8 error 3072",
       "type=remove&uuidhash=h1&mount_id=5&parent_uuidhash=p2&parent_mount_id=5"},
      {"trash", kTrash, 4 | 8, std::nullopt, "null pending 0 error 3072",
       "type=deletefile&uuidhash=h1&mount_id=5"},
      {"restore", "5/p2", 4 | 8, trashed, "null pending 0 error 3072",
       "type=recoverfile&uuidhash=h1&mount_id=5"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    item.parentIdentifier = row.parent;
    ChangeRecorder recorder;
    gate.close();
    const size_t before = server.requestCount();
    auto progress =
        extension->modifyItem(item, row.base, row.fields, std::nullopt, 0, {}, recorder.handler());
    ASSERT_TRUE(server.waitForRequests(before + 1, std::chrono::seconds(30)));
    EXPECT_EQ(recorder.calls(), 0);  // the task waits for the host
    progress->cancel();
    EXPECT_EQ(recorder.calls(), 1);
    EXPECT_EQ(recorder.first(), row.answer);
    gate.open();
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
    progress->cancel();
    EXPECT_EQ(recorder.calls(), 1);
    EXPECT_EQ(recorder.first(), row.answer);
    EXPECT_EQ(server.queries().back(), row.lastQuery);
  }
}

TEST_F(ChangeTasks, CancelBeforeAHandlerIsSetReportsNothingAndLeavesTheOutcomeToTheTask) {
  server.setHandler(answerAll);
  for (bool cancelFirst : {false, true}) {
    SCOPED_TRACE(cancelFirst ? "progress cancelled before it was set" : "cancelled after");
    auto progress = Progress::make();
    if (cancelFirst) progress->cancel();
    auto task = std::make_shared<RenameTask>(client, "5/h1", "5/p1", "b.txt", 2);
    task->setMProgress(progress);
    progress->cancel();
    EXPECT_TRUE(task->bExit);
    ChangeRecorder recorder;
    task->setRemameHandler(recorder.handler());
    task->main();
    EXPECT_EQ(recorder.calls(), 1);
    EXPECT_EQ(recorder.first(),
              R"(5/h1 'a.txt' in 5/p1 {"delete":0,"hash":"h1","status":0} pending 0)");
  }
}

TEST_F(ChangeTasks, ATaskThatGoesUnansweredAnswersWithItsFailure) {
  const std::vector<std::pair<Kind, std::string>> rows{
      {Kind::Rename, "null pending 8 error 513"},
      {Kind::Move, "null pending 8 error 513"},
      {Kind::Delete, "null pending 8 error 513"},
      {Kind::Recover, "null pending 8 error 3328"},
  };
  const uint64_t own[] = {2, 4, 4, 4};
  for (const auto& [kind, answer] : rows) {
    ChangeRecorder recorder;
    auto task = makeTask(kind, client, "5/h1", "5/p1", own[static_cast<int>(kind)] | 8, nullptr,
                         recorder.handler());
    EXPECT_EQ(recorder.calls(), 0);
    task.reset();
    EXPECT_EQ(recorder.calls(), 1);
    EXPECT_EQ(recorder.first(), answer);
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(ChangeTasks, ThousandRenamesFromEightThreadsEachAnswerOnce) {
  setLogSink(LogSink::Silent);
  server.setHandler(answerAll);
  constexpr int kThreads = 8, kEach = 125, kTotal = kThreads * kEach;
  std::vector<ChangeRecorder> recorders(kTotal);
  std::vector<char> cancelled(kTotal, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = t * kEach; i < (t + 1) * kEach; ++i) {
        NSFileProviderItemTemplate item;
        item.identifier = "5/h" + std::to_string(i);
        item.parentIdentifier = "5/p";
        item.name = "n" + std::to_string(i);
        auto progress = extension->modifyItem(item, std::nullopt, 2 | 8, std::nullopt, 0, {},
                                              recorders[i].handler());
        // A third are cancelled: at once, or after the task may have begun
        // or even finished.
        switch (random() % 6) {
          case 0:
            progress->cancel();
            cancelled[i] = 1;
            break;
          case 1:
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
            progress->cancel();
            cancelled[i] = 1;
            break;
          default:
            break;
        }
      }
    });
  for (auto& t : threads) t.join();
  extension->mTaskQueue().waitUntilAllOperationsAreFinished();

  for (int i = 0; i < kTotal; ++i) {
    ASSERT_EQ(recorders[i].calls(), 1) << i;
    const std::string done = "5/h" + std::to_string(i) +
                             R"( 'a.txt' in 5/p {"delete":0,"hash":"h1","status":0} pending 0)";
    if (!cancelled[i]) {
      EXPECT_EQ(recorders[i].first(), done) << i;
    } else if (recorders[i].first() != done) {
      EXPECT_EQ(recorders[i].first(), "null pending 8 error 3072") << i;
    }
  }
  // Cancelled or not, every rename reached the host once.
  std::map<std::string, int> renames;
  for (const auto& q : server.queries())
    if (q.rfind("type=rename", 0) == 0) ++renames[q];
  EXPECT_EQ(renames.size(), size_t{kTotal});
  for (const auto& [query, count] : renames) EXPECT_EQ(count, 1) << query;
}

}  // namespace
}  // namespace hvfp::test

#include "ExtensionFixture.h"

namespace hvfp::test {
namespace {

using EnumeratorChanges = ExtensionTest;

TEST_F(EnumeratorChanges, AnchorIsTheDecimalTextOfTheEnumeratorsCount) {
  enumerator(kRoot);
  auto second = enumerator(kTrash);
  std::vector<std::optional<std::string>> anchors;
  second->currentSyncAnchorWithCompletionHandler([&](auto a) { anchors.push_back(a); });
  FileProviderEnumerator twelfth("12/x", 12);
  twelfth.currentSyncAnchorWithCompletionHandler([&](auto a) { anchors.push_back(a); });
  EXPECT_EQ(anchors, (std::vector<std::optional<std::string>>{"3", "12"}));
  auto lines = takeCapturedLog();
  EXPECT_EQ(lines.back(), "currentSyncAnchorWithCompletionHandler 12/x,12");
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(EnumeratorChanges, WorkingSetCursorGoesBackToTheHost) {
  server.enqueue(
      {200, R"({"list":[{"filename":"t","mount_id":5,"uuidhash":"h1","up_hash":"u","status":7},)"
            R"({"filename":"k","mount_id":5,"uuidhash":"h2","up_hash":"u","status":0}],)"
            R"("lasttime":1700000000})"});
  server.enqueue({200, R"({"list":[]})"});
  RecordingObserver first, second;
  auto workingSet = enumerator(kWorkingSet);
  workingSet->enumerateChangesForObserver(first, "2");
  EXPECT_EQ(workingSet->ullLastTime(), 1700000000u);
  workingSet->enumerateChangesForObserver(second, "2");
  EXPECT_EQ(server.queries(), (std::vector<std::string>{"type=changefiles&lasttime=0",
                                                        "type=changefiles&lasttime=1700000000"}));
  EXPECT_EQ(first.sequence(), (std::vector<std::string>{"update", "finish"}));
  EXPECT_EQ(first.parents(), (std::vector<std::string>{kTrash, "5/u"}));
  EXPECT_EQ(first.calls.back().page, "2");
  EXPECT_FALSE(first.calls.back().moreComing);
  EXPECT_EQ(second.sequence(), (std::vector<std::string>{"update", "finish"}));
  EXPECT_EQ(workingSet->ullLastTime(), 0u);  // no "lasttime" in the reply
}

TEST_F(EnumeratorChanges, WorkingSetItemsAreLogged) {
  server.enqueue(
      {200, R"({"list":[{"filename":"k","mount_id":5,"uuidhash":"h2","status":0}],"lasttime":1})"});
  RecordingObserver observer;
  enumerator(kWorkingSet)->enumerateChangesForObserver(observer, "2");
  auto lines = takeCapturedLog();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1],
            "enumerateChangesForObserver NSFileProviderWorkingSetContainerItemIdentifier,2,2");
  EXPECT_EQ(lines[2].rfind("k,5/h2,5,127,public.data,", 0), 0u);
}

TEST_F(EnumeratorChanges, TrashReportFinishesAtOnce) {
  RecordingObserver observer;
  enumerator(kTrash)->enumerateChangesForObserver(observer, "7");
  EXPECT_EQ(observer.sequence(), std::vector<std::string>{"finish"});
  EXPECT_EQ(observer.calls.front().page, "7");
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(EnumeratorChanges, FolderReportFinishesAtTheAnchorItWasGiven) {
  server.enqueue(
      {200, R"({"list":[{"filename":"b","mount_id":12,"uuidhash":"c2","up_hash":"ab","status":0},)"
            R"({"filename":"a","mount_id":12,"uuidhash":"c1","up_hash":"ab","status":0}],)"
            R"("lasttime":77})"});
  RecordingObserver observer;
  auto folder = enumerator("12/ab");  // anchor 2
  folder->enumerateChangesForObserver(observer, "9");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=files&uuidhash=ab&mount_id=12"});
  EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"update", "finish"}));
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(observer.parents(), (std::vector<std::string>{"12/ab", "12/ab"}));
  EXPECT_EQ(observer.calls.back().page, "9");
  EXPECT_EQ(folder->ullLastTime(), 77u);
  // Change reports of folders do not log their items.
  EXPECT_EQ(takeCapturedLog(), (std::vector<std::string>{"FileProviderEnumerator init 12/ab,2",
                                                         "enumerateChangesForObserver 12/ab,2,9"}));
}

TEST_F(EnumeratorChanges, RootReportNamesMountsLikeTheListing) {
  server.enqueue({200, R"({"list":[{"filename":"Docs","mount_id":1,"lasttime":300},)"
                       R"({"filename":"Docs","mount_id":2,"lasttime":100}]})"});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateChangesForObserver(observer, "2");
  EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"update", "finish"}));
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"Docs", "Docs(2)"}));
  EXPECT_EQ(client().checkRootChangeName("1"), "Docs(2)");
  EXPECT_EQ(takeCapturedLog().size(), 2u);  // init and the report, no item lines
}

TEST_F(EnumeratorChanges, AnchorThatIsNotTextLogsAsNull) {
  RecordingObserver observer;
  const std::string bytes("\xff\x01", 2);
  enumerator(kTrash)->enumerateChangesForObserver(observer, bytes);
  EXPECT_EQ(takeCapturedLog().back(),
            "enumerateChangesForObserver NSFileProviderTrashContainerItemIdentifier,2,(null)");
  EXPECT_EQ(observer.calls.back().page, bytes);
}

}  // namespace
}  // namespace hvfp::test

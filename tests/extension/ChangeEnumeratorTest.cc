#include "ExtensionFixture.h"

namespace hvfp::test {
namespace {

using EnumeratorChanges = ExtensionTest;

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
  EXPECT_EQ(server.queries(),
            (Lines{"type=changefiles&lasttime=0", "type=changefiles&lasttime=1700000000"}));
  EXPECT_EQ(first.sequence, (Lines{"update", "finish 2"}));
  EXPECT_EQ(second.sequence, (Lines{"update", "finish 2"}));
  EXPECT_EQ(workingSet->ullLastTime(), 0u);  // no "lasttime" in the reply
  const std::string report =
      "enumerateChangesForObserver NSFileProviderWorkingSetContainerItemIdentifier,2,2";
  const std::string item = ",127,public.data,{\"filesize\":0},(null),0," + kEpochDates + ",0";
  EXPECT_EQ(takeCapturedLog(),
            (Lines{"FileProviderEnumerator init NSFileProviderWorkingSetContainerItemIdentifier,2",
                   report, "t,5/h1,NSFileProviderTrashContainerItemIdentifier" + item,
                   "k,5/h2,5/u" + item, report}));
}

TEST_F(EnumeratorChanges, TrashReportFinishesAtOnceAtTheAnchorGiven) {
  RecordingObserver observer;
  const std::string bytes("\xff\x01", 2);  // not text: logged as null, returned as is
  enumerator(kTrash)->enumerateChangesForObserver(observer, bytes);
  EXPECT_EQ(observer.sequence, Lines{"finish " + bytes});
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(takeCapturedLog().back(),
            "enumerateChangesForObserver NSFileProviderTrashContainerItemIdentifier,2,(null)");
}

TEST_F(EnumeratorChanges, FolderReportFinishesAtTheAnchorItWasGiven) {
  server.enqueue(
      {200, R"({"list":[{"filename":"b","mount_id":12,"uuidhash":"c2","up_hash":"ab","status":0},)"
            R"({"filename":"a","mount_id":12,"uuidhash":"c1","up_hash":"ab","status":0}],)"
            R"("lasttime":77})"});
  RecordingObserver observer;
  auto folder = enumerator("12/ab");  // anchor 2
  folder->enumerateChangesForObserver(observer, "9");
  EXPECT_EQ(server.queries(), Lines{"type=files&uuidhash=ab&mount_id=12"});
  EXPECT_EQ(observer.sequence, (Lines{"update", "finish 9"}));
  EXPECT_EQ(observer.names(), (Lines{"b", "a"}));
  EXPECT_EQ(observer.parents(), (Lines{"12/ab", "12/ab"}));
  EXPECT_EQ(folder->ullLastTime(), 77u);
  // Change reports of folders do not log their items.
  EXPECT_EQ(takeCapturedLog(), (Lines{"FileProviderEnumerator init 12/ab,2",
                                      "enumerateChangesForObserver 12/ab,2,9"}));
}

}  // namespace
}  // namespace hvfp::test

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

// Empty or failed host answers are still one (empty) update before the
// finish; only a JSON object moves the cursor.
TEST_F(EnumeratorChanges, EmptyAndFailedReportsAreStillOneUpdate) {
  struct Case {
    std::string container, reply, query;
    uint64_t cursor;  // after the report, from 5
  };
  const Case cases[] = {
      {kRoot, list({}), "type=links", 5},
      {kRoot, "oops", "type=links", 5},
      {"12/ab", "oops", "type=files&uuidhash=ab&mount_id=12", 5},
      {"12/ab", R"({"list":[]})", "type=files&uuidhash=ab&mount_id=12", 0},
      {kWorkingSet, "oops", "type=changefiles&lasttime=5", 5},
      {kWorkingSet, R"({"list":[],"lasttime":6})", "type=changefiles&lasttime=5", 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.container + " " + c.reply);
    server.enqueue({200, c.reply});
    RecordingObserver observer;
    auto enumerator = this->enumerator(c.container);
    enumerator->setUllLastTime(5);
    enumerator->enumerateChangesForObserver(observer, "2");
    EXPECT_EQ(observer.sequence, (Lines{"update", "finish 2"}));
    EXPECT_TRUE(observer.items.empty());
    EXPECT_EQ(server.queries().back(), c.query);
    EXPECT_EQ(enumerator->ullLastTime(), c.cursor);
  }
}

}  // namespace
}  // namespace hvfp::test

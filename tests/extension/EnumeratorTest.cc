#include "ExtensionFixture.h"

namespace hvfp::test {
namespace {

using EnumeratorListing = ExtensionTest;

TEST_F(EnumeratorListing, CollidingMountNamesGetSuffixesInLastTimeOrder) {
  struct Case {
    std::vector<std::pair<std::string, int>> mounts;  // name, lasttime
    Lines shown;                                      // by the listing and by the change report
    Lines registered;                                 // the rename entry of each mount, "" for none
  };
  const std::vector<Case> cases{
      {{{"Docs", 300}, {"Docs", 100}, {"Work", 200}},
       {"Docs", "Work", "Docs(2)"},
       {"Docs(2)", "", ""}},
      {{{"A", 1}, {"A", 2}, {"A(2)", 3}}, {"A", "A(2)", "A(2)(2)"}, {"", "A(2)", "A(2)(2)"}},
      {{{"Docs", 1}, {"docs", 2}}, {"Docs", "docs"}, {"", ""}},
  };
  size_t nextId = 1;  // the rename table lives for the process: each case has its own ids
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown.back());
    Lines entries, registered;
    for (const auto& [name, lasttime] : c.mounts)
      entries.push_back(mount(nextId++, name, lasttime));
    server.enqueue({200, list(entries)});
    server.enqueue({200, list(entries)});
    RecordingObserver listed = listing(kRoot), changed;
    EXPECT_EQ(takeCapturedLog().size(), 2 + c.shown.size());  // each listed item is logged
    enumerator(kRoot)->enumerateChangesForObserver(changed, "2");
    EXPECT_EQ(takeCapturedLog().size(), 2u);  // a change report does not log them
    EXPECT_EQ(listed.sequence, (Lines{"items", "finish"}));
    EXPECT_EQ(changed.sequence, (Lines{"update", "finish 2"}));
    EXPECT_EQ(listed.names(), c.shown);
    EXPECT_EQ(changed.names(), c.shown);
    EXPECT_EQ(listed.parents(), Lines(c.shown.size(), kRoot));
    for (size_t id = nextId - c.mounts.size(); id < nextId; ++id)
      registered.push_back(client.checkRootChangeName(std::to_string(id)));
    EXPECT_EQ(registered, c.registered);
  }
  EXPECT_EQ(server.queries(), Lines(6, "type=links"));
}

TEST_F(EnumeratorListing, EqualLastTimesKeepTheHostsOrder) {
  // Enough mounts that an unstable sort would reorder the equal ones.
  Lines entries{mount(100, "X", 9)}, ids;
  for (size_t id = 40; id > 0; --id) {
    entries.push_back(mount(id, "X", 5));
    ids.push_back(std::to_string(id));
  }
  ids.push_back("100");
  server.enqueue({200, list(entries)});
  RecordingObserver observer = listing(kRoot);
  EXPECT_EQ(observer.each([](auto& i) { return i.itemIdentifier(); }), ids);
  EXPECT_EQ(observer.names().back(), "X(41)");
}

// A host may list very many mounts under one name; naming them must neither
// recurse once per clash nor rescan every earlier mount per candidate.
TEST_F(EnumeratorListing, ThousandsOfEqualNamesAreNumberedInOrder) {
  constexpr size_t kMounts = 20000;
  Lines entries;
  for (size_t id = 1; id <= kMounts; ++id)
    entries.push_back(mount(id, "Docs", static_cast<int>(id)));
  server.enqueue({200, list(entries)});
  setLogSink(LogSink::Silent);
  auto names = listing(kRoot).names();
  ASSERT_EQ(names.size(), kMounts);
  EXPECT_EQ(names[0], "Docs");
  EXPECT_EQ(names[1], "Docs(2)");
  EXPECT_EQ(names.back(), "Docs(20000)");
}

// An empty or unreadable mount list, and a provisional folder, are still one
// (empty) batch; the working set only finishes. None but the first two ask.
TEST_F(EnumeratorListing, EmptyListingsAreStillOneBatch) {
  server.enqueue({200, list({})});
  server.enqueue({200, "oops"});
  for (const std::string& id : {kRoot, kRoot, std::string("__fp/fs/3")}) {
    EXPECT_EQ(listing(id).sequence, (Lines{"items", "finish"})) << id;
  }
  EXPECT_EQ(listing(kWorkingSet).sequence, Lines{"finish"});
  EXPECT_EQ(server.requestCount(), 2u);
}

TEST_F(EnumeratorListing, TrashIsSortedFolderKeepsTheHostsOrder) {
  const std::string entry = R"({"mount_id":12,"up_hash":"ab","filename":")";
  const std::string reply = list({entry + R"(late","uuidhash":"c2","lasttime":20,"status":6})",
                                  entry + R"(gone","uuidhash":"c3","lasttime":5,"status":7})",
                                  entry + R"(early","uuidhash":"c1","lasttime":10,"status":0})"});
  struct Case {
    std::string container;
    Lines names, parents;
  };
  for (const Case& c :
       std::vector<Case>{{kTrash, {"gone", "early", "late"}, {kTrash, kTrash, kTrash}},
                         {"12/ab", {"late", "gone", "early"}, {kTrash, kTrash, "12/ab"}}}) {
    SCOPED_TRACE(c.container);
    server.enqueue({200, reply});
    RecordingObserver observer;
    auto enumerator = this->enumerator(c.container);
    enumerator->enumerateItemsForObserver(observer, "");
    EXPECT_EQ(observer.sequence, (Lines{"items", "finish"}));
    EXPECT_EQ(observer.names(), c.names);
    EXPECT_EQ(observer.parents(), c.parents);
    EXPECT_EQ(enumerator->ullLastTime(), 0u);  // a listing does not move the change cursor
  }
  EXPECT_EQ(server.queries(), (Lines{"type=trash", "type=files&uuidhash=ab&mount_id=12"}));
}

TEST_F(EnumeratorListing, LogsInitListingEachItemAndInvalidate) {
  server.enqueue(
      {200, list({R"({"filename":"a.txt","mount_id":12,"uuidhash":"c1","up_hash":"ab",)"
                  R"("webpath":"d/a.txt","filehash":"f","filesize":3,"creatortime":1700000000,)"
                  R"("lasttime":1700000000,"status":0})"})});
  RecordingObserver observer;
  auto folder = enumerator("12/ab");
  folder->enumerateItemsForObserver(observer, "ignored-page");
  folder->invalidate();
  EXPECT_EQ(takeCapturedLog(),
            (Lines{"FileProviderEnumerator init 12/ab,2", "enumerateItemsForObserver 12/ab,2",
                   "a.txt,12/c1,12/ab,127,public.plain-text,{\"filehash\":\"f\",\"filesize\":3},"
                   "(null),3,2023-11-14 22:13:20 +0000,2023-11-14 22:13:20 +0000,"
                   "2023-11-14 22:13:20 +0000,0",
                   "FileProviderEnumerator invalidate 12/ab,2"}));
}

}  // namespace
}  // namespace hvfp::test

#include <algorithm>

#include "ExtensionFixture.h"

namespace hvfp::test {
namespace {

using EnumeratorListing = ExtensionTest;

// The full listing and the change report of the root each name and register
// on their own: each case runs once through each, on mounts of fresh ids.
TEST_F(EnumeratorListing, CollidingMountNamesGetSuffixesInLastTimeOrder) {
  struct Case {
    std::vector<std::pair<std::string, int>> mounts;  // name, lasttime
    Lines shown;
    Lines registered;  // the rename entry of each mount, "" for none
  };
  const std::vector<Case> cases{
      {{{"Docs", 300}, {"Docs", 100}, {"Work", 200}},
       {"Docs", "Work", "Docs(2)"},
       {"Docs(2)", "", ""}},
      {{{"A", 1}, {"A", 2}, {"A(2)", 3}}, {"A", "A(2)", "A(2)(2)"}, {"", "A(2)", "A(2)(2)"}},
      {{{"Docs", 1}, {"docs", 2}}, {"Docs", "docs"}, {"", ""}},
  };
  size_t nextId = 1;  // the rename table lives for the process
  for (const auto& c : cases) {
    for (bool report : {false, true}) {
      SCOPED_TRACE(c.shown.back() + (report ? " by the change report" : " by the listing"));
      Lines entries, registered;
      for (const auto& [name, lasttime] : c.mounts)
        entries.push_back(mount(nextId++, name, lasttime));
      server.enqueue({200, list(entries)});
      RecordingObserver observer;
      if (report)
        enumerator(kRoot)->enumerateChangesForObserver(observer, "2");
      else
        enumerator(kRoot)->enumerateItemsForObserver(observer, "");
      // Only the listing logs each item.
      EXPECT_EQ(takeCapturedLog().size(), 2 + (report ? 0 : c.shown.size()));
      EXPECT_EQ(observer.sequence,
                (report ? Lines{"update", "finish 2"} : Lines{"items", "finish"}));
      EXPECT_EQ(observer.names(), c.shown);
      EXPECT_EQ(observer.parents(), Lines(c.shown.size(), kRoot));
      for (size_t id = nextId - c.mounts.size(); id < nextId; ++id)
        registered.push_back(client.checkRootChangeName(std::to_string(id)));
      EXPECT_EQ(registered, c.registered);
    }
  }
  EXPECT_EQ(server.queries(), Lines(6, "type=links"));
}

TEST(EnumeratorCheckName, FirstFreeCandidateFromNum) {
  struct Case {
    Lines names;  // of the items so far
    std::string name;
    int64_t num;
    std::string answer;
  };
  const Case cases[] = {
      {{}, "A", 0, "A"},
      {{"A"}, "A", 0, "A(2)"},
      {{"A", "A(2)"}, "A", 0, "A(3)"},
      {{"A", "A(2)"}, "A", 1, "A(3)"},
      {{"A(3)", "A(2)"}, "A", 1, "A(4)"},
      {{"B", "A(2)"}, "A", 0, "A"},
      {{"A(2)"}, "A(2)", 0, "A(2)(2)"},
      {{"Docs"}, "docs", 0, "docs"},
      {{"A"}, "A", -1, "A(0)"},
      {{kTrash}, kTrash, 0, kTrash + "(2)"},  // a container is named by its identifier
  };
  for (const Case& c : cases) {
    std::vector<NSFileProviderItemRef> items;
    for (const auto& name : c.names) {
      if (name == kTrash) {
        items.push_back(std::make_shared<FileProviderItem>(kTrash, nullptr));
        continue;
      }
      auto record = std::make_shared<HVFileItem>();
      record->strFileName = name;
      items.push_back(FileProviderItem::initWithHVFileItem(record));
    }
    EXPECT_EQ(FileProviderEnumerator::checkName(items, c.name, c.num), c.answer)
        << c.name << " from " << c.num;
  }
}

TEST_F(EnumeratorListing, EqualLastTimesKeepTheHostsOrder) {
  // Enough mounts that an unstable sort would reorder the equal ones.
  // The last one has no "uuidhash" at all: it is named by its mount id alone.
  Lines entries{R"({"filename":"X","mount_id":100,"lasttime":9,"status":0})"}, ids;
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

// Trash and folders keep their names as given, equal ones too, and log each
// item with the parent the listing gave it.
TEST_F(EnumeratorListing, TrashIsSortedFolderKeepsTheHostsOrder) {
  const std::string entry = R"({"mount_id":12,"up_hash":"ab","filename":")";
  const std::string reply = list({entry + R"(late","uuidhash":"c2","lasttime":20,"status":6})",
                                  entry + R"(gone","uuidhash":"c3","lasttime":5,"status":7})",
                                  entry + R"(dup","uuidhash":"c1","lasttime":10,"status":0})",
                                  entry + R"(dup","uuidhash":"c4","lasttime":15,"status":0})"});
  struct Case {
    std::string container;
    Lines ids, names, parents, seconds;  // seconds: the last time, as a date shows it
  };
  for (const Case& c : std::vector<Case>{{kTrash,
                                          {"12/c3", "12/c1", "12/c4", "12/c2"},
                                          {"gone", "dup", "dup", "late"},
                                          {kTrash, kTrash, kTrash, kTrash},
                                          {"05", "10", "15", "20"}},
                                         {"12/ab",
                                          {"12/c2", "12/c3", "12/c1", "12/c4"},
                                          {"late", "gone", "dup", "dup"},
                                          {kTrash, kTrash, "12/ab", "12/ab"},
                                          {"20", "05", "10", "15"}}}) {
    SCOPED_TRACE(c.container);
    server.enqueue({200, reply});
    RecordingObserver observer;
    auto enumerator = this->enumerator(c.container);
    enumerator->enumerateItemsForObserver(observer, "");
    EXPECT_EQ(observer.sequence, (Lines{"items", "finish"}));
    EXPECT_EQ(observer.each([](auto& i) { return i.itemIdentifier(); }), c.ids);
    EXPECT_EQ(observer.names(), c.names);
    EXPECT_EQ(observer.parents(), c.parents);
    EXPECT_EQ(enumerator->ullLastTime(), 0u);  // a listing does not move the change cursor
    Lines logged = takeCapturedLog(), expected, registered;
    for (size_t i = 0; i < c.ids.size(); ++i) {
      const std::string date = "1970-01-01 00:00:" + c.seconds[i] + " +0000";
      expected.push_back(c.names[i] + "," + c.ids[i] + "," + c.parents[i] +
                         ",127,public.data,{\"filesize\":0},(null),0,1970-01-01 00:00:00 +0000," +
                         date + "," + date + ",0");
      registered.push_back(client.checkRootChangeName(c.ids[i]));
    }
    EXPECT_EQ(Lines(logged.begin() + std::min<size_t>(2, logged.size()), logged.end()), expected);
    EXPECT_EQ(registered, Lines(c.ids.size(), ""));  // no collision names here
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

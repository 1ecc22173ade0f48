#include "ExtensionFixture.h"

namespace hvfp::test {
namespace {

std::string mount(int id, const std::string& name, int lasttime) {
  return "{\"filename\":\"" + name + "\",\"mount_id\":" + std::to_string(id) +
         ",\"uuidhash\":\"\",\"lasttime\":" + std::to_string(lasttime) + ",\"status\":0}";
}

std::string list(const std::vector<std::string>& entries, const std::string& extra = "") {
  std::string out = "{\"list\":[";
  for (size_t i = 0; i < entries.size(); ++i) out += (i ? "," : "") + entries[i];
  return out + "]" + extra + "}";
}

using EnumeratorListing = ExtensionTest;

// --- mounts and collision names --------------------------------------------

TEST_F(EnumeratorListing, EqualMountNamesGetSuffixesInLastTimeOrder) {
  server.enqueue(
      {200, list({mount(1, "Docs", 300), mount(2, "Docs", 100), mount(3, "Work", 200)})});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=links"});
  EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"items", "finish"}));
  EXPECT_EQ(observer.calls.back().page, std::nullopt);
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"Docs", "Work", "Docs(2)"}));
  EXPECT_EQ(observer.parents(), (std::vector<std::string>{kRoot, kRoot, kRoot}));
  EXPECT_EQ(client().checkRootChangeName("1"), "Docs(2)");
  EXPECT_EQ(client().checkRootChangeName("2"), "");
  EXPECT_EQ(client().checkRootChangeName("3"), "");
}

TEST_F(EnumeratorListing, SuffixIsAddedToTheNameAsFirstGiven) {
  server.enqueue({200, list({mount(1, "A", 1), mount(2, "A", 2), mount(3, "A(2)", 3)})});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"A", "A(2)", "A(2)(2)"}));
  EXPECT_EQ(client().checkRootChangeName("2"), "A(2)");
  EXPECT_EQ(client().checkRootChangeName("3"), "A(2)(2)");
}

TEST_F(EnumeratorListing, LetterCaseDoesNotCollide) {
  server.enqueue({200, list({mount(1, "Docs", 1), mount(2, "docs", 2)})});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"Docs", "docs"}));
  EXPECT_EQ(client().checkRootChangeName("2"), "");
}

TEST_F(EnumeratorListing, EqualLastTimesKeepTheHostsOrder) {
  // Enough mounts that an unstable sort would reorder the equal ones.
  std::vector<std::string> entries{mount(100, "X", 9)};
  for (int id = 40; id > 0; --id) entries.push_back(mount(id, "X", 5));
  server.enqueue({200, list(entries)});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateItemsForObserver(observer, "");
  const auto& items = observer.calls.front().items;
  ASSERT_EQ(items.size(), 41u);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(items[i]->itemIdentifier(), std::to_string(40 - i));
  EXPECT_EQ(items.back()->itemIdentifier(), "100");
  EXPECT_EQ(items[0]->filename(), "X");
  EXPECT_EQ(items[1]->filename(), "X(2)");
  EXPECT_EQ(items.back()->filename(), "X(41)");
}

TEST_F(EnumeratorListing, CheckNameRetriesUntilNoItemHasTheCandidate) {
  auto record = [](const std::string& name) {
    auto r = std::make_shared<HVFileItem>();
    r->strFileName = name;
    return NSFileProviderItemRef(FileProviderItem::initWithHVFileItem(r));
  };
  std::vector<NSFileProviderItemRef> items{record("B(3)"), record("B"), record("B(2)")};
  EXPECT_EQ(FileProviderEnumerator::checkName(items, "B", 0), "B(4)");
  EXPECT_EQ(FileProviderEnumerator::checkName(items, "B", 3), "B(4)");
  EXPECT_EQ(FileProviderEnumerator::checkName(items, "C", 0), "C");
  EXPECT_EQ(FileProviderEnumerator::checkName({}, "", 0), "");
}

TEST_F(EnumeratorListing, EmptyOrMissingMountListIsStillOneBatch) {
  server.enqueue({200, list({})});
  server.enqueue({200, "oops"});
  for (int i = 0; i < 2; ++i) {
    RecordingObserver observer;
    enumerator(kRoot)->enumerateItemsForObserver(observer, "");
    EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"items", "finish"}));
    EXPECT_TRUE(observer.calls.front().items.empty());
  }
}

// --- the other containers ----------------------------------------------------

TEST_F(EnumeratorListing, WorkingSetListsNothingAndAsksNothing) {
  RecordingObserver observer;
  enumerator(kWorkingSet)->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(observer.sequence(), std::vector<std::string>{"finish"});
  EXPECT_EQ(observer.calls.front().page, std::nullopt);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(EnumeratorListing, TrashIsSortedAndParentedToTheTrash) {
  server.enqueue(
      {200,
       list({R"({"filename":"late","mount_id":3,"uuidhash":"b","lasttime":20,"status":6})",
             R"({"filename":"early","mount_id":3,"uuidhash":"a","lasttime":10,"status":0})"})});
  RecordingObserver observer;
  enumerator(kTrash)->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=trash"});
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"early", "late"}));
  EXPECT_EQ(observer.parents(), (std::vector<std::string>{kTrash, kTrash}));
}

TEST_F(EnumeratorListing, FolderIsOneQueryInTheHostsOrder) {
  server.enqueue(
      {200,
       list(
           {R"({"filename":"z","mount_id":12,"uuidhash":"c2","up_hash":"ab34","lasttime":900,"status":0})",
            R"({"filename":"gone","mount_id":12,"uuidhash":"c3","up_hash":"ab34","lasttime":5,"status":7})",
            R"({"filename":"a","mount_id":12,"uuidhash":"c1","up_hash":"ab34","lasttime":100,"status":0})"},
           ",\"lasttime\":99")});
  RecordingObserver observer;
  auto folder = enumerator("12/ab34");
  folder->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=files&uuidhash=ab34&mount_id=12"});
  EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"items", "finish"}));
  EXPECT_EQ(observer.names(), (std::vector<std::string>{"z", "gone", "a"}));
  EXPECT_EQ(observer.parents(), (std::vector<std::string>{"12/ab34", kTrash, "12/ab34"}));
  EXPECT_EQ(folder->ullLastTime(), 0u);
}

TEST_F(EnumeratorListing, ProvisionalContainerSendsNothing) {
  RecordingObserver observer;
  enumerator("__fp/fs/3")->enumerateItemsForObserver(observer, "");
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(observer.sequence(), (std::vector<std::string>{"items", "finish"}));
}

TEST_F(EnumeratorListing, LogsInitListingEachItemAndInvalidate) {
  server.enqueue(
      {200,
       list(
           {R"({"filename":"a.txt","mount_id":12,"uuidhash":"c1","up_hash":"ab","webpath":"d/a.txt","filehash":"f","filesize":3,"creatortime":1700000000,"lasttime":1700000000,"status":0})"})});
  RecordingObserver observer;
  auto folder = enumerator("12/ab");
  folder->enumerateItemsForObserver(observer, "ignored-page");
  folder->invalidate();
  EXPECT_EQ(
      takeCapturedLog(),
      (std::vector<std::string>{
          "FileProviderEnumerator init 12/ab,2", "enumerateItemsForObserver 12/ab,2",
          "a.txt,12/c1,12/ab,127,public.plain-text,{\"filehash\":\"f\",\"filesize\":3},(null),3,"
          "2023-11-14 22:13:20 +0000,2023-11-14 22:13:20 +0000,2023-11-14 22:13:20 +0000,0",
          "FileProviderEnumerator invalidate 12/ab,2"}));
}

}  // namespace
}  // namespace hvfp::test

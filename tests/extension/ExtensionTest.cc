#include "ExtensionFixture.h"
#include "support/ChildProcess.h"

namespace hvfp::test {
namespace {

struct LookupResult {
  int calls = 0;
  std::shared_ptr<NSFileProviderItem> item;
  std::optional<Error> error;
};

class ExtensionLookup : public ExtensionTest {
 protected:
  LookupResult lookup(const std::string& identifier, NSFileProviderRequest request = {}) {
    LookupResult result;
    EXPECT_TRUE(extension->itemForIdentifier(
        identifier, request,
        [&](std::shared_ptr<NSFileProviderItem> item, std::optional<Error> error) {
          ++result.calls;
          result.item = std::move(item);
          result.error = std::move(error);
        }));
    EXPECT_EQ(result.calls, 1) << identifier;  // the handler is called exactly once
    return result;
  }
};

using ExtensionStart = ExtensionTest;

TEST_F(ExtensionStart, EnumeratorsTakeAnchorsTwoThreeFourWithoutAskingTheHost) {
  EXPECT_EQ(startLog.back(), "FileProvider 6.2.3.20010");
  EXPECT_EQ(extension->nCurrentAnchor(), 1);
  Lines anchors, expectedLog;
  for (const std::string& id : {kRoot, std::string("__fp/x"), std::string("5/h1")}) {
    enumerator(id)->currentSyncAnchorWithCompletionHandler([&](auto a) { anchors.push_back(*a); });
    const std::string at = id + "," + anchors.back();
    expectedLog.insert(expectedLog.end(), {"FileProviderEnumerator init " + at,
                                           "currentSyncAnchorWithCompletionHandler " + at});
  }
  EXPECT_EQ(anchors, (Lines{"2", "3", "4"}));
  EXPECT_EQ(extension->nCurrentAnchor(), 4);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(takeCapturedLog(), expectedLog);

  // Anchors of two digits are two bytes, and a change report finishes at them.
  extension->setNCurrentAnchor(11);
  auto twelfth = enumerator(kRoot);
  twelfth->currentSyncAnchorWithCompletionHandler([&](auto a) { anchors.push_back(*a); });
  EXPECT_EQ(anchors.back(), "12");
  server.enqueue({200, list({})});
  RecordingObserver observer;
  twelfth->enumerateChangesForObserver(observer, anchors.back());
  EXPECT_EQ(observer.sequence, (Lines{"update", "finish 12"}));
}

TEST_F(ExtensionLookup, AnswersOnceWithTheItemOr4610) {
  server.enqueue({200,
                  R"({"status_code":200,"filename":"a.txt","mount_id":5,"uuidhash":"h1",)"
                  R"("up_hash":"u","webpath":"a.txt","filehash":"f","filesize":1,"status":0})"});
  server.enqueue({200, R"({"status_code":404,"error_code":0})"});
  for (const std::string& id : {std::string("5/h1"), kRoot, kTrash, kWorkingSet}) {
    LookupResult r = lookup(id, {true, false, std::nullopt});
    ASSERT_TRUE(r.item);
    EXPECT_EQ(r.item->itemIdentifier(), id);
    EXPECT_EQ(r.error, std::nullopt);
  }
  const std::string prefix = "FileProviderExtension itemForIdentifier:";
  Lines log = takeCapturedLog();
  EXPECT_EQ(Lines(log.begin(), log.begin() + 2),
            (Lines{prefix + "5/h1,1,0",
                   "a.txt,5/h1,5/u,127,public.plain-text,{\"filehash\":\"f\",\"filesize\":1},"
                   "(null),1," +
                       kEpochDates + ",0"}));
  // Containers need no host; unknown (404), provisional and unreachable fail.
  std::vector<LookupResult> failed{lookup("5/h2"), lookup("__fp/fs/1")};
  EXPECT_EQ(server.queries(), (Lines{"type=fileinfo&uuidhash=h1&mount_id=5",
                                     "type=fileinfo&uuidhash=h2&mount_id=5"}));
  client.setNPort(unusedLoopbackPort());
  failed.push_back(lookup("5/h1", {true, false, std::nullopt}));
  for (const auto& r : failed) {
    EXPECT_EQ(r.item, nullptr);
    EXPECT_EQ(r.error, (Error{"NSCocoaErrorDomain", 4610, {}}));
  }
  EXPECT_EQ(takeCapturedLog(),
            (Lines{prefix + "5/h2,0,0", prefix + "__fp/fs/1,0,0", prefix + "5/h1,1,0"}));
}

TEST_F(ExtensionLookup, MountRootTakesTheNameEnumerationRegistered) {
  server.enqueue({200, list({mount(1, "Docs", 300), mount(2, "Docs", 100)})});
  listing(kRoot);
  const std::string mountReply =
      R"({"status_code":200,"root":1,"dir":1,"filename":"Docs","uuidhash":"",)";
  server.enqueue({200, mountReply + R"("mount_id":1})"});
  server.enqueue({200, mountReply + R"("mount_id":2})"});
  takeCapturedLog();
  EXPECT_EQ(lookup("1").item->filename(), "Docs(2)");
  EXPECT_EQ(lookup("2").item->filename(), "Docs");
  // The item line shows the name the lookup answered with.
  const std::string rest =
      ",NSFileProviderRootContainerItemIdentifier,67,public.folder,"
      "{\"filesize\":0},0,0," +
      kEpochDates + ",1";
  EXPECT_EQ(takeCapturedLog(),
            (Lines{"FileProviderExtension itemForIdentifier:1,0,0", "Docs(2),1" + rest,
                   "FileProviderExtension itemForIdentifier:2,0,0", "Docs,2" + rest}));
}

}  // namespace
}  // namespace hvfp::test

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
    auto progress = extension->itemForIdentifier(
        identifier, request,
        [&](std::shared_ptr<NSFileProviderItem> item, std::optional<Error> error) {
          ++result.calls;
          result.item = std::move(item);
          result.error = std::move(error);
        });
    EXPECT_TRUE(progress);
    return result;
  }
};

using ExtensionStart = ExtensionTest;

TEST_F(ExtensionStart, LogsTheVersionAndStartsTheCounterAtOne) {
  EXPECT_EQ(startLog.back(), "FileProvider 6.2.3.20010");
  EXPECT_EQ(extension->nCurrentAnchor(), 1);
}

TEST_F(ExtensionStart, EnumeratorsTakeAnchorsTwoThreeFourWithoutAskingTheHost) {
  std::vector<int64_t> anchors;
  for (const std::string& id : {kRoot, std::string("__fp/x"), std::string("5/h1")})
    anchors.push_back(enumerator(id)->nCurrentAnchor());
  EXPECT_EQ(anchors, (std::vector<int64_t>{2, 3, 4}));
  EXPECT_EQ(extension->nCurrentAnchor(), 4);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(takeCapturedLog(),
            (std::vector<std::string>{
                "FileProviderEnumerator init NSFileProviderRootContainerItemIdentifier,2",
                "FileProviderEnumerator init __fp/x,3", "FileProviderEnumerator init 5/h1,4"}));
}

TEST_F(ExtensionLookup, ContainersNeedNoHost) {
  client().setNPort(unusedLoopbackPort());
  for (const std::string& id : {kRoot, kTrash, kWorkingSet}) {
    LookupResult r = lookup(id);
    EXPECT_EQ(r.calls, 1);
    ASSERT_TRUE(r.item);
    EXPECT_EQ(r.item->itemIdentifier(), id);
    EXPECT_EQ(r.error, std::nullopt);
  }
}

TEST_F(ExtensionLookup, UnknownIdentifierFailsWith4610) {
  server.enqueue({200, R"({"status_code":404,"error_code":0})"});
  LookupResult r = lookup("5/h1");
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=fileinfo&uuidhash=h1&mount_id=5"});
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(r.item, nullptr);
  EXPECT_EQ(r.error, (Error{"NSCocoaErrorDomain", 4610, {}}));
  EXPECT_EQ(takeCapturedLog(),
            std::vector<std::string>{"FileProviderExtension itemForIdentifier:5/h1,0,0"});
}

TEST_F(ExtensionLookup, ProvisionalOrUnreachableFailsWith4610) {
  LookupResult provisional = lookup("__fp/fs/1");
  EXPECT_EQ(server.requestCount(), 0u);
  client().setNPort(unusedLoopbackPort());
  LookupResult unreachable = lookup("5/h1");
  for (const auto& r : {provisional, unreachable}) {
    EXPECT_EQ(r.calls, 1);
    EXPECT_EQ(r.item, nullptr);
    EXPECT_EQ(r.error, Error::cocoa(4610));
  }
}

TEST_F(ExtensionLookup, FoundItemIsLoggedWithTheRequestFlags) {
  server.enqueue({200,
                  R"({"status_code":200,"filename":"a.txt","mount_id":5,"uuidhash":"h1",)"
                  R"("up_hash":"u","webpath":"a.txt","filehash":"f","filesize":1,"status":0})"});
  LookupResult r = lookup("5/h1", {true, false});
  EXPECT_EQ(r.calls, 1);
  ASSERT_TRUE(r.item);
  EXPECT_EQ(r.error, std::nullopt);
  EXPECT_EQ(
      takeCapturedLog(),
      (std::vector<std::string>{
          "FileProviderExtension itemForIdentifier:5/h1,1,0",
          "a.txt,5/h1,5/u,127,public.plain-text,{\"filehash\":\"f\",\"filesize\":1},(null),1,"
          "1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000,0"}));
}

TEST_F(ExtensionLookup, MountRootTakesTheNameEnumerationRegistered) {
  server.enqueue({200, R"({"list":[{"filename":"Docs","mount_id":1,"lasttime":300},)"
                       R"({"filename":"Docs","mount_id":2,"lasttime":100}]})"});
  RecordingObserver observer;
  enumerator(kRoot)->enumerateItemsForObserver(observer, "");
  const std::string mountReply =
      R"({"status_code":200,"root":1,"dir":1,"filename":"Docs","uuidhash":"",)";
  server.enqueue({200, mountReply + R"("mount_id":1})"});
  server.enqueue({200, mountReply + R"("mount_id":2})"});
  EXPECT_EQ(lookup("1").item->filename(), "Docs(2)");
  EXPECT_EQ(lookup("2").item->filename(), "Docs");
}

}  // namespace
}  // namespace hvfp::test

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "platform/ContentType.h"
#include "platform/Log.h"
#include "platform/Progress.h"
#include "platform/Text.h"
#include "platform/dispatch/MainQueue.h"
#include "platform/dispatch/OperationQueue.h"
#include "platform/fileprovider/NSFileProviderManager.h"

namespace hvfp {
namespace {

TEST(PlatformText, IntegerValue) {
  EXPECT_EQ(integerValue("12abc"), 12);
  EXPECT_EQ(integerValue("  \t-7x"), -7);
  EXPECT_EQ(integerValue("+5"), 5);
  EXPECT_EQ(integerValue("x12"), 0);
  EXPECT_EQ(integerValue(""), 0);
  EXPECT_EQ(integerValue("-"), 0);
  EXPECT_EQ(integerValue("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(integerValue("9223372036854775808"), INT64_MAX);
  EXPECT_EQ(integerValue("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(integerValue("-99999999999999999999"), INT64_MIN);
  EXPECT_EQ(intValue("2147483648"), INT32_MAX);
  EXPECT_EQ(intValue("-2147483649"), INT32_MIN);
}

// The extension belongs to the last component only, after its last ".".
TEST(PlatformText, PathExtension) {
  const std::pair<const char*, const char*> cases[] = {
      {"docs/report.txt", "txt"},
      {"docs/report.final.PDF", "PDF"},
      {"docs/README", ""},
      {"docs.v2/README", ""},
      {"a/.hidden", ""},
      {"a/name.", ""},
      {"x.pdf/", "pdf"},
      {"a//b.tar.gz//", "gz"},
      {"/", ""},
      {"", ""},
      {".", ""},
      {"a.b", "b"},
  };
  for (const auto& [path, ext] : cases) {
    EXPECT_EQ(pathExtension(path), ext) << path;
    EXPECT_EQ(pathExtensionView(path), ext) << path;
  }
}

TEST(PlatformContentType, ByExtension) {
  EXPECT_EQ(ContentType::typeWithFilenameExtension("PDF").identifier, "com.adobe.pdf");
  EXPECT_EQ(ContentType::typeWithFilenameExtension("jpeg").identifier, "public.jpeg");
  EXPECT_EQ(ContentType::typeWithFilenameExtension("jpg").identifier, "public.jpeg");
  EXPECT_EQ(ContentType::typeWithFilenameExtension("zzz").identifier, "dyn.zzz");
}

TEST(PlatformProgress, HandlersRunOncePerEvent) {
  auto p = Progress::make();
  int cancels = 0, pauses = 0, resumes = 0;
  p->setCancellationHandler([&] { ++cancels; });
  p->setPausingHandler([&] { ++pauses; });
  p->setResumingHandler([&] { ++resumes; });
  p->resume();  // not paused: nothing
  p->pause();
  p->pause();
  p->resume();
  p->cancel();
  p->cancel();
  EXPECT_EQ(cancels, 1);
  EXPECT_EQ(pauses, 1);
  EXPECT_EQ(resumes, 1);
  EXPECT_TRUE(p->isCancelled());
}

TEST(PlatformProgress, CancellationHandlerSetAfterCancelRunsAtOnce) {
  auto p = Progress::make(10);
  p->cancel();
  bool ran = false;
  p->setCancellationHandler([&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(p->totalUnitCount(), 10);
}

TEST(PlatformOperationQueue, RunsBlockingOperationsSideBySide) {
  OperationQueue queue;
  constexpr int kOps = 8;
  std::mutex m;
  std::condition_variable cv;
  int arrived = 0;
  std::atomic<int> done{0};
  // Every operation waits for all the others: only concurrent workers finish.
  for (int i = 0; i < kOps; ++i) {
    queue.addOperationWithBlock([&] {
      std::unique_lock lock(m);
      ++arrived;
      cv.notify_all();
      cv.wait(lock, [&] { return arrived == kOps; });
      ++done;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(done.load(), kOps);
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(PlatformOperationQueue, ExceptionsStayInTheQueue) {
  setLogSink(LogSink::Capture);
  OperationQueue queue;
  std::atomic<bool> after{false};
  queue.addOperationWithBlock([] { throw std::runtime_error("boom"); });
  queue.waitUntilAllOperationsAreFinished();
  queue.addOperationWithBlock([&] { after = true; });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(after);
  auto lines = takeCapturedLog();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "operation ended by exception: boom");
  setLogSink(LogSink::Stderr);
}

TEST(PlatformMainQueue, RunsInOrderOnOneThread) {
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) MainQueue::shared().async([&order, i] { order.push_back(i); });
  MainQueue::shared().drain();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_FALSE(MainQueue::shared().isCurrent());
}

TEST(PlatformManager, OneManagerPerDomainAndItsTemporaryDirectory) {
  namespace fs = std::filesystem;
  auto dir = fs::path(::testing::TempDir()) / "cache-home";
  fs::create_directories(dir / "halvofp");
  fs::permissions(dir / "halvofp", fs::perms::all);  // as an older version left it
  setenv("XDG_CACHE_HOME", dir.c_str(), 1);
  auto a = NSFileProviderManager::managerForDomain({"d1", "One"});
  EXPECT_EQ(a, NSFileProviderManager::managerForDomain({"d1", "Other name"}));
  EXPECT_EQ(NSFileProviderManager::managerForDomain({"..", ""}), nullptr);
  EXPECT_EQ(NSFileProviderManager::managerForDomain({"a/b", ""}), nullptr);
  auto tmp = a->temporaryDirectoryURLWithError();
  ASSERT_TRUE(tmp);
  EXPECT_EQ(*tmp, (dir / "halvofp" / "d1" / "tmp").string());
  EXPECT_TRUE(std::filesystem::is_directory(*tmp));
  EXPECT_EQ(fs::status(dir / "halvofp").permissions(), fs::perms::owner_all);

  std::vector<std::string> signalled;
  bool completed = false;
  a->setSignalHandler([&](const std::string& id) { signalled.push_back(id); });
  a->signalEnumeratorForContainerItemIdentifier("12/ab",
                                                [&](std::optional<Error> e) { completed = !e; });
  EXPECT_EQ(signalled, std::vector<std::string>{"12/ab"});
  EXPECT_TRUE(completed);
  std::filesystem::remove_all(dir);
}

TEST(PlatformLog, NullTextAndCapture) {
  setLogSink(LogSink::Capture);
  takeCapturedLog();
  log("{},{}", orNull(std::nullopt), orNull(std::string("x")));
  EXPECT_EQ(takeCapturedLog(), std::vector<std::string>{"(null),x"});
  // A host's text cannot split one entry into several.
  log("name:{}", std::string("a\nforged\r\0end", 13));
  EXPECT_EQ(takeCapturedLog(), std::vector<std::string>{"name:a\\nforged\\r\\0end"});
  setLogSink(LogSink::Stderr);
}

}  // namespace
}  // namespace hvfp

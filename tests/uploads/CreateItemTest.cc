// Creations and content modifications as the framework makes them: what of
// the item reaches the host, the log line, the progress handed back, and the
// queue the work runs on.
#include <future>

#include "extension/FileProviderExtension.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "uploads/UploadFixture.h"

namespace hvfp::test {
namespace {

const std::string kStored = R"({"status_code":200,"state":1,"hash":"h1","fullpath":"x"})";

class CreateItemTest : public UploadTest {
 public:
  void SetUp() override {
    UploadTest::SetUp();
    setenv("XDG_CACHE_HOME", (dir / "cache").c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir.string() + "/no-bus").c_str(), 1);
    extension = std::make_unique<FileProviderExtension>(client, NSFileProviderDomain{"t", "T"});
    client.setNPort(host.server.port());
    host.setDefault("create", ScriptedReply(200, kStored));
    takeCapturedLog();
  }
  void TearDown() override {
    extension.reset();
    UploadTest::TearDown();
  }

  // The handler of one framework call, waited for.
  struct Answer {
    std::promise<Report> promise;
    int calls = 0;
    NSFileProviderItemChangeHandler handler() {
      return
          [this](NSFileProviderItemRef item, uint64_t pending, bool, std::optional<Error> error) {
            if (++calls == 1)
              promise.set_value(Report{1, std::move(item), pending, std::move(error)});
          };
    }
    Report get() {
      auto future = promise.get_future();
      return future.wait_for(kPatience) == std::future_status::ready ? future.get() : Report{};
    }
  };

  NSFileProviderItemTemplate item(const std::string& name, ContentType type) {
    NSFileProviderItemTemplate t;
    t.identifier = "__fp/fs/" + name;
    t.parentIdentifier = "12";
    t.name = name;
    t.type = std::move(type);
    return t;
  }
  std::string contents(const std::string& data) {
    writeFile(dir / "contents", data);
    return (dir / "contents").string();
  }

  std::unique_ptr<FileProviderExtension> extension;
};

TEST_F(CreateItemTest, TheTemplateBecomesTheCreateQuery) {
  struct {
    std::string name;
    NSFileProviderItemTemplate item;
    std::optional<std::string> contents;
    NSFileProviderRequest request;
    std::string query;  // after "type=create&"
    std::string logLine;
  } cases[] = {
      {"folder without size or dates",
       item("Docs", ContentType::folder()),
       std::nullopt,
       {},
       "webpath=Docs&filehash=&filesize=0&createtime=0&lasttime=0&mount_id=12&dir=1",
       "FileProviderExtension createItemBasedOnTemplate:0,0"},
      {"file with dates", item("a.txt", ContentType::typeWithFilenameExtension("txt")),
       contents("abc"), NSFileProviderRequest{true, false, "/usr/bin/cp"},
       "webpath=a%2Etxt&filehash=" + sha1("abc") +
           "&filesize=3&createtime=0&lasttime=10&mount_id=12&dir=0",
       "FileProviderExtension createItemBasedOnTemplate:1,0,/usr/bin/cp"},
      {"package", item("b.pkg", ContentType{"com.apple.package"}), contents("abc"),
       NSFileProviderRequest{false, true, std::nullopt},
       "webpath=b%2Epkg&filehash=" + sha1("abc") +
           "&filesize=3&createtime=7&lasttime=0&mount_id=12&dir=0",
       "FileProviderExtension createItemBasedOnTemplate:0,1"},
  };
  cases[1].item.size = 3;
  cases[1].item.created = -5.5;  // before 1970: the unsigned count starts there
  cases[1].item.modified = 10.9;
  cases[2].item.size = 3;
  cases[2].item.created = 7.2;
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    Answer answer;
    extension->createItemBasedOnTemplate(c.item, 0, c.contents, 0, c.request, answer.handler());
    Report r = answer.get();
    EXPECT_FALSE(r.error) << r.info();
    ASSERT_TRUE(r.item);
    EXPECT_EQ(r.item->itemIdentifier(), "12/h1");
    EXPECT_EQ(host.queriesOf("create").back(), "type=create&" + c.query);
    auto lines = takeCapturedLog();
    EXPECT_EQ(lines.empty() ? "" : lines.front(), c.logLine);
  }
}

TEST_F(CreateItemTest, TheProgressReturnedIsTheTasksOnTheUploadQueue) {
  host.setDefault("create", ScriptedReply(200, kStored, 300ms));
  auto folder = item("Docs", ContentType::folder());
  Answer answer;
  auto progress =
      extension->createItemBasedOnTemplate(folder, 0, std::nullopt, 0, {}, answer.handler());
  EXPECT_EQ(client.mUploadQueue()->operationCount(), 1u);
  EXPECT_EQ(extension->mTaskQueue().operationCount(), 0u);
  progress->cancel();
  Report r = answer.get();
  EXPECT_EQ(r.code(), 3072);
  client.mUploadQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(answer.calls, 1);

  auto file = item("a.txt", ContentType::data());
  file.size = 5;
  Answer second;
  progress =
      extension->createItemBasedOnTemplate(file, 0, contents("12345"), 0, {}, second.handler());
  EXPECT_EQ(progress->totalUnitCount(), 5);
  EXPECT_FALSE(second.get().error);
  EXPECT_EQ(progress->completedUnitCount(), 5);
}

TEST_F(CreateItemTest, NewContentsAreUploadedWhateverElseChanged) {
  auto edited = item("a.txt", ContentType::data());
  edited.identifier = "12/h1";
  edited.size = 4;
  for (uint64_t fields : {uint64_t{1}, uint64_t{3}, uint64_t{131}}) {
    Answer answer;
    extension->modifyItem(edited, std::nullopt, fields, contents("new!"), 0, {}, answer.handler());
    Report r = answer.get();
    EXPECT_FALSE(r.error) << r.info();
    EXPECT_EQ(r.pending, fields & ~uint64_t{1});
    EXPECT_EQ(host.queriesOf("create").back(),
              "type=create&webpath=a%2Etxt&filehash=" + sha1("new!") +
                  "&filesize=4&createtime=0&lasttime=0&mount_id=12&dir=0");
  }
}

}  // namespace
}  // namespace hvfp::test

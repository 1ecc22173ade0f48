// Creations and new contents end to end, against halvo-hostd in this
// process: its query server, its two upload servers and its store. The
// cloud must then hold exactly the bytes, and contents it already holds
// must not travel again.
#include <future>
#include <random>

#include "Host.h"
#include "extension/FileProviderExtension.h"
#include "item/FileProviderItem.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "uploads/UploadFixture.h"

namespace hvfp::test {
namespace {

using hostd::Host;
using hostd::HostConfig;

std::string randomBytes(size_t size) {
  std::mt19937_64 random(size);
  std::string out(size, '\0');
  for (auto& c : out) c = static_cast<char>(random());
  return out;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class HostdUploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/hvfp-hostd-upload-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    dir = pattern;
    setLogSink(LogSink::Capture);
    HostConfig config{.root = dir / "host",
                      .port = 0,
                      .uploadPorts = {0, 0},
                      .downloadPort = 0,
                      .adminPort = 0,
                      .useBus = false,
                      .quiet = false,
                      .seed = "sample"};
    host = std::make_unique<Host>(config);
    auto started = host->start();
    ASSERT_TRUE(started) << started.failure().message;
    setenv("XDG_CACHE_HOME", (dir / "cache").c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir.string() + "/no-bus").c_str(), 1);
    extension = std::make_unique<FileProviderExtension>(*client, NSFileProviderDomain{"t", "T"});
    client->setNPort(host->queryPort());
  }
  // The client goes first: its queue's threads take their kept-alive
  // connections with them, and the host's server then stops at once.
  void TearDown() override {
    extension.reset();
    client.reset();
    if (host) host->stop();
    setLogSink(LogSink::Stderr);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }

  // Runs one framework call that takes a change handler, and waits for it.
  template <typename Call>
  Report answer(Call call) {
    auto promise = std::make_shared<std::promise<Report>>();
    call([promise](NSFileProviderItemRef item, uint64_t pending, bool, std::optional<Error> e) {
      promise->set_value(Report{1, std::move(item), pending, std::move(e)});
    });
    auto future = promise->get_future();
    return future.wait_for(kPatience) == std::future_status::ready ? future.get() : Report{};
  }

  Report create(const std::string& parent, const std::string& name, const std::string* data) {
    NSFileProviderItemTemplate t;
    t.identifier = "__fp/fs/" + name;
    t.parentIdentifier = parent;
    t.name = name;
    t.type = data ? ContentType::data() : ContentType::folder();
    std::optional<std::string> contents;
    if (data) {
      t.size = data->size();
      contents = (dir / "contents").string();
      writeFile(*contents, *data);
    }
    return answer([&](auto handler) {
      extension->createItemBasedOnTemplate(t, 0, contents, 0, {}, handler);
    });
  }

  // Queries of the test's own run on a thread that ends with them, so no
  // connection of theirs outlives the test.
  template <typename Fn>
  static auto query(Fn fn) {
    return std::async(std::launch::async, fn).get();
  }

  // The cloud's record of the item, and the bytes of its blob.
  std::pair<HVFileItemRef, std::string> cloud(const NSFileProviderItemRef& item) {
    auto record = query([&] { return client->getFileInfo(item->itemIdentifier()); });
    if (!record) return {};
    return {record, readFile(host->blobs().pathOf(record->strFileHash.view()))};
  }

  size_t hostLines(const Lines& lines, const std::string& prefix) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                             [&](const auto& l) { return l.starts_with(prefix); }));
  }

  fs::path dir;
  std::unique_ptr<Host> host;
  std::unique_ptr<HalvoProviderClient> client = std::make_unique<HalvoProviderClient>();
  std::unique_ptr<FileProviderExtension> extension;
};

TEST_F(HostdUploadTest, TheCloudHoldsExactlyTheBytes) {
  for (const std::string& data : {randomBytes(3 * 1048576 + 123), std::string()}) {
    SCOPED_TRACE(data.size());
    std::string name = "file-" + std::to_string(data.size()) + ".bin";
    Report r = create("1", name, &data);
    ASSERT_TRUE(r.item) << r.info();
    EXPECT_EQ(r.item->parentItemIdentifier(), "1");
    auto [record, blob] = cloud(r.item);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->strWebPath, name);
    EXPECT_EQ(record->strFileHash, sha1HexDigest(data));
    EXPECT_EQ(record->ullFileSize, data.size());
    EXPECT_TRUE(blob == data);
  }
  client->mUploadQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(fs::is_empty(client->strTempPath()));
}

TEST_F(HostdUploadTest, AFolderAndWhatIsMadeInItBeforeItIsKnown) {
  Report folder = create("1", "Reports 2", nullptr);
  ASSERT_TRUE(folder.item) << folder.info();
  EXPECT_EQ(folder.item->contentType(), ContentType::folder());
  // The framework still knows the folder by its provisional identifier.
  const std::string data = "inside";
  Report file = create("__fp/fs/Reports 2", "inner.txt", &data);
  ASSERT_TRUE(file.item) << file.info();
  EXPECT_EQ(file.item->parentItemIdentifier(), folder.item->itemIdentifier());
  auto [record, blob] = cloud(file.item);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->strWebPath, "Reports 2/inner.txt");
  EXPECT_EQ(blob, data);
}

TEST_F(HostdUploadTest, NewContentsReplaceTheOldOnesAndKnownContentsDoNotTravel) {
  uint64_t lasttime = 0;
  HVFileItemRef readme;
  for (auto& record : query([&] { return client->getFiles(1, "", lasttime); }))
    if (record->strFileName == "README.txt") readme = record;
  ASSERT_TRUE(readme);
  auto edited = NSFileProviderItemTemplate::copyOf(*FileProviderItem::initWithHVFileItem(readme));
  const std::string data = randomBytes(2 * 1048576 + 7);
  edited.size = data.size();
  writeFile(dir / "edited", data);
  Report r = answer([&](auto handler) {
    extension->modifyItem(edited, edited.version, 1 | 128, (dir / "edited").string(), 0, {},
                          handler);
  });
  ASSERT_TRUE(r.item) << r.info();
  EXPECT_EQ(r.item->itemIdentifier(), edited.identifier);
  EXPECT_EQ(r.pending, 128u);
  EXPECT_EQ(cloud(r.item).second, data);

  takeCapturedLog();
  Report again = create("1", "copy.txt", &data);
  ASSERT_TRUE(again.item) << again.info();
  EXPECT_NE(again.item->itemIdentifier(), edited.identifier);
  Lines lines = takeCapturedLog();
  EXPECT_EQ(hostLines(lines, "GET /provider type=create"), 1u);
  EXPECT_EQ(hostLines(lines, "GET /provider type=uploadinit"), 0u);
  EXPECT_EQ(hostLines(lines, "PUT /upload_part"), 0u);
  EXPECT_EQ(cloud(again.item).second, data);
}

}  // namespace
}  // namespace hvfp::test

#include <gtest/gtest.h>

#include "hostlink/HalvoProviderClient.h"
#include "item/FileProviderItem.h"
#include "platform/Log.h"
#include "support/LoopbackServer.h"

namespace hvfp {
namespace {

const std::string kRoot(NSFileProviderRootContainerItemIdentifier);
const std::string kTrash(NSFileProviderTrashContainerItemIdentifier);
const std::string kWorkingSet(NSFileProviderWorkingSetContainerItemIdentifier);

HVFileItemRef fileRecord() {
  auto r = std::make_shared<HVFileItem>();
  r->strFileName = "report.final.PDF";
  r->nMountID = 5;
  r->strUuidHash = "h1";
  r->strWebPath = "docs/report.final.PDF";
  r->strFileHash = "abc";
  r->ullFileSize = 42;
  r->ullLastTime = 1700000000;
  return r;
}

HVFileItemRef mountRecord() {
  auto r = std::make_shared<HVFileItem>();
  r->bRoot = r->bDir = true;
  r->strFileName = "Docs";
  r->nMountID = 9;
  r->strUuidHash = "";
  r->nChildItemCount = 4;
  return r;
}

class ItemWithHost : public ::testing::Test {
 protected:
  void SetUp() override { client.setNPort(server.port()); }
  test::LoopbackServer server;
  HalvoProviderClient client;
};

// The other properties of a container show in its log line.
TEST_F(ItemWithHost, ContainersAreCompleteWithoutTheHost) {
  for (const std::string& id : {kRoot, kTrash, kWorkingSet}) {
    SCOPED_TRACE(id);
    auto item = FileProviderItem::initWithItemIdentifier(id, client);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->filename(), id);
    EXPECT_EQ(item->itemVersion(), (NSFileProviderItemVersion{id, id}));
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(ItemWithHost, LookupKeepsOnlyAConfirmedRecord) {
  server.enqueue({200, R"({"status_code":200,"filename":"a.txt","mount_id":5,"uuidhash":"h1",)"
                       R"("up_hash":"u0","webpath":"d/a.txt","status":0})"});
  auto item = FileProviderItem::initWithItemIdentifier("5/h1", client);
  ASSERT_TRUE(item);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=fileinfo&uuidhash=h1&mount_id=5"});
  EXPECT_EQ(item->itemIdentifier(), "5/h1");
  EXPECT_EQ(item->filename(), "a.txt");
  EXPECT_EQ(item->parentItemIdentifier(), "5/u0");
  for (const char* reply : {R"({"status_code":404})", R"({"filename":"a.txt"})", "[1]", "x"}) {
    server.enqueue({200, reply});
    EXPECT_EQ(FileProviderItem::initWithItemIdentifier("5/h1", client), nullptr) << reply;
  }
  EXPECT_EQ(FileProviderItem::initWithItemIdentifier("__fp/fs/42", client),
            nullptr);  // provisional
  EXPECT_EQ(server.requestCount(), 5u);
}

TEST(ItemFromRecord, TypeComesFromTheWebPathNotTheName) {
  auto record = fileRecord();
  auto item = FileProviderItem::initWithHVFileItem(record);
  EXPECT_EQ(item->contentType().identifier, "com.adobe.pdf");
  record->strFileName = "README.pdf";
  for (const auto& path :
       {std::optional<std::string>("docs/README"), std::optional<std::string>("docs.v2/README"),
        std::optional<std::string>()}) {
    record->strWebPath = path;
    EXPECT_EQ(item->contentType(), ContentType::data());
  }
  record->bDir = true;
  EXPECT_EQ(item->contentType(), ContentType::folder());
}

// A derived parent sticks through later record changes, except that trashing
// the record (status 6 or 7) turns it into the trash on the very next read,
// and the trash then sticks too. An empty parent set explicitly is no parent.
TEST(ItemFromRecord, ParentOnceTrashedOrDerivedSticks) {
  auto record = fileRecord();
  record->nStatus = 6;
  auto item = FileProviderItem::initWithHVFileItem(record);
  item->setParentIdentifier("5/h1");
  EXPECT_EQ(item->parentItemIdentifier(), kTrash);
  record->nStatus = 0;
  EXPECT_EQ(item->parentItemIdentifier(), kTrash);

  auto derived = FileProviderItem::initWithHVFileItem(record = fileRecord());
  derived->setParentIdentifier("");
  EXPECT_EQ(derived->parentItemIdentifier(), "5");
  record->strUpHash = "u2";
  record->bRoot = true;
  EXPECT_EQ(derived->parentItemIdentifier(), "5");
  record->nStatus = 7;
  EXPECT_EQ(derived->parentItemIdentifier(), kTrash);
}

TEST(ItemFromRecord, EmptyOrMissingNameIsNull) {
  auto record = fileRecord();
  auto item = FileProviderItem::initWithHVFileItem(record);
  for (const auto& name : {std::optional<std::string>(""), std::optional<std::string>()}) {
    record->strFileName = name;
    EXPECT_EQ(item->filename(), std::nullopt);
  }
  item->setFileName("Docs(2)");
  EXPECT_EQ(item->filename(), "Docs(2)");
}

TEST(ItemFromRecord, EqualRecordsGiveIdenticalVersions) {
  auto a = FileProviderItem::initWithHVFileItem(fileRecord());
  auto b = FileProviderItem::initWithHVFileItem(fileRecord());
  ASSERT_TRUE(a->itemVersion());
  EXPECT_EQ(a->itemVersion(), b->itemVersion());
  b->setDelete();
  EXPECT_EQ(a->itemVersion()->contentVersion, b->itemVersion()->contentVersion);
  EXPECT_NE(a->itemVersion()->metadataVersion, b->itemVersion()->metadataVersion);
}

// Each line pins every property the platform reads: name, identifier, parent,
// capabilities, type, content version, child count, size and the three dates
// (creation 0 is a date, not null), then the mount flag for records.
TEST(ItemLog, LinesOfRecordsAndContainers) {
  setLogSink(LogSink::Capture);
  auto trashed = fileRecord();
  trashed->strFileName = "";
  trashed->nStatus = 7;
  for (const auto& record : {fileRecord(), mountRecord(), trashed})
    FileProviderItem::initWithHVFileItem(record)->test();
  HalvoProviderClient client;
  FileProviderItem::initWithItemIdentifier(kRoot, client)->test();
  const std::string dates = "2023-11-14 22:13:20 +0000,2023-11-14 22:13:20 +0000,0";
  EXPECT_EQ(takeCapturedLog(),
            (std::vector<std::string>{
                "report.final.PDF,5/h1,5,127,com.adobe.pdf,{\"filehash\":\"abc\",\"filesize\":42},"
                "(null),42,1970-01-01 00:00:00 +0000," +
                    dates,
                "Docs,9,NSFileProviderRootContainerItemIdentifier,67,public.folder,"
                "{\"filehash\":\"\",\"filesize\":0},4,0,1970-01-01 00:00:00 +0000,"
                "1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000,1",
                "(null),5/h1,NSFileProviderTrashContainerItemIdentifier,127,com.adobe.pdf,"
                "{\"filehash\":\"abc\",\"filesize\":42},(null),42,1970-01-01 00:00:00 +0000," +
                    dates,
                "NSFileProviderRootContainerItemIdentifier,"
                "NSFileProviderRootContainerItemIdentifier,(null),63,public.folder,"
                "NSFileProviderRootContainerItemIdentifier,(null),(null),(null),(null),(null)"}));
  setLogSink(LogSink::Stderr);
}

}  // namespace
}  // namespace hvfp

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
  r->strUpHash = "";
  r->strWebPath = "docs/report.final.PDF";
  r->strFileHash = "abc";
  r->ullFileSize = 42;
  r->ullCreatorTime = 0;
  r->ullLastTime = 1700000000;
  r->nStatus = 0;
  return r;
}

HVFileItemRef mountRecord() {
  auto r = std::make_shared<HVFileItem>();
  r->bRoot = true;
  r->bDir = true;
  r->strFileName = "Docs";
  r->nMountID = 9;
  r->strUuidHash = "";
  r->strWebPath = "";
  r->nChildItemCount = 4;
  r->nStatus = 0;
  return r;
}

class ItemWithHost : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& client = HalvoProviderClient::shareHalvoProviderClient();
    client.setStrHost("http://127.0.0.1");
    client.setNPort(server.port());
  }
  test::LoopbackServer server;
};

// --- containers ---------------------------------------------------------

TEST_F(ItemWithHost, RootContainerIsCompleteWithoutTheHost) {
  auto item = FileProviderItem::initWithItemIdentifier(kRoot);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->filename(), kRoot);
  EXPECT_EQ(item->parentItemIdentifier(), std::nullopt);
  EXPECT_EQ(item->capabilities(), 63u);
  EXPECT_EQ(item->contentType(), ContentType::folder());
  EXPECT_EQ(item->documentSize(), std::nullopt);
  EXPECT_EQ(item->childItemCount(), std::nullopt);
  EXPECT_EQ(item->creationDate(), std::nullopt);
  EXPECT_EQ(item->contentModificationDate(), std::nullopt);
  EXPECT_EQ(item->lastUsedDate(), std::nullopt);
  EXPECT_EQ(item->itemVersion(), (NSFileProviderItemVersion{kRoot, kRoot}));
  EXPECT_FALSE(item->isRoot());
  EXPECT_EQ(item->mItem(), nullptr);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(ItemWithHost, TrashAndWorkingSetVersionsAreTheirOwnIdentifiers) {
  for (const std::string& id : {kTrash, kWorkingSet}) {
    auto item = FileProviderItem::initWithItemIdentifier(id);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->itemVersion(), (NSFileProviderItemVersion{id, id}));
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

// --- construction from an identifier -------------------------------------

TEST_F(ItemWithHost, LookupAsksFileinfoAndKeepsAConfirmedRecord) {
  server.enqueue({200, R"({"status_code":200,"filename":"a.txt","mount_id":5,"uuidhash":"h1",)"
                       R"("up_hash":"u0","webpath":"d/a.txt","status":0})"});
  auto item = FileProviderItem::initWithItemIdentifier("5/h1");
  ASSERT_TRUE(item);
  EXPECT_EQ(server.queries(), std::vector<std::string>{"type=fileinfo&uuidhash=h1&mount_id=5"});
  EXPECT_EQ(item->itemIdentifier(), "5/h1");
  EXPECT_EQ(item->filename(), "a.txt");
  EXPECT_EQ(item->parentItemIdentifier(), "5/u0");
}

TEST_F(ItemWithHost, LookupFailsUnlessStatusIs200) {
  server.enqueue({200, R"({"status_code":404,"error_code":0})"});
  server.enqueue({200, R"({"filename":"a.txt"})"});
  server.enqueue({200, "[1]"});
  server.enqueue({200, "not json"});
  for (int i = 0; i < 4; ++i) EXPECT_EQ(FileProviderItem::initWithItemIdentifier("5/h1"), nullptr);
  EXPECT_EQ(server.requestCount(), 4u);
}

TEST_F(ItemWithHost, ProvisionalIdentifierFailsWithoutAQuery) {
  EXPECT_EQ(FileProviderItem::initWithItemIdentifier("__fp/fs/42"), nullptr);
  EXPECT_EQ(server.requestCount(), 0u);
}

// --- records -------------------------------------------------------------

TEST(ItemFromRecord, MountRootIsAFolderUnderTheRootContainer) {
  auto item = FileProviderItem::initWithHVFileItem(mountRecord());
  EXPECT_EQ(item->itemIdentifier(), "9");
  EXPECT_EQ(item->parentItemIdentifier(), kRoot);
  EXPECT_EQ(item->capabilities(), 67u);
  EXPECT_EQ(item->contentType(), ContentType::folder());
  EXPECT_EQ(item->documentSize(), 0u);
  EXPECT_EQ(item->childItemCount(), 4u);
  EXPECT_TRUE(item->isRoot());
}

TEST(ItemFromRecord, FileHasSizeNoChildCountAndAllCapabilities) {
  auto item = FileProviderItem::initWithHVFileItem(fileRecord());
  EXPECT_EQ(item->itemIdentifier(), "5/h1");
  EXPECT_EQ(item->parentItemIdentifier(), "5");
  EXPECT_EQ(item->capabilities(), 127u);
  EXPECT_EQ(item->documentSize(), 42u);
  EXPECT_EQ(item->childItemCount(), std::nullopt);
  EXPECT_FALSE(item->isRoot());
}

TEST(ItemFromRecord, TypeComesFromTheWebPathNotTheName) {
  auto record = fileRecord();
  auto item = FileProviderItem::initWithHVFileItem(record);
  EXPECT_EQ(item->contentType().identifier, "com.adobe.pdf");
  record->strWebPath = "docs/README";
  record->strFileName = "README.pdf";
  EXPECT_EQ(item->contentType(), ContentType::data());
  record->strWebPath = std::nullopt;
  EXPECT_EQ(item->contentType(), ContentType::data());
  record->strWebPath = "docs/x.zzz";
  EXPECT_EQ(item->contentType().identifier, "dyn.zzz");
  record->bDir = true;
  EXPECT_EQ(item->contentType(), ContentType::folder());
}

TEST(ItemFromRecord, TrashedStatusOverridesAnExplicitParentAndSticks) {
  auto record = fileRecord();
  record->nStatus = 6;
  auto item = FileProviderItem::initWithHVFileItem(record);
  item->setParentIdentifier("5/h1");
  EXPECT_EQ(item->parentItemIdentifier(), kTrash);
  record->nStatus = 0;
  EXPECT_EQ(item->parentItemIdentifier(), kTrash);
  item->setParentIdentifier("5/x");
  record->nStatus = 7;
  EXPECT_EQ(item->parentItemIdentifier(), kTrash);
}

TEST(ItemFromRecord, DerivedParentIsKeptWhenTheRecordChanges) {
  auto record = fileRecord();
  record->strUpHash = "u1";
  auto item = FileProviderItem::initWithHVFileItem(record);
  EXPECT_EQ(item->parentItemIdentifier(), "5/u1");
  record->strUpHash = "u2";
  record->bRoot = true;
  EXPECT_EQ(item->parentItemIdentifier(), "5/u1");
}

TEST(ItemFromRecord, EmptyOrMissingNameIsNull) {
  auto record = fileRecord();
  auto item = FileProviderItem::initWithHVFileItem(record);
  record->strFileName = "";
  EXPECT_EQ(item->filename(), std::nullopt);
  record->strFileName = std::nullopt;
  EXPECT_EQ(item->filename(), std::nullopt);
  item->setFileName("Docs(2)");
  EXPECT_EQ(item->filename(), "Docs(2)");
}

TEST(ItemFromRecord, DatesAreSecondsAndZeroIsADate) {
  auto item = FileProviderItem::initWithHVFileItem(fileRecord());
  EXPECT_EQ(item->creationDate(), 0.0);
  EXPECT_EQ(item->contentModificationDate(), 1700000000.0);
  EXPECT_EQ(item->lastUsedDate(), 1700000000.0);
}

TEST(ItemFromRecord, EqualRecordsGiveIdenticalVersions) {
  auto a = FileProviderItem::initWithHVFileItem(fileRecord());
  auto b = FileProviderItem::initWithHVFileItem(fileRecord());
  ASSERT_TRUE(a->itemVersion());
  EXPECT_EQ(a->itemVersion(), b->itemVersion());
  EXPECT_EQ(a->itemVersion()->contentVersion, R"({"filehash":"abc","filesize":42})");
  b->setDelete();
  EXPECT_EQ(b->itemVersion()->metadataVersion,
            R"({"delete":1,"hash":"h1","property":"","status":0})");
  EXPECT_NE(a->itemVersion(), b->itemVersion());
}

// --- the diagnostic line ---------------------------------------------------

class ItemLog : public ::testing::Test {
 protected:
  void SetUp() override { setLogSink(LogSink::Capture); }
  void TearDown() override { setLogSink(LogSink::Stderr); }
};

TEST_F(ItemLog, RecordLineHasTwelveFieldsEndingWithTheRootFlag) {
  FileProviderItem::initWithHVFileItem(fileRecord())->test();
  FileProviderItem::initWithHVFileItem(mountRecord())->test();
  EXPECT_EQ(takeCapturedLog(),
            (std::vector<std::string>{
                "report.final.PDF,5/h1,5,127,com.adobe.pdf,{\"filehash\":\"abc\",\"filesize\":42},"
                "(null),42,1970-01-01 00:00:00 +0000,2023-11-14 22:13:20 +0000,"
                "2023-11-14 22:13:20 +0000,0",
                "Docs,9,NSFileProviderRootContainerItemIdentifier,67,public.folder,"
                "{\"filehash\":\"\",\"filesize\":0},4,0,1970-01-01 00:00:00 +0000,"
                "1970-01-01 00:00:00 +0000,1970-01-01 00:00:00 +0000,1"}));
}

TEST_F(ItemLog, ContainerLineHasElevenFieldsWithNulls) {
  FileProviderItem::initWithItemIdentifier(kRoot)->test();
  EXPECT_EQ(takeCapturedLog(),
            std::vector<std::string>{
                "NSFileProviderRootContainerItemIdentifier,"
                "NSFileProviderRootContainerItemIdentifier,(null),63,public.folder,"
                "NSFileProviderRootContainerItemIdentifier,(null),(null),(null),(null),(null)"});
}

TEST_F(ItemLog, NullNameAndTrashParentPrintAsThePlatformDoes) {
  auto record = fileRecord();
  record->strFileName = "";
  record->nStatus = 7;
  FileProviderItem::initWithHVFileItem(record)->test();
  auto lines = takeCapturedLog();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("(null),5/h1,NSFileProviderTrashContainerItemIdentifier,127,", 0), 0u);
}

}  // namespace
}  // namespace hvfp

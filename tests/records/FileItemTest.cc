#include <gtest/gtest.h>

#include "records/FileItemListing.h"
#include "records/HVFileItem.h"

namespace hvfp {
namespace {

HVFileItem fromJson(std::string_view text) {
  HVFileItem item;
  auto v = objectFromJSONString(text);
  EXPECT_TRUE(v);
  if (v) item.setValueWithJson(*v);
  return item;
}

TEST(RecordsFileItem, ListingEntryWithoutStatusIsLive) {
  HVFileItem item = fromJson(R"({"filename":"a.txt","uuidhash":"u1","mount_id":"12"})");
  EXPECT_EQ(item.nStatus, 0);
  EXPECT_EQ(item.nMountID, 12);
  EXPECT_EQ(item.nStatusCode, 0);
  EXPECT_EQ(item.strErrorMsg, std::nullopt);
  EXPECT_EQ(item.strWebPath, std::nullopt);  // missing key: null, not empty
}

TEST(RecordsFileItem, ErrorReplyLeavesFileFieldsAtDefaults) {
  HVFileItem item = fromJson(R"({"error_code":7,"filename":"x","filesize":9,"status_code":404})");
  EXPECT_EQ(item.nErrorCode, 7);
  EXPECT_EQ(item.nStatusCode, 404);
  EXPECT_EQ(item.nStatus, -1);
  EXPECT_EQ(item.strFileName, "");
  EXPECT_EQ(item.ullFileSize, 0u);
  EXPECT_EQ(fromJson(R"({"error_code":"5"})").nErrorCode, 5);
}

TEST(RecordsFileItem, NonObjectLeavesDefaults) {
  HVFileItem item;
  item.setValueWithJson(JsonArray{1, 2});
  EXPECT_EQ(item.nStatus, -1);
  EXPECT_EQ(item.metadataVersion(), R"({"delete":0,"hash":"","property":"","status":-1})");
}

TEST(RecordsFileItem, FolderAndRootFlags) {
  for (auto dir : {R"("1")", "true", "2"}) {
    EXPECT_TRUE(fromJson(std::string(R"({"dir":)") + dir + "}").bDir) << dir;
    EXPECT_TRUE(fromJson(std::string(R"({"root":)") + dir + "}").bRoot) << dir;
  }
  for (auto dir : {"0", "-1", "false", R"("x")"})
    EXPECT_FALSE(fromJson(std::string(R"({"dir":)") + dir + "}").bDir);
  EXPECT_FALSE(fromJson("{}").bDir);
}

TEST(RecordsFileItem, ChildCountOnlyForFolders) {
  EXPECT_EQ(fromJson(R"({"childcount":5})").nChildItemCount, 0);
  EXPECT_EQ(fromJson(R"({"dir":1,"childcount":5})").nChildItemCount, 5);
  EXPECT_EQ(fromJson(R"({"childcount":5,"dir":1})").nChildItemCount,
            5);  // order of keys is not order of reading
}

TEST(RecordsFileItem, SizesFromTextsAndFractions) {
  EXPECT_EQ(fromJson(R"({"filesize":"2048"})").ullFileSize, 2048u);
  EXPECT_EQ(fromJson(R"({"filesize":12.9})").ullFileSize, 12u);
  EXPECT_EQ(fromJson(R"({"filesize":5368709120})").ullFileSize, 5368709120u);
}

TEST(RecordsFileItemVersion, ExactBytes) {
  HVFileItem item;
  item.strFileHash = "abc";
  item.ullFileSize = 1024;
  EXPECT_EQ(item.contentVersion(), R"({"filehash":"abc","filesize":1024})");
  EXPECT_EQ(HVFileItem().contentVersion(), R"({"filehash":"","filesize":0})");

  item.strUuidHash = "u1";
  item.strProperty = "p";
  item.nStatus = 0;
  EXPECT_EQ(item.metadataVersion(), R"({"delete":0,"hash":"u1","property":"p","status":0})");
  item.bDelete = true;
  EXPECT_EQ(item.metadataVersion(), R"({"delete":1,"hash":"u1","property":"p","status":0})");
}

TEST(RecordsFileItemVersion, NullTextsLeaveTheirKeysOut) {
  HVFileItem item = fromJson(R"({"filesize":3,"status":2})");
  EXPECT_EQ(item.contentVersion(), R"({"filesize":3})");
  EXPECT_EQ(item.metadataVersion(), R"({"delete":0,"status":2})");
}

TEST(RecordsFileItemVersion, EscapesLikeThePlatformSerializer) {
  HVFileItem item;
  item.strFileHash = "a/b\"c";
  item.ullFileSize = UINT64_MAX;  // written as the signed value it holds
  EXPECT_EQ(item.contentVersion(), R"({"filehash":"a\/b\"c","filesize":-1})");
}

TEST(RecordsFileItem, Capabilities) {
  HVFileItem item;
  EXPECT_EQ(item.capabilities(), 127u);
  item.bDir = true;
  EXPECT_EQ(item.capabilities(), 127u);
  item.bRoot = true;
  EXPECT_EQ(item.capabilities(), 67u);
}

// The streaming listing reader must give exactly what reading each entry as a
// value tree gives.
void expectSameRecord(const HVFileItem& a, const HVFileItem& b) {
  EXPECT_EQ(a.contentVersion(), b.contentVersion());
  EXPECT_EQ(a.metadataVersion(), b.metadataVersion());
  EXPECT_EQ(a.nStatusCode, b.nStatusCode);
  EXPECT_EQ(a.nErrorCode, b.nErrorCode);
  EXPECT_EQ(a.strErrorMsg, b.strErrorMsg);
  EXPECT_EQ(a.bRoot, b.bRoot);
  EXPECT_EQ(a.bDir, b.bDir);
  EXPECT_EQ(a.strFileName, b.strFileName);
  EXPECT_EQ(a.nMountID, b.nMountID);
  EXPECT_EQ(a.strWebPath, b.strWebPath);
  EXPECT_EQ(a.strUpHash, b.strUpHash);
  EXPECT_EQ(a.ullLastTime, b.ullLastTime);
  EXPECT_EQ(a.nLastID, b.nLastID);
  EXPECT_EQ(a.strLastName, b.strLastName);
  EXPECT_EQ(a.ullCreatorTime, b.ullCreatorTime);
  EXPECT_EQ(a.nLock, b.nLock);
  EXPECT_EQ(a.nLockID, b.nLockID);
  EXPECT_EQ(a.nChildItemCount, b.nChildItemCount);
}

TEST(RecordsFileItemListing, StreamingReaderMatchesTreeReader) {
  std::string text = R"({"lasttime":"1700000000","list":[
    {"filename":"a\u002fb","mount_id":3,"webpath":"d/a.txt","dir":0,"filehash":"h","filesize":"10",
     "uuidhash":"u1","up_hash":"","lasttime":5,"creatortime":4.7,"status":0,"property":"p","extra":[1,{"x":null}]},
    {"error_code":7,"filename":"x"},
    {"dir":"1","childcount":"3","root":true,"lock":null,"lockid":[1],"lastname":5,"status_code":"200"},
    {"file\u006eame":"escaped key","filename":"last wins"},
    7, "text", null, [1,2]
  ],"other":{"deep":[[[]]]}})";
  auto listing = readFileItemListing(text);
  ASSERT_TRUE(listing);
  EXPECT_EQ(listing->lasttime, 1700000000u);
  auto tree = objectFromJSONString(text);
  const JsonArray& entries = *tree->find("list")->array();
  ASSERT_EQ(listing->list.size(), entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(i);
    HVFileItem expected;
    expected.setValueWithJson(entries[i]);
    expectSameRecord(*listing->list[i], expected);
  }
  EXPECT_EQ(listing->list[0]->strFileName, "a/b");
  EXPECT_EQ(listing->list[3]->strFileName, "last wins");
  EXPECT_EQ(listing->list[4]->nStatus, -1);
}

TEST(RecordsFileItemListing, ReplyShapes) {
  auto read = [](std::string text) { return readFileItemListing(text); };
  EXPECT_FALSE(read(""));
  EXPECT_FALSE(read("null"));
  EXPECT_FALSE(read("[]"));
  EXPECT_FALSE(read(R"({"list":[{"a":1}],"lasttime":5)"));  // truncated
  EXPECT_FALSE(read(R"({"list":[{"a":1}]} trailing)"));
  EXPECT_FALSE(read(R"({"list":[],"x":[tru]})"));  // invalid where nobody looks
  EXPECT_FALSE(read(R"({"list":[],"x":"bad \q escape"})"));

  auto errorOnly = read(R"({"error_code":5})");
  ASSERT_TRUE(errorOnly);
  EXPECT_TRUE(errorOnly->list.empty());
  EXPECT_EQ(errorOnly->lasttime, 0u);

  auto notArray = read(R"({"list":{"a":1},"lasttime":9})");
  ASSERT_TRUE(notArray);
  EXPECT_TRUE(notArray->list.empty());
  EXPECT_EQ(notArray->lasttime, 9u);
}

TEST(RecordsFileItemListing, DeepNestingIsRefusedNotACrash) {
  std::string text = R"({"list":[],"x":)" + std::string(5000, '[') + std::string(5000, ']') + "}";
  EXPECT_FALSE(readFileItemListing(text));
}

}  // namespace
}  // namespace hvfp

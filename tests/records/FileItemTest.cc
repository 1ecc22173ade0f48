#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

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

// Every field a record reads, compared one by one.
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

// The listing by readFileItemListing, after every copy of the reader this
// CPU runs has given the same listing, record for record: the copies this
// machine would not pick still run somewhere.
std::optional<FileItemListing> readListing(const std::string& text) {
  auto listing = readFileItemListing(text);
  for (FileItemListingReader reader : fileItemListingReaders()) {
    auto other = reader(text);
    EXPECT_EQ(other.has_value(), listing.has_value()) << text.substr(0, 200);
    if (!other || !listing) continue;
    EXPECT_EQ(other->lasttime, listing->lasttime);
    EXPECT_EQ(other->list.size(), listing->list.size());
    for (size_t i = 0; i < std::min(other->list.size(), listing->list.size()); ++i)
      expectSameRecord(*other->list[i], *listing->list[i]);
  }
  return listing;
}

// The record of one entry by each reader: the value tree, and the streaming
// listing reader with the entry as the only element of "list".
std::vector<HVFileItem> readByBoth(const std::string& entry) {
  std::vector<HVFileItem> out{fromJson(entry)};
  auto listing = readListing(R"({"list":[)" + entry + "]}");
  EXPECT_TRUE(listing && listing->list.size() == 1) << entry;
  if (listing && listing->list.size() == 1) out.push_back(*listing->list[0]);
  return out;
}

// Each key with a value of its own: a misspelt or swapped key leaves a field
// at its default or gives it a neighbour's value.
TEST(RecordsFileItem, EveryKeyFillsItsOwnField) {
  const std::string entry =
      R"({"root":1,"filename":"name","mount_id":3,"webpath":"a/b.txt","dir":"1",)"
      R"("filehash":"fh","filesize":5,"uuidhash":"uh","up_hash":"ph","lasttime":7,"lastid":8,)"
      R"("lastname":"ln","creatortime":9,"lock":10,"lockid":11,"status":12,"property":"pr",)"
      R"("childcount":13,"status_code":200,"error_code":0,"error_msg":"m"})";
  for (const HVFileItem& item : readByBoth(entry)) {
    EXPECT_TRUE(item.bRoot);
    EXPECT_EQ(item.strFileName, "name");
    EXPECT_EQ(item.nMountID, 3);
    EXPECT_EQ(item.strWebPath, "a/b.txt");
    EXPECT_TRUE(item.bDir);
    EXPECT_EQ(item.strFileHash, "fh");
    EXPECT_EQ(item.ullFileSize, 5u);
    EXPECT_EQ(item.strUuidHash, "uh");
    EXPECT_EQ(item.strUpHash, "ph");
    EXPECT_EQ(item.ullLastTime, 7u);
    EXPECT_EQ(item.nLastID, 8);
    EXPECT_EQ(item.strLastName, "ln");
    EXPECT_EQ(item.ullCreatorTime, 9u);
    EXPECT_EQ(item.nLock, 10);
    EXPECT_EQ(item.nLockID, 11);
    EXPECT_EQ(item.nStatus, 12);
    EXPECT_EQ(item.strProperty, "pr");
    EXPECT_EQ(item.nChildItemCount, 13);
    EXPECT_EQ(item.nStatusCode, 200);
    EXPECT_EQ(item.strErrorMsg, "m");
    EXPECT_FALSE(item.bDelete);
  }
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

TEST(RecordsFileItemListing, StreamingReaderMatchesTreeReader) {
  std::string text = R"({"lasttime":"1700000000","list":[
    {"filename":"a\u002fb","mount_id":3,"webpath":"d/a.txt","dir":0,"filehash":"h","filesize":"10",
     "uuidhash":"u1","up_hash":"","lasttime":5,"creatortime":4.7,"status":0,"property":"p","extra":[1,{"x":null}]},
    {"error_code":7,"filename":"x"},
    {"dir":"1","childcount":"3","root":true,"lock":null,"lockid":[1],"lastname":5,"status_code":"200"},
    {"file\u006eame":"escaped key","filename":"last wins"},
    7, "text", null, [1,2]
  ],"other":{"deep":[[[]]]}})";
  auto listing = readListing(text);
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
  auto read = [](const std::string& text) { return readListing(text); };
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

// A number past 64 bits is valid JSON: it reads as a value of the wrong
// kind (an absent key), and the rest of the reply stands.
TEST(RecordsFileItemListing, NumbersPastSixtyFourBitsReadAsAbsent) {
  for (std::string big :
       {"123456789012345678901234", "18446744073709551616", "-9223372036854775809",
        "123456789012345678901234567890", "1e400", "-1E+999", "1.5e999"}) {
    SCOPED_TRACE(big);
    for (const HVFileItem& item : readByBoth(
             R"({"filename":"a","filesize":)" + big + R"(,"lasttime":)" + big + R"(,"mount_id":)" +
             big + R"(,"status":1,"webpath":)" + big + R"(,"x":[)" + big + "]}")) {
      EXPECT_EQ(item.strFileName, "a");
      EXPECT_EQ(item.nMountID, 0);
      EXPECT_EQ(item.ullFileSize, 0u);
      EXPECT_EQ(item.ullLastTime, 0u);
      EXPECT_EQ(item.strWebPath, std::nullopt);
      EXPECT_EQ(item.nStatus, 1);
    }
    auto listing = readListing(R"({"lasttime":)" + big + R"(,"list":[{"filename":"a"},)" +
                               R"({"filesize":)" + big + R"(},{"filename":"c"}]})");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->lasttime, 0u);
    ASSERT_EQ(listing->list.size(), 3u);
    EXPECT_EQ(listing->list[2]->strFileName, "c");
  }
}

// Anything else the parser refuses still refuses the whole reply, wherever
// it stands and on both paths.
TEST(RecordsFileItemListing, BrokenNumbersStillRefuseTheReply) {
  for (const char* bad : {"01", "1.", "-", "1e", "1e+", ".5", "+1", "0x10", "1.e5", "--1", "1ee5",
                          "123456789012345678901234567890x"}) {
    SCOPED_TRACE(bad);
    for (std::string text : {R"({"list":[{"filesize":)" + std::string(bad) + "}]}",
                             R"({"list":[],"x":[)" + std::string(bad) + "]}",
                             R"({"lasttime":)" + std::string(bad) + R"(,"list":[]})"}) {
      EXPECT_FALSE(readListing(text)) << text;
      EXPECT_FALSE(objectFromJSONString(text)) << text;
    }
  }
}

// One nesting limit for both readers, wherever the deep part stands; much
// deeper texts are refused, not a crash.
TEST(RecordsFileItemListing, NestingLimitIsTheSameForBothReaders) {
  auto arrays = [](int n) { return std::string(n, '[') + std::string(n, ']'); };
  auto objects = [](int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += R"({"a":)";
    return out + "1" + std::string(n, '}');
  };
  // Each text has `depth` containers around its innermost value, the reply included.
  std::vector<std::function<std::string(int)>> shapes = {
      [&](int depth) { return R"({"list":[],"x":)" + arrays(depth - 1) + "}"; },
      [&](int depth) { return R"({"list":[],"x":)" + objects(depth - 1) + "}"; },
      [&](int depth) { return R"({"list":[{"x":)" + arrays(depth - 3) + "}]}"; },
      [&](int depth) { return R"({"list":[{"filename":)" + objects(depth - 3) + "}]}"; },
      [&](int depth) { return R"({"list":[)" + arrays(depth - 2) + "]}"; },
      // A number past 64 bits sends the tree reader down its slower path.
      [&](int depth) { return R"({"n":1e400,"list":[],"x":)" + arrays(depth - 1) + "}"; },
      [&](int depth) { return R"({"n":1e400,"list":[],"x":)" + objects(depth - 1) + "}"; },
  };
  for (size_t shape = 0; shape < shapes.size(); ++shape) {
    for (int depth : {kMaxJsonDepth, kMaxJsonDepth + 1, 5000}) {
      SCOPED_TRACE(testing::Message() << "shape " << shape << ", depth " << depth);
      std::string text = shapes[shape](depth);
      bool within = depth <= kMaxJsonDepth;
      EXPECT_EQ(readListing(text).has_value(), within);
      EXPECT_EQ(objectFromJSONString(text).has_value(), within);
    }
  }
}

}  // namespace
}  // namespace hvfp

#include <gtest/gtest.h>

#include <functional>

#include "records/ReplyRecords.h"

namespace hvfp {
namespace {

template <typename T>
std::shared_ptr<T> make(std::string_view text) {
  auto v = objectFromJSONString(text);
  EXPECT_TRUE(v);
  return initWithJson<T>(v ? *v : JsonValue());
}

std::string shown(const NullableString& s) {
  return s ? "\"" + std::string(*s) + "\"" : std::string("null");
}
std::string shown(int64_t n) { return std::to_string(n); }
std::string shown(uint64_t n) { return std::to_string(n); }
std::string shown(const std::vector<std::string>& list) {
  std::string out;
  for (const auto& s : list) out += (out.empty() ? "" : ",") + s;
  return "[" + out + "]";
}

// Reads a reply into a record of type T and shows one of its fields.
template <typename T, typename F>
std::function<std::string(std::string_view)> field(F T::*member) {
  return [member](std::string_view text) { return shown(make<T>(text).get()->*member); };
}

// One row per field a reply fills: the members of a reply that hold only
// the key the field is read from, and the field as read. A misspelt key in
// a reader leaves the field at its default, which no row expects.
struct KeyRow {
  const char* name;
  std::function<std::string(std::string_view)> read;
  const char* members;
  const char* expected;
};

TEST(RecordsReplies, EachFieldReadsItsOwnKey) {
  const KeyRow rows[] = {
      {"status", field(&RequestRet::nStatusCode), R"("status_code":201)", "201"},
      {"error", field(&RequestRet::nErrorCode), R"("error_code":3)", "3"},
      {"message", field(&RequestRet::strErrorMsg), R"("error_msg":"m")", R"("m")"},
      {"open filehash", field(&RetOpen::strFileHash), R"("filehash":"fh")", R"("fh")"},
      {"open hash", field(&RetOpen::strUuidHash), R"("hash":"h")", R"("h")"},
      {"open fullpath", field(&RetOpen::strFullPath), R"("fullpath":"/tmp/x")", R"("/tmp/x")"},
      {"open filesize", field(&RetOpen::ullFileSize), R"("filesize":"7")", "7"},
      {"open dateline", field(&RetOpen::ullDateline), R"("dateline":1700000001)", "1700000001"},
      {"open lock", field(&RetOpen::nLock), R"("lock":1)", "1"},
      {"open lock member", field(&RetOpen::nLockID), R"("lock":1,"lock_member_id":"9")", "9"},
      {"open uris", field(&RetOpen::urlArray), R"("uris":["a",5,"b"])", "[a,,b]"},
      {"create state", field(&RetCreateFile::nState), R"("state":"1")", "1"},
      {"create hash", field(&RetCreateFile::strHash), R"("hash":"h")", R"("h")"},
      {"create up_hash", field(&RetCreateFile::strUpHash), R"("up_hash":"u")", R"("u")"},
      {"create filehash", field(&RetCreateFile::strFileHash), R"("filehash":"fh")", R"("fh")"},
      {"create storage", field(&RetCreateFile::strStoragePoint), R"("storage_point":"sp")",
       R"("sp")"},
      {"create fullpath", field(&RetCreateFile::strWebpath), R"("fullpath":"a/b")", R"("a/b")"},
      {"create filesize", field(&RetCreateFile::ullFileSize), R"("filesize":5368709120)",
       "5368709120"},
      {"create last_dateline", field(&RetCreateFile::ullLastDateline),
       R"("last_dateline":"1700000002")", "1700000002"},
      {"create uploads", field(&RetCreateFile::arrayServers), R"("uploads":["s1"])", "[s1]"},
      {"create cache", field(&RetCreateFile::arrayCacheServers), R"("cache_uploads":["c1","c2"])",
       "[c1,c2]"},
      {"init piecelen", field(&RetUploadInit::piecelen), R"("piecelen":"4194304")", "4194304"},
      {"init session", field(&RetUploadInit::session), R"("session":"s")", R"("s")"},
      {"upload offset", field(&RetUploadReq::offset), R"("offset":"5000000")", "5000000"},
      {"move hash", field(&RetMoveFile::strHash), R"("hash":"ccc")", R"("ccc")"},
      {"move fullpath", field(&RetMoveFile::strWebpath), R"("fullpath":"x/y")", R"("x/y")"},
      {"delete hash", field(&ProviderDeleteInfo::strHash), R"("hash":"h")", R"("h")"},
      {"delete uphash", field(&ProviderDeleteInfo::strUpHash), R"("uphash":"u")", R"("u")"},
      {"delete mount", field(&ProviderDeleteInfo::nMountID), R"("mount_id":"3")", "3"},
  };
  for (const KeyRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.read("{" + std::string(row.members) + "}"), row.expected);
  }
}

TEST(RecordsReplies, DownloadInfoLockAndAddresses) {
  auto open = make<RetOpen>(R"({"filehash":"f","uris":"x"})");
  EXPECT_TRUE(open->urlArray.empty());
  EXPECT_EQ(open->nLock, 0);
  EXPECT_EQ(open->nLockID, 0);
  EXPECT_EQ(make<RetOpen>(R"({"lock":1})")->nLockID, 0);
  EXPECT_EQ(make<RetOpen>(R"({"lock":0,"lock_member_id":9})")->nLockID, 0);
}

TEST(RecordsReplies, CreateFileDefaultsAndErrorReplies) {
  auto create = make<RetCreateFile>(R"({"fullpath":"a/b"})");
  EXPECT_EQ(create->strStoragePoint, "");  // never null
  EXPECT_EQ(create->strFileHash, std::nullopt);
  EXPECT_TRUE(create->arrayServers.empty());
  EXPECT_TRUE(create->arrayCacheServers.empty());

  auto failed = make<RetCreateFile>(R"({"error_code":1,"state":"1","hash":"h","filesize":4})");
  EXPECT_EQ(failed->nErrorCode, 1);
  EXPECT_EQ(failed->nState, 1);
  EXPECT_EQ(failed->strHash, "h");
  EXPECT_EQ(failed->ullFileSize, 4u);
  EXPECT_EQ(make<RetMoveFile>(R"({"status_code":200})")->strWebpath, std::nullopt);
}

TEST(RecordsReplies, StatusWordsAtThirtyTwoBits) {
  auto ret = make<RequestRet>(R"({"status_code":"200","error_code":4294967295,"error_msg":"m"})");
  EXPECT_EQ(ret->nStatusCode, 200);
  EXPECT_EQ(ret->nErrorCode, -1);
  EXPECT_EQ(ret->strErrorMsg, "m");
  EXPECT_EQ(ret->strCookie, "");
}

// A number past 64 bits in an integer field reads as an absent key, at 64
// and at 32 bits; the rest of the reply still counts.
TEST(RecordsReplies, NumbersPastSixtyFourBitsReadAsAbsent) {
  for (std::string big : {"123456789012345678901234", "18446744073709551616",
                          "-9223372036854775809", "1e400", "-1E+999"}) {
    SCOPED_TRACE(big);
    auto open = make<RetOpen>(R"({"status_code":200,"filehash":"f","filesize":)" + big +
                              R"(,"dateline":)" + big + R"(,"lock":)" + big + R"(,"hash":)" + big +
                              R"(,"uris":["u",)" + big + "]}");
    EXPECT_EQ(open->nStatusCode, 200);
    EXPECT_EQ(open->strFileHash, "f");
    EXPECT_EQ(open->ullFileSize, 0u);
    EXPECT_EQ(open->ullDateline, 0u);
    EXPECT_EQ(open->nLock, 0);
    EXPECT_EQ(open->strUuidHash, std::nullopt);
    EXPECT_EQ(open->urlArray, (std::vector<std::string>{"u", ""}));
    auto init = make<RetUploadInit>(R"({"piecelen":)" + big + R"(,"session":"s"})");
    EXPECT_EQ(init->piecelen, 0);
    EXPECT_EQ(init->session, "s");
  }
}

}  // namespace
}  // namespace hvfp

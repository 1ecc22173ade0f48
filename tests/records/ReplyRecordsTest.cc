#include <gtest/gtest.h>

#include "records/ReplyRecords.h"

namespace hvfp {
namespace {

template <typename T>
std::shared_ptr<T> make(std::string_view text) {
  auto v = objectFromJSONString(text);
  EXPECT_TRUE(v);
  return initWithJson<T>(v ? *v : JsonValue());
}

TEST(RecordsReplies, DownloadInfo) {
  auto open = make<RetOpen>(R"({"filehash":"f","uris":"x"})");
  EXPECT_TRUE(open->urlArray.empty());
  EXPECT_EQ(open->nLock, 0);
  EXPECT_EQ(open->nLockID, 0);
  EXPECT_EQ(make<RetOpen>(R"({"lock":1})")->nLockID, 0);
  EXPECT_EQ(make<RetOpen>(R"({"lock":0,"lock_member_id":9})")->nLockID, 0);
  EXPECT_EQ(make<RetOpen>(R"({"lock":1,"lock_member_id":"9"})")->nLockID, 9);

  auto full = make<RetOpen>(
      R"({"status_code":200,"filehash":"f","hash":"h","fullpath":"/tmp/x","filesize":"7","uris":["a",5,"b"]})");
  EXPECT_EQ(full->strUuidHash, "h");
  EXPECT_EQ(full->strFullPath, "/tmp/x");
  EXPECT_EQ(full->ullFileSize, 7u);
  EXPECT_EQ(full->urlArray, (std::vector<std::string>{"a", "", "b"}));  // positions kept
}

TEST(RecordsReplies, CreateFile) {
  auto create = make<RetCreateFile>(R"({"webpath":"ignored","fullpath":"a/b"})");
  EXPECT_EQ(create->strStoragePoint, "");  // never null
  EXPECT_EQ(create->strWebpath, "a/b");
  EXPECT_TRUE(create->arrayServers.empty());
  EXPECT_TRUE(create->arrayCacheServers.empty());

  auto failed = make<RetCreateFile>(
      R"({"error_code":1,"state":"1","hash":"h","up_hash":"u","uploads":["s1"],"cache_uploads":["c1","c2"],"storage_point":"sp"})");
  EXPECT_EQ(failed->nErrorCode, 1);
  EXPECT_EQ(failed->nState, 1);
  EXPECT_EQ(failed->strHash, "h");
  EXPECT_EQ(failed->strUpHash, "u");
  EXPECT_EQ(failed->strStoragePoint, "sp");
  EXPECT_EQ(failed->arrayServers, std::vector<std::string>{"s1"});
  EXPECT_EQ(failed->arrayCacheServers, (std::vector<std::string>{"c1", "c2"}));
}

TEST(RecordsReplies, UploadSteps) {
  auto init = make<RetUploadInit>(R"({"piecelen":"4194304","session":"s"})");
  EXPECT_EQ(init->piecelen, 4194304);
  EXPECT_EQ(init->session, "s");
  auto req = make<RetUploadReq>(R"({"status_code":401,"offset":"5000000"})");
  EXPECT_EQ(req->nStatusCode, 401);
  EXPECT_EQ(req->offset, 5000000u);
  auto move = make<RetMoveFile>(R"({"status_code":200})");
  EXPECT_EQ(move->strHash, std::nullopt);
  EXPECT_EQ(make<RetMoveFile>(R"({"hash":"ccc","fullpath":"x/y"})")->strHash, "ccc");
}

TEST(RecordsReplies, StatusWordsAtThirtyTwoBits) {
  auto ret = make<RequestRet>(R"({"status_code":"200","error_code":4294967295,"error_msg":"m"})");
  EXPECT_EQ(ret->nStatusCode, 200);
  EXPECT_EQ(ret->nErrorCode, -1);
  EXPECT_EQ(ret->strErrorMsg, "m");
  EXPECT_EQ(ret->strCookie, "");
}

TEST(RecordsReplies, DeleteNoticeKeys) {
  auto info =
      make<ProviderDeleteInfo>(R"({"hash":"h","uphash":"u","up_hash":"no","mount_id":"3"})");
  EXPECT_EQ(info->strUpHash, "u");
  EXPECT_EQ(info->nMountID, 3);
}

}  // namespace
}  // namespace hvfp

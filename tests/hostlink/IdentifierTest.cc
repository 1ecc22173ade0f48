#include <gtest/gtest.h>

#include "hostlink/HalvoProviderClient.h"

namespace hvfp {
namespace {

TEST(HostlinkIdentifier, Create) {
  EXPECT_EQ(createItemIdentifier(12, ""), "12");
  EXPECT_EQ(createItemIdentifier(12, "ab/cd"), "12/ab/cd");
  EXPECT_EQ(createItemIdentifier(-3, "x"), "-3/x");
  EXPECT_EQ(createItemIdentifier(0, ""), "0");
}

TEST(HostlinkIdentifier, ParseSplitsAtFirstSlash) {
  auto check = [](std::string_view id, int64_t mount, std::string_view hash) {
    auto p = parseItemIdentifier(id);
    EXPECT_EQ(p.nMountID, mount) << id;
    EXPECT_EQ(p.strUuidHash, hash) << id;
  };
  check("12/ab/cd", 12, "ab/cd");
  check("12/", 12, "");
  check("12", 12, "");
  check("/ab", 0, "ab");
  check(" 7/x", 7, "x");
  check("12abc", 12, "");
  check(NSFileProviderRootContainerItemIdentifier, 0, "");
  check("99999999999999999999/x", INT64_MAX, "x");
}

TEST(HostlinkIdentifier, ProvisionalIdentifiersAreRefused) {
  for (auto id : {"__fp/fs/42", "x__fp/y", "__FP/1", "__fP/a"})
    EXPECT_FALSE(checkItemIndentifierRight(id)) << id;
  for (auto id : {"fp/1", "__fp", "12/ab", ""}) EXPECT_TRUE(checkItemIndentifierRight(id)) << id;
}

TEST(HostlinkRegistries, PendingAdditionsKeepFirstObject) {
  HalvoProviderClient client;
  auto first = std::make_shared<AddFileInfo>(AddFileInfo{"__fp/fs/5", "new", 3});
  client.addAddFileInFo(first);
  client.addAddFileInFo(std::make_shared<AddFileInfo>(AddFileInfo{"__fp/fs/5", "new2", 4}));
  auto found = client.getAddFileInfo("__fp/fs/5");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->strWebpath, "new2");
  EXPECT_EQ(found->nMountID, 4);
  EXPECT_EQ(first->strWebpath, "new2");  // the first registration's entry, updated in place
  EXPECT_EQ(first->nMountID, 4);
  EXPECT_FALSE(client.getAddFileInfo("unknown"));
}

TEST(HostlinkRegistries, RootRenamesUpdateInPlace) {
  HalvoProviderClient client;
  client.addRootChangeName(std::make_shared<RootChangeName>(RootChangeName{"12", "Docs(2)"}));
  client.addRootChangeName(std::make_shared<RootChangeName>(RootChangeName{"12", "Docs(3)"}));
  EXPECT_EQ(client.checkRootChangeName("12"), "Docs(3)");
  EXPECT_EQ(client.checkRootChangeName("13"), "");
}

}  // namespace
}  // namespace hvfp

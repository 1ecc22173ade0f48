// Modifications and deletions through the extension, as the framework makes
// them: which task (if any) each change starts, seen on the wire and in what
// the handler receives, and the log lines.
#include "TaskFixture.h"
#include "platform/fileprovider/ItemTemplate.h"
#include "support/ChildProcess.h"

namespace hvfp::test {
namespace {

NSFileProviderItemTemplate itemAs(const std::string& id, const std::string& parent,
                                  const std::string& name) {
  NSFileProviderItemTemplate item;
  item.identifier = id;
  item.parentIdentifier = parent;
  item.name = name;
  return item;
}

// The version this system gives an item it moved to the trash, with the
// host's status `status` at the time.
NSFileProviderItemVersion trashed(int status,
                                  std::string content = R"({"filehash":"abc","filesize":7})") {
  return {std::move(content),
          R"({"delete":1,"hash":"h1","property":"","status":)" + std::to_string(status) + "}"};
}

Lines versionLog(const NSFileProviderItemVersion& v) {
  return {"contentVersion:" + v.contentVersion, "metadataVersion:" + v.metadataVersion};
}

class ModifyItem : public TaskTest {
 protected:
  // One modification; what its handler received, once the task (if any) has
  // finished.
  std::string modify(NSFileProviderItemTemplate item, uint64_t fields,
                     const std::optional<NSFileProviderItemVersion>& base) {
    ChangeRecorder recorder;
    EXPECT_TRUE(extension->modifyItem(item, base, fields, std::nullopt, 0, {}, recorder.handler()));
    extension->mTaskQueue().waitUntilAllOperationsAreFinished();
    EXPECT_EQ(recorder.calls(), 1);
    return recorder.first();
  }
};

TEST_F(ModifyItem, ChangedFieldsPickOneTaskOrTheHostsRecord) {
  auto registered = std::make_shared<RootChangeName>();
  *registered = {"1", "Docs(2)"};
  client.addRootChangeName(registered);

  const std::string info = "type=fileinfo&uuidhash=h1&mount_id=5";
  const std::string move =
      "type=remove&uuidhash=h1&mount_id=5&parent_uuidhash=p2&parent_mount_id=5";
  const std::string restore = "type=recoverfile&uuidhash=h1&mount_id=5";
  const std::string ok = R"({"status_code":200})", moved = R"({"status_code":200,"hash":"h9"})";
  const std::string unknown = R"({"status_code":404})";
  // record() carries no "property", so its key stays out of the version.
  auto meta = [](int del, int status) {
    return R"({"delete":)" + std::to_string(del) + R"(,"hash":"h1","status":)" +
           std::to_string(status) + "}";
  };
  const std::string rec = record(5, "h1"), inTrash = record(5, "h1", 7);
  const auto at = itemAs("5/h1", "5/p1", "a.txt");
  const auto moving = itemAs("5/h1", "5/p2", "a.txt");
  const auto trashing = itemAs("5/h1", kTrash, "a.txt");
  const std::string restored = "5/h1 'a.txt' in 5/p2 " + meta(0, 4) + " pending 0";
  const std::string movedAnswer = "5/h9 'a.txt' in 5/p2 " + meta(0, 0) + " pending 0";

  auto check = [&](const char* what, const NSFileProviderItemTemplate& item, uint64_t fields,
                   const std::optional<NSFileProviderItemVersion>& base, const Lines& replies,
                   const Lines& queries, const std::string& answer, const Lines& after = {}) {
    SCOPED_TRACE(what);
    for (const auto& reply : replies) server.enqueue({200, reply});
    EXPECT_EQ(modify(item, fields, base), answer);
    EXPECT_EQ(newQueries(), queries);
    Lines log{"FileProviderExtension modifyItem:" + *item.name + "," + item.identifier + "," +
              FileProviderExtension::getChangeFields(fields)};
    log.insert(log.end(), after.begin(), after.end());
    EXPECT_EQ(takeCapturedLog(), log);
  };
  check("name and parent: the rename alone, to the new parent", itemAs("5/h1", "5/p2", "b.txt"), 6,
        std::nullopt, {ok, record(5, "h1", 0, "b.txt")},
        {"type=rename&uuidhash=h1&filename=b%2Etxt&mount_id=5", info},
        "5/h1 'b.txt' in 5/p2 " + meta(0, 0) + " pending 0");
  check("a date alone: the host's record", at, 128,
        NSFileProviderItemVersion{R"({"filehash":"f","filesize":1})", meta(0, 0)}, {rec}, {info},
        "5/h1 'a.txt' in 5/p1 " + meta(0, 0) + " pending 0",
        versionLog({R"({"filehash":"f","filesize":1})", meta(0, 0)}));
  check("no named field, an item the host does not know; empty parts are absent", at, 1024,
        NSFileProviderItemVersion{"", ""}, {unknown}, {info}, "null pending 0 error 3328");
  check("a mount root answers with its registered name", itemAs("1", kRoot, "Docs(2)"), 8,
        std::nullopt,
        {R"({"status_code":200,"root":1,"dir":1,"filename":"Docs","mount_id":1,"uuidhash":""})"},
        {"type=fileinfo&uuidhash=&mount_id=1"},
        "1 'Docs(2)' in " + kRoot + R"( {"delete":0,"hash":"","status":0} pending 0)");
  check("into the trash: a deletion whatever the base says", trashing, 12, trashed(2), {rec, ok},
        {info, "type=deletefile&uuidhash=h1&mount_id=5"},
        "5/h1 'a.txt' in " + kTrash + " " + meta(1, 0) + " pending 8", [&] {
          Lines l = versionLog(trashed(2));
          l.push_back(recordLine("5/h1", kTrash));
          return l;
        }());
  check("a move without a base version", moving, 4, std::nullopt, {rec, moved}, {info, move},
        movedAnswer, {recordLine("5/h9", "5/p2")});
  check("a move whose base says not deleted", moving, 4,
        NSFileProviderItemVersion{"{}", R"({"delete":0,"status":2})"}, {rec, moved}, {info, move},
        movedAnswer,
        {"contentVersion:{}", R"(metadataVersion:{"delete":0,"status":2})",
         recordLine("5/h9", "5/p2")});
  check("a move whose base metadata is not JSON", moving, 4, NSFileProviderItemVersion{"", "[1]"},
        {rec, moved}, {info, move}, movedAnswer,
        {"metadataVersion:[1]", recordLine("5/h9", "5/p2")});
  // Statuses 2, 0 and -1 (and a content version that is not JSON) mean restore.
  for (const auto& base : {trashed(2), trashed(0), trashed(-1), trashed(2, "garbage")})
    check("out of the trash: a restore", moving, 4, base, {inTrash, ok}, {info, restore}, restored,
          versionLog(base));
  check("out of the trash, status 1: the host's record", moving, 4, trashed(1), {rec}, {info},
        "5/h1 'a.txt' in 5/p2 " + meta(0, 0) + " pending 0", versionLog(trashed(1)));
  check("out of the trash, status 3: the host does not know the item", moving, 12, trashed(3),
        {unknown}, {info}, "null pending 0 error 3328", versionLog(trashed(3)));
}

TEST(ChangeFields, NamedBitsInOrderEachWithItsComma) {
  const std::vector<std::pair<uint64_t, std::string>> rows{
      {0, ""},
      {1024 | 4096, ""},
      {1 | 4, "NSFileProviderItemContents,NSFileProviderItemParentItemIdentifier,"},
      {3, "NSFileProviderItemContents,NSFileProviderItemFilename,"},
      {1023,
       "NSFileProviderItemContents,NSFileProviderItemFilename,"
       "NSFileProviderItemParentItemIdentifier,NSFileProviderItemLastUsedDate,"
       "NSFileProviderItemTagData,NSFileProviderItemFavoriteRank,NSFileProviderItemCreationDate,"
       "NSFileProviderItemContentModificationDate,NSFileProviderItemFileSystemFlags,"
       "NSFileProviderItemExtendedAttributes,"},
      {(~uint64_t{0} & ~uint64_t{1023}) | 512, "NSFileProviderItemExtendedAttributes,"},
  };
  for (const auto& [fields, text] : rows)
    EXPECT_EQ(FileProviderExtension::getChangeFields(fields), text) << fields;
}

using DeleteItem = TaskTest;

TEST_F(DeleteItem, DropsTheSyncRecordOfMountItemsAndAlwaysSucceedsBeforeReturning) {
  struct Row {
    std::string id;
    Lines queries;
  };
  const std::vector<Row> rows{
      {"5/h1", {"type=deletesyncdb&uuidhash=h1&mount_id=5"}},
      {"5", {}},
      {"__fp/fs/3", {}},
      {kTrash, {}},
  };
  auto deleteItem = [&](const std::string& id) {
    int calls = 0;
    std::optional<Error> error = Error::cocoa(0);
    EXPECT_TRUE(
        extension->deleteItemWithIdentifier(id, std::nullopt, 0, {}, [&](std::optional<Error> e) {
          ++calls;
          error = e;
        }));
    EXPECT_EQ(calls, 1) << id;
    EXPECT_EQ(error, std::nullopt) << id;
  };
  server.setDefault({500, "{\"status_code\":500}"});
  for (const Row& row : rows) {
    deleteItem(row.id);
    EXPECT_EQ(newQueries(), row.queries) << row.id;
  }
  client.setNPort(unusedLoopbackPort());
  deleteItem("5/h1");
  EXPECT_EQ(takeCapturedLog(), Lines{});  // deletions write nothing
}

}  // namespace
}  // namespace hvfp::test

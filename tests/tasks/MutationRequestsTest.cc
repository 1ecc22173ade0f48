// The host link's mutation requests on the wire: the exact query of each, the
// identifiers that are never sent, and what the caller gets from a reply.
#include "TaskFixture.h"

namespace hvfp::test {
namespace {

std::string status(const RequestRet* r) {
  return r ? "status " + std::to_string(r->nStatusCode) : "none";
}

using MutationRequests = TaskTest;

TEST_F(MutationRequests, SendExactlyTheseQueriesAndNothingForRefusedIdentifiers) {
  using Call = std::function<std::string(const HalvoProviderClient&)>;
  auto rename = [](std::string id, std::string name) -> Call {
    return [=](auto& c) { return status(c.renameFile(id, name).get()); };
  };
  auto move = [](std::string id, std::string parent) -> Call {
    return [=](auto& c) {
      auto r = c.removeFile(id, parent);
      return r ? status(r.get()) + " hash " + std::string(orNull(r->strHash)) : "none";
    };
  };
  auto trash = [](std::string id) -> Call {
    return [=](auto& c) { return status(c.deleteFile(id).get()); };
  };
  auto recover = [](std::string id) -> Call {
    return [=](auto& c) { return status(c.recoverFile(id).get()); };
  };
  auto notice = [](std::function<void(const HalvoProviderClient&)> send) -> Call {
    return [=](auto& c) {
      send(c);
      return std::string("-");
    };
  };
  const std::string ok = R"({"status_code":200,"hash":"cc"})";
  struct Row {
    const char* what;
    Call call;
    std::string reply;  // "" when nothing may be sent
    Lines queries;
    std::string result;
  };
  const std::vector<Row> rows{
      {"move between folders",
       move("5/aa", "5/bb"),
       ok,
       {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=bb&parent_mount_id=5"},
       "status 200 hash cc"},
      {"move to a mount root",
       move("5/aa", "6"),
       ok,
       {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=&parent_mount_id=6"},
       "status 200 hash cc"},
      {"move into a provisional folder",
       move("5/aa", "__fp/y"),
       ok,
       {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=y&parent_mount_id=0"},
       "status 200 hash cc"},
      {"move to a container",
       move("5/aa", kTrash),
       ok,
       {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=&parent_mount_id=0"},
       "status 200 hash cc"},
      {"move of a provisional item", move("__fp/x", "5/bb"), "", {}, "none"},
      {"move answered without a hash",
       move("5/aa", "5/bb"),
       R"({"status_code":200})",
       {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=bb&parent_mount_id=5"},
       "status 200 hash (null)"},
      {"rename with reserved characters",
       rename("5/aa", "a&b.txt"),
       R"({"status_code":200})",
       {"type=rename&uuidhash=aa&filename=a%26b%2Etxt&mount_id=5"},
       "status 200"},
      {"rename of a mount root",
       rename("5", "x"),
       R"({"status_code":200})",
       {"type=rename&uuidhash=&filename=x&mount_id=5"},
       "status 200"},
      {"rename of a provisional item", rename("__fp/fs/1", "x"), "", {}, "none"},
      {"rename refused: the status is the caller's",
       rename("5/aa", "x"),
       R"({"status_code":403,"error_code":6})",
       {"type=rename&uuidhash=aa&filename=x&mount_id=5"},
       "status 403"},
      {"rename answered with no JSON",
       rename("5/aa", "x"),
       "<html>",
       {"type=rename&uuidhash=aa&filename=x&mount_id=5"},
       "none"},
      {"rename answered with an array",
       rename("5/aa", "x"),
       "[1]",
       {"type=rename&uuidhash=aa&filename=x&mount_id=5"},
       "none"},
      {"trash",
       trash("5/aa"),
       R"({"status_code":200})",
       {"type=deletefile&uuidhash=aa&mount_id=5"},
       "status 200"},
      {"trash of a mount root", trash("5"), "", {}, "none"},
      {"trash of a provisional item", trash("__fp/5/a"), "", {}, "none"},
      {"restore",
       recover("5/aa"),
       R"({"status_code":200})",
       {"type=recoverfile&uuidhash=aa&mount_id=5"},
       "status 200"},
      {"restore of a provisional item", recover("__fp/fs/9"), "", {}, "none"},
      {"restore of a mount root", recover("5"), "", {}, "none"},
      {"local status",
       notice([](auto& c) { c.updateStauts("5/aa", 3); }),
       "{}",
       {"type=updatestatus&uuidhash=aa&mount_id=5&status=3"},
       "-"},
      {"local status of a mount root",
       notice([](auto& c) { c.updateStauts("5", 3); }),
       "",
       {},
       "-"},
      {"cache copy with an empty path",
       notice([](auto& c) { c.addFileToCache("", "h"); }),
       "{}",
       {"type=addcache&path=&filehash=h"},
       "-"},
      {"sync record: everything after the first slash",
       notice([](auto& c) { c.deleteSyncDB("5/aa/bb"); }),
       "{}",
       {"type=deletesyncdb&uuidhash=aa%2Fbb&mount_id=5"},
       "-"},
      {"sync record of a provisional item",
       notice([](auto& c) { c.deleteSyncDB("__fp/5/a"); }),
       "",
       {},
       "-"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    if (!row.reply.empty()) server.enqueue({200, row.reply});
    EXPECT_EQ(row.call(client), row.result);
    EXPECT_EQ(newQueries(), row.queries);
  }
}

}  // namespace
}  // namespace hvfp::test

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
  // An empty reply: nothing may be sent.
  auto check = [&](const char* what, const Call& call, const std::string& reply,
                   const Lines& queries, const std::string& result) {
    SCOPED_TRACE(what);
    if (!reply.empty()) server.enqueue({200, reply});
    EXPECT_EQ(call(client), result);
    EXPECT_EQ(newQueries(), queries);
  };
  check("move between folders", move("5/aa", "5/bb"), ok,
        {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=bb&parent_mount_id=5"},
        "status 200 hash cc");
  check("move to a mount root", move("5/aa", "6"), ok,
        {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=&parent_mount_id=6"},
        "status 200 hash cc");
  check("move into a provisional folder", move("5/aa", "__fp/y"), ok,
        {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=y&parent_mount_id=0"},
        "status 200 hash cc");
  check("move to a container", move("5/aa", kTrash), ok,
        {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=&parent_mount_id=0"},
        "status 200 hash cc");
  check("move of a provisional item", move("__fp/x", "5/bb"), "", {}, "none");
  check("move answered without a hash", move("5/aa", "5/bb"), R"({"status_code":200})",
        {"type=remove&uuidhash=aa&mount_id=5&parent_uuidhash=bb&parent_mount_id=5"},
        "status 200 hash (null)");
  check("rename with reserved characters", rename("5/aa", "a&b.txt"), R"({"status_code":200})",
        {"type=rename&uuidhash=aa&filename=a%26b%2Etxt&mount_id=5"}, "status 200");
  check("rename of a mount root", rename("5", "x"), R"({"status_code":200})",
        {"type=rename&uuidhash=&filename=x&mount_id=5"}, "status 200");
  check("rename of a provisional item", rename("__fp/fs/1", "x"), "", {}, "none");
  check("rename refused: the status is the caller's", rename("5/aa", "x"),
        R"({"status_code":403,"error_code":6})", {"type=rename&uuidhash=aa&filename=x&mount_id=5"},
        "status 403");
  check("rename answered with no JSON", rename("5/aa", "x"), "<html>",
        {"type=rename&uuidhash=aa&filename=x&mount_id=5"}, "none");
  check("rename answered with an array", rename("5/aa", "x"), "[1]",
        {"type=rename&uuidhash=aa&filename=x&mount_id=5"}, "none");
  check("trash", trash("5/aa"), R"({"status_code":200})",
        {"type=deletefile&uuidhash=aa&mount_id=5"}, "status 200");
  check("trash of a mount root", trash("5"), "", {}, "none");
  check("trash of a provisional item", trash("__fp/5/a"), "", {}, "none");
  check("restore", recover("5/aa"), R"({"status_code":200})",
        {"type=recoverfile&uuidhash=aa&mount_id=5"}, "status 200");
  check("restore of a provisional item", recover("__fp/fs/9"), "", {}, "none");
  check("restore of a mount root", recover("5"), "", {}, "none");
  check("local status", notice([](auto& c) { c.updateStauts("5/aa", 3); }), "{}",
        {"type=updatestatus&uuidhash=aa&mount_id=5&status=3"}, "-");
  check("local status of a mount root", notice([](auto& c) { c.updateStauts("5", 3); }), "", {},
        "-");
  check("cache copy with an empty path", notice([](auto& c) { c.addFileToCache("", "h"); }), "{}",
        {"type=addcache&path=&filehash=h"}, "-");
  check("sync record: everything after the first slash",
        notice([](auto& c) { c.deleteSyncDB("5/aa/bb"); }), "{}",
        {"type=deletesyncdb&uuidhash=aa%2Fbb&mount_id=5"}, "-");
  check("sync record of a provisional item", notice([](auto& c) { c.deleteSyncDB("__fp/5/a"); }),
        "", {}, "-");
}

}  // namespace
}  // namespace hvfp::test

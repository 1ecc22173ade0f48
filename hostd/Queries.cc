#include "Queries.h"

#include <charconv>
#include <chrono>
#include <thread>

#include "Digest.h"
#include "platform/Text.h"
#include "records/Json.h"

namespace hvfp::hostd {

namespace {

constexpr int kMaxDelayMs = 60000;
constexpr const char* kStoragePoint = "hostd-local";

// Reads the query's pairs; the first problem is kept for the error reply.
class Args {
 public:
  explicit Args(const Params& p) : p_(p) {}

  std::optional<std::string> text(const char* key) {
    auto it = p_.find(key);
    if (it == p_.end()) return missing(key);
    if (it->second.find('\0') != std::string::npos)
      return wrong(key, "must not contain NUL"), std::nullopt;
    return it->second;
  }
  std::optional<int64_t> integer(const char* key) { return number<int64_t>(key); }
  std::optional<uint64_t> count(const char* key) { return number<uint64_t>(key); }
  bool ok() const { return !failure_; }
  Reply reply() const;

 private:
  template <typename T>
  std::optional<T> number(const char* key) {
    auto it = p_.find(key);
    if (it == p_.end()) return missing(key);
    const std::string& s = it->second;
    T v{};
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size()) {
      wrong(key, "must be a decimal integer");
      return std::nullopt;
    }
    return v;
  }
  std::nullopt_t missing(const char* key) {
    if (!failure_) failure_ = fail(400, kBadRequest, std::string("missing key \"") + key + "\"");
    return std::nullopt;
  }
  void wrong(const char* key, const char* why) {
    if (!failure_) failure_ = fail(400, kBadRequest, std::string("\"") + key + "\" " + why);
  }

  const Params& p_;
  std::optional<Failure> failure_;
};

Reply fromFailure(const Failure& f) {
  int http = f.status >= 200 && f.status <= 599 ? f.status : 200;
  return Reply{http, errorReply(f)};
}

Reply Args::reply() const { return fromFailure(*failure_); }

Reply okReply(std::string body) { return Reply{200, std::move(body)}; }

// Keys of the move / create / close replies; written in sorted order.
std::string placedReply(const Item& it, std::optional<int64_t> state) {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("filehash").value(it.fileHash).key("filesize").value(it.size);
  w.key("fullpath").value(it.webpath).key("hash").value(it.uuid);
  w.key("last_dateline").value(it.changeTime).key("mount_id").value(it.mountId);
  if (state) w.key("state").value(*state);
  w.key("status_code").value(200).key("up_hash").value(it.upHash);
  w.endObject();
  return out;
}

std::string statusOnly(int status) {
  std::string out;
  JsonWriter(out).beginObject().key("status_code").value(status).endObject();
  return out;
}

Failure badRequest(std::string msg) { return fail(400, kBadRequest, std::move(msg)); }

}  // namespace

std::string errorReply(const Failure& f) {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("error_code")
      .value(f.code)
      .key("error_msg")
      .value(f.message)
      .key("status_code")
      .value(f.status);
  w.endObject();
  return out;
}

static void writeItem(JsonWriter& w, const Item& it, bool withStatus) {
  w.beginObject();
  if (it.dir) w.key("childcount").value(it.childCount);
  w.key("creatortime").value(it.createTime).key("dir").value(int64_t{it.dir});
  w.key("filehash")
      .value(it.fileHash)
      .key("filename")
      .value(it.name)
      .key("filesize")
      .value(it.size);
  w.key("lastid")
      .value(it.lastId)
      .key("lastname")
      .value(it.lastName)
      .key("lasttime")
      .value(it.changeTime);
  w.key("lock").value(it.lock).key("lockid").value(it.lockId).key("mount_id").value(it.mountId);
  w.key("property")
      .value(it.property)
      .key("root")
      .value(int64_t{it.root})
      .key("status")
      .value(it.status);
  if (withStatus) w.key("status_code").value(200);
  w.key("up_hash").value(it.upHash).key("uuidhash").value(it.uuid).key("webpath").value(it.webpath);
  w.endObject();
}

std::string itemJson(const Item& item, bool withStatus) {
  std::string out;
  JsonWriter w(out);
  writeItem(w, item, withStatus);
  return out;
}

QueryHandler::QueryHandler(Store& store, BlobStore& blobs, UploadSessions& sessions,
                           HostDirectory& dir, FaultTable& faults)
    : store_(store), blobs_(blobs), sessions_(sessions), dir_(dir), faults_(faults) {}

std::string QueryHandler::typeOf(const Params& params) {
  auto it = params.find("type");
  return it == params.end() ? "" : it->second;
}

Reply QueryHandler::handle(const Params& params) {
  std::string type = typeOf(params);
  auto fault = faults_.take(type);
  if (!fault) return dispatch(type, params);
  Reply r;
  r.delayMs = std::min(fault->delayMs, kMaxDelayMs);
  switch (fault->kind) {
    case FaultKind::Delay: {
      Reply normal = dispatch(type, params);
      normal.delayMs = r.delayMs;
      return normal;
    }
    case FaultKind::Drop:
    case FaultKind::Reset:
      r.drop = true;
      return r;
    case FaultKind::Body:
      r.status = 200;
      r.body = fault->body;
      return r;
    case FaultKind::NotJson:
      r.status = 200;
      r.body = "<html><body>host trouble</body></html>";
      return r;
    case FaultKind::Status:
    case FaultKind::Expect409:
    case FaultKind::Done202: {
      Failure f{fault->status, fault->errorCode,
                fault->message.empty() ? "injected fault" : fault->message};
      Reply e = fromFailure(f);
      e.delayMs = r.delayMs;
      if (!fault->body.empty()) e.body = fault->body;
      return e;
    }
  }
  return dispatch(type, params);
}

Reply QueryHandler::dispatch(const std::string& type, const Params& p) {
  if (type == "links") return links();
  if (type == "trash") return trash();
  if (type == "files") return files(p);
  if (type == "changefiles") return changeFiles(p);
  if (type == "fileinfo") return fileInfo(p);
  if (type == "download") return download(p);
  if (type == "rename") return rename(p);
  if (type == "remove") return remove(p);
  if (type == "deletefile") return deleteFile(p);
  if (type == "recoverfile") return recoverFile(p);
  if (type == "addcache") return addCache(p);
  if (type == "updatestatus") return updateStatus(p);
  if (type == "deletesyncdb") return deleteSyncDb(p);
  if (type == "create") return create(p);
  if (type == "uploadinit") return uploadInit(p);
  if (type == "uploadreq") return uploadReq(p);
  if (type == "uploadfinish") return uploadFinish(p);
  if (type == "uploadabort") return uploadAbort(p);
  if (type.empty()) return fromFailure(badRequest("missing key \"type\""));
  return fromFailure(badRequest("unknown type"));
}

Reply QueryHandler::links() {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("list").beginArray();
  for (auto& m : store_.mounts())
    if (auto root = store_.item(m.id, "")) writeItem(w, *root, false);
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::trash() {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("list").beginArray();
  for (auto& it : store_.trashed()) writeItem(w, it, false);
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::files(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  // The cursor is taken first: a change racing the listing shows up again
  // in the next change listing rather than never.
  uint64_t cursor = store_.cursor();
  std::string out;
  out.reserve(1 << 16);
  JsonWriter w(out);
  w.beginObject().key("lasttime").value(cursor).key("list").beginArray();
  bool known = store_.forEachChild(*mount, *uuid, [&](const Item& it) { writeItem(w, it, false); });
  if (!known) return fromFailure(fail(404, kNotFound, "no such folder"));
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::changeFiles(const Params& p) {
  Args a(p);
  auto since = a.count("lasttime");
  if (!a.ok()) return a.reply();
  uint64_t cursor = store_.cursor();
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("lasttime").value(cursor).key("list").beginArray();
  store_.forEachChange(*since, [&](const Item& it) {
    if (it.cursor <= cursor) writeItem(w, it, false);
  });
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::fileInfo(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  auto it = store_.item(*mount, *uuid);
  if (!it) return fromFailure(fail(404, kNotFound, "no such item"));
  return okReply(itemJson(*it, true));
}

Reply QueryHandler::download(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  auto it = store_.item(*mount, *uuid);
  if (!it) return fromFailure(fail(404, kNotFound, "no such item"));
  if (it->dir) return fromFailure(fail(400, kNotFolder, "a folder has no contents to download"));
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("dateline")
      .value(it->changeTime)
      .key("filehash")
      .value(it->fileHash)
      .key("filesize")
      .value(it->size);
  bool local = blobs_.has(it->fileHash) && !dir_.forceUris();
  if (local)
    w.key("fullpath").value(std::filesystem::absolute(blobs_.pathOf(it->fileHash)).string());
  w.key("hash").value(it->uuid).key("lock").value(it->lock);
  if (it->lock != 0) w.key("lock_member_id").value(it->lockId);
  w.key("status_code").value(200);
  if (!local) w.key("uris").beginArray().value(dir_.downloadUrl(it->fileHash)).endArray();
  w.endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::rename(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto name = a.text("filename");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  if (!isValidName(*name)) return fromFailure(fail(400, kBadName, "invalid name"));
  if (uuid->empty()) {
    // The mount root's name is the library's name.
    auto m = store_.renameMount(*mount, *name);
    if (!m.ok()) return fromFailure(m.failure());
    return okReply(statusOnly(200));
  }
  auto r = store_.rename(*mount, *uuid, *name);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(placedReply(r.value(), std::nullopt));
}

Reply QueryHandler::remove(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  auto parent = a.text("parent_uuidhash");
  auto parentMount = a.integer("parent_mount_id");
  if (!a.ok()) return a.reply();
  auto r = store_.move(*mount, *uuid, *parentMount, *parent);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(placedReply(r.value(), std::nullopt));
}

Reply QueryHandler::deleteFile(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  auto r = store_.trash(*mount, *uuid);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(statusOnly(200));
}

Reply QueryHandler::recoverFile(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  auto r = store_.restore(*mount, *uuid);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(placedReply(r.value(), std::nullopt));
}

Reply QueryHandler::addCache(const Params& p) {
  Args a(p);
  auto path = a.text("path");
  auto hash = a.text("filehash");
  if (!a.ok()) return a.reply();
  if (path->empty() || path->front() != '/')
    return fromFailure(badRequest("path must be absolute"));
  auto r = blobs_.ingest(*path, *hash);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(statusOnly(200));
}

Reply QueryHandler::updateStatus(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  auto status = a.integer("status");
  if (!a.ok()) return a.reply();
  auto r = store_.setLocalStatus(*mount, *uuid, *status);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(statusOnly(200));
}

Reply QueryHandler::deleteSyncDb(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  store_.dropSyncRecord(*mount, *uuid);
  return okReply(statusOnly(200));
}

Reply QueryHandler::create(const Params& p) {
  Args a(p);
  auto webpath = a.text("webpath");
  auto hash = a.text("filehash");
  auto size = a.count("filesize");
  auto ctime = a.count("createtime");
  auto mtime = a.count("lasttime");
  auto mount = a.integer("mount_id");
  auto dir = a.integer("dir");
  if (!a.ok()) return a.reply();
  if (!store_.mount(*mount)) return fromFailure(fail(404, kNotFound, "no such mount"));
  if (*dir != 0) {
    auto r = store_.makeFolder(*mount, *webpath, *ctime, *mtime);
    if (!r.ok()) return fromFailure(r.failure());
    return okReply(placedReply(r.value(), 1));
  }
  if (!isSha1Hex(*hash))
    return fromFailure(badRequest("filehash must be 40 lowercase hex characters"));
  bool stored = blobs_.has(*hash);
  auto res = store_.reserve(*mount, *webpath, *hash, *size, *ctime, *mtime, !stored);
  if (!res.ok()) return fromFailure(res.failure());
  if (stored) {
    // The cloud already holds these bytes: the file exists at once.
    auto it = store_.commitFile(res.value());
    if (!it.ok()) return fromFailure(it.failure());
    return okReply(placedReply(it.value(), 1));
  }
  const Reservation& r = res.value();
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("cache_uploads").beginArray().endArray();
  w.key("filehash")
      .value(r.fileHash)
      .key("filesize")
      .value(r.size)
      .key("fullpath")
      .value(r.webpath);
  w.key("hash")
      .value(r.uuid)
      .key("last_dateline")
      .value(r.changeTime)
      .key("mount_id")
      .value(r.mountId);
  w.key("state").value(0).key("status_code").value(200).key("storage_point").value(kStoragePoint);
  w.key("up_hash").value(r.upHash).key("uploads").beginArray();
  for (auto& url : dir_.uploadUrls()) w.value(url);
  w.endArray().endObject();
  return okReply(std::move(out));
}

namespace {
// The upload server a session step names, or the failure to answer with.
std::optional<Failure> serverOf(HostDirectory& dir, const std::string& host, int* port) {
  bool up = false;
  auto p = dir.uploadPort(host, &up);
  if (!p) return fail(503, kServerDown, "unknown upload server");
  if (!up) return fail(503, kServerDown, "upload server is down");
  *port = *p;
  return std::nullopt;
}
}  // namespace

Reply QueryHandler::uploadInit(const Params& p) {
  Args a(p);
  auto host = a.text("host");
  auto filename = a.text("filename");
  auto pathhash = a.text("pathhash");
  auto hash = a.text("filehash");
  auto storage = a.text("storagepoint");
  auto cookie = a.text("cookie");
  auto size = a.count("filesize");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  int port = 0;
  if (auto f = serverOf(dir_, *host, &port)) return fromFailure(*f);
  auto r = sessions_.open(port, *mount, *pathhash, *filename, *hash, *size);
  if (!r.ok()) return fromFailure(r.failure());
  if (r->complete) {
    std::string out;
    JsonWriter w(out);
    w.beginObject().key("hash").value(r->item->uuid).key("status_code").value(202).endObject();
    return Reply{202, std::move(out)};
  }
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("piecelen").value(UploadSessions::kPieceLength).key("session").value(r->id);
  w.key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::uploadReq(const Params& p) {
  Args a(p);
  auto host = a.text("host");
  auto session = a.text("session");
  auto cookie = a.text("cookie");
  if (!a.ok()) return a.reply();
  int port = 0;
  if (auto f = serverOf(dir_, *host, &port)) return fromFailure(*f);
  auto r = sessions_.offset(port, *session);
  if (!r.ok()) return fromFailure(r.failure());
  std::string out;
  JsonWriter(out)
      .beginObject()
      .key("offset")
      .value(r.value())
      .key("status_code")
      .value(200)
      .endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::uploadFinish(const Params& p) {
  Args a(p);
  auto host = a.text("host");
  auto session = a.text("session");
  auto cookie = a.text("cookie");
  auto size = a.count("filesize");
  if (!a.ok()) return a.reply();
  int port = 0;
  if (auto f = serverOf(dir_, *host, &port)) return fromFailure(*f);
  auto r = sessions_.finish(port, *session, *size);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(placedReply(r.value(), std::nullopt));
}

Reply QueryHandler::uploadAbort(const Params& p) {
  Args a(p);
  auto host = a.text("host");
  auto session = a.text("session");
  auto cookie = a.text("cookie");
  if (!a.ok()) return a.reply();
  int port = 0;
  if (auto f = serverOf(dir_, *host, &port)) return fromFailure(*f);
  auto r = sessions_.abort(port, *session);
  if (!r.ok()) return fromFailure(r.failure());
  return okReply(statusOnly(200));
}

}  // namespace hvfp::hostd

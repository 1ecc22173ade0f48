#include "Queries.h"

#include <charconv>
#include <chrono>
#include <thread>
#include <type_traits>

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

  // "uuidhash" and "mount_id": how most queries name their item.
  struct ItemKey {
    std::string uuid;
    int64_t mount = 0;
  };
  std::optional<ItemKey> item() {
    auto uuid = text("uuidhash");
    auto mount = integer("mount_id");
    if (!uuid || !mount) return std::nullopt;
    return ItemKey{*uuid, *mount};
  }
  // "host", "session" and "cookie": how the session steps name their session.
  struct SessionKey {
    std::string host;
    std::string session;
  };
  std::optional<SessionKey> session() {
    auto host = text("host");
    auto session = text("session");
    auto cookie = text("cookie");
    if (!host || !session || !cookie) return std::nullopt;
    return SessionKey{*host, *session};
  }

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

// The reply to a store or session call: its failure as an error reply, or
// the body `write` makes of its value.
template <typename T, typename Write>
Reply answer(const Result<T>& r, Write write) {
  if (!r.ok()) return fromFailure(r.failure());
  if constexpr (std::is_void_v<T>)
    return okReply(write());
  else
    return okReply(write(r.value()));
}

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

// The body of a reply that reports nothing but success.
constexpr auto ok200 = [](const auto&...) { return statusOnly(200); };

std::string placed(const Item& it) { return placedReply(it, std::nullopt); }

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
  return fault ? withFault(*fault, type, params) : dispatch(type, params);
}

Reply QueryHandler::withFault(const Fault& fault, const std::string& type, const Params& params) {
  Reply r;
  r.delayMs = std::min(fault.delayMs, kMaxDelayMs);
  switch (fault.kind) {
    case FaultKind::Delay:
    case FaultKind::Cut:
    case FaultKind::Slow: {
      Reply normal = dispatch(type, params);
      normal.shape = BodyShape::of(fault);
      // A slow body pauses before each step instead of once.
      normal.delayMs = fault.kind == FaultKind::Slow ? 0 : r.delayMs;
      return normal;
    }
    case FaultKind::Drop:
    case FaultKind::Reset:
      r.drop = true;
      return r;
    case FaultKind::Body:
      r.status = 200;
      r.body = fault.body;
      return r;
    case FaultKind::NotJson:
      r.status = 200;
      r.body = "<html><body>host trouble</body></html>";
      return r;
    case FaultKind::Status:
    case FaultKind::Expect409:
    case FaultKind::Done202: {
      Failure f{fault.status, fault.errorCode,
                fault.message.empty() ? "injected fault" : fault.message};
      Reply e = fromFailure(f);
      e.delayMs = r.delayMs;
      if (!fault.body.empty()) e.body = fault.body;
      return e;
    }
  }
  return dispatch(type, params);
}

Reply QueryHandler::dispatch(const std::string& type, const Params& p) {
  using Handler = Reply (QueryHandler::*)(const Params&);
  static constexpr std::pair<std::string_view, Handler> kTypes[] = {
      {"links", &QueryHandler::links},
      {"trash", &QueryHandler::trash},
      {"files", &QueryHandler::files},
      {"changefiles", &QueryHandler::changeFiles},
      {"fileinfo", &QueryHandler::fileInfo},
      {"download", &QueryHandler::download},
      {"rename", &QueryHandler::rename},
      {"remove", &QueryHandler::remove},
      {"deletefile", &QueryHandler::deleteFile},
      {"recoverfile", &QueryHandler::recoverFile},
      {"addcache", &QueryHandler::addCache},
      {"updatestatus", &QueryHandler::updateStatus},
      {"deletesyncdb", &QueryHandler::deleteSyncDb},
      {"create", &QueryHandler::create},
      {"uploadinit", &QueryHandler::uploadInit},
      {"uploadreq", &QueryHandler::uploadReq},
      {"uploadfinish", &QueryHandler::uploadFinish},
      {"uploadabort", &QueryHandler::uploadAbort},
  };
  for (const auto& [name, handler] : kTypes)
    if (name == type) return (this->*handler)(p);
  if (type.empty()) return fromFailure(badRequest("missing key \"type\""));
  return fromFailure(badRequest("unknown type"));
}

Reply QueryHandler::links(const Params&) {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("list").beginArray();
  for (auto& m : store_.mounts())
    if (auto root = store_.item(m.id, "")) writeItem(w, *root, false);
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::trash(const Params&) {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("list").beginArray();
  for (auto& it : store_.trashed()) writeItem(w, it, false);
  w.endArray().key("status_code").value(200).endObject();
  return okReply(std::move(out));
}

Reply QueryHandler::files(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  // The cursor is taken first: a change racing the listing shows up again
  // in the next change listing rather than never.
  uint64_t cursor = store_.cursor();
  std::string out;
  out.reserve(1 << 16);
  JsonWriter w(out);
  w.beginObject().key("lasttime").value(cursor).key("list").beginArray();
  bool known =
      store_.forEachChild(key->mount, key->uuid, [&](const Item& it) { writeItem(w, it, false); });
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

namespace {
Result<Item> existing(Store& store, int64_t mount, const std::string& uuid) {
  if (auto it = store.item(mount, uuid)) return *it;
  return fail(404, kNotFound, "no such item");
}
}  // namespace

Reply QueryHandler::fileInfo(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  return answer(existing(store_, key->mount, key->uuid),
                [](const Item& it) { return itemJson(it, true); });
}

Reply QueryHandler::download(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  auto found = existing(store_, key->mount, key->uuid);
  if (found.ok() && found->dir)
    return fromFailure(fail(400, kNotFolder, "a folder has no contents to download"));
  return answer(found, [this](const Item& it) {
    std::string out;
    JsonWriter w(out);
    w.beginObject();
    w.key("dateline").value(it.changeTime).key("filehash").value(it.fileHash);
    w.key("filesize").value(it.size);
    bool local = blobs_.has(it.fileHash) && !dir_.forceUris();
    if (local)
      w.key("fullpath").value(std::filesystem::absolute(blobs_.pathOf(it.fileHash)).string());
    w.key("hash").value(it.uuid).key("lock").value(it.lock);
    if (it.lock != 0) w.key("lock_member_id").value(it.lockId);
    w.key("status_code").value(200);
    if (!local) w.key("uris").beginArray().value(dir_.downloadUrl(it.fileHash)).endArray();
    w.endObject();
    return out;
  });
}

Reply QueryHandler::rename(const Params& p) {
  Args a(p);
  auto uuid = a.text("uuidhash");
  auto name = a.text("filename");
  auto mount = a.integer("mount_id");
  if (!a.ok()) return a.reply();
  if (!isValidName(*name)) return fromFailure(fail(400, kBadName, "invalid name"));
  // The mount root's name is the library's name.
  if (uuid->empty()) return answer(store_.renameMount(*mount, *name), ok200);
  return answer(store_.rename(*mount, *uuid, *name), placed);
}

Reply QueryHandler::remove(const Params& p) {
  Args a(p);
  auto key = a.item();
  auto parent = a.text("parent_uuidhash");
  auto parentMount = a.integer("parent_mount_id");
  if (!a.ok()) return a.reply();
  return answer(store_.move(key->mount, key->uuid, *parentMount, *parent), placed);
}

Reply QueryHandler::deleteFile(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  return answer(store_.trash(key->mount, key->uuid), ok200);
}

Reply QueryHandler::recoverFile(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  return answer(store_.restore(key->mount, key->uuid), placed);
}

Reply QueryHandler::addCache(const Params& p) {
  Args a(p);
  auto path = a.text("path");
  auto hash = a.text("filehash");
  if (!a.ok()) return a.reply();
  if (path->empty() || path->front() != '/')
    return fromFailure(badRequest("path must be absolute"));
  return answer(blobs_.ingest(*path, *hash), ok200);
}

Reply QueryHandler::updateStatus(const Params& p) {
  Args a(p);
  auto key = a.item();
  auto status = a.integer("status");
  if (!a.ok()) return a.reply();
  return answer(store_.setLocalStatus(key->mount, key->uuid, *status), ok200);
}

Reply QueryHandler::deleteSyncDb(const Params& p) {
  Args a(p);
  auto key = a.item();
  if (!a.ok()) return a.reply();
  return answer(store_.dropSyncRecord(key->mount, key->uuid), ok200);
}

namespace {
// The reply of a "create" whose contents are still to be uploaded.
std::string reservedReply(const Reservation& r, const std::vector<std::string>& uploadUrls) {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  w.key("cache_uploads").beginArray().endArray();
  w.key("filehash").value(r.fileHash).key("filesize").value(r.size);
  w.key("fullpath").value(r.webpath).key("hash").value(r.uuid);
  w.key("last_dateline").value(r.changeTime).key("mount_id").value(r.mountId);
  w.key("state").value(0).key("status_code").value(200).key("storage_point").value(kStoragePoint);
  w.key("up_hash").value(r.upHash).key("uploads").beginArray();
  for (auto& url : uploadUrls) w.value(url);
  w.endArray().endObject();
  return out;
}
std::string createdReply(const Item& it) { return placedReply(it, 1); }
}  // namespace

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
  if (*dir != 0) return answer(store_.makeFolder(*mount, *webpath, *ctime, *mtime), createdReply);
  if (!isSha1Hex(*hash))
    return fromFailure(badRequest("filehash must be 40 lowercase hex characters"));
  bool stored = blobs_.has(*hash);
  auto res = store_.reserve(*mount, *webpath, *hash, *size, *ctime, *mtime, !stored);
  if (!res.ok()) return fromFailure(res.failure());
  // The cloud already holds these bytes: the file exists at once.
  if (stored) return answer(store_.commitFile(res.value()), createdReply);
  return okReply(reservedReply(res.value(), dir_.uploadUrls()));
}

Result<int> QueryHandler::serverPort(const std::string& host) {
  bool up = false;
  auto port = dir_.uploadPort(host, &up);
  if (!port) return fail(503, kServerDown, "unknown upload server");
  if (!up) return fail(503, kServerDown, "upload server is down");
  return *port;
}

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
  auto port = serverPort(*host);
  if (!port.ok()) return fromFailure(port.failure());
  auto r = sessions_.open(*port, *mount, *pathhash, *filename, *hash, *size);
  if (r.ok() && r->complete) {
    std::string out;
    JsonWriter(out)
        .beginObject()
        .key("hash")
        .value(r->item->uuid)
        .key("status_code")
        .value(202)
        .endObject();
    return Reply{202, std::move(out)};
  }
  return answer(r, [](const OpenedSession& s) {
    std::string out;
    JsonWriter w(out);
    w.beginObject().key("piecelen").value(UploadSessions::kPieceLength).key("session").value(s.id);
    w.key("status_code").value(200).endObject();
    return out;
  });
}

Reply QueryHandler::uploadReq(const Params& p) {
  Args a(p);
  auto key = a.session();
  if (!a.ok()) return a.reply();
  auto port = serverPort(key->host);
  if (!port.ok()) return fromFailure(port.failure());
  return answer(sessions_.offset(*port, key->session), [](uint64_t offset) {
    std::string out;
    JsonWriter(out)
        .beginObject()
        .key("offset")
        .value(offset)
        .key("status_code")
        .value(200)
        .endObject();
    return out;
  });
}

Reply QueryHandler::uploadFinish(const Params& p) {
  Args a(p);
  auto key = a.session();
  auto size = a.count("filesize");
  if (!a.ok()) return a.reply();
  auto port = serverPort(key->host);
  if (!port.ok()) return fromFailure(port.failure());
  return answer(sessions_.finish(*port, key->session, *size), placed);
}

Reply QueryHandler::uploadAbort(const Params& p) {
  Args a(p);
  auto key = a.session();
  if (!a.ok()) return a.reply();
  auto port = serverPort(key->host);
  if (!port.ok()) return fromFailure(port.failure());
  return answer(sessions_.abort(*port, key->session), ok200);
}

}  // namespace hvfp::hostd

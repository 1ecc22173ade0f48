// The ctl commands: changes made "as another device would" (each announces
// the changed folders with a type 2 host event), listener moves and faults.
#include <charconv>

#include "Digest.h"
#include "Host.h"
#include "Seed.h"
#include "platform/Log.h"
#include "records/Json.h"

namespace hvfp::hostd {

namespace {

constexpr uint64_t kMaxGenerated = 64ull << 30;
constexpr int kSlowPauseMs = 100;

const std::string* param(const Params& p, const char* key) {
  auto it = p.find(key);
  return it == p.end() ? nullptr : &it->second;
}

template <typename T>
std::optional<T> number(const Params& p, const char* key) {
  auto s = param(p, key);
  if (!s) return std::nullopt;
  T v{};
  auto [end, ec] = std::from_chars(s->data(), s->data() + s->size(), v);
  if (s->empty() || ec != std::errc() || end != s->data() + s->size()) return std::nullopt;
  return v;
}

Reply failed(const Failure& f) {
  return Reply{f.status >= 200 && f.status <= 599 ? f.status : 400, errorReply(f)};
}
Reply failed(std::string msg) { return failed(fail(400, kBadRequest, std::move(msg))); }
Reply ok(std::string body) { return Reply{200, std::move(body)}; }

std::string joinPath(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

}  // namespace

// One ctl command being answered, with the Host's control mutex held.
class HostControl {
 public:
  HostControl(Host& host, const Params& params) : host_(host), store_(*host.store_), p_(params) {}

  Reply status() { return ok(host_.statusJson()); }
  Reply movePort() REQUIRES(host_.controlMutex_);
  Reply forceUris();
  Reply uploadDown() { return uploadSwitch(false); }
  Reply uploadUp() { return uploadSwitch(true); }
  Reply fault();
  Reply clearFaults();
  Reply syncLog();
  Reply addMount();
  Reply addFolder() { return addItem(true); }
  Reply addFile() { return addItem(false); }
  Reply write();
  Reply rename();
  Reply move();
  Reply trash();
  Reply restore();
  Reply erase();

 private:
  Reply uploadSwitch(bool up);
  Reply addItem(bool folder);
  // The mount named by mount=<id>, which must exist.
  Result<int64_t> mount();
  // The item a command acts on: uuid=<hash>, or path=<webpath> (live first,
  // then the trash).
  Result<Item> target(int64_t mount);
  // Contents from source=<local file>, text=<bytes> or size=<n> [seed=<s>]:
  // the stored blob's hash and its size.
  Result<std::pair<std::string, uint64_t>> contents();
  // Resolves the mount and the item, applies `change`, announces the folders
  // the item left and entered (the top level for a mount root).
  template <typename Change>
  Reply changeItem(Change change);

  Host& host_;
  Store& store_;
  const Params& p_;
};

Reply HostControl::movePort() {
  auto port = number<int>(p_, "port");
  if (!port || *port < 0 || *port > 65535) return failed("move-port needs port=N");
  auto moved = host_.query_->move(*port, [this](int n) { host_.events_.portMoved(n); });
  if (!moved.ok()) return failed(fail(409, kStorage, moved.failure().message));
  host_.writePortsFile();
  return status();
}

Reply HostControl::forceUris() {
  auto on = number<int>(p_, "on");
  if (!on) return failed("force-uris needs on=1 or on=0");
  host_.forceUris_ = *on != 0;
  return status();
}

Reply HostControl::uploadSwitch(bool up) {
  auto port = number<int>(p_, "port");
  UploadServer* server = port ? host_.uploadServerOn(*port) : nullptr;
  if (!server) return failed(fail(404, kNotFound, "no upload server on that port"));
  if (!up) {
    server->stop();
  } else if (auto started = server->start(); !started.ok()) {
    return failed(fail(409, kStorage, started.failure().message));
  }
  return status();
}

Reply HostControl::fault() {
  auto target = param(p_, "target");
  auto kindName = param(p_, "kind");
  auto kind = kindName ? faultKindFromName(*kindName) : std::nullopt;
  if (!target || target->empty() || !kind)
    return failed(
        "fault needs target=<query type|piece|piece@PORT|blob> and "
        "kind=status|body|notjson|delay|drop|expect|complete|reset|cut|slow");
  Fault f;
  f.kind = *kind;
  f.status = number<int>(p_, "status").value_or(f.kind == FaultKind::Expect409 ? 409 : 500);
  f.errorCode = number<int>(p_, "code").value_or(kInjected);
  if (auto m = param(p_, "msg")) f.message = *m;
  if (auto b = param(p_, "body")) f.body = *b;
  f.delayMs = number<int>(p_, "delay").value_or(f.kind == FaultKind::Slow ? kSlowPauseMs : 0);
  f.expect = number<int64_t>(p_, "expect").value_or(-1);
  f.after = number<uint64_t>(p_, "after").value_or(0);
  f.chunk = number<size_t>(p_, "chunk").value_or(f.chunk);
  host_.faults_.arm(*target, f, number<int>(p_, "count").value_or(1));
  return status();
}

Reply HostControl::clearFaults() {
  host_.faults_.clear();
  return status();
}

Reply HostControl::syncLog() {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("list").beginArray();
  for (const auto& e : store_.syncLog()) {
    w.beginObject().key("at").value(e.at);
    if (e.status) w.key("local_status").value(*e.status);
    w.key("mount_id").value(e.mountId).key("query").value(e.query).key("seq").value(e.seq);
    w.key("uuidhash").value(e.uuid).endObject();
  }
  w.endArray().key("status_code").value(200).endObject();
  return ok(std::move(out));
}

Reply HostControl::addMount() {
  auto name = param(p_, "name");
  if (!name) return failed("add-mount needs name=");
  auto m = store_.addMount(*name, number<uint64_t>(p_, "lasttime").value_or(nowSeconds()));
  if (!m.ok()) return failed(m.failure());
  host_.events_.folderChanged(0, "");
  return ok(itemJson(*store_.item(m->id, ""), true));
}

Result<int64_t> HostControl::mount() {
  auto id = number<int64_t>(p_, "mount");
  if (!id || !store_.mount(*id)) return fail(404, kNotFound, "needs mount=<existing mount id>");
  return *id;
}

Result<Item> HostControl::target(int64_t mount) {
  if (auto u = param(p_, "uuid")) {
    if (auto it = store_.item(mount, *u)) return *it;
    return fail(404, kNotFound, "no such item");
  }
  auto path = param(p_, "path");
  if (!path) return fail(400, kBadRequest, "needs uuid= or path=");
  if (auto it = store_.itemAt(mount, *path)) return *it;
  for (auto& t : store_.trashed())
    if (t.mountId == mount && t.webpath == *path) return t;
  return fail(404, kNotFound, "no such item");
}

Result<std::pair<std::string, uint64_t>> HostControl::contents() {
  BlobStore& blobs = *host_.blobs_;
  if (auto src = param(p_, "source")) {
    auto hash = sha1OfFile(*src);
    if (!hash) return fail(404, kNotFound, "cannot read source");
    auto in = blobs.ingest(*src, *hash);
    if (!in.ok()) return in.failure();
    std::error_code ec;
    return std::pair{*hash, static_cast<uint64_t>(std::filesystem::file_size(*src, ec))};
  }
  if (auto text = param(p_, "text")) {
    auto put = blobs.put(*text);
    if (!put.ok()) return put.failure();
    return std::pair{put.value(), static_cast<uint64_t>(text->size())};
  }
  auto size = number<uint64_t>(p_, "size");
  if (!size || *size > kMaxGenerated)
    return fail(400, kBadRequest, "needs source=, text= or size=");
  auto gen = blobs.generate(*size, number<uint64_t>(p_, "seed").value_or(0));
  if (!gen.ok()) return gen.failure();
  return std::pair{gen.value(), *size};
}

Reply HostControl::addItem(bool folder) {
  auto mount = this->mount();
  if (!mount.ok()) return failed(mount.failure());
  auto name = param(p_, "name");
  if (!name || !isValidName(*name)) return failed(fail(400, kBadName, "needs a valid name="));
  auto parentPath = param(p_, "parent-path");
  auto parentUuid = param(p_, "parent");
  std::optional<Item> parent = parentPath ? store_.itemAt(*mount, *parentPath)
                                          : store_.item(*mount, parentUuid ? *parentUuid : "");
  if (!parent || !parent->dir) return failed(fail(404, kNotFound, "no such parent folder"));
  std::string webpath = joinPath(parent->webpath, *name);
  Result<Item> r = Failure{};
  if (folder) {
    r = store_.makeFolder(*mount, webpath, nowSeconds(), nowSeconds());
  } else {
    auto c = contents();
    if (!c.ok()) return failed(c.failure());
    r = placeBlob(store_, *mount, webpath, c->first, c->second, nowSeconds());
  }
  if (!r.ok()) return failed(r.failure());
  host_.events_.folderChanged(*mount, parent->uuid);
  return ok(itemJson(r.value(), true));
}

template <typename Change>
Reply HostControl::changeItem(Change change) {
  auto mount = this->mount();
  if (!mount.ok()) return failed(mount.failure());
  auto item = target(*mount);
  if (!item.ok()) return failed(item.failure());
  Result<Item> r = change(*mount, item.value());
  if (!r.ok()) return failed(r.failure());
  if (r->root) {
    host_.events_.folderChanged(0, "");
  } else {
    host_.events_.folderChanged(*mount, item->upHash);
    if (r->upHash != item->upHash) host_.events_.folderChanged(*mount, r->upHash);
  }
  return ok(itemJson(r.value(), true));
}

Reply HostControl::write() {
  return changeItem([this](int64_t mount, const Item& item) -> Result<Item> {
    auto c = contents();
    if (!c.ok()) return c.failure();
    return store_.setContents(mount, item.uuid, c->first, c->second, nowSeconds());
  });
}

Reply HostControl::rename() {
  return changeItem([this](int64_t mount, const Item& item) -> Result<Item> {
    auto name = param(p_, "name");
    if (!name) return fail(400, kBadRequest, "rename needs name=");
    if (!item.root) return store_.rename(mount, item.uuid, *name);
    auto renamed = store_.renameMount(mount, *name);
    if (!renamed.ok()) return renamed.failure();
    return *store_.item(mount, "");
  });
}

Reply HostControl::move() {
  return changeItem([this](int64_t mount, const Item& item) -> Result<Item> {
    auto toPath = param(p_, "to-path");
    auto to = param(p_, "to");
    auto dest = toPath ? store_.itemAt(mount, *toPath) : store_.item(mount, to ? *to : "");
    if (!dest) return fail(404, kNotFound, "no such destination folder");
    return store_.move(mount, item.uuid, mount, dest->uuid);
  });
}

Reply HostControl::trash() {
  return changeItem(
      [this](int64_t mount, const Item& item) { return store_.trash(mount, item.uuid); });
}

Reply HostControl::restore() {
  return changeItem(
      [this](int64_t mount, const Item& item) { return store_.restore(mount, item.uuid); });
}

Reply HostControl::erase() {
  return changeItem(
      [this](int64_t mount, const Item& item) { return store_.erase(mount, item.uuid); });
}

Reply Host::control(const std::string& cmd, const Params& p) {
  using Run = Reply (HostControl::*)();
  static constexpr std::pair<std::string_view, Run> kCommands[] = {
      {"status", &HostControl::status},
      {"move-port", &HostControl::movePort},
      {"force-uris", &HostControl::forceUris},
      {"upload-down", &HostControl::uploadDown},
      {"upload-up", &HostControl::uploadUp},
      {"fault", &HostControl::fault},
      {"clear-faults", &HostControl::clearFaults},
      {"sync-log", &HostControl::syncLog},
      {"add-mount", &HostControl::addMount},
      {"add-folder", &HostControl::addFolder},
      {"add-file", &HostControl::addFile},
      {"write", &HostControl::write},
      {"rename", &HostControl::rename},
      {"move", &HostControl::move},
      {"trash", &HostControl::trash},
      {"restore", &HostControl::restore},
      {"delete", &HostControl::erase},
  };
  MutexLock lock(controlMutex_);
  HostControl control(*this, p);
  for (const auto& [name, run] : kCommands)
    if (name == cmd) return (control.*run)();
  return failed(fail(404, kBadRequest, "unknown command " + cmd));
}

std::string Host::statusJson() {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("admin").value(adminPort()).key("cursor").value(store_->cursor());
  w.key("download").value(downloadPort()).key("events").value(events_.connected());
  w.key("faults").beginObject();
  for (auto& [target, n] : faults_.pending()) w.key(target).value(n);
  w.endObject();
  w.key("force_uris").value(forceUris_.load()).key("query").value(queryPort());
  w.key("status_code").value(200).key("uploads").beginArray();
  for (auto& u : uploads_) {
    w.beginObject().key("port").value(u->port()).key("up").value(u->up()).key("url").value(
        u->baseUrl());
    w.endObject();
  }
  w.endArray().endObject();
  return out;
}

}  // namespace hvfp::hostd

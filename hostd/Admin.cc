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

Reply Host::control(const std::string& cmd, const Params& p) {
  std::lock_guard lock(controlMutex_);
  if (cmd == "status") return ok(statusJson());
  if (cmd == "move-port") {
    auto port = number<int>(p, "port");
    if (!port || *port < 0 || *port > 65535) return failed("move-port needs port=N");
    std::string why;
    if (!query_->move(
            *port, [this](int n) { events_.portMoved(n); }, &why))
      return failed(fail(409, kStorage, why));
    writePortsFile();
    return ok(statusJson());
  }
  if (cmd == "force-uris") {
    auto on = number<int>(p, "on");
    if (!on) return failed("force-uris needs on=1 or on=0");
    forceUris_ = *on != 0;
    return ok(statusJson());
  }
  if (cmd == "upload-down" || cmd == "upload-up") {
    auto port = number<int>(p, "port");
    UploadServer* server = port ? uploadServerOn(*port) : nullptr;
    if (!server) return failed(fail(404, kNotFound, "no upload server on that port"));
    std::string why;
    if (cmd == "upload-down")
      server->stop();
    else if (!server->start(&why))
      return failed(fail(409, kStorage, why));
    return ok(statusJson());
  }
  if (cmd == "fault") {
    auto target = param(p, "target");
    auto kindName = param(p, "kind");
    auto kind = kindName ? faultKindFromName(*kindName) : std::nullopt;
    if (!target || target->empty() || !kind)
      return failed(
          "fault needs target=<query type|piece|blob> and "
          "kind=status|body|notjson|delay|drop|expect|complete|reset");
    Fault f;
    f.kind = kind.value_or(FaultKind::Status);
    f.status = number<int>(p, "status").value_or(f.kind == FaultKind::Expect409 ? 409 : 500);
    f.errorCode = number<int>(p, "code").value_or(kInjected);
    if (auto m = param(p, "msg")) f.message = *m;
    if (auto b = param(p, "body")) f.body = *b;
    f.delayMs = number<int>(p, "delay").value_or(0);
    f.expect = number<int64_t>(p, "expect").value_or(-1);
    faults_.arm(*target, f, number<int>(p, "count").value_or(1));
    return ok(statusJson());
  }
  if (cmd == "clear-faults") {
    faults_.clear();
    return ok(statusJson());
  }
  if (cmd == "add-mount") {
    auto name = param(p, "name");
    if (!name) return failed("add-mount needs name=");
    auto m = store_->addMount(*name, number<uint64_t>(p, "lasttime").value_or(nowSeconds()));
    if (!m.ok()) return failed(m.failure());
    events_.folderChanged(0, "");
    auto root = store_->item(m->id, "");
    return ok(itemJson(*root, true));
  }

  auto mount = number<int64_t>(p, "mount");
  if (!mount || !store_->mount(*mount))
    return failed(fail(404, kNotFound, "needs mount=<existing mount id>"));
  // The item a command acts on: uuid=<hash>, or path=<webpath> (live first, then the trash).
  auto target = [&]() -> Result<Item> {
    if (auto u = param(p, "uuid")) {
      if (auto it = store_->item(*mount, *u)) return *it;
      return fail(404, kNotFound, "no such item");
    }
    auto path = param(p, "path");
    if (!path) return fail(400, kBadRequest, "needs uuid= or path=");
    if (auto it = store_->itemAt(*mount, *path)) return *it;
    for (auto& t : store_->trashed())
      if (t.mountId == *mount && t.webpath == *path) return t;
    return fail(404, kNotFound, "no such item");
  };
  // Contents from source=<local file>, text=<bytes> or size=<n> [seed=<s>].
  auto contents = [&]() -> Result<std::pair<std::string, uint64_t>> {
    if (auto src = param(p, "source")) {
      auto hash = sha1OfFile(*src);
      if (!hash) return fail(404, kNotFound, "cannot read source");
      auto in = blobs_->ingest(*src, *hash);
      if (!in.ok()) return in.failure();
      std::error_code ec;
      return std::pair{*hash, static_cast<uint64_t>(std::filesystem::file_size(*src, ec))};
    }
    if (auto text = param(p, "text")) {
      auto put = blobs_->put(*text);
      if (!put.ok()) return put.failure();
      return std::pair{put.value(), static_cast<uint64_t>(text->size())};
    }
    auto size = number<uint64_t>(p, "size");
    if (!size || *size > kMaxGenerated)
      return fail(400, kBadRequest, "needs source=, text= or size=");
    auto gen = blobs_->generate(*size, number<uint64_t>(p, "seed").value_or(0));
    if (!gen.ok()) return gen.failure();
    return std::pair{gen.value(), *size};
  };

  if (cmd == "add-folder" || cmd == "add-file") {
    auto name = param(p, "name");
    if (!name || !isValidName(*name)) return failed(fail(400, kBadName, "needs a valid name="));
    std::string parentUuid = param(p, "parent") ? *param(p, "parent") : "";
    std::optional<Item> parent = param(p, "parent-path")
                                     ? store_->itemAt(*mount, *param(p, "parent-path"))
                                     : store_->item(*mount, parentUuid);
    if (!parent || !parent->dir) return failed(fail(404, kNotFound, "no such parent folder"));
    std::string webpath = joinPath(parent->webpath, *name);
    Result<Item> r = Failure{};
    if (cmd == "add-folder") {
      r = store_->makeFolder(*mount, webpath, nowSeconds(), nowSeconds());
    } else {
      auto c = contents();
      if (!c.ok()) return failed(c.failure());
      r = placeBlob(*store_, *mount, webpath, c->first, c->second, nowSeconds());
    }
    if (!r.ok()) return failed(r.failure());
    events_.folderChanged(*mount, parent->uuid);
    return ok(itemJson(r.value(), true));
  }

  auto item = target();
  if (!item.ok()) return failed(item.failure());
  std::string oldParent = item->upHash;
  Result<Item> r = Failure{};
  if (cmd == "write") {
    auto c = contents();
    if (!c.ok()) return failed(c.failure());
    r = store_->setContents(*mount, item->uuid, c->first, c->second, nowSeconds());
  } else if (cmd == "rename") {
    auto name = param(p, "name");
    if (!name) return failed("rename needs name=");
    if (item->root) {
      auto m = store_->renameMount(*mount, *name);
      if (!m.ok()) return failed(m.failure());
      events_.folderChanged(0, "");
      return ok(itemJson(*store_->item(*mount, ""), true));
    }
    r = store_->rename(*mount, item->uuid, *name);
  } else if (cmd == "move") {
    std::optional<Item> dest = param(p, "to-path")
                                   ? store_->itemAt(*mount, *param(p, "to-path"))
                                   : store_->item(*mount, param(p, "to") ? *param(p, "to") : "");
    if (!dest) return failed(fail(404, kNotFound, "no such destination folder"));
    r = store_->move(*mount, item->uuid, *mount, dest->uuid);
  } else if (cmd == "trash") {
    r = store_->trash(*mount, item->uuid);
  } else if (cmd == "restore") {
    r = store_->restore(*mount, item->uuid);
  } else if (cmd == "delete") {
    r = store_->erase(*mount, item->uuid);
  } else {
    return failed(fail(404, kBadRequest, "unknown command " + cmd));
  }
  if (!r.ok()) return failed(r.failure());
  events_.folderChanged(*mount, oldParent);
  if (cmd != "delete" && r->upHash != oldParent) events_.folderChanged(*mount, r->upHash);
  return ok(itemJson(r.value(), true));
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

#include "Host.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <fstream>

#include "Seed.h"
#include "platform/Log.h"
#include "records/Json.h"

namespace hvfp::hostd {

namespace fs = std::filesystem;

bool isLoopbackAddress(const std::string& address) {
  in_addr a{};
  if (::inet_pton(AF_INET, address.c_str(), &a) != 1) return false;
  return (ntohl(a.s_addr) >> 24) == 127;
}

Host::Host(HostConfig config) : config_(std::move(config)), forceUris_(config_.forceUris) {}

Host::~Host() { stop(); }

Result<void> Host::start() {
  if (!isLoopbackAddress(config_.bind))
    return fail("refusing to bind " + config_.bind +
                ": only loopback addresses (127.x.x.x) are served");
  std::error_code ec;
  fs::create_directories(config_.root, ec);
  if (ec) return fail("cannot create " + config_.root.string() + ": " + ec.message());
  config_.root = fs::absolute(config_.root);
  auto store = Store::open(config_.root / "hostd.sqlite");
  if (!store.ok()) return store.failure();
  store_ = std::move(store.value());
  blobs_ = std::make_unique<BlobStore>(config_.root);
  if (auto prepared = blobs_->prepare(); !prepared.ok()) return prepared;
  if (!config_.seed.empty()) {
    auto seeded = seedStore(config_.seed, *store_, *blobs_);
    if (!seeded.ok()) return fail("seed: " + seeded.failure().message);
    if (!seeded.value()) log("store is not empty: seed '{}' skipped", config_.seed);
  }
  sessions_ = std::make_unique<UploadSessions>(*store_, *blobs_);
  sessions_->load();
  events_.start(config_.useBus, config_.quiet);
  handler_ = std::make_unique<QueryHandler>(*store_, *blobs_, *sessions_, *this, faults_);
  for (int port : config_.uploadPorts) {
    uploads_.push_back(
        std::make_unique<UploadServer>(config_.bind, port, *sessions_, faults_, config_.quiet));
    if (auto started = uploads_.back()->start(); !started.ok()) return started;
  }
  download_ = std::make_unique<DownloadServer>(config_.bind, *blobs_, faults_, config_.quiet);
  if (auto started = download_->start(config_.downloadPort); !started.ok()) return started;
  query_ = std::make_unique<QueryServer>(config_.bind, *handler_, config_.quiet);
  if (auto started = query_->start(config_.port); !started.ok()) return started;
  admin_ = std::make_unique<AdminServer>(
      config_.bind, [this](const std::string& c, const Params& p) { return control(c, p); },
      config_.quiet);
  if (auto started = admin_->start(config_.adminPort); !started.ok()) return started;
  {
    MutexLock lock(controlMutex_);
    writePortsFile();
  }
  log("halvo-hostd: query {} admin {} download {} root {}", queryPort(), adminPort(),
      downloadPort(), config_.root.string());
  return {};
}

void Host::stop() {
  if (admin_) admin_->stop();
  if (query_) query_->stop();
  if (download_) download_->stop();
  for (auto& u : uploads_) u->stop();
}

std::vector<int> Host::uploadPorts() const {
  std::vector<int> out;
  for (auto& u : uploads_) out.push_back(u->port());
  return out;
}

void Host::writePortsFile() {
  std::string out;
  JsonWriter w(out);
  w.beginObject().key("admin").value(adminPort()).key("download").value(downloadPort());
  w.key("pid").value(static_cast<int64_t>(::getpid())).key("query").value(queryPort());
  w.key("uploads").beginArray();
  for (int p : uploadPorts()) w.value(p);
  w.endArray().endObject();
  fs::path tmp = config_.root / (std::string(kPortsFile) + ".tmp");
  {
    std::ofstream f(tmp, std::ios::trunc);
    f << out << "\n";
  }
  std::error_code ec;
  fs::rename(tmp, config_.root / kPortsFile, ec);
}

std::vector<std::string> Host::uploadUrls() {
  std::vector<std::string> out;
  for (auto& u : uploads_)
    if (u->up()) out.push_back(u->baseUrl());
  return out;
}

UploadServer* Host::uploadServerOn(int port) {
  for (auto& u : uploads_)
    if (u->port() == port) return u.get();
  return nullptr;
}

std::optional<int> Host::uploadPort(std::string_view host, bool* up) {
  std::string_view h = host;
  if (h.starts_with("http://")) h.remove_prefix(7);
  while (h.ends_with("/")) h.remove_suffix(1);
  auto colon = h.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  auto name = h.substr(0, colon);
  if (name != config_.bind && name != "localhost" && name != "127.0.0.1") return std::nullopt;
  int port = 0;
  for (char c : h.substr(colon + 1)) {
    if (c < '0' || c > '9' || port > 65535) return std::nullopt;
    port = port * 10 + (c - '0');
  }
  auto* server = uploadServerOn(port);
  if (!server) return std::nullopt;
  *up = server->up();
  return port;
}

std::string Host::downloadUrl(std::string_view sha1) { return download_->urlOf(sha1); }

}  // namespace hvfp::hostd

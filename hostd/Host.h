// halvo-hostd as one object: the store and blob folder under --root, the
// query, upload, download and admin servers, host events, fault injection.
//
// The Host owns every part and wires them; main() makes one, tests make as
// many as they like (each on its own root and free ports). start()/stop()
// from one thread; control() runs on admin-server threads and serialises its
// commands (listener moves, upload servers going down and up, the ports
// file) behind controlMutex_. The HostDirectory methods are called by query
// handlers on any thread.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Blobs.h"
#include "Events.h"
#include "Faults.h"
#include "HttpServers.h"
#include "Queries.h"
#include "Store.h"
#include "UploadServer.h"
#include "Uploads.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::hostd {

struct HostConfig {
  std::filesystem::path root;
  std::string bind = "127.0.0.1";
  int port = 24753;
  std::vector<int> uploadPorts{24755};
  int downloadPort = 24757;
  int adminPort = 24760;
  bool forceUris = false;
  bool useBus = true;
  bool quiet = false;
  std::string seed;  // "" or "sample"
};

// The file under --root where the running host publishes its ports.
inline constexpr const char* kPortsFile = "hostd.ports.json";
// Loopback addresses only: the host serves one user's machine.
bool isLoopbackAddress(const std::string& address);

class Host : public HostDirectory {
 public:
  explicit Host(HostConfig config);
  ~Host() override;

  Result<void> start();
  void stop();

  // One ctl command; see `halvo-hostd ctl --help`.
  Reply control(const std::string& command, const Params& params);

  Store& store() { return *store_; }
  BlobStore& blobs() { return *blobs_; }
  FaultTable& faults() { return faults_; }
  int queryPort() { return query_ ? query_->port() : 0; }
  int adminPort() const { return admin_ ? admin_->port() : 0; }
  int downloadPort() const { return download_ ? download_->port() : 0; }
  std::vector<int> uploadPorts() const;

  std::vector<std::string> uploadUrls() override;
  std::optional<int> uploadPort(std::string_view host, bool* up) override;
  std::string downloadUrl(std::string_view sha1) override;
  bool forceUris() override { return forceUris_; }

 private:
  friend class HostControl;  // the ctl commands, in Admin.cc

  void writePortsFile() REQUIRES(controlMutex_);
  UploadServer* uploadServerOn(int port);
  std::string statusJson();

  HostConfig config_;
  std::atomic<bool> forceUris_;
  FaultTable faults_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<BlobStore> blobs_;
  std::unique_ptr<UploadSessions> sessions_;
  Events events_;
  std::unique_ptr<QueryHandler> handler_;
  std::vector<std::unique_ptr<UploadServer>> uploads_;
  std::unique_ptr<DownloadServer> download_;
  std::unique_ptr<QueryServer> query_;
  std::unique_ptr<AdminServer> admin_;
  Mutex controlMutex_;
};

}  // namespace hvfp::hostd

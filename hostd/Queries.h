// The host query protocol: GET /provider?type=...&... answered with one JSON
// object per request. QueryHandler turns the query's pairs into a reply; it
// knows nothing of HTTP so that tests can drive it directly.
//
// Every input is untrusted: a missing key, a value of the wrong kind, an
// unknown type or a bad name gives {"status_code":4xx,"error_code":N,
// "error_msg":...}. Faults armed in the FaultTable replace or delay replies.
//
// The handler is owned by the Host and shared by the query listeners; handle()
// may run on many threads at once (the Store and UploadSessions lock).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Blobs.h"
#include "Faults.h"
#include "Store.h"
#include "Uploads.h"

namespace hvfp::hostd {

using Params = std::multimap<std::string, std::string>;

// What the handler needs to know about the rest of the host.
class HostDirectory {
 public:
  virtual ~HostDirectory() = default;
  // Base URLs of the upload servers that are running.
  virtual std::vector<std::string> uploadUrls() = 0;
  // Port of the upload server a client names ("http://127.0.0.1:P"); sets
  // *up to whether it runs. std::nullopt when no such server exists.
  virtual std::optional<int> uploadPort(std::string_view host, bool* up) = 0;
  virtual std::string downloadUrl(std::string_view sha1) = 0;
  virtual bool forceUris() = 0;
};

struct Reply {
  int status = 200;  // HTTP status of the response
  std::string body;
  bool drop = false;  // cut the connection instead of answering
  int delayMs = 0;    // wait this long before answering
  BodyShape shape{};  // how the body moves (cut short, dribbled); plain by default
};

class QueryHandler {
 public:
  QueryHandler(Store& store, BlobStore& blobs, UploadSessions& sessions, HostDirectory& dir,
               FaultTable& faults);

  Reply handle(const Params& params);
  // The query type, for the request log; "" when absent.
  static std::string typeOf(const Params& params);

 private:
  Reply dispatch(const std::string& type, const Params& params);
  // The query's reply with the armed fault applied.
  Reply withFault(const Fault& fault, const std::string& type, const Params& params);
  // The port of the upload server a session step names by "host".
  Result<int> serverPort(const std::string& host);

  Reply links(const Params& p);
  Reply trash(const Params& p);
  Reply files(const Params& p);
  Reply changeFiles(const Params& p);
  Reply fileInfo(const Params& p);
  Reply download(const Params& p);
  Reply rename(const Params& p);
  Reply remove(const Params& p);
  Reply deleteFile(const Params& p);
  Reply recoverFile(const Params& p);
  Reply addCache(const Params& p);
  Reply updateStatus(const Params& p);
  Reply deleteSyncDb(const Params& p);
  Reply create(const Params& p);
  Reply uploadInit(const Params& p);
  Reply uploadReq(const Params& p);
  Reply uploadFinish(const Params& p);
  Reply uploadAbort(const Params& p);

  Store& store_;
  BlobStore& blobs_;
  UploadSessions& sessions_;
  HostDirectory& dir_;
  FaultTable& faults_;
};

// JSON bodies shared with the other servers.
std::string errorReply(const Failure& f);
std::string itemJson(const Item& item, bool withStatus);

}  // namespace hvfp::hostd

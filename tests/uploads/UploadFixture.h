// Shared by the upload tests: a scripted host (replies by query type), an
// upload server of our own (ContentServer), a client on a private temporary
// directory, and what the framework's handler received.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hostlink/HalvoProviderClient.h"
#include "hostlink/NSStringExpand.h"
#include "platform/Log.h"
#include "support/ContentServer.h"
#include "support/LoopbackServer.h"
#include "tasks/UploadTask.h"

namespace hvfp::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// Hang guard only: every wait normally ends in milliseconds.
constexpr auto kPatience = 60s;

inline void writeFile(const fs::path& path, const std::string& data) {
  std::ofstream(path, std::ios::binary) << data;
}

inline std::string enc(const std::string& text) { return urlEncoded(text); }

// The host's answers by query type: scripted ones in order, then the type's
// default. Every query is recorded by the LoopbackServer.
class ScriptedHost {
 public:
  ScriptedHost() {
    server.setHandler([this](const RecordedRequest& r) { return answer(r); });
  }
  void script(const std::string& type, std::vector<ScriptedReply> replies) {
    std::lock_guard lock(mutex_);
    for (auto& r : replies) scripted_[type].push_back(std::move(r));
  }
  void setDefault(const std::string& type, ScriptedReply reply) {
    std::lock_guard lock(mutex_);
    defaults_[type] = std::move(reply);
  }
  Lines queries() const { return server.queries(); }
  // The value of "type" of each query, in order.
  Lines types() const {
    Lines out;
    for (const auto& q : queries()) out.push_back(typeOf(q));
    return out;
  }
  // The queries of one type.
  Lines queriesOf(const std::string& type) const {
    Lines out;
    for (const auto& q : queries())
      if (typeOf(q) == type) out.push_back(q);
    return out;
  }

  LoopbackServer server;

 private:
  static std::string typeOf(const std::string& query) {
    if (!query.starts_with("type=")) return "";
    return query.substr(5, query.find('&') - 5);
  }
  ScriptedReply answer(const RecordedRequest& r) {
    std::lock_guard lock(mutex_);
    std::string type = typeOf(r.query);
    auto& queue = scripted_[type];
    if (!queue.empty()) {
      ScriptedReply reply = std::move(queue.front());
      queue.pop_front();
      return reply;
    }
    auto it = defaults_.find(type);
    return it != defaults_.end() ? it->second : ScriptedReply(200, "{\"status_code\":200}");
  }

  std::mutex mutex_;
  std::map<std::string, std::deque<ScriptedReply>> scripted_;
  std::map<std::string, ScriptedReply> defaults_;
};

// What the framework's creation or modification handler received.
struct Report {
  int calls = 0;
  NSFileProviderItemRef item;
  uint64_t pending = 0;
  std::optional<Error> error;

  int64_t code() const { return error ? error->code : 0; }
  // The upload error's user information, as "error=<n> message=<text>".
  std::string info() const {
    if (!error) return "none";
    std::string out;
    for (const auto& [key, value] : error->userInfo) {
      out += out.empty() ? "" : " ";
      out += key + "=";
      if (auto n = std::get_if<int64_t>(&value)) out += std::to_string(*n);
      if (auto s = std::get_if<std::string>(&value)) out += *s;
    }
    return out;
  }
};

class UploadTest : public ::testing::Test {
 public:
  void SetUp() override {
    char pattern[] = "/tmp/hvfp-upload-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    dir = pattern;
    fs::create_directories(dir / "tmp");
    client.setNPort(host.server.port());
    client.setStrTempPath((dir / "tmp").string());
    setLogSink(LogSink::Capture);
    // By default a file goes up to `pieces` in session s1 from offset 0.
    host.setDefault("create", ScriptedReply(200, createReply({pieces.url()})));
    host.setDefault("uploadinit", ScriptedReply(200, R"({"status_code":200,"session":"s1"})"));
    host.setDefault("uploadreq", ScriptedReply(200, R"({"status_code":200,"offset":0})"));
  }
  void TearDown() override {
    setLogSink(LogSink::Stderr);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }

  // The create reply of a file still to be uploaded to `servers`.
  static std::string createReply(const Lines& servers, const Lines& cacheServers = {},
                                 const std::string& hash = "h1", int state = 0,
                                 const std::string& fullpath = "a.bin") {
    auto list = [](const Lines& l) {
      std::string out = "[";
      for (size_t i = 0; i < l.size(); ++i) out += (i ? ",\"" : "\"") + l[i] + "\"";
      return out + "]";
    };
    return "{\"status_code\":200,\"state\":" + std::to_string(state) + ",\"hash\":\"" + hash +
           "\",\"up_hash\":\"\",\"fullpath\":\"" + fullpath +
           "\",\"storage_point\":\"sp\",\"uploads\":" + list(servers) +
           ",\"cache_uploads\":" + list(cacheServers) + "}";
  }
  // A file task for `data` named a.bin under mount root 12.
  std::shared_ptr<UploadTask> fileTask(const std::string& data, uint64_t fields = 1,
                                       std::optional<uint64_t> declared = std::nullopt) {
    fs::path source = dir / "a.bin";
    writeFile(source, data);
    return task("__fp/a", "12", declared.value_or(data.size()), false, "a.bin", source.string(),
                fields);
  }
  std::shared_ptr<UploadTask> task(const std::string& id, const std::string& parent, uint64_t size,
                                   bool dir, const std::string& name,
                                   std::optional<std::string> path, uint64_t fields = 1) {
    auto t = std::make_shared<UploadTask>(client, id, parent, size, 100, 200, dir, name,
                                          std::move(path), fields);
    t->timing.stepPause = t->timing.closePause = t->timing.firstTurnPause =
        t->timing.lastTurnPause = 1ms;
    progress = Progress::make();
    t->setMProgress(progress);
    t->setCreateHandler(
        [this](NSFileProviderItemRef item, uint64_t pending, bool, std::optional<Error> error) {
          std::lock_guard lock(reportMutex);
          ++report.calls;
          report.item = std::move(item);
          report.pending = pending;
          report.error = std::move(error);
        });
    return t;
  }
  Report taken() {
    std::lock_guard lock(reportMutex);
    return report;
  }
  // Files left in the domain's temporary directory.
  size_t stagedFiles() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir / "tmp"), {}));
  }
  std::string sha1(const std::string& data) const { return sha1HexDigest(data); }
  std::string stagingPath(const std::string& webpath) const {
    return (dir / "tmp").string() + "/upload_" +
           sha1HexDigest("12-" + webpath + "-" + (dir / "a.bin").string());
  }

  fs::path dir;
  ScriptedHost host;
  ContentServer pieces;
  HalvoProviderClient client;
  std::shared_ptr<Progress> progress;
  std::mutex reportMutex;
  Report report;
};

}  // namespace hvfp::test

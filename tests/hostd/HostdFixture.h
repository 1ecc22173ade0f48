// Shared helpers for the halvo-hostd tests: a temporary root, an in-process
// Host on free loopback ports, and small readers for JSON replies.
// Each test owns its fixture; nothing here is shared between threads.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "Host.h"
#include "records/Json.h"

namespace hvfp::hostd::test {

class TempRoot {
 public:
  TempRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "hostd-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline int64_t intOf(const JsonValue& v, std::string_view key) {
  auto m = v.find(key);
  if (!m) return -999999;
  if (auto i = std::get_if<int64_t>(&m->storage())) return *i;
  if (auto u = std::get_if<uint64_t>(&m->storage())) return static_cast<int64_t>(*u);
  return -999999;
}

inline std::string strOf(const JsonValue& v, std::string_view key) {
  auto m = v.find(key);
  return m && m->string() ? *m->string() : std::string("<absent>");
}

// A copy, so that it may be taken from a temporary reply.
inline JsonArray listOf(const JsonValue& v) {
  auto m = v.find("list");
  return m && m->array() ? *m->array() : JsonArray{};
}

// A Host on free ports, without a bus, with a second upload server.
class HostFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    HostConfig c;
    c.root = root_.path();
    c.port = 0;
    c.uploadPorts = {0, 0};
    c.downloadPort = 0;
    c.adminPort = 0;
    c.useBus = false;
    c.quiet = true;
    c.seed = seed();
    host_ = std::make_unique<Host>(c);
    std::string why;
    ASSERT_TRUE(host_->start(&why)) << why;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", host_->queryPort());
    admin_ = std::make_unique<httplib::Client>("127.0.0.1", host_->adminPort());
  }
  void TearDown() override {
    client_.reset();
    admin_.reset();
    if (host_) host_->stop();
  }
  virtual std::string seed() const { return "sample"; }

  // GET /provider?<query>; the parsed reply object (null when not JSON).
  JsonValue query(const std::string& q) {
    auto res = client_->Get(("/provider?" + q).c_str());
    if (!res) return JsonValue();
    lastHttpStatus_ = res->status;
    auto v = objectFromJSONString(res->body);
    return v ? *v : JsonValue();
  }
  JsonValue ctl(const std::string& cmd, const std::string& q) {
    auto res = admin_->Get(("/ctl/" + cmd + "?" + q).c_str());
    if (!res) return JsonValue();
    auto v = objectFromJSONString(res->body);
    return v ? *v : JsonValue();
  }
  // The live child of a mount's folder with that name, via "files".
  JsonValue child(int64_t mount, const std::string& folder, const std::string& name) {
    auto v = query("type=files&uuidhash=" + folder + "&mount_id=" + std::to_string(mount));
    for (auto& e : listOf(v))
      if (strOf(e, "filename") == name) return e;
    return JsonValue();
  }
  std::string uploadUrl(size_t i) { return host_->uploadUrls().at(i); }

  TempRoot root_;
  std::unique_ptr<Host> host_;
  std::unique_ptr<httplib::Client> client_;
  std::unique_ptr<httplib::Client> admin_;
  int lastHttpStatus_ = 0;
};

inline std::string enc(const std::string& s) { return httplib::detail::encode_query_param(s); }

}  // namespace hvfp::hostd::test

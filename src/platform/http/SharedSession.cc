#include "platform/http/SharedSession.h"

#include <curl/curl.h>
#include <simdjson.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

#include "platform/http/ReplyBuffers.h"

namespace hvfp {
namespace {

struct Sink {
  CURL* curl = nullptr;
  size_t limit = SharedSession::kMaxBody;
  std::string body;
  bool oversize = false;
  bool sized = false;
};

std::atomic<long> gStallSeconds{60};

// Room for the whole announced body plus the JSON parser's padding, so the
// reply is neither grown piecewise nor copied again before it is parsed.
constexpr size_t kParserPadding = 64;

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  size_t n = size * count;
  if (!sink->sized) {
    sink->sized = true;
    curl_off_t announced = -1;
    curl_easy_getinfo(sink->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (announced > 0 && static_cast<size_t>(announced) <= sink->limit)
      sink->body = ReplyBuffers::take(static_cast<size_t>(announced) + kParserPadding);
  }
  if (sink->body.size() + n > sink->limit) {
    sink->oversize = true;
    return 0;  // aborts the transfer
  }
  sink->body.append(data, n);
  return n;
}

struct EasyHandle {
  CURL* curl = nullptr;
  EasyHandle() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    curl = curl_easy_init();
    if (!curl) return;
    // Set once per thread: every query shares them, and a handle that is
    // not reset keeps its buffers as well as its connection.
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 60L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
  }
  ~EasyHandle() {
    if (curl) curl_easy_cleanup(curl);
  }
};

// "256 MiB", "4 MiB", "1000 bytes": limits as people write them.
std::string sizeText(size_t bytes) {
  if (bytes >= (size_t{1} << 20) && bytes % (size_t{1} << 20) == 0)
    return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " bytes";
}

}  // namespace

std::chrono::seconds SharedSession::stallLimit() {
  return std::chrono::seconds(gStallSeconds.load());
}

void SharedSession::setStallLimit(std::chrono::seconds limit) {
  gStallSeconds.store(std::max<long>(1, static_cast<long>(limit.count())));
}

Result<HttpReply> SharedSession::get(const std::string& url, size_t maxBody) {
  thread_local EasyHandle handle;
  CURL* curl = handle.curl;
  if (!curl) return fail("cannot create a transfer");
  Sink sink;
  sink.curl = curl;
  sink.limit = std::min(maxBody, kMaxBody);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, gStallSeconds.load());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  CURLcode rc = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  auto failed = [status](std::string why) { return fail(int(status), 0, std::move(why)); };
  if (sink.oversize) return failed("reply larger than " + sizeText(sink.limit));
  if (rc != CURLE_OK) return failed(curl_easy_strerror(rc));
  if (!simdjson::validate_utf8(sink.body.data(), sink.body.size()))
    return failed("reply is not UTF-8");
  return HttpReply{status, std::move(sink.body)};
}

}  // namespace hvfp

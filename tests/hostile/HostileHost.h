// A scripted host that answers every query with what a test's row says, and
// the framework's calls made against it, each reduced to one line of what
// its completion handler received.
//
// HostileHost routes the provider's host queries ("/provider?type=...") to
// the row's answer for that query type and everything else (the content
// addresses the host hands out) to the row's contents. Reply makers build
// the bodies: a well-formed answer per query type, one body every query
// can read, and listings of any length made as they are sent.
//
// Threads: the host answers from its server's threads; set the row before
// the calls start and leave it until they are done.
#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "digest/NSDataExpand.h"
#include "support/LoopbackServer.h"

namespace hvfp::test {

// The contents of item 5/h1 on the content server, and their digest.
inline const std::string kContents = "the item's contents, 40 bytes long......";
inline const std::string kContentsHash = sha1HexDigest(kContents);

class HostileHost {
 public:
  // The answer to one host query, by its query text ("type=fileinfo&...").
  using Answer = std::function<ScriptedReply(const std::string& query)>;

  HostileHost() {
    server.setHandler([this](const RecordedRequest& r) { return answer(r); });
  }

  void set(Answer host, std::optional<ScriptedReply> contents) {
    std::lock_guard lock(mutex_);
    host_ = std::move(host);
    contents_ = std::move(contents);
  }
  std::string contentUrl(const std::string& path = "/content/5/h1") const {
    return server.baseUrl() + path;
  }

  LoopbackServer server;

 private:
  ScriptedReply answer(const RecordedRequest& r) {
    std::lock_guard lock(mutex_);
    if (r.path == "/provider" && host_) return host_(r.query);
    if (contents_) return *contents_;
    ScriptedReply good(200, kContents);
    good.contentType = "application/octet-stream";
    return good;
  }

  std::mutex mutex_;
  Answer host_;
  std::optional<ScriptedReply> contents_;
};

// The record of item 5/h1 ("a.txt" in folder 5/d) with its status first.
inline std::string fileRecord(const std::string& hash = "h1", const std::string& name = "a.txt") {
  return R"({"status_code":200,"error_code":0,"filename":")" + name +
         R"(","mount_id":5,"uuidhash":")" + hash + R"(","up_hash":"d","webpath":"d/)" + name +
         R"(","filehash":")" + kContentsHash + R"(","filesize":)" +
         std::to_string(kContents.size()) + R"(,"status":0,"lasttime":1700000000})";
}

// The value of "type" in a query text.
inline std::string typeOf(const std::string& query) {
  size_t at = query.find("type=");
  if (at == std::string::npos) return {};
  size_t end = query.find('&', at);
  return query.substr(at + 5, end == std::string::npos ? std::string::npos : end - at - 5);
}

// What a well-behaved host answers to each query: the records of folder
// 5/d and of file 5/h1 in it, listings of two files, download information
// naming the content server, a creation that the cloud already holds as
// 5/h2, accepted mutations.
inline ScriptedReply wellFormed(const std::string& query, const std::string& contentUrl) {
  const std::string type = typeOf(query);
  if (type == "fileinfo" && query.find("uuidhash=d&") != std::string::npos)
    return {200, R"({"status_code":200,"filename":"d","mount_id":5,"uuidhash":"d","up_hash":"",)"
                 R"("webpath":"d","dir":1,"status":0})"};
  if (type == "fileinfo") return {200, fileRecord()};
  if (type == "files" || type == "changefiles" || type == "trash" || type == "links")
    return {200, R"({"list":[)" + fileRecord() + "," + fileRecord("h2", "b.txt") +
                     R"(],"lasttime":1700000001})"};
  if (type == "download")
    return {200, R"({"status_code":200,"filehash":")" + kContentsHash + R"(","filesize":)" +
                     std::to_string(kContents.size()) + R"(,"uris":[")" + contentUrl + R"("]})"};
  if (type == "create")
    return {200,
            R"({"status_code":200,"state":1,"hash":"h2","up_hash":"d","fullpath":"d/new.txt"})"};
  if (type == "remove") return {200, R"({"status_code":200,"hash":"h3","fullpath":"e/a.txt"})"};
  return {200, R"({"status_code":200})"};
}

// One body every query can read: `fields` at the top level, as the record
// replies read them, and again as the only entry of "list".
inline std::string anyReply(const std::string& fields) {
  return "{" + fields + R"(,"list":[{)" + fields + R"(}],"lasttime":9})";
}

// A listing of `count` (at most 10^7) entries that exists only as it is
// sent: entry i is {"mount_id":5,"uuidhash":"h<i as 7 digits>"}.
inline ScriptedReply numberedListing(uint64_t count) {
  static const std::string head = R"({"status_code":200,"lasttime":9,"list":[)";
  static const std::string tail = "]}";
  static const std::string entry = R"({"mount_id":5,"uuidhash":"h0000000"},)";
  const size_t digitsAt = entry.find("h0") + 1;
  const uint64_t width = entry.size();
  const uint64_t listEnd = head.size() + count * width - 1;  // the last entry has no comma
  return ScriptedReply::streamed(200, listEnd + tail.size(), [=](uint64_t offset, size_t length) {
    std::string out;
    out.reserve(length);
    std::string numbered = entry;
    while (out.size() < length) {
      const uint64_t at = offset + out.size();
      const std::string* from = &head;
      uint64_t within = at;
      if (at >= listEnd) {
        from = &tail;
        within = at - listEnd;
      } else if (at >= head.size()) {
        uint64_t k = (at - head.size()) / width;
        for (size_t d = 7; d-- > 0; k /= 10) numbered[digitsAt + d] = char('0' + k % 10);
        from = &numbered;
        within = (at - head.size()) % width;
      }
      const uint64_t room =
          at < listEnd ? std::min<uint64_t>(from->size(), listEnd - at + within) : from->size();
      out.append(*from, within, std::min<uint64_t>(room - within, length - out.size()));
    }
    return out;
  });
}

// A listing that never ends: one entry over and over, a terabyte announced.
inline ScriptedReply endlessListing() {
  static const std::string head = R"({"status_code":200,"list":[)";
  const std::string period = R"({"filename":"again","mount_id":5,"uuidhash":"h"},)";
  std::string block;
  while (block.size() < (size_t{128} << 10)) block += period;
  return ScriptedReply::streamed(
      200, uint64_t{1} << 40, [period, block](uint64_t offset, size_t length) {
        std::string out;
        out.reserve(length);
        while (out.size() < length) {
          const uint64_t at = offset + out.size();
          if (at < head.size())
            out.append(head, at, length - out.size());
          else
            out.append(block, (at - head.size()) % period.size(), length - out.size());
        }
        return out;
      });
}

// Bytes a terminal would act on: C0 controls but the line break, DEL, and
// C1 controls as UTF-8.
inline bool hasTerminalControls(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c < 0x20 && c != '\n') || c == 0x7f) return true;
    if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
        static_cast<unsigned char>(text[i + 1]) <= 0x9F)
      return true;
  }
  return false;
}

}  // namespace hvfp::test

// Fuzzes the two replies that name files and servers: the download
// information and the create reply, as records and as the download task
// judges a content hash. A hash it accepts names a file directly inside the
// temporary directory whatever it holds; the records keep what they promise
// (every address of "uris", "uploads" and "cache_uploads" in order, a
// create reply's storage point never null).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "records/Json.h"
#include "records/ReplyRecords.h"
#include "tasks/DownloadTask.h"

namespace {

size_t listSize(const hvfp::JsonValue& reply, const char* key) {
  const hvfp::JsonValue* list = reply.find(key);
  return list && list->isArray() ? list->array()->size() : 0;
}

void checkHash(const std::string& hash) {
  if (!hvfp::DownloadTask::isSafeContentHash(hash)) return;
  const std::filesystem::path dir = "/cache/tmp";
  const std::filesystem::path file = (dir / hash).lexically_normal();
  if (file.parent_path() != dir || file.filename() != hash || hash.size() > 128) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkHash(text);
  auto reply = hvfp::objectFromJSONString(text);
  if (!reply) return 0;
  auto open = hvfp::initWithJson<hvfp::RetOpen>(*reply);
  checkHash(std::string(open->strFileHash.view()));
  if (reply->isObject() && open->urlArray.size() != listSize(*reply, "uris")) std::abort();
  auto create = hvfp::initWithJson<hvfp::RetCreateFile>(*reply);
  if (!create->strStoragePoint) std::abort();
  if (reply->isObject() && (create->arrayServers.size() != listSize(*reply, "uploads") ||
                            create->arrayCacheServers.size() != listSize(*reply, "cache_uploads")))
    std::abort();
  checkHash(std::string(create->strHash.view()));
  return 0;
}

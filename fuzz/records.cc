// Fuzzes the reading of single-record host replies: any bytes through the
// JSON parser, every reply record and the writer. Nothing may crash, hang or
// leak; what the records promise must hold (a create reply's storage point
// is never null, a lock member only with a lock); and what the writer makes
// must read back and write out to the same bytes (a whole double such as
// 2e0 is written as 2, so the first round may change a number's kind, not
// its text).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "records/HVFileItem.h"
#include "records/Json.h"
#include "records/ReplyRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  auto value = hvfp::objectFromJSONString(text);
  if (!value) return 0;
  auto item = hvfp::initWithJson<hvfp::HVFileItem>(*value);
  (void)item->contentVersion();
  (void)item->metadataVersion();
  (void)hvfp::initWithJson<hvfp::RequestRet>(*value);
  auto open = hvfp::initWithJson<hvfp::RetOpen>(*value);
  if (open->nLock == 0 && open->nLockID != 0) std::abort();
  auto create = hvfp::initWithJson<hvfp::RetCreateFile>(*value);
  if (!create->strStoragePoint) std::abort();
  (void)hvfp::initWithJson<hvfp::RetUploadInit>(*value);
  (void)hvfp::initWithJson<hvfp::RetUploadReq>(*value);
  (void)hvfp::initWithJson<hvfp::RetMoveFile>(*value);
  (void)hvfp::initWithJson<hvfp::ProviderDeleteInfo>(*value);
  auto written = hvfp::JSONString(*value);
  if (written) {
    auto again = hvfp::objectFromJSONString(*written);
    if (!again || hvfp::JSONString(*again) != written) std::abort();
  }
  return 0;
}

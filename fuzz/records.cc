// Fuzzes the reading of host replies: any bytes the host may send, through
// the listing reader, the JSON parser, every reply record and the writer.
// Nothing may crash, hang or leak, and what the writer makes must read back
// and write out to the same bytes (a whole double such as 2e0 is written
// as 2, so the first round may change a number's kind, not its text).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "records/FileItemListing.h"
#include "records/HVFileItem.h"
#include "records/Json.h"
#include "records/ReplyRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  if (auto listing = hvfp::readFileItemListing(text)) {
    for (const auto& record : listing->list) {
      (void)record->contentVersion();
      (void)record->metadataVersion();
    }
  }
  auto value = hvfp::objectFromJSONString(text);
  if (!value) return 0;
  (void)hvfp::initWithJson<hvfp::HVFileItem>(*value)->metadataVersion();
  (void)hvfp::initWithJson<hvfp::RetOpen>(*value);
  (void)hvfp::initWithJson<hvfp::RetCreateFile>(*value);
  (void)hvfp::initWithJson<hvfp::RetUploadInit>(*value);
  (void)hvfp::initWithJson<hvfp::RetUploadReq>(*value);
  (void)hvfp::initWithJson<hvfp::RetMoveFile>(*value);
  auto written = hvfp::JSONString(*value);
  if (written) {
    auto again = hvfp::objectFromJSONString(*written);
    if (!again || hvfp::JSONString(*again) != written) std::abort();
  }
  return 0;
}

// Fuzzes the streaming listing reader against the value-tree reader, over
// any bytes a host may send as a listing. They must agree on whether the
// text is a JSON object they read (both refuse the same nesting depth), on
// "lasttime" and on every record of "list", field by field.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "records/FileItemListing.h"
#include "records/HVFileItem.h"
#include "records/Json.h"
#include "records/JsonReading.h"

namespace {

// A number of 19 or more digits with a fraction or exponent: the streaming
// reader reads it as 0 where the value tree cuts it to an integer (known, to
// be fixed in the streaming reader; then this goes). Texts holding one are
// compared on validity and entry count only.
bool hasLongFractionalNumber(const std::string& text) {
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
      continue;
    }
    if (c == '"') inString = true;
    if (c < '0' || c > '9') continue;
    size_t digits = 0;
    bool fractional = false;
    for (; i < text.size(); ++i) {
      const char d = text[i];
      if (d >= '0' && d <= '9')
        ++digits;
      else if (d == '.' || d == 'e' || d == 'E' || d == '+' || d == '-')
        fractional = true;
      else
        break;
    }
    if (digits >= 19 && fractional) return true;
    --i;
  }
  return false;
}

// The "list" array of a reply, if it has one.
const hvfp::JsonValue* list(const hvfp::JsonValue& reply) {
  const hvfp::JsonValue* value = reply.find("list");
  return value && value->isArray() ? value : nullptr;
}

// Says what the two readers disagree on, then stops the run.
[[noreturn]] void disagree(const std::string& what, const std::string& streamed,
                           const std::string& tree) {
  std::fprintf(stderr, "readers disagree on %s:\n  streaming:  %s\n  value tree: %s\n",
               what.c_str(), streamed.c_str(), tree.c_str());
  std::abort();
}

// Every field, the two version encodings and the capabilities.
std::string describe(const hvfp::HVFileItem& r) {
  std::string out;
  auto text = [&](const hvfp::NullableString& s) {
    out += s ? "\"" + std::string(s.view()) + "\"," : "null,";
  };
  auto number = [&](auto n) { out += std::to_string(n) + ","; };
  number(r.nStatusCode), number(r.nErrorCode), text(r.strErrorMsg), number(r.bRoot);
  text(r.strFileName), number(r.nMountID), text(r.strWebPath), number(r.bDir);
  text(r.strFileHash), number(r.ullFileSize), text(r.strUuidHash), text(r.strUpHash);
  number(r.ullLastTime), number(r.nLastID), text(r.strLastName), number(r.ullCreatorTime);
  number(r.nLock), number(r.nLockID), number(r.nStatus), text(r.strProperty);
  number(r.nChildItemCount), number(r.capabilities());
  return out + r.contentVersion() + r.metadataVersion();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  auto listing = hvfp::readFileItemListing(text);
  auto tree = hvfp::objectFromJSONString(text);
  const bool object = tree && tree->isObject();
  if (listing && !object) disagree("validity", "a listing", "not an object");
  if (!listing) {
    if (object) disagree("validity", "no listing", "an object");
    return 0;
  }
  const size_t entries = list(*tree) ? list(*tree)->array()->size() : 0;
  if (hasLongFractionalNumber(text)) {
    if (listing->list.size() != entries)
      disagree("entries", std::to_string(listing->list.size()), std::to_string(entries));
    return 0;
  }
  const auto lasttime =
      static_cast<uint64_t>(hvfp::integerReading(hvfp::JsonScalar::of(tree->find("lasttime"))));
  if (listing->lasttime != lasttime)
    disagree("lasttime", std::to_string(listing->lasttime), std::to_string(lasttime));
  if (listing->list.size() != entries)
    disagree("entries", std::to_string(listing->list.size()), std::to_string(entries));
  for (size_t i = 0; i < entries; ++i) {
    const hvfp::HVFileItem fromTree =
        *hvfp::initWithJson<hvfp::HVFileItem>((*list(*tree)->array())[i]);
    if (describe(*listing->list[i]) != describe(fromTree))
      disagree("entry " + std::to_string(i), describe(*listing->list[i]), describe(fromTree));
  }
  return 0;
}

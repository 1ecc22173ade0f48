#include "hostlink/QueryList.h"

#include "hostlink/NSStringExpand.h"

namespace hvfp {
namespace {

void setPair(QueryList& list, std::string_view key, std::string text) {
  for (SignKey& pair : list) {
    if (pair.strKey == key) {
      pair.strValue = std::move(text);
      return;
    }
  }
  list.push_back(SignKey{std::string(key), std::move(text)});
}

}  // namespace

void addValueForInteger(QueryList& list, std::string_view key, int64_t value) {
  setPair(list, key, std::to_string(value));
}

void addValueForULongLong(QueryList& list, std::string_view key, uint64_t value) {
  setPair(list, key, std::to_string(value));
}

void addValueForString(QueryList& list, std::string_view key, std::string_view value) {
  setPair(list, key, std::string(value));
}

void addValueForString(QueryList& list, std::string_view key,
                       const std::optional<std::string>& value) {
  setPair(list, key, value.value_or(std::string()));
}

std::string getKeyByString(const QueryList& list) {
  std::string out;
  for (const SignKey& pair : list) {
    if (!out.empty()) out.push_back('&');
    out += pair.strKey;
    out.push_back('=');
    out += urlEncoded(pair.strValue);
  }
  return out;
}

}  // namespace hvfp

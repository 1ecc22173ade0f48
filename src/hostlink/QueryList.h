// The query list of one host query: ordered key/value pairs, keys unique, in
// the order each key was first added; that order is the order on the wire.
// Each request builds its own list; no sharing, no locks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hvfp {

struct SignKey {
  std::string strKey;
  std::string strValue;
};

using QueryList = std::vector<SignKey>;

// Sets `key` to the value's text: replaces the value in place when the key is
// already listed, appends a pair otherwise.
void addValueForInteger(QueryList& list, std::string_view key, int64_t value);
void addValueForULongLong(QueryList& list, std::string_view key, uint64_t value);
void addValueForString(QueryList& list, std::string_view key, std::string_view value);
inline void addValueForString(QueryList& list, std::string_view key, const char* value) {
  addValueForString(list, key, std::string_view(value ? value : ""));
}
inline void addValueForString(QueryList& list, std::string_view key, const std::string& value) {
  addValueForString(list, key, std::string_view(value));
}
// An absent text is sent as the empty value.
void addValueForString(QueryList& list, std::string_view key,
                       const std::optional<std::string>& value);

// "k1=v1&k2=v2": keys as they are, values through urlEncoded.
std::string getKeyByString(const QueryList& list);

}  // namespace hvfp

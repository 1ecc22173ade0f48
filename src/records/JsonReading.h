// The reading rules that turn one JSON value of a host reply into a record
// field. The host may send a number as a JSON number, a boolean or a decimal
// text, so every integer field goes through integerReading. A JSON null, array
// or object where a number or a text is expected reads as an absent key, and
// so does a number too large for 64 bits (JsonNumberText): nothing in a
// reply's shape can make a record fail.
//
// JsonScalar is a view of one value, made either from a JsonValue or by the
// streaming listing parser, so both paths share these rules. It borrows its
// text; it must not outlive the value it was made from.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/Json.h"
#include "records/NullableString.h"

namespace hvfp {

struct JsonScalar {
  enum class Kind : uint8_t { Absent, Null, Bool, Int, UInt, Double, BigNumber, String, Container };
  Kind kind = Kind::Absent;
  // `s` lives as long as the record being filled (it points into a reply
  // text the record's owner keeps), so the record may borrow it.
  bool stable = false;
  union {
    bool b;
    int64_t i;
    uint64_t u;
    double d;
  };
  std::string_view s;

  JsonScalar() : i(0) {}

  static JsonScalar of(const JsonValue* v);
};

// A number gives its integer part (cut toward zero), true 1, false 0, a text
// the decimal number at its start; anything else 0. An unsigned value above
// the signed range keeps its bits.
int64_t integerReading(const JsonScalar& v);
// The same at 32 bits, widened with its sign: a text's number is held to the
// 32-bit range, a JSON number keeps its low 32 bits.
int64_t integerReading32(const JsonScalar& v);
// The text as it stands; null for an absent key and for anything not a text.
NullableString textReading(const JsonScalar& v);

// Member readings of an object (absent when `object` is not an object).
int64_t readInteger(const JsonValue& object, std::string_view key);
int64_t readInteger32(const JsonValue& object, std::string_view key);
NullableString readText(const JsonValue& object, std::string_view key);
// The elements of an array member in order, texts as they stand and any
// other element as the empty text so positions are kept; empty when the
// member is missing or not an array.
std::vector<std::string> readTextList(const JsonValue& object, std::string_view key);

}  // namespace hvfp

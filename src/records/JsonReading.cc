#include "records/JsonReading.h"

#include <cmath>
#include <limits>

#include "platform/Text.h"

namespace hvfp {
namespace {

int64_t truncateDouble(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

}  // namespace

JsonScalar JsonScalar::of(const JsonValue* v) {
  JsonScalar out;
  if (!v) return out;
  std::visit(
      [&out](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          out.kind = Kind::Null;
        } else if constexpr (std::is_same_v<T, bool>) {
          out.kind = Kind::Bool;
          out.b = x;
        } else if constexpr (std::is_same_v<T, int64_t>) {
          out.kind = Kind::Int;
          out.i = x;
        } else if constexpr (std::is_same_v<T, uint64_t>) {
          out.kind = Kind::UInt;
          out.u = x;
        } else if constexpr (std::is_same_v<T, double>) {
          out.kind = Kind::Double;
          out.d = x;
        } else if constexpr (std::is_same_v<T, std::string>) {
          out.kind = Kind::String;
          out.s = x;
        } else if constexpr (std::is_same_v<T, JsonNumberText>) {
          out.kind = Kind::BigNumber;
        } else {
          out.kind = Kind::Container;
        }
      },
      v->storage());
  return out;
}

int64_t integerReading(const JsonScalar& v) {
  switch (v.kind) {
    case JsonScalar::Kind::Bool:
      return v.b ? 1 : 0;
    case JsonScalar::Kind::Int:
      return v.i;
    case JsonScalar::Kind::UInt:
      return static_cast<int64_t>(v.u);
    case JsonScalar::Kind::Double:
      return truncateDouble(v.d);
    case JsonScalar::Kind::String:
      return integerValue(v.s);
    default:
      return 0;
  }
}

int64_t integerReading32(const JsonScalar& v) {
  if (v.kind == JsonScalar::Kind::String) return intValue(v.s);
  return static_cast<int32_t>(static_cast<uint32_t>(integerReading(v)));
}

NullableString textReading(const JsonScalar& v) {
  if (v.kind != JsonScalar::Kind::String) return std::nullopt;
  return v.stable ? NullableString::borrow(v.s) : NullableString(v.s);
}

int64_t readInteger(const JsonValue& object, std::string_view key) {
  return integerReading(JsonScalar::of(object.find(key)));
}

int64_t readInteger32(const JsonValue& object, std::string_view key) {
  return integerReading32(JsonScalar::of(object.find(key)));
}

NullableString readText(const JsonValue& object, std::string_view key) {
  return textReading(JsonScalar::of(object.find(key)));
}

std::vector<std::string> readTextList(const JsonValue& object, std::string_view key) {
  std::vector<std::string> out;
  const JsonValue* v = object.find(key);
  const JsonArray* a = v ? v->array() : nullptr;
  if (!a) return out;
  out.reserve(a->size());
  for (const JsonValue& e : *a) out.push_back(e.string() ? *e.string() : std::string());
  return out;
}

}  // namespace hvfp

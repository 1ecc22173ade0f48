// JSON values, parsing and writing.
//
// JsonValue is a plain value tree, the shape the host's replies take once
// parsed: objects keep one member per key (a repeated key keeps its last
// value) in sorted key order. Parsing runs simdjson and validates the whole
// text; anything that is not a valid JSON array or object, or nests deeper
// than kMaxJsonDepth, gives std::nullopt, never an exception. A number that
// is valid JSON but too large for 64 bits (an integer past the 64-bit range,
// a magnitude past the double range) is kept as its text (JsonNumberText):
// one odd value must not cost the whole reply, and it writes back as it
// came. Writing is compact, with the keys of every object in sorted order
// and texts escaped as the platform serializer does: `"` and `\` behind a
// backslash, control characters escaped, "/" written as "\/", every other
// character as its UTF-8 bytes.
//
// JsonWriter streams the same format straight into a std::string for large
// documents; the caller decides the key order (write keys sorted where the
// bytes are a stored format). All functions are reentrant; values have no
// shared state.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace hvfp {

// Containers nested deeper than this make a text unreadable, for the value
// tree and the streaming listing reader alike (the root counts as one).
inline constexpr int kMaxJsonDepth = 256;

// A number literal no 64-bit integer or double can hold, as it stood in the text.
struct JsonNumberText {
  std::string text;
  bool operator==(const JsonNumberText&) const = default;
};

class JsonValue;
using JsonArray = std::vector<JsonValue>;
using JsonObject = std::map<std::string, JsonValue, std::less<>>;

class JsonValue {
 public:
  using Storage = std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string,
                               JsonArray, JsonObject, JsonNumberText>;

  JsonValue() : v_(nullptr) {}
  JsonValue(std::nullptr_t) : v_(nullptr) {}
  JsonValue(bool b) : v_(b) {}
  JsonValue(int i) : v_(int64_t{i}) {}
  JsonValue(long i) : v_(int64_t{i}) {}
  JsonValue(long long i) : v_(int64_t{i}) {}
  JsonValue(unsigned u) : v_(uint64_t{u}) {}
  JsonValue(unsigned long u) : v_(uint64_t{u}) {}
  JsonValue(unsigned long long u) : v_(uint64_t{u}) {}
  JsonValue(double d) : v_(d) {}
  JsonValue(const char* s) : v_(std::string(s)) {}
  JsonValue(std::string_view s) : v_(std::string(s)) {}
  JsonValue(std::string s) : v_(std::move(s)) {}
  JsonValue(JsonArray a) : v_(std::move(a)) {}
  JsonValue(JsonObject o) : v_(std::move(o)) {}
  JsonValue(JsonNumberText n) : v_(std::move(n)) {}

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(v_); }
  bool isBool() const { return std::holds_alternative<bool>(v_); }
  bool isNumber() const {
    return std::holds_alternative<int64_t>(v_) || std::holds_alternative<uint64_t>(v_) ||
           std::holds_alternative<double>(v_) || std::holds_alternative<JsonNumberText>(v_);
  }
  bool isString() const { return std::holds_alternative<std::string>(v_); }
  bool isArray() const { return std::holds_alternative<JsonArray>(v_); }
  bool isObject() const { return std::holds_alternative<JsonObject>(v_); }

  const std::string* string() const { return std::get_if<std::string>(&v_); }
  const JsonArray* array() const { return std::get_if<JsonArray>(&v_); }
  const JsonObject* object() const { return std::get_if<JsonObject>(&v_); }
  JsonArray* array() { return std::get_if<JsonArray>(&v_); }
  JsonObject* object() { return std::get_if<JsonObject>(&v_); }

  // Member of an object; nullptr when this is not an object or has no such key.
  const JsonValue* find(std::string_view key) const;

  const Storage& storage() const { return v_; }
  bool operator==(const JsonValue&) const = default;

 private:
  Storage v_;
};

// Parses a text (or bytes) as JSON. std::nullopt when it is not a valid JSON
// array or object.
std::optional<JsonValue> objectFromJSONString(std::string_view text);
std::optional<JsonValue> objectFromJSONData(std::string_view bytes);
// The same, unchecked for the kind of the result (it may be an array).
inline std::optional<JsonValue> dictionaryFromString(std::string_view text) {
  return objectFromJSONString(text);
}
inline std::optional<JsonValue> dictionaryFromData(std::string_view bytes) {
  return objectFromJSONData(bytes);
}

// Whether `token` is exactly one number by the JSON grammar:
// -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
// The parser refuses literals it cannot hold; this tells those apart from
// text that is not a number at all.
bool isJsonNumberText(std::string_view token);

// Compact text with sorted keys; std::nullopt unless the value is an array or
// an object, or when it holds a number that JSON cannot express (NaN, inf,
// a JsonNumberText that is not a number). JsonWriter writes those as null.
std::optional<std::string> JSONString(const JsonValue& value);
// Same bytes as JSONString.
inline std::optional<std::string> JSONData(const JsonValue& value) { return JSONString(value); }

// Appends `text` as a quoted, escaped JSON string.
void appendJsonString(std::string& out, std::string_view text);

// Streaming writer: commas and nesting are tracked for the caller.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : out_(out) {}

  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(std::string_view k);
  JsonWriter& value(std::string_view s);
  JsonWriter& value(const char* s) { return value(std::string_view(s)); }
  JsonWriter& value(const std::string& s) { return value(std::string_view(s)); }
  JsonWriter& value(int64_t i);
  JsonWriter& value(uint64_t u);
  JsonWriter& value(int i) { return value(int64_t{i}); }
  JsonWriter& value(double d);
  JsonWriter& value(bool b);
  JsonWriter& null();
  // Writes a whole value tree (keys sorted).
  JsonWriter& value(const JsonValue& v);

 private:
  void separate();
  void open(char bracket);
  void close(char bracket);

  std::string& out_;
  // One flag per open container, "nothing written in it yet". The first 64
  // levels need no allocation; deeper ones spill into a vector.
  uint64_t firstBits_ = 0;
  size_t depth_ = 0;
  std::vector<bool> deeper_;
  bool afterKey_ = false;
};

}  // namespace hvfp

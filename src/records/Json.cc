#include "records/Json.h"

#include <simdjson.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace hvfp {
namespace {

namespace dom = simdjson::dom;

JsonValue convert(dom::element e) {
  switch (e.type()) {
    case dom::element_type::ARRAY: {
      JsonArray out;
      for (dom::element child : dom::array(e)) out.push_back(convert(child));
      return out;
    }
    case dom::element_type::OBJECT: {
      JsonObject out;
      for (dom::key_value_pair kv : dom::object(e)) out[std::string(kv.key)] = convert(kv.value);
      return out;
    }
    case dom::element_type::INT64:
      return int64_t(e);
    case dom::element_type::UINT64:
      return uint64_t(e);
    case dom::element_type::DOUBLE:
      return double(e);
    case dom::element_type::STRING:
      return std::string_view(e);
    case dom::element_type::BOOL:
      return bool(e);
    case dom::element_type::NULL_VALUE:
      return nullptr;
  }
  return nullptr;
}

// Small replies reuse one parser per thread; a large one gets its own so the
// thread does not keep its buffers for good.
constexpr size_t kReuseLimit = size_t{1} << 20;

}  // namespace

const JsonValue* JsonValue::find(std::string_view key) const {
  const JsonObject* o = object();
  if (!o) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->second;
}

std::optional<JsonValue> objectFromJSONString(std::string_view text) {
  thread_local dom::parser shared;
  dom::parser own;
  dom::parser& parser = text.size() <= kReuseLimit ? shared : own;
  dom::element root;
  if (parser.parse(text.data(), text.size()).get(root) != simdjson::SUCCESS) return std::nullopt;
  if (!root.is_array() && !root.is_object()) return std::nullopt;
  return convert(root);
}

std::optional<JsonValue> objectFromJSONData(std::string_view bytes) {
  return objectFromJSONString(bytes);
}

namespace {

// Which bytes the writer escapes: control characters, '"', '\\' and '/'.
constexpr std::array<bool, 256> kNeedsEscape = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = true;
  table['"'] = table['\\'] = table['/'] = true;
  return table;
}();

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  size_t run = 0;  // start of the pending span that needs no escaping
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (!kNeedsEscape[c]) continue;
    out.append(text.data() + run, i - run);
    run = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '/': out += "\\/"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        out += "\\u00";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
    }
  }
  out.append(text.data() + run, text.size() - run);
  out.push_back('"');
}

std::optional<std::string> JSONString(const JsonValue& value) {
  if (!value.isArray() && !value.isObject()) return std::nullopt;
  std::string out;
  bool finite = true;
  // Walk once to refuse numbers JSON cannot hold, as the platform serializer does.
  auto check = [&](auto&& self, const JsonValue& v) -> void {
    if (auto* d = std::get_if<double>(&v.storage()); d && !std::isfinite(*d)) finite = false;
    if (auto* a = v.array())
      for (auto& x : *a) self(self, x);
    if (auto* o = v.object())
      for (auto& [k, x] : *o) self(self, x);
  };
  check(check, value);
  if (!finite) return std::nullopt;
  JsonWriter(out).value(value);
  return out;
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (depth_ == 0) return;
  size_t level = depth_ - 1;
  bool first = level < 64 ? (firstBits_ >> level) & 1 : deeper_[level - 64];
  if (!first) out_.push_back(',');
  if (level < 64)
    firstBits_ &= ~(uint64_t{1} << level);
  else
    deeper_[level - 64] = false;
}

void JsonWriter::open(char bracket) {
  separate();
  out_.push_back(bracket);
  if (depth_ < 64)
    firstBits_ |= uint64_t{1} << depth_;
  else
    deeper_.push_back(true);
  ++depth_;
}

void JsonWriter::close(char bracket) {
  out_.push_back(bracket);
  if (depth_ == 0) return;
  --depth_;
  if (depth_ >= 64) deeper_.pop_back();
}

JsonWriter& JsonWriter::beginObject() {
  open('{');
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  close('}');
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  open('[');
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  close(']');
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view k) {
  separate();
  appendJsonString(out_, k);
  out_.push_back(':');
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view s) {
  separate();
  appendJsonString(out_, s);
  return *this;
}

JsonWriter& JsonWriter::value(int64_t i) {
  separate();
  char buf[24];
  auto end = std::to_chars(buf, buf + sizeof buf, i).ptr;
  out_.append(buf, static_cast<size_t>(end - buf));
  return *this;
}

JsonWriter& JsonWriter::value(uint64_t u) {
  separate();
  char buf[24];
  auto end = std::to_chars(buf, buf + sizeof buf, u).ptr;
  out_.append(buf, static_cast<size_t>(end - buf));
  return *this;
}

JsonWriter& JsonWriter::value(double d) {
  separate();
  if (!std::isfinite(d)) {
    out_ += "null";
    return *this;
  }
  if (d == 0) d = 0;  // -0 reads back as the integer 0; write it so
  if (d == std::trunc(d) && std::fabs(d) < 1e15) {
    char buf[32];
    int n = std::snprintf(buf, sizeof buf, "%.0f", d);
    out_.append(buf, static_cast<size_t>(n));
    return *this;
  }
  char buf[32];
  int n = std::snprintf(buf, sizeof buf, "%.17g", d);
  // Shortest text that reads back as the same double.
  for (int p = 1; p <= 17; ++p) {
    int m = std::snprintf(buf, sizeof buf, "%.*g", p, d);
    if (std::strtod(buf, nullptr) == d) {
      n = m;
      break;
    }
  }
  out_.append(buf, static_cast<size_t>(n));
  return *this;
}

JsonWriter& JsonWriter::value(bool b) {
  separate();
  out_ += b ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_ += "null";
  return *this;
}

JsonWriter& JsonWriter::value(const JsonValue& v) {
  std::visit(
      [this](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          null();
        } else if constexpr (std::is_same_v<T, std::string>) {
          value(std::string_view(x));
        } else if constexpr (std::is_same_v<T, JsonArray>) {
          beginArray();
          for (const auto& item : x) value(item);
          endArray();
        } else if constexpr (std::is_same_v<T, JsonObject>) {
          beginObject();
          for (const auto& [k, item] : x) key(k).value(item);
          endObject();
        } else {
          value(x);
        }
      },
      v.storage());
  return *this;
}

}  // namespace hvfp

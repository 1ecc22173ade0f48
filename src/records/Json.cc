#include "records/Json.h"

#include <simdjson.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace hvfp {
namespace {

namespace dom = simdjson::dom;
namespace od = simdjson::ondemand;
using simdjson::error_code;
using simdjson::SUCCESS;

// `depth`: the level `e` sits at, the root being 1. The tree parser does
// not count an empty container as a level, so its own limit sits one above
// ours and the exact limit is kept here.
bool convert(dom::element e, int depth, JsonValue& out) {
  switch (e.type()) {
    case dom::element_type::ARRAY: {
      if (depth > kMaxJsonDepth) return false;
      JsonArray items;
      for (dom::element child : dom::array(e))
        if (!convert(child, depth + 1, items.emplace_back())) return false;
      out = std::move(items);
      return true;
    }
    case dom::element_type::OBJECT: {
      if (depth > kMaxJsonDepth) return false;
      JsonObject members;
      for (dom::key_value_pair kv : dom::object(e))
        if (!convert(kv.value, depth + 1, members[std::string(kv.key)])) return false;
      out = std::move(members);
      return true;
    }
    case dom::element_type::INT64:
      out = int64_t(e);
      return true;
    case dom::element_type::UINT64:
      out = uint64_t(e);
      return true;
    case dom::element_type::DOUBLE:
      out = double(e);
      return true;
    case dom::element_type::STRING:
      out = std::string_view(e);
      return true;
    case dom::element_type::BOOL:
      out = bool(e);
      return true;
    case dom::element_type::NULL_VALUE:
      out = nullptr;
      return true;
  }
  out = nullptr;
  return true;
}

// Small replies reuse one parser per thread; a large one gets its own so the
// thread does not keep its buffers for good.
constexpr size_t kReuseLimit = size_t{1} << 20;

// A parser that refuses what nests deeper than kMaxJsonDepth; the depth is
// kept when the parser later grows for a larger text.
bool limitDepth(dom::parser& parser) {
  return parser.allocate(simdjson::dom::MINIMAL_DOCUMENT_CAPACITY, kMaxJsonDepth + 1) == SUCCESS;
}

// The DOM parser refuses a whole text for one number it cannot hold. Such a
// text is read again by the streaming parser, which hands over the number's
// raw text; everything else is checked as strictly as before. Only texts
// with such a number (or with a broken one) take this slower path.
class StreamingTree {
 public:
  static std::optional<JsonValue> read(std::string_view text) {
    simdjson::padded_string padded(text);
    od::parser parser;
    od::document doc;
    if (parser.iterate(padded).get(doc)) return std::nullopt;
    od::json_type type;
    if (doc.type().get(type)) return std::nullopt;
    JsonValue out;
    error_code e = simdjson::INCORRECT_TYPE;
    if (type == od::json_type::array) {
      od::array a;
      e = doc.get_array().get(a);
      if (!e) e = array(a, 1, out);
    } else if (type == od::json_type::object) {
      od::object o;
      e = doc.get_object().get(o);
      if (!e) e = object(o, 1, out);
    }
    if (e) return std::nullopt;
    const char* end = nullptr;
    if (doc.current_location().get(end) != simdjson::OUT_OF_BOUNDS) return std::nullopt;
    return out;
  }

 private:
  // `depth`: containers around `v`, the root being 1.
  static error_code array(od::array a, int depth, JsonValue& out) {
    JsonArray items;
    for (auto element : a) {
      od::value v;
      if (auto e = element.get(v)) return e;
      if (auto e = value(v, depth, items.emplace_back())) return e;
    }
    out = std::move(items);
    return SUCCESS;
  }

  static error_code object(od::object o, int depth, JsonValue& out) {
    JsonObject members;
    for (auto field : o) {
      std::string_view key;
      if (auto e = field.unescaped_key().get(key)) return e;
      JsonValue member;
      if (auto e = value(field.value(), depth, member)) return e;
      members[std::string(key)] = std::move(member);
    }
    out = std::move(members);
    return SUCCESS;
  }

  static error_code value(od::value v, int depth, JsonValue& out) {
    od::json_type type;
    if (auto e = v.type().get(type)) return e;
    switch (type) {
      case od::json_type::array: {
        if (depth >= kMaxJsonDepth) return simdjson::DEPTH_ERROR;
        od::array a;
        if (auto e = v.get_array().get(a)) return e;
        return array(a, depth + 1, out);
      }
      case od::json_type::object: {
        if (depth >= kMaxJsonDepth) return simdjson::DEPTH_ERROR;
        od::object o;
        if (auto e = v.get_object().get(o)) return e;
        return object(o, depth + 1, out);
      }
      case od::json_type::number:
        return number(v, out);
      case od::json_type::string: {
        std::string_view s;
        if (auto e = v.get_string().get(s)) return e;
        out = s;
        return SUCCESS;
      }
      case od::json_type::boolean: {
        bool b = false;
        if (auto e = v.get_bool().get(b)) return e;
        out = b;
        return SUCCESS;
      }
      case od::json_type::null: {
        bool isNull = false;
        if (auto e = v.is_null().get(isNull)) return e;
        out = nullptr;
        return isNull ? SUCCESS : simdjson::N_ATOM_ERROR;
      }
    }
    return simdjson::INCORRECT_TYPE;
  }

  static error_code number(od::value v, JsonValue& out) {
    od::number n;
    if (auto e = v.get_number().get(n)) {
      std::string_view token = trimmedToken(v.raw_json_token());
      if (e != simdjson::NUMBER_ERROR || !isJsonNumberText(token)) return e;
      out = JsonNumberText{std::string(token)};
      return SUCCESS;
    }
    switch (n.get_number_type()) {
      case od::number_type::signed_integer:
        out = n.get_int64();
        break;
      case od::number_type::unsigned_integer:
        out = n.get_uint64();
        break;
      default:
        out = n.get_double();
    }
    return SUCCESS;
  }

  // A raw token runs up to the next structural character, white space included.
  static std::string_view trimmedToken(std::string_view token) {
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t' || token.back() == '\n' ||
                              token.back() == '\r'))
      token.remove_suffix(1);
    return token;
  }
};

}  // namespace

const JsonValue* JsonValue::find(std::string_view key) const {
  const JsonObject* o = object();
  if (!o) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->second;
}

std::optional<JsonValue> objectFromJSONString(std::string_view text) {
  thread_local dom::parser shared;
  thread_local bool sharedReady = limitDepth(shared);
  dom::parser own;
  bool small = text.size() <= kReuseLimit && sharedReady;
  if (!small && !limitDepth(own)) return std::nullopt;
  dom::parser& parser = small ? shared : own;
  dom::element root;
  error_code e = parser.parse(text.data(), text.size()).get(root);
  if (e == simdjson::NUMBER_ERROR) return StreamingTree::read(text);
  if (e != SUCCESS) return std::nullopt;
  if (!root.is_array() && !root.is_object()) return std::nullopt;
  JsonValue out;
  if (!convert(root, 1, out)) return std::nullopt;
  return out;
}

std::optional<JsonValue> objectFromJSONData(std::string_view bytes) {
  return objectFromJSONString(bytes);
}

bool isJsonNumberText(std::string_view token) {
  size_t i = 0;
  auto digits = [&] {
    size_t start = i;
    while (i < token.size() && token[i] >= '0' && token[i] <= '9') ++i;
    return i > start;
  };
  if (i < token.size() && token[i] == '-') ++i;
  if (i < token.size() && token[i] == '0')
    ++i;
  else if (!digits())
    return false;
  if (i < token.size() && token[i] == '.') {
    ++i;
    if (!digits()) return false;
  }
  if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == token.size();
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
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
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
    if (auto* n = std::get_if<JsonNumberText>(&v.storage()); n && !isJsonNumberText(n->text))
      finite = false;
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
        } else if constexpr (std::is_same_v<T, JsonNumberText>) {
          if (!isJsonNumberText(x.text)) {
            null();
          } else {
            separate();
            out_ += x.text;
          }
        } else {
          value(x);
        }
      },
      v.storage());
  return *this;
}

}  // namespace hvfp

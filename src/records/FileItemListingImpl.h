// The listing reader's body, compiled once per instruction set (see
// FileItemListing.cc): simdjson picks its streaming parser's implementation
// from the compiler's target flags. Include only with HVFP_LISTING_NS set.
#include <simdjson.h>

#include "records/FileItemListing.h"
#include "records/FileItemSlots.h"

namespace hvfp::HVFP_LISTING_NS {
namespace {

namespace od = simdjson::ondemand;
using simdjson::error_code;
using simdjson::SUCCESS;

// Well under the parser's own limit (1024), which its streaming API only asserts.
constexpr int kMaxDepth = 256;
constexpr size_t kReuseLimit = size_t{1} << 20;

// Reads and checks a value nobody asked for, so that invalid JSON anywhere in
// the reply is caught as the platform parser would catch it.
error_code consume(od::value v, int depth) {
  if (depth > kMaxDepth) return simdjson::DEPTH_ERROR;
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  switch (type) {
    case od::json_type::array: {
      od::array a;
      if (auto e = v.get_array().get(a)) return e;
      for (auto element : a) {
        od::value x;
        if (auto e = element.get(x)) return e;
        if (auto e = consume(x, depth + 1)) return e;
      }
      return SUCCESS;
    }
    case od::json_type::object: {
      od::object o;
      if (auto e = v.get_object().get(o)) return e;
      for (auto field : o) {
        std::string_view key;
        if (auto e = field.unescaped_key().get(key)) return e;
        od::value x;
        if (auto e = field.value().get(x)) return e;
        if (auto e = consume(x, depth + 1)) return e;
      }
      return SUCCESS;
    }
    case od::json_type::number: {
      od::number n;
      return v.get_number().get(n);
    }
    case od::json_type::string: {
      std::string_view s;
      return v.get_string().get(s);
    }
    case od::json_type::boolean: {
      bool b;
      return v.get_bool().get(b);
    }
    case od::json_type::null: {
      bool isNull = false;
      if (auto e = v.is_null().get(isNull)) return e;
      return isNull ? SUCCESS : simdjson::INCORRECT_TYPE;
    }
  }
  return simdjson::INCORRECT_TYPE;
}

error_code readScalar(od::value v, JsonScalar& out, int depth) {
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  switch (type) {
    case od::json_type::number: {
      od::number n;
      if (auto e = v.get_number().get(n)) return e;
      switch (n.get_number_type()) {
        case od::number_type::signed_integer:
          out.kind = JsonScalar::Kind::Int;
          out.i = n.get_int64();
          break;
        case od::number_type::unsigned_integer:
          out.kind = JsonScalar::Kind::UInt;
          out.u = n.get_uint64();
          break;
        default:
          out.kind = JsonScalar::Kind::Double;
          out.d = n.get_double();
      }
      return SUCCESS;
    }
    case od::json_type::string:
      out.kind = JsonScalar::Kind::String;
      return v.get_string().get(out.s);
    case od::json_type::boolean:
      out.kind = JsonScalar::Kind::Bool;
      return v.get_bool().get(out.b);
    default:
      out = JsonScalar{};
      out.kind = type == od::json_type::null ? JsonScalar::Kind::Null : JsonScalar::Kind::Container;
      return consume(v, depth);
  }
}

error_code readEntry(od::value v, HVFileItemRef& record) {
  record = std::make_shared<HVFileItem>();
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::object) return consume(v, 2);
  od::object o;
  if (auto e = v.get_object().get(o)) return e;
  FileItemSlots slots;
  for (auto field : o) {
    std::string_view key;
    if (auto e = field.unescaped_key().get(key)) return e;
    od::value x;
    if (auto e = field.value().get(x)) return e;
    auto slot = fileItemKeyOf(key);
    if (auto e = slot ? readScalar(x, slots[*slot], 3) : consume(x, 3)) return e;
  }
  record->fill(slots);
  return SUCCESS;
}

error_code readList(od::value v, std::vector<HVFileItemRef>& list) {
  list.clear();
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::array) return consume(v, 1);
  od::array a;
  if (auto e = v.get_array().get(a)) return e;
  for (auto element : a) {
    od::value x;
    if (auto e = element.get(x)) return e;
    if (auto e = readEntry(x, list.emplace_back())) return e;
  }
  return SUCCESS;
}

error_code readListing(od::parser& parser, std::string& text, FileItemListing& out) {
  od::document doc;
  if (text.capacity() < text.size() + simdjson::SIMDJSON_PADDING)
    text.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  if (auto e = parser.iterate(text.data(), text.size(), text.capacity()).get(doc)) return e;
  od::object top;
  if (auto e = doc.get_object().get(top)) return e;
  for (auto field : top) {
    std::string_view key;
    if (auto e = field.unescaped_key().get(key)) return e;
    od::value x;
    if (auto e = field.value().get(x)) return e;
    error_code e = SUCCESS;
    if (key == "list") {
      e = readList(x, out.list);
    } else if (key == "lasttime") {
      JsonScalar s;
      e = readScalar(x, s, 1);
      out.lasttime = static_cast<uint64_t>(integerReading(s));
    } else {
      e = consume(x, 1);
    }
    if (e) return e;
  }
  // Anything after the object makes the text invalid JSON.
  const char* end = nullptr;
  auto where = doc.current_location().get(end);
  return where == simdjson::OUT_OF_BOUNDS ? SUCCESS : simdjson::TRAILING_CONTENT;
}

}  // namespace

std::optional<FileItemListing> readFileItemListing(std::string& text) {
  thread_local od::parser shared;
  od::parser own;
  od::parser& parser = text.size() <= kReuseLimit ? shared : own;
  FileItemListing out;
  if (readListing(parser, text, out) != SUCCESS) return std::nullopt;
  return out;
}

}  // namespace hvfp::HVFP_LISTING_NS

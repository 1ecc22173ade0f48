// The listing reader's body, compiled once per instruction set (see
// FileItemListing.cc): simdjson picks its streaming parser's implementation
// from the compiler's target flags. Include only with HVFP_LISTING_NS set.
#include <simdjson.h>

#include <cstring>
#include <mutex>
#include <new>

#include "platform/http/ReplyBuffers.h"
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
constexpr size_t kCacheLimit = size_t{64} << 20;

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

// Length of the JSON string text at `p` (just after its opening quote) up to
// its closing quote, or npos when a backslash comes first: such a string
// needs unescaping. Strings are short here; a plain loop beats memchr.
size_t plainStringLength(const char* p) {
  for (size_t i = 0;; ++i) {
    if (p[i] == '"') return i;
    if (p[i] == '\\') return std::string_view::npos;
  }
}

// A key without escapes is read straight from the reply; only a key with a
// backslash costs an unescaping copy.
error_code fieldKey(od::field& field, std::string_view& key) {
  const char* raw = field.key().raw();
  size_t length = plainStringLength(raw);
  if (length != std::string_view::npos) {
    key = std::string_view(raw, length);
    return SUCCESS;
  }
  return field.unescaped_key().get(key);
}

error_code readString(od::value v, JsonScalar& out) {
  out.kind = JsonScalar::Kind::String;
  const char* token = v.raw_json_token().data();
  size_t length = plainStringLength(token + 1);
  if (length != std::string_view::npos) {
    out.s = std::string_view(token + 1, length);
    out.stable = true;  // points into the reply text that the block keeps
    od::raw_json_string skip;
    return v.get_raw_json_string().get(skip);
  }
  out.stable = false;
  return v.get_string().get(out.s);
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
      return readString(v, out);
    case od::json_type::boolean:
      out.kind = JsonScalar::Kind::Bool;
      return v.get_bool().get(out.b);
    default:
      out = JsonScalar{};
      out.kind = type == od::json_type::null ? JsonScalar::Kind::Null : JsonScalar::Kind::Container;
      return consume(v, depth);
  }
}

error_code readEntry(od::value v, HVFileItem& record) {
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::object) return consume(v, 2);
  od::object o;
  if (auto e = v.get_object().get(o)) return e;
  FileItemSlots slots;
  for (auto result : o) {
    od::field field;
    if (auto e = std::move(result).get(field)) return e;
    std::string_view key;
    if (auto e = fieldKey(field, key)) return e;
    auto slot = fileItemKeyOf(key);
    if (auto e = slot ? readScalar(field.value(), slots[*slot], 3) : consume(field.value(), 3))
      return e;
  }
  record.fill(slots);
  return SUCCESS;
}

// Memory for records, kept across listings: a large folder listed again
// reuses pages that are already mapped instead of faulting in fresh ones.
// Holds at most kPoolLimit bytes; any thread.
class ChunkPool {
 public:
  static constexpr size_t kRecords = 4096;
  static constexpr size_t kBytes = kRecords * sizeof(HVFileItem);
  static constexpr size_t kPoolLimit = size_t{64} << 20;

  static void* take() {
    {
      std::lock_guard lock(mutex());
      auto& free = chunks();
      if (!free.empty()) {
        void* chunk = free.back();
        free.pop_back();
        return chunk;
      }
    }
    return ::operator new(kBytes, std::align_val_t(alignof(HVFileItem)));
  }
  static void give(void* chunk) {
    {
      std::lock_guard lock(mutex());
      auto& free = chunks();
      if ((free.size() + 1) * kBytes <= kPoolLimit && ReplyBuffers::keeping()) {
        free.push_back(chunk);
        return;
      }
    }
    ::operator delete(chunk, std::align_val_t(alignof(HVFileItem)));
  }

 private:
  static std::mutex& mutex() {
    static auto* m = new std::mutex;
    return *m;
  }
  static std::vector<void*>& chunks() {
    static auto* v = new std::vector<void*>;
    return *v;
  }
};

// The records of one listing and the reply text their texts borrow from.
// Records are made in fixed chunks, so none ever moves and the array need
// not be counted first.
struct ListingBlock {
  std::string text;
  std::vector<HVFileItem*> chunks;
  size_t count = 0;

  ListingBlock() = default;
  ListingBlock(const ListingBlock&) = delete;
  ListingBlock& operator=(const ListingBlock&) = delete;
  ~ListingBlock() {
    clear();
    ReplyBuffers::give(std::move(text));
  }

  HVFileItem& add() {
    if (count % ChunkPool::kRecords == 0)
      chunks.push_back(static_cast<HVFileItem*>(ChunkPool::take()));
    return *new (chunks.back() + count++ % ChunkPool::kRecords) HVFileItem;
  }
  HVFileItem& at(size_t i) { return chunks[i / ChunkPool::kRecords][i % ChunkPool::kRecords]; }
  void clear() {
    for (size_t i = 0; i < count; ++i) at(i).~HVFileItem();
    for (HVFileItem* chunk : chunks) ChunkPool::give(chunk);
    chunks.clear();
    count = 0;
  }
};

error_code readList(od::value v, ListingBlock& block) {
  block.clear();
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::array) return consume(v, 1);
  od::array a;
  if (auto e = v.get_array().get(a)) return e;
  for (auto element : a) {
    od::value x;
    if (auto e = element.get(x)) return e;
    if (auto e = readEntry(x, block.add())) return e;
  }
  return SUCCESS;
}

error_code readListing(od::parser& parser, ListingBlock& block, uint64_t& lasttime) {
  std::string& text = block.text;
  if (text.capacity() < text.size() + simdjson::SIMDJSON_PADDING)
    text.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  od::document doc;
  if (auto e = parser.iterate(text.data(), text.size(), text.capacity()).get(doc)) return e;
  od::object top;
  if (auto e = doc.get_object().get(top)) return e;
  for (auto result : top) {
    od::field field;
    if (auto e = std::move(result).get(field)) return e;
    std::string_view key;
    if (auto e = fieldKey(field, key)) return e;
    error_code e = SUCCESS;
    if (key == "list") {
      e = readList(field.value(), block);
    } else if (key == "lasttime") {
      JsonScalar s;
      e = readScalar(field.value(), s, 1);
      lasttime = static_cast<uint64_t>(integerReading(s));
    } else {
      e = consume(field.value(), 1);
    }
    if (e) return e;
  }
  // Anything after the object makes the text invalid JSON.
  const char* end = nullptr;
  auto where = doc.current_location().get(end);
  return where == simdjson::OUT_OF_BOUNDS ? SUCCESS : simdjson::TRAILING_CONTENT;
}

// Small replies reuse one parser per thread. Large ones share one cached
// parser, so a folder listed again does not pay for fresh buffers; a
// second large listing at the same moment makes its own.
error_code readWithParser(ListingBlock& block, uint64_t& lasttime) {
  if (block.text.size() <= kReuseLimit) {
    thread_local od::parser small;
    return readListing(small, block, lasttime);
  }
  static std::mutex largeMutex;
  static od::parser* large = new od::parser;  // kept for the process
  std::unique_lock lock(largeMutex, std::try_to_lock);
  if (lock && block.text.size() <= kCacheLimit && ReplyBuffers::keeping())
    return readListing(*large, block, lasttime);
  od::parser own;
  return readListing(own, block, lasttime);
}

}  // namespace

std::optional<FileItemListing> readFileItemListing(std::string text) {
  auto block = std::make_shared<ListingBlock>();
  block->text = std::move(text);
  FileItemListing out;
  if (readWithParser(*block, out.lasttime) != SUCCESS) return std::nullopt;
  out.list.reserve(block->count);
  for (size_t i = 0; i < block->count; ++i) out.list.emplace_back(block, &block->at(i));
  return out;
}

}  // namespace hvfp::HVFP_LISTING_NS

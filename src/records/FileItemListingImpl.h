// The listing reader's body, compiled once per instruction set (see
// FileItemListing.cc): simdjson picks its streaming parser's implementation
// from the compiler's target flags. Include only with HVFP_LISTING_NS set.
//
// Code built for a wider instruction set must never run on a CPU that lacks
// it. Everything here is in a namespace of its own instruction set, and the
// including file is compiled with -fwhole-program (GCC): every function it
// holds, the inline library code it instantiates included, gets internal
// linkage, so the linker cannot hand one copy to another file. Only the
// entry point below is exported (scripts/check-isa.sh checks both).
#include <simdjson.h>

#include <cstring>
#include <mutex>
#include <new>

#include "platform/http/ReplyBuffers.h"
#include "records/FileItemListing.h"
#include "records/FileItemSlots.h"

#if defined(__GNUC__) && !defined(__clang__)
#define HVFP_LISTING_ENTRY __attribute__((externally_visible))
#else
#define HVFP_LISTING_ENTRY
#endif

namespace hvfp::HVFP_LISTING_NS {
namespace {

namespace od = simdjson::ondemand;
using simdjson::error_code;
using simdjson::SUCCESS;

// Entries sit three containers deep: the reply, "list", the entry.
static_assert(kMaxJsonDepth > 3);
constexpr size_t kReuseLimit = size_t{1} << 20;
constexpr size_t kCacheLimit = size_t{64} << 20;

bool isSpace(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

// A raw token runs up to the next structural character, white space included.
std::string_view trimmed(std::string_view token) {
  while (!token.empty() && isSpace(token.back())) token.remove_suffix(1);
  return token;
}

// A number the parser cannot hold (past 64 bits) but that is valid JSON
// reads as a value of the wrong kind; anything else it refuses stays an error.
error_code bigNumber(od::value& v, error_code e, JsonScalar& out) {
  if (e != simdjson::NUMBER_ERROR || !isJsonNumberText(trimmed(v.raw_json_token()))) return e;
  out = JsonScalar{};
  out.kind = JsonScalar::Kind::BigNumber;
  return SUCCESS;
}

// Reads and checks a value nobody asked for, so that invalid JSON anywhere in
// the reply is caught as the tree parser would catch it. `depth`: containers
// around `v`, the reply itself being 1.
error_code consume(od::value& v, int depth) {
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  switch (type) {
    case od::json_type::array: {
      if (depth >= kMaxJsonDepth) return simdjson::DEPTH_ERROR;
      od::array a;
      if (auto e = v.get_array().get(a)) return e;
      for (auto element : a) {
        if (auto e = element.error()) return e;
        od::value&& x = std::move(element).value_unsafe();
        if (auto e = consume(x, depth + 1)) return e;
      }
      return SUCCESS;
    }
    case od::json_type::object: {
      if (depth >= kMaxJsonDepth) return simdjson::DEPTH_ERROR;
      od::object o;
      if (auto e = v.get_object().get(o)) return e;
      for (auto result : o) {
        if (auto e = result.error()) return e;
        od::field&& field = std::move(result).value_unsafe();
        std::string_view key;
        if (auto e = field.unescaped_key().get(key)) return e;
        if (auto e = consume(field.value(), depth + 1)) return e;
      }
      return SUCCESS;
    }
    case od::json_type::number: {
      od::number n;
      JsonScalar ignored;
      if (auto e = v.get_number().get(n)) return bigNumber(v, e, ignored);
      return SUCCESS;
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

bool hasBackslash(std::string_view s) { return std::memchr(s.data(), '\\', s.size()) != nullptr; }

// The key of `field` as it stands in the reply, between its quotes, found
// from where its value starts: only white space and the colon lie between.
// Saves scanning every key of every entry byte by byte.
std::string_view rawKey(od::field& field) {
  const char* start = field.key().raw();
  const char* end = field.value().raw_json_token().data() - 1;
  while (*end != ':') --end;
  --end;
  while (*end != '"') --end;
  return std::string_view(start, static_cast<size_t>(end - start));
}

// The record slot `field` fills, if any. Known keys hold no escapes, so the
// raw text is compared first; only an unknown key with a backslash costs an
// unescaping copy.
error_code slotOf(od::field& field, std::optional<FileItemKey>& slot) {
  std::string_view raw = rawKey(field);
  slot = fileItemKeyOf(raw);
  if (slot || !hasBackslash(raw)) return SUCCESS;
  std::string_view key;
  if (auto e = field.unescaped_key().get(key)) return e;
  slot = fileItemKeyOf(key);
  return SUCCESS;
}

// A text without escapes is read straight from the reply (it ends at the
// last quote of its raw token); only a text with a backslash is unescaped.
error_code readString(od::value& v, JsonScalar& out) {
  out.kind = JsonScalar::Kind::String;
  std::string_view token = trimmed(v.raw_json_token());
  bool whole = token.size() >= 2 && token.back() == '"';
  std::string_view text = whole ? token.substr(1, token.size() - 2) : std::string_view();
  if (whole && !hasBackslash(text)) {
    out.s = text;
    out.stable = true;  // points into the reply text that the block keeps
    od::raw_json_string skip;
    return v.get_raw_json_string().get(skip);
  }
  out.stable = false;
  return v.get_string().get(out.s);
}

error_code readNumber(od::value& v, JsonScalar& out) {
  // Most numbers of a listing are sizes, times and ids: try the plain
  // unsigned reading first, which checks the literal as strictly.
  uint64_t u;
  if (v.get_uint64().get(u) == SUCCESS) {
    if (u <= uint64_t(INT64_MAX)) {
      out.kind = JsonScalar::Kind::Int;
      out.i = static_cast<int64_t>(u);
    } else {
      out.kind = JsonScalar::Kind::UInt;
      out.u = u;
    }
    return SUCCESS;
  }
  od::number n;
  if (auto e = v.get_number().get(n)) return bigNumber(v, e, out);
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

error_code readScalar(od::value& v, JsonScalar& out, int depth) {
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  switch (type) {
    case od::json_type::number:
      return readNumber(v, out);
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

// An entry of "list", three containers deep.
error_code readEntry(od::value& v, HVFileItem& record) {
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::object) return consume(v, 2);
  od::object o;
  if (auto e = v.get_object().get(o)) return e;
  FileItemSlots slots;
  for (auto result : o) {
    if (auto e = result.error()) return e;
    od::field&& field = std::move(result).value_unsafe();
    std::optional<FileItemKey> slot;
    if (auto e = slotOf(field, slot)) return e;
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

error_code readList(od::value& v, ListingBlock& block) {
  block.clear();
  od::json_type type;
  if (auto e = v.type().get(type)) return e;
  if (type != od::json_type::array) return consume(v, 1);
  od::array a;
  if (auto e = v.get_array().get(a)) return e;
  for (auto element : a) {
    if (auto e = element.error()) return e;
    od::value&& x = std::move(element).value_unsafe();
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
    if (auto e = result.error()) return e;
    od::field&& field = std::move(result).value_unsafe();
    std::string_view key;
    if (auto e = field.unescaped_key().get(key)) return e;
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

HVFP_LISTING_ENTRY std::optional<FileItemListing> readFileItemListing(std::string text) {
  auto block = std::make_shared<ListingBlock>();
  block->text = std::move(text);
  FileItemListing out;
  if (readWithParser(*block, out.lasttime) != SUCCESS) return std::nullopt;
  out.list.reserve(block->count);
  for (size_t i = 0; i < block->count; ++i) out.list.emplace_back(block, &block->at(i));
  return out;
}

}  // namespace hvfp::HVFP_LISTING_NS

#include "driver/Status.h"

#include "records/Json.h"
#include "records/JsonReading.h"

namespace hvfp::driver {
namespace {

// Length of the valid UTF-8 sequence starting at `at`, or 0.
size_t sequenceAt(std::string_view s, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > s.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  return length;
}

void text(JsonWriter& w, std::string_view key, std::string_view value) {
  w.key(key).value(validUtf8(value));
}

void optionalText(JsonWriter& w, std::string_view key, const std::optional<std::string>& value) {
  if (value)
    text(w, key, *value);
  else
    w.key(key).null();
}

std::string textOf(const JsonValue& object, std::string_view key) {
  const JsonValue* v = object.find(key);
  return v && v->string() ? *v->string() : std::string();
}

std::optional<std::string> optionalTextOf(const JsonValue& object, std::string_view key) {
  const JsonValue* v = object.find(key);
  if (!v || !v->string()) return std::nullopt;
  return *v->string();
}

uint64_t countOf(const JsonValue& object, std::string_view key) {
  return static_cast<uint64_t>(readInteger(object, key));
}

std::optional<int64_t> optionalNumberOf(const JsonValue& object, std::string_view key) {
  const JsonValue* v = object.find(key);
  if (!v || !v->isNumber()) return std::nullopt;
  return readInteger(object, key);
}

const JsonArray& arrayOf(const JsonValue& object, std::string_view key) {
  static const JsonArray kNone;
  const JsonValue* v = object.find(key);
  return v && v->array() ? *v->array() : kNone;
}

TransferStatus transferOf(const JsonValue& v) {
  TransferStatus t;
  t.name = textOf(v, "name");
  t.direction = textOf(v, "direction") == "upload" ? Direction::Upload : Direction::Download;
  t.done = countOf(v, "bytes");
  if (auto total = optionalNumberOf(v, "total")) t.total = static_cast<uint64_t>(*total);
  t.rate = countOf(v, "rate");
  return t;
}

PendingStatus pendingOf(const JsonValue& v) {
  PendingStatus p;
  p.name = textOf(v, "name");
  p.size = countOf(v, "size");
  const std::string state = textOf(v, "state");
  p.state = state == "sending"  ? PendingStatus::State::Sending
            : state == "failed" ? PendingStatus::State::Failed
                                : PendingStatus::State::Waiting;
  p.failures = countOf(v, "failures");
  p.nextAttempt = optionalNumberOf(v, "next_attempt");
  p.error = optionalTextOf(v, "error");
  return p;
}

}  // namespace

const char* directionName(Direction direction) {
  return direction == Direction::Upload ? "upload" : "download";
}

const char* stateName(PendingStatus::State state) {
  switch (state) {
    case PendingStatus::State::Sending:
      return "sending";
    case PendingStatus::State::Failed:
      return "failed";
    case PendingStatus::State::Waiting:
      break;
  }
  return "waiting";
}

std::string validUtf8(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t at = 0; at < s.size();) {
    if (size_t n = sequenceAt(s, at)) {
      out.append(s.substr(at, n));
      at += n;
    } else {
      out += "\xEF\xBF\xBD";
      ++at;
    }
  }
  return out;
}

std::string statusJson(const Status& status) {
  std::string out;
  JsonWriter w(out);
  w.beginObject();
  text(w, "mountpoint", status.mountpoint);
  text(w, "domain", status.domain);
  optionalText(w, "host", status.host);
  w.key("pid").value(status.pid);
  w.key("transfers").beginArray();
  for (const auto& t : status.folder.transfers) {
    w.beginObject();
    text(w, "name", t.name);
    w.key("direction").value(directionName(t.direction));
    w.key("bytes").value(t.done);
    if (t.total)
      w.key("total").value(*t.total);
    else
      w.key("total").null();
    w.key("rate").value(t.rate);
    w.endObject();
  }
  w.endArray();
  w.key("pending").beginArray();
  for (const auto& p : status.folder.pending) {
    w.beginObject();
    text(w, "name", p.name);
    w.key("size").value(p.size);
    w.key("state").value(stateName(p.state));
    w.key("failures").value(p.failures);
    if (p.nextAttempt)
      w.key("next_attempt").value(*p.nextAttempt);
    else
      w.key("next_attempt").null();
    optionalText(w, "error", p.error);
    w.endObject();
  }
  w.endArray();
  const CacheStatus& c = status.folder.cache;
  w.key("cache").beginObject();
  w.key("bytes").value(c.bytes).key("limit").value(c.limit).key("copies").value(c.copies);
  w.endObject();
  w.endObject();
  return out;
}

Result<Status> readStatus(std::string_view text) {
  auto parsed = objectFromJSONString(text);
  if (!parsed || !parsed->isObject()) return fail("the mount's answer is not a JSON object");
  const JsonValue& v = *parsed;
  Status s;
  s.mountpoint = textOf(v, "mountpoint");
  if (s.mountpoint.empty()) return fail("the mount's answer names no mount point");
  s.domain = textOf(v, "domain");
  s.host = optionalTextOf(v, "host");
  s.pid = readInteger(v, "pid");
  for (const auto& t : arrayOf(v, "transfers"))
    if (t.isObject()) s.folder.transfers.push_back(transferOf(t));
  for (const auto& p : arrayOf(v, "pending"))
    if (p.isObject()) s.folder.pending.push_back(pendingOf(p));
  if (const JsonValue* c = v.find("cache"); c && c->isObject())
    s.folder.cache = CacheStatus{countOf(*c, "bytes"), countOf(*c, "limit"), countOf(*c, "copies")};
  return s;
}

}  // namespace hvfp::driver

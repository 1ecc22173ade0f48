#include "cli/ItemFormat.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "item/PlatformDate.h"
#include "records/Json.h"

namespace hvfp::cli {
namespace {

std::string kindOf(NSFileProviderItem& item) {
  std::string type = item.contentType().identifier;
  if (type != "public.folder") return type;
  // Mount roots cannot be renamed or moved; that sets them apart from folders.
  return (item.capabilities() & 8) ? "folder" : "mount";
}

template <typename T, typename Fn>
void optionalMember(JsonWriter& w, const char* key, const std::optional<T>& v, Fn write) {
  w.key(key);
  if (v)
    write(*v);
  else
    w.null();
}

}  // namespace

// Names and events come from the host: a control character in one (an
// escape sequence, a line break) must not reach the terminal as such. C1
// controls count too: U+009B alone starts a sequence on many terminals.
std::string printable(std::string text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool c1 = c == 0xC2 && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9F;
    if (c1) ++i;
    out.push_back(c < 0x20 || c == 0x7f || c1 ? '?' : text[i]);
  }
  return out;
}

std::string errorText(const Error& error) {
  std::string meaning;
  if (error.domain == NSCocoaErrorDomain) {
    switch (error.code) {
      case ErrorCode::Cancelled:
        meaning = "cancelled";
        break;
      case ErrorCode::NoWritePermission:
        meaning = "refused by the host";
        break;
      case ErrorCode::FeatureUnsupported:
        meaning = "not confirmed by the host";
        break;
      case ErrorCode::LookupFailed:
        meaning = "not found";
        break;
      case ErrorCode::CloudNetworkFailure:
        meaning = "the transfer failed";
        break;
      default:
        meaning = "failed";
        break;
    }
  } else {
    meaning = "failed";
  }
  // An upload's failure carries the host's or the task's own code and text.
  auto code = error.userInfo.find("error");
  auto message = error.userInfo.find("message");
  if (code != error.userInfo.end()) {
    meaning += ": error ";
    if (auto* n = std::get_if<int64_t>(&code->second)) meaning += std::to_string(*n);
    if (auto* t = std::get_if<std::string>(&code->second)) meaning += printable(*t);
  }
  if (message != error.userInfo.end())
    if (auto* t = std::get_if<std::string>(&message->second); t && !t->empty())
      meaning += " \"" + printable(*t) + "\"";
  return meaning + " (" + printable(error.domain) + " " + std::to_string(error.code) + ")";
}

std::string humanSize(uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes);
  int unit = -1;
  while (value >= 1024 && unit < 5) {
    value /= 1024;
    ++unit;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, value < 10 ? "%.1f %s" : "%.0f %s", value, kUnits[unit]);
  return buf;
}

std::string shortDate(double seconds) {
  // The platform's date text without its zone: any time a host sends, even
  // far outside what time_t holds, prints safely.
  std::string text = formatPlatformDate(seconds);
  constexpr std::string_view kZone = " +0000";
  if (text.size() > kZone.size() &&
      text.compare(text.size() - kZone.size(), kZone.size(), kZone) == 0)
    text.resize(text.size() - kZone.size());
  return text;
}

std::string itemJson(NSFileProviderItem& item) {
  std::string out;
  JsonWriter w(out);
  auto text = [&](const std::string& s) { w.value(s); };
  auto number = [&](uint64_t n) { w.value(n); };
  auto date = [&](double d) { w.value(d); };
  w.beginObject();
  w.key("capabilities").value(item.capabilities());
  optionalMember(w, "childItemCount", item.childItemCount(), number);
  optionalMember(w, "contentModificationDate", item.contentModificationDate(), date);
  w.key("contentType").value(item.contentType().identifier);
  optionalMember(w, "creationDate", item.creationDate(), date);
  optionalMember(w, "documentSize", item.documentSize(), number);
  optionalMember(w, "filename", item.filename(), text);
  w.key("itemIdentifier").value(item.itemIdentifier());
  optionalMember(w, "itemVersion", item.itemVersion(), [&](const NSFileProviderItemVersion& v) {
    w.beginObject().key("contentVersion").value(v.contentVersion);
    w.key("metadataVersion").value(v.metadataVersion).endObject();
  });
  optionalMember(w, "lastUsedDate", item.lastUsedDate(), date);
  optionalMember(w, "parentItemIdentifier", item.parentItemIdentifier(), text);
  w.endObject();
  return out;
}

void printTable(std::ostream& out, const std::vector<NSFileProviderItemRef>& items) {
  std::vector<std::array<std::string, 5>> rows;
  rows.push_back({"NAME", "IDENTIFIER", "KIND", "SIZE", "MODIFIED"});
  for (const auto& item : items) {
    auto size = item->documentSize();
    auto modified = item->contentModificationDate();
    bool folder = item->contentType().identifier == "public.folder";
    rows.push_back({printable(item->filename().value_or("(no name)")),
                    printable(item->itemIdentifier()), printable(kindOf(*item)),
                    size && !folder ? humanSize(*size) : "-",
                    modified ? shortDate(*modified) : "-"});
  }
  std::array<size_t, 5> width{};
  for (const auto& row : rows)
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  for (const auto& row : rows) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      bool rightAligned = c == 3;
      std::string pad(width[c] - row[c].size(), ' ');
      line += rightAligned ? pad + row[c] : row[c] + (c + 1 < row.size() ? pad : "");
      if (c + 1 < row.size()) line += "  ";
    }
    out << line << '\n';
  }
}

void printDetails(std::ostream& out, NSFileProviderItem& item) {
  auto orDash = [](const auto& v, auto show) { return v ? show(*v) : std::string("(null)"); };
  auto asText = [](const std::string& s) { return printable(s); };
  auto asNumber = [](uint64_t n) { return std::to_string(n); };
  auto asDate = [](double d) { return shortDate(d) + " UTC"; };
  out << "filename:                " << orDash(item.filename(), asText) << '\n'
      << "itemIdentifier:          " << printable(item.itemIdentifier()) << '\n'
      << "parentItemIdentifier:    " << orDash(item.parentItemIdentifier(), asText) << '\n'
      << "contentType:             " << printable(item.contentType().identifier) << '\n'
      << "capabilities:            " << item.capabilities() << '\n'
      << "documentSize:            " << orDash(item.documentSize(), asNumber) << '\n'
      << "childItemCount:          " << orDash(item.childItemCount(), asNumber) << '\n'
      << "creationDate:            " << orDash(item.creationDate(), asDate) << '\n'
      << "contentModificationDate: " << orDash(item.contentModificationDate(), asDate) << '\n'
      << "lastUsedDate:            " << orDash(item.lastUsedDate(), asDate) << '\n';
  auto version = item.itemVersion();
  out << "contentVersion:          " << (version ? printable(version->contentVersion) : "(null)")
      << '\n'
      << "metadataVersion:         " << (version ? printable(version->metadataVersion) : "(null)")
      << '\n';
}

}  // namespace hvfp::cli

// How the console shows items: an aligned table for people, one JSON object
// per item (every property under its own name) for scripts. Pure functions
// over items; call from the thread that owns the items.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/fileprovider/FileProvider.h"

namespace hvfp::cli {

// Every property of the item, keys sorted, one line of compact JSON.
std::string itemJson(NSFileProviderItem& item);
// NAME, IDENTIFIER, KIND, SIZE, MODIFIED columns, one row per item.
void printTable(std::ostream& out, const std::vector<NSFileProviderItemRef>& items);
// "key: value" lines of every property.
void printDetails(std::ostream& out, NSFileProviderItem& item);
// 1536 -> "1.5 KiB"; exact bytes below 1 KiB.
std::string humanSize(uint64_t bytes);
// What an error the framework got means, for people: "not found", "refused
// by the host", an upload's code and message, ... with the domain and code.
std::string errorText(const Error& error);
// Seconds since 1970 as "2023-11-14 22:13:20" (UTC).
std::string shortDate(double seconds);
// A text from the host made safe for a terminal: every control character,
// C0, DEL or C1 (as its UTF-8 bytes), becomes "?".
std::string printable(std::string text);

}  // namespace hvfp::cli

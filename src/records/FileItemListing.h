// Reading a listing reply ({"list":[...], "lasttime":N}) straight into file
// records, in one streaming pass over the text. Folder listings can hold a
// hundred thousand entries: going through a JsonValue tree first would cost
// several times the reply's size in memory and time. So the records of one
// listing are made in one block that also keeps the reply text, and their
// texts borrow from it where the reply has no escapes. Each HVFileItemRef
// shares that block: the block lives while any of its records is held.
// The whole text is still validated, so a reply that is not valid JSON, or
// nests deeper than kMaxJsonDepth, gives no listing at all; a number past 64
// bits is valid JSON and reads as the tree reader reads it (an absent key).
// Reentrant; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "records/HVFileItem.h"

namespace hvfp {

struct FileItemListing {
  // One record per element of "list", in order; an element that is not an
  // object gives a record at its defaults. Empty when "list" is missing or
  // not an array.
  std::vector<HVFileItemRef> list;
  // "lasttime" by the integer reading; 0 when missing.
  uint64_t lasttime = 0;
};

// std::nullopt when the text is not a valid JSON object.
std::optional<FileItemListing> readFileItemListing(std::string text);

// The reader is built once per instruction set. The copies this CPU can run,
// widest first; readFileItemListing uses the first. Lets the tests hold every
// copy to the same results, not only the one this machine would pick.
using FileItemListingReader = std::optional<FileItemListing> (*)(std::string text);
std::vector<FileItemListingReader> fileItemListingReaders();

}  // namespace hvfp

// Sample content for a fresh store, and the helpers that put a file or a
// folder at a path (shared with the ctl commands).
// Called from the controlling thread before the servers start, or from
// admin handlers; the Store and BlobStore do their own locking.
#pragma once

#include <string>
#include <string_view>

#include "Blobs.h"
#include "Store.h"

namespace hvfp::hostd {

// Fills an empty store with the named sample ("sample"). true when seeded,
// false when the store already held something.
Result<bool> seedStore(const std::string& name, Store& store, BlobStore& blobs);

// Puts `bytes` at `webpath` in the mount: a new file, or new contents of the
// file already there.
Result<Item> putFile(Store& store, BlobStore& blobs, int64_t mountId, std::string_view webpath,
                     std::string_view bytes, uint64_t time);
// Same for contents already in the blob store.
Result<Item> placeBlob(Store& store, int64_t mountId, std::string_view webpath,
                       std::string_view sha1, uint64_t size, uint64_t time);

}  // namespace hvfp::hostd

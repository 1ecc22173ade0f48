// The error codes of the host's replies. Every refusal the host sends to a
// client carries an HTTP-like status, one of these codes and a text: a
// hvfp::Failure (platform/Result.h). Plain values; any thread.
#pragma once

#include "platform/Result.h"

namespace hvfp::hostd {

using hvfp::fail;
using hvfp::Failure;
using hvfp::Result;

// Error codes of the host's replies. Stable numbers: clients match on them.
enum ErrorCode : int {
  kBadRequest = 1,       // missing key, wrong type, unknown type
  kNotFound = 2,         // no such item, mount, session reservation
  kNameTaken = 3,        // a live item with that name exists in the folder
  kBadName = 4,          // empty, ".", "..", contains "/" or NUL, too long
  kAlreadyGone = 5,      // deletion of an item already in the trash: the deletion is done
  kRootRefused = 6,      // mount roots cannot be trashed, renamed or moved
  kIntoItself = 7,       // a folder moved into itself or a descendant
  kCrossMount = 8,       // moves between mounts are refused
  kNotFolder = 9,        // parent is a file, or download of a folder
  kNotInTrash = 10,      // restore of a live item
  kHashMismatch = 11,    // contents do not match the announced SHA-1 or size
  kStorage = 12,         // disk or database failure
  kSessionUnknown = 13,  // upload session unknown or expired
  kServerDown = 14,      // the named upload server is not running
  kIncomplete = 15,      // close of a session that has not received every byte
  kInjected = 99,        // a fault injected through ctl without a code of its own
};

}  // namespace hvfp::hostd

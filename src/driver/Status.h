// What a running mount tells `halvofp status`: where it is mounted, what it
// moves right now, which uploads wait, and how full its cache is. Plain
// records, their JSON text and the reading of that text back. The keys are
// a stable interface for scripts:
//
//   {"mountpoint": text, "domain": text, "pid": n,
//    "host": the host app's query server ("http://127.0.0.1:24753") or null,
//    "transfers": [{"name", "direction": "download"|"upload", "bytes",
//                   "total" (null until known), "rate" (bytes/s)}],
//    "pending": [{"name", "size", "state": "waiting"|"sending"|"failed",
//                 "failures", "next_attempt" (seconds since 1970, or null),
//                 "error" (text or null)}],
//    "cache": {"bytes", "limit", "copies"}}
//
// Texts are written as valid UTF-8 (a byte that is not becomes U+FFFD), so
// a name the kernel allowed cannot make the document unreadable. Pure
// functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver/Transfers.h"
#include "platform/Result.h"

namespace hvfp::driver {

struct PendingStatus {
  enum class State { Waiting, Sending, Failed };
  std::string name;
  uint64_t size = 0;
  State state = State::Waiting;
  uint64_t failures = 0;               // attempts failed in a row
  std::optional<int64_t> nextAttempt;  // seconds since 1970, after a failure
  std::optional<std::string> error;    // the last attempt's failure, if known
  bool operator==(const PendingStatus&) const = default;
};

struct CacheStatus {
  uint64_t bytes = 0;
  uint64_t limit = 0;
  uint64_t copies = 0;
  bool operator==(const CacheStatus&) const = default;
};

// The folder's own part of the report.
struct FolderStatus {
  std::vector<TransferStatus> transfers;
  std::vector<PendingStatus> pending;
  CacheStatus cache;
};

struct Status {
  std::string mountpoint;
  std::string domain;
  std::optional<std::string> host;  // the host app's query server, when known
  int64_t pid = 0;
  FolderStatus folder;
};

// One line of compact JSON, no newline.
std::string statusJson(const Status& status);
// The text statusJson wrote (or a later mount's, with keys added). Keys
// that are missing or of the wrong kind read as empty or zero; a text that
// is not a JSON object, or has no "mountpoint", is a failure.
Result<Status> readStatus(std::string_view text);

const char* directionName(Direction direction);
const char* stateName(PendingStatus::State state);
// `text` with every byte that is not part of a valid UTF-8 sequence
// replaced by U+FFFD.
std::string validUtf8(std::string_view text);

}  // namespace hvfp::driver

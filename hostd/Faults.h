// Fault injection: scripted misbehaviour for the next N replies of one
// target, or for every reply until cleared. A target is a query type
// ("files", "uploadinit", ...), "blob" for the download server's GET
// /blob/<sha1>, "piece" for every upload server's PUT /upload_part, or
// "piece@PORT" for the upload server on that port only (taken first).
//
// FaultTable is owned by the Host and shared by every server; all methods
// lock an internal mutex, so any thread may arm or take faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ThreadAnnotations.h"

namespace hvfp::hostd {

enum class FaultKind {
  Status,     // a JSON reply {"status_code":S,"error_code":E,"error_msg":M}
  Body,       // the given body, verbatim
  NotJson,    // a body that does not parse as JSON
  Delay,      // wait, then answer normally
  Drop,       // close the connection without a complete reply
  Expect409,  // piece: 409 {"error_code":40900,"expect":N} (N defaults to the session offset)
  Done202,    // piece: 202, as if the server already held the whole file
  Reset,      // piece: reset the connection before any reply
  Cut,        // the body stops after `after` bytes and the connection closes: a reply
              // announces its full length; a piece is read that far
  Slow,       // the body moves `chunk` bytes at a time with `delayMs` pauses: a reply is
              // dribbled out, a piece is read that slowly
};

struct Fault {
  FaultKind kind = FaultKind::Status;
  int status = 500;
  int errorCode = 0;
  std::string message;
  std::string body;
  int delayMs = 0;  // before the reply; for Slow, before each step
  int64_t expect = -1;
  uint64_t after = 0;   // Cut: body bytes that pass
  size_t chunk = 4096;  // Slow: bytes per step
};

std::optional<FaultKind> faultKindFromName(std::string_view name);
std::string_view faultKindName(FaultKind kind);

// How a reply's body moves when a Cut or Slow fault is armed; plain otherwise.
struct BodyShape {
  std::optional<uint64_t> cutAfter;  // only this many body bytes, then the connection closes
  size_t step = 0;                   // > 0: at most this many bytes per write...
  int pauseMs = 0;                   // ...each after this pause

  static BodyShape of(const Fault& fault);
  bool plain() const { return !cutAfter && step == 0; }
};

class FaultTable {
 public:
  // A negative count arms the fault until clear().
  void arm(const std::string& target, const Fault& fault, int count);
  // The fault for the next reply of `target`, consuming one use.
  std::optional<Fault> take(std::string_view target);
  void clear();
  // Remaining uses per target, -1 for "until cleared"; for `ctl status`.
  std::vector<std::pair<std::string, int>> pending();

 private:
  struct Armed {
    std::deque<Fault> next;
    std::optional<Fault> always;  // once `next` is used up
  };
  Mutex mutex_;
  std::map<std::string, Armed, std::less<>> armed_ GUARDED_BY(mutex_);
};

}  // namespace hvfp::hostd

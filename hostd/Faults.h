// Fault injection: scripted misbehaviour for the next N replies of one
// target. A target is a query type ("files", "uploadinit", ...) or "piece"
// for the upload servers' PUT /upload_part.
//
// FaultTable is owned by the Host and shared by every server; all methods
// lock an internal mutex, so any thread may arm or take faults.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
};

struct Fault {
  FaultKind kind = FaultKind::Status;
  int status = 500;
  int errorCode = 0;
  std::string message;
  std::string body;
  int delayMs = 0;
  int64_t expect = -1;
};

std::optional<FaultKind> faultKindFromName(std::string_view name);
std::string_view faultKindName(FaultKind kind);

class FaultTable {
 public:
  void arm(const std::string& target, const Fault& fault, int count);
  // The fault for the next reply of `target`, consuming one use.
  std::optional<Fault> take(std::string_view target);
  void clear();
  // Remaining uses per target, for `ctl faults`.
  std::vector<std::pair<std::string, int>> pending();

 private:
  std::mutex mutex_;
  std::map<std::string, std::deque<Fault>, std::less<>> armed_;
};

}  // namespace hvfp::hostd

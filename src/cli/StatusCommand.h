// `halvofp status [DIR]`: what running mounts are doing, asked of each
// mount over the status socket in its domain's cache folder.
//
// Without DIR every mount of the user that answers is shown; with DIR, the
// mount whose mount point is DIR (its real path) or holds it. Plain output
// is a short table per mount for people (sizes human-readable, names made
// safe for a terminal); with `json`, one line of JSON per mount, the keys
// of driver/Status.h. Exit 1 with one line on `err` when no mount answers
// or DIR is not in one.
//
// Called from main()'s thread; each socket is asked with a bounded wait.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

namespace hvfp::cli {

struct StatusOptions {
  std::optional<std::string> dir;
  bool json = false;
};

int status(const StatusOptions& options, std::ostream& out, std::ostream& err);

}  // namespace hvfp::cli

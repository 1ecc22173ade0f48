// Buffers for large host replies, kept for reuse. A big folder listing is a
// reply of tens of megabytes; receiving it into pages already mapped costs
// a fraction of faulting in fresh ones each time. The listing reader hands
// the reply text back when its records are gone; the next large reply takes
// it. Small replies never come here. At most kLimit bytes are kept. Any
// thread.
#pragma once

#include <cstddef>
#include <string>

namespace hvfp {

class ReplyBuffers {
 public:
  static constexpr size_t kSmallest = size_t{1} << 20;
  static constexpr size_t kLimit = size_t{64} << 20;

  // An empty string whose capacity is at least `capacity` when a kept one
  // fits; otherwise a new empty string with that capacity reserved.
  static std::string take(size_t capacity);
  // Keeps the buffer's memory for a later take(), if it is large and there
  // is room; frees it otherwise.
  static void give(std::string&& buffer);

  // Whether memory for large replies is kept for reuse at all: these
  // buffers, and the listing reader's parser and record chunks. On by
  // default: a console command or a benchmark lists again at once. A mount
  // lives for days and lists a big folder now and then, so it turns this
  // off; what was kept is freed.
  static void setKeeping(bool keep);
  static bool keeping();
};

}  // namespace hvfp

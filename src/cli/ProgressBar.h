// How the console shows a running transfer: a bar redrawn in place when
// stderr is a terminal (bytes so far, rate, time left), or one plain line
// now and then when it is not (a log, a pipe), so a long transfer still
// shows signs of life without flooding the file.
//
// A ProgressBar writes to the stream it is given, which must outlive it.
// Used from one thread: the console's, which polls the progress object and
// hands the counts to update().
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace hvfp::cli {

// One progress report: "LABEL [#####-----]  45%  1.2 MiB / 2.6 MiB  3.4 MiB/s  0:03 left".
// `total` below 0 is unknown (no bar, no percentage, no time left); a rate
// of 0 leaves the time left out. `barWidth` 0 leaves the bar out.
std::string progressLine(std::string_view label, uint64_t done, int64_t total,
                         double bytesPerSecond, int barWidth);
// 75 -> "1:15", 3725 -> "1:02:05".
std::string clockText(uint64_t seconds);

class ProgressBar {
 public:
  using Clock = std::chrono::steady_clock;

  // `terminal`: redraw in place; else a plain line every `plainEvery`.
  ProgressBar(std::ostream& err, bool terminal, std::string label,
              Clock::duration plainEvery = std::chrono::seconds(5));
  ~ProgressBar();

  void update(int64_t done, int64_t total);
  // Takes the bar off the terminal line, so what follows starts clean.
  void clear();

 private:
  double rate(Clock::time_point now, uint64_t done);

  std::ostream& err_;
  const bool terminal_;
  const std::string label_;
  const Clock::duration plainEvery_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point lastDrawn_{};
  bool drawn_ = false;
  // Recent (time, bytes) samples: the rate is taken over the last seconds,
  // so it follows a transfer that speeds up or stalls.
  std::deque<std::pair<Clock::time_point, uint64_t>> samples_;
};

}  // namespace hvfp::cli

#include "cli/ProgressBar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ostream>

#include "cli/ItemFormat.h"

namespace hvfp::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kRedrawEvery = 100ms;
constexpr auto kRateWindow = 3s;

int terminalColumns() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

std::string clockText(uint64_t seconds) {
  char buf[48];
  if (seconds >= 3600)
    std::snprintf(buf, sizeof buf, "%llu:%02llu:%02llu",
                  static_cast<unsigned long long>(seconds / 3600),
                  static_cast<unsigned long long>(seconds / 60 % 60),
                  static_cast<unsigned long long>(seconds % 60));
  else
    std::snprintf(buf, sizeof buf, "%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
                  static_cast<unsigned long long>(seconds % 60));
  return buf;
}

std::string progressLine(std::string_view label, uint64_t done, int64_t total,
                         double bytesPerSecond, int barWidth) {
  std::string line(label);
  const bool known = total >= 0;
  const uint64_t whole = known ? static_cast<uint64_t>(total) : 0;
  // Counts from a task can run past the total it first named.
  const double fraction = !known       ? 0
                          : whole == 0 ? 1
                                       : std::min(1.0, static_cast<double>(done) / whole);
  if (known && barWidth > 0) {
    const int filled = static_cast<int>(fraction * barWidth);
    line += "  [" + std::string(filled, '#') + std::string(barWidth - filled, '-') + "]";
  }
  if (known) {
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
    line += std::string("  ") + percent + "  " + humanSize(done) + " / " + humanSize(whole);
  } else {
    line += "  " + humanSize(done);
  }
  if (bytesPerSecond > 0) {
    line += "  " + humanSize(static_cast<uint64_t>(bytesPerSecond)) + "/s";
    if (known && done < whole)
      line += "  " + clockText(static_cast<uint64_t>(std::ceil((whole - done) / bytesPerSecond))) +
              " left";
  }
  return line;
}

ProgressBar::ProgressBar(std::ostream& err, bool terminal, std::string label,
                         Clock::duration plainEvery)
    : err_(err), terminal_(terminal), label_(std::move(label)), plainEvery_(plainEvery) {}

ProgressBar::~ProgressBar() { clear(); }

double ProgressBar::rate(Clock::time_point now, uint64_t done) {
  if (!samples_.empty() && done < samples_.back().second) samples_.clear();
  samples_.emplace_back(now, done);
  while (samples_.size() > 2 && now - samples_[1].first >= kRateWindow) samples_.pop_front();
  const auto span = std::chrono::duration<double>(now - samples_.front().first).count();
  if (span < 0.2) return 0;
  return static_cast<double>(done - samples_.front().second) / span;
}

void ProgressBar::update(int64_t done, int64_t total) {
  const auto now = Clock::now();
  const uint64_t bytes = done > 0 ? static_cast<uint64_t>(done) : 0;
  const double perSecond = rate(now, bytes);
  if (terminal_) {
    if (drawn_ && now - lastDrawn_ < kRedrawEvery) return;
    const int columns = terminalColumns();
    std::string label = label_;
    if (label.size() > 32) label = "..." + label.substr(label.size() - 29);
    // The bar takes the room the numbers leave on the line, measured at
    // their widest so the bar keeps its length as they change.
    const uint64_t widest = std::max<uint64_t>(bytes, total > 0 ? total : 0);
    const int rest = static_cast<int>(progressLine(label, widest, total, 0, 0).size() +
                                      std::string_view("  [] 1023 KiB/s  59:59 left").size());
    const int room = columns - 1 - rest;
    std::string line =
        progressLine(label, bytes, total, perSecond, room < 5 ? 0 : std::min(room, 30));
    if (line.size() >= static_cast<size_t>(columns)) line.resize(columns - 1);
    err_ << '\r' << line << "\x1b[K" << std::flush;
  } else {
    if (now - (drawn_ ? lastDrawn_ : start_) < plainEvery_) return;
    err_ << progressLine(label_, bytes, total, perSecond, 0) << '\n' << std::flush;
  }
  drawn_ = true;
  lastDrawn_ = now;
}

void ProgressBar::clear() {
  if (terminal_ && drawn_) err_ << "\r\x1b[K" << std::flush;
  drawn_ = false;
}

}  // namespace hvfp::cli

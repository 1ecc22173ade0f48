// log(): the system log stand-in. One line per call, no levels.
//
// Lines go to stderr by default, to syslog when the process runs in the
// background, or to a capture buffer in tests. Safe from any thread; each line
// is written whole and in order. Stderr and syslog lines are written by a
// background thread, which is joined at exit once they are out; flushLog()
// waits until they are out.
#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hvfp {

enum class LogSink { Stderr, Syslog, Capture, Silent };

void setLogSink(LogSink sink);
// Lines collected while the sink is Capture; takes them out.
std::vector<std::string> takeCapturedLog();

void logLine(std::string_view line);
void flushLog();
// False while the sink is Silent: a caller that builds a costly line (one
// per item of a large listing) can skip building it.
bool logEnabled();

template <typename... Args>
void log(fmt::format_string<Args...> format, Args&&... args) {
  logLine(fmt::format(format, std::forward<Args>(args)...));
}

// The platform prints an absent object as "(null)".
inline constexpr std::string_view kNullText = "(null)";
inline std::string_view orNull(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : kNullText;
}

}  // namespace hvfp

#include "platform/Log.h"

#include <syslog.h>

#include <cstdio>
#include <mutex>
#include <utility>

namespace hvfp {
namespace {

std::mutex gMutex;
LogSink gSink = LogSink::Stderr;
std::vector<std::string> gCaptured;
std::function<void(std::string_view)> gCallback;

}  // namespace

void setLogSink(LogSink sink) {
  std::lock_guard lock(gMutex);
  if (sink == LogSink::Syslog && gSink != LogSink::Syslog) openlog("halvofp", LOG_PID, LOG_USER);
  gSink = sink;
}

void setLogCallback(std::function<void(std::string_view line)> callback) {
  std::lock_guard lock(gMutex);
  gCallback = std::move(callback);
}

std::vector<std::string> takeCapturedLog() {
  std::lock_guard lock(gMutex);
  return std::exchange(gCaptured, {});
}

void logLine(std::string_view line) {
  std::lock_guard lock(gMutex);
  switch (gSink) {
    case LogSink::Stderr:
      std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
      break;
    case LogSink::Syslog:
      syslog(LOG_NOTICE, "%.*s", static_cast<int>(line.size()), line.data());
      break;
    case LogSink::Capture:
      gCaptured.emplace_back(line);
      break;
    case LogSink::Callback:
      if (gCallback) gCallback(line);
      break;
    case LogSink::Silent:
      break;
  }
}

}  // namespace hvfp

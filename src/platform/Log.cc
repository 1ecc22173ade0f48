#include "platform/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/ThreadAnnotations.h"

namespace hvfp {
namespace {

// Lines bound for stderr or syslog are handed to one writer thread, so a
// caller that logs a line per item of a large folder pays for formatting
// and a copy, not a system call per line. Callers wait only when the
// writer falls this far behind.
constexpr size_t kMaxPending = size_t{8} << 20;

struct LogState {
  Mutex mutex;
  std::condition_variable_any wake;     // the writer: lines are pending, or stop
  std::condition_variable_any drained;  // callers: the writer caught up
  LogSink sink GUARDED_BY(mutex) = LogSink::Stderr;
  std::string pending GUARDED_BY(mutex);  // newline-terminated lines
  std::string spare GUARDED_BY(mutex);    // the writer's last buffer, kept for its capacity
  bool writing GUARDED_BY(mutex) = false;
  // Gone at exit, once the writer has written everything and ended: later
  // lines are written inline.
  enum class Writer {
    NotStarted,
    Running,
    Stopping,
    Gone
  } writer GUARDED_BY(mutex) = Writer::NotStarted;
  std::vector<std::string> captured GUARDED_BY(mutex);
};

// Mirrors `sink != Silent`, read without the lock on every costly line.
std::atomic<bool> gEnabled{true};

LogState& state() {
  static auto* s = new LogState;  // outlives static destruction: late lines still log
  return *s;
}

void writeOut(LogSink sink, std::string_view lines) {
  if (sink == LogSink::Syslog) {
    size_t start = 0;
    while (start < lines.size()) {
      size_t end = lines.find('\n', start);
      syslog(LOG_NOTICE, "%.*s", static_cast<int>(end - start), lines.data() + start);
      start = end + 1;
    }
    return;
  }
  size_t done = 0;
  while (done < lines.size()) {
    ssize_t n = ::write(STDERR_FILENO, lines.data() + done, lines.size() - done);
    if (n <= 0) return;  // nowhere to write: drop rather than spin
    done += static_cast<size_t>(n);
  }
}

void writerLoop() {
  LogState& s = state();
  MutexLock lock(s.mutex);
  for (;;) {
    s.wake.wait(lock, [&]() REQUIRES(s.mutex) {
      return !s.pending.empty() || s.writer == LogState::Writer::Stopping;
    });
    if (s.pending.empty()) return;  // stopping, with everything written
    std::string lines = std::exchange(s.pending, std::move(s.spare));
    s.pending.clear();
    LogSink sink = s.sink;
    s.writing = true;
    lock.unlock();
    writeOut(sink, lines);
    lock.lock();
    if (lines.capacity() <= kMaxPending) s.spare = std::move(lines);
    s.writing = false;
    s.drained.notify_all();
    // A short pause lets a burst of lines gather into one write.
    if (s.pending.size() < 64 * 1024 && s.writer == LogState::Writer::Running) {
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      lock.lock();
    }
  }
}

// Owns the writer thread: made with the first line for stderr or syslog;
// at exit the writer writes what is pending and is joined.
class WriterThread {
 public:
  WriterThread() : thread_(writerLoop) {}
  ~WriterThread() {
    LogState& s = state();
    {
      MutexLock lock(s.mutex);
      s.writer = LogState::Writer::Stopping;
    }
    s.wake.notify_one();
    thread_.join();
    MutexLock lock(s.mutex);
    s.writer = LogState::Writer::Gone;
    // Lines logged while the writer was ending.
    writeOut(s.sink, std::exchange(s.pending, {}));
    s.drained.notify_all();
  }

 private:
  std::thread thread_;
};

void flushLocked(LogState& s, MutexLock& lock) REQUIRES(s.mutex) {
  s.drained.wait(lock, [&]() REQUIRES(s.mutex) { return s.pending.empty() && !s.writing; });
}

}  // namespace

void setLogSink(LogSink sink) {
  LogState& s = state();
  MutexLock lock(s.mutex);
  flushLocked(s, lock);
  if (sink == LogSink::Syslog && s.sink != LogSink::Syslog) openlog("halvofp", LOG_PID, LOG_USER);
  s.sink = sink;
  gEnabled.store(sink != LogSink::Silent);
}

bool logEnabled() { return gEnabled.load(std::memory_order_relaxed); }

std::vector<std::string> takeCapturedLog() {
  LogState& s = state();
  MutexLock lock(s.mutex);
  return std::exchange(s.captured, {});
}

void flushLog() {
  LogState& s = state();
  MutexLock lock(s.mutex);
  flushLocked(s, lock);
}

// Texts from the host end up in log lines; a line break or NUL in them must
// not split one call into several entries or cut an entry short.
std::string_view oneLine(std::string_view line, std::string& scratch) {
  if (line.empty()) return line;
  auto has = [&](char c) { return std::memchr(line.data(), c, line.size()) != nullptr; };
  if (!has('\n') && !has('\r') && !has('\0')) return line;
  scratch.clear();
  for (char c : line) {
    if (c == '\n')
      scratch += "\\n";
    else if (c == '\r')
      scratch += "\\r";
    else if (c == '\0')
      scratch += "\\0";
    else
      scratch.push_back(c);
  }
  return scratch;
}

void logLine(std::string_view raw) {
  std::string scratch;
  std::string_view line = oneLine(raw, scratch);
  LogState& s = state();
  MutexLock lock(s.mutex);
  switch (s.sink) {
    case LogSink::Stderr:
    case LogSink::Syslog:
      if (s.writer == LogState::Writer::Gone) {
        writeOut(s.sink, std::string(line) + '\n');
        break;
      }
      if (s.writer == LogState::Writer::NotStarted) {
        s.writer = LogState::Writer::Running;
        static WriterThread writer;
      }
      s.drained.wait(lock, [&]() REQUIRES(s.mutex) { return s.pending.size() < kMaxPending; });
      // Only the first line of a batch wakes the writer; it takes the whole
      // batch at once.
      if (s.pending.empty()) s.wake.notify_one();
      s.pending.append(line).push_back('\n');
      break;
    case LogSink::Capture:
      s.captured.emplace_back(line);
      break;
    case LogSink::Silent:
      break;
  }
}

}  // namespace hvfp

// Small helpers shared by the benchmark programs: timing a callable over
// alternating rounds, reading the process's peak memory, keeping the
// product's log off the terminal.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace hvfp::bench {

// Median seconds of `rounds` runs of `fn`.
template <typename Fn>
double medianSeconds(int rounds, Fn&& fn) {
  std::vector<double> t;
  for (int i = 0; i < rounds; ++i) {
    auto start = std::chrono::steady_clock::now();
    fn();
    t.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}

inline long statusKiB(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  size_t n = std::strlen(field);
  while (std::getline(in, line))
    if (line.compare(0, n, field) == 0) return std::stol(line.substr(n + 1));
  return -1;
}

// Resets the peak to the current resident size, so the next reading of
// peakKiB() covers only what runs in between.
inline void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
inline long residentKiB() { return statusKiB("VmRSS"); }
inline long peakKiB() { return statusKiB("VmHWM"); }

// The product logs as it works (a line per item of a listing, written to
// stderr by the log's writer thread). A benchmark pays for those lines as
// the product does, but they go to /dev/null, not to the terminal. Returns a
// stream on the original stderr for the benchmark's own complaints; call it
// once, after the benchmark library has read its flags.
inline FILE* sendStderrToDevNull() {
  std::fflush(stderr);
  const int saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved < 0 || null < 0 || ::dup2(null, STDERR_FILENO) < 0) {
    if (saved >= 0) ::close(saved);
    if (null >= 0) ::close(null);
    return stderr;
  }
  ::close(null);
  FILE* complaints = ::fdopen(saved, "w");
  return complaints ? complaints : stderr;
}

inline void printRatio(const char* name, double value) {
  std::printf("ratio %s %.3f\n", name, value);
}
inline void printMetric(const char* name, double value) {
  std::printf("metric %s %.3f\n", name, value);
}

}  // namespace hvfp::bench

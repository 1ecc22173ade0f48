// Small helpers shared by the benchmark programs: timing a callable over
// alternating rounds, and reading the process's peak memory.
#pragma once

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

inline void printRatio(const char* name, double value) {
  std::printf("ratio %s %.3f\n", name, value);
}
inline void printMetric(const char* name, double value) {
  std::printf("metric %s %.3f\n", name, value);
}

}  // namespace hvfp::bench

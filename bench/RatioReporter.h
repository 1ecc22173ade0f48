// Keeps Google Benchmark's console table and sums each benchmark's wall time
// per function name, so a program can print "ratio <name> <ours/reference>"
// from the means after RunSpecifiedBenchmarks returns.
//
// Threads: Google Benchmark calls the reporter from the thread that runs
// RunSpecifiedBenchmarks; read the means from that thread once it has returned.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace hvfp::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Colour codes in a pipe would land in front of the ratio line that scripts parse.
  RatioReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      auto& total = totals_[run.run_name.function_name];
      total.seconds += run.real_accumulated_time;
      total.iterations += static_cast<double>(run.iterations);
    }
  }

  std::optional<double> meanSeconds(const std::string& name) const {
    auto it = totals_.find(name);
    if (it == totals_.end() || it->second.iterations == 0) return std::nullopt;
    return it->second.seconds / it->second.iterations;
  }

 private:
  struct Total {
    double seconds = 0;
    double iterations = 0;
  };
  std::map<std::string, Total> totals_;
};

}  // namespace hvfp::bench

// Keeps Google Benchmark's console table and each round's wall time per
// function name, so a program can print "ratio <name> <ours/reference>" from
// the median rounds after RunSpecifiedBenchmarks returns. The median, not the
// mean: on a 2-core machine one disturbed round would otherwise decide.
//
// Threads: Google Benchmark calls the reporter from the thread that runs
// RunSpecifiedBenchmarks; read the means from that thread once it has returned.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
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
      if (run.iterations == 0) continue;
      rounds_[run.run_name.function_name].push_back(run.real_accumulated_time /
                                                    static_cast<double>(run.iterations));
    }
  }

  // Seconds per iteration of the median round.
  std::optional<double> medianSeconds(const std::string& name) const {
    auto it = rounds_.find(name);
    if (it == rounds_.end() || it->second.empty()) return std::nullopt;
    std::vector<double> sorted = it->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> rounds_;
};

}  // namespace hvfp::bench

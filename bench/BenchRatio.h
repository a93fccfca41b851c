// A console reporter that also keeps each benchmark's CPU time per iteration, so that a
// benchmark program can print ratios against a baseline measured in the same run (CPU
// time, since benchmarks often share the machine with builds).
#ifndef EM_BENCH_BENCHRATIO_H
#define EM_BENCH_BENCHRATIO_H

#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal, so that saved output stays plain text.
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    // With repetitions the median stands for the run; without, the single iteration run.
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Iteration)
        nanoseconds_.emplace(run.run_name.str(), run.GetAdjustedCPUTime());
      else if (run.aggregate_name == "median")
        nanoseconds_[run.run_name.str()] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // CPU time per iteration of the named benchmark; 0 when it did not run.
  double Get(const std::string& name) const {
    const auto it = nanoseconds_.find(name);
    return it == nanoseconds_.end() ? 0 : it->second;
  }

  // Prints "CPU time ratio <label>: <numerator / denominator>" when both ran.
  void PrintRatio(const char* label, const std::string& numerator,
                  const std::string& denominator) const {
    const double num = Get(numerator);
    const double den = Get(denominator);
    if (num > 0 && den > 0) std::printf("CPU time ratio %s: %.2f\n", label, num / den);
  }

 private:
  std::map<std::string, double> nanoseconds_;
};

#endif  // EM_BENCH_BENCHRATIO_H

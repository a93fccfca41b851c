// Console output that also keeps each benchmark's CPU time per iteration, so that a
// benchmark can print ratios of runs measured in the same process (CPU time, since
// benchmarks often share the machine with builds).
#ifndef EM_BENCH_BENCHRATIOREPORTER_H
#define EM_BENCH_BENCHRATIOREPORTER_H

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

class BenchRatioReporter : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal, so that saved output stays plain text.
  BenchRatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

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

  // CPU time per iteration of the named run, in the benchmark's time unit; 0 when it did
  // not run or failed.
  double Get(const std::string& name) const {
    const auto it = nanoseconds_.find(name);
    return it == nanoseconds_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> nanoseconds_;
};

#endif  // EM_BENCH_BENCHRATIOREPORTER_H

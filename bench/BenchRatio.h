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

#include "trace/DebugClient.h"

namespace em_oidmap {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal, so that saved output stays plain text.
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    // With repetitions the median stands for the run; without, the single iteration run.
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // Kept in nanoseconds whatever unit the benchmark reports in.
      const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      const Times times{run.GetAdjustedCPUTime() * toNs, run.GetAdjustedRealTime() * toNs};
      if (run.run_type == Run::RT_Iteration)
        nanoseconds_.emplace(run.run_name.str(), times);
      else if (run.aggregate_name == "median")
        nanoseconds_[run.run_name.str()] = times;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // CPU time per iteration of the named benchmark in nanoseconds; 0 when it did not run.
  double Get(const std::string& name) const {
    const auto it = nanoseconds_.find(name);
    return it == nanoseconds_.end() ? 0 : it->second.cpu;
  }

  // Wall time per iteration in nanoseconds, for benchmarks that wait or sleep; 0 when it
  // did not run.
  double GetRealTime(const std::string& name) const {
    const auto it = nanoseconds_.find(name);
    return it == nanoseconds_.end() ? 0 : it->second.real;
  }

  // Prints "CPU time ratio <label>: <numerator / denominator>" when both ran.
  void PrintRatio(const char* label, const std::string& numerator,
                  const std::string& denominator) const {
    const double num = Get(numerator);
    const double den = Get(denominator);
    if (num > 0 && den > 0) std::printf("CPU time ratio %s: %.2f\n", label, num / den);
  }

 private:
  struct Times {
    double cpu = 0;
    double real = 0;
  };
  std::map<std::string, Times> nanoseconds_;
};

// The main of a benchmark program: runs the benchmarks selected on the command line with
// tracing off (only the trace-active test stays on the path), then calls
// report(const RatioReporter&) after a blank line to print what follows from the times.
template <class Report>
int RunBenchmarks(int argc, char** argv, Report&& report) {
  TraceClient().SetTraceLevel(0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  report(static_cast<const RatioReporter&>(reporter));
  benchmark::Shutdown();
  return 0;
}

}  // namespace em_oidmap

#endif  // EM_BENCH_BENCHRATIO_H
